// Measures the snapshot of a mount folder with 10,000 entries (listing, snapshot, signature)
// and checks that a burst of 1,000 volume notifications within 0.5 s reaches the agent as one
// request. Run by hand: build/bench/bench_volumes
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

constexpr int folderEntries = 10000;
constexpr int snapshotRounds = 30;
constexpr int burstNotifications = 1000;
constexpr qint64 burstNanoseconds = 500'000'000;
const QByteArray syncPath = "/api/mounted-volumes/cache-sync";

double milliseconds(qint64 nanoseconds)
{
    return double(nanoseconds) / 1e6;
}

struct Figures {
    double median;
    double best;
};

Figures summarise(std::vector<qint64> samples)
{
    std::sort(samples.begin(), samples.end());
    return {milliseconds(samples[samples.size() / 2]), milliseconds(samples.front())};
}

bool fillFolder(const QString &folder)
{
    // Mixed case, white space, a few hidden entries and accented names, like a busy mount folder.
    for (int i = 0; i < folderEntries; ++i) {
        QString name = QStringLiteral("%1 Volume %2")
                           .arg(i % 3 ? QStringLiteral("Backup") : QStringLiteral("photos"))
                           .arg(i, 5, 10, QLatin1Char('0'));
        if (i % 100 == 0)
            name = QLatin1Char('.') + name;
        else if (i % 50 == 0)
            name = QStringLiteral(u"Caf\u00E9 ") + name;
        QFile file(folder + QLatin1Char('/') + name);
        if (!file.open(QIODevice::WriteOnly))
            return false;
    }
    return true;
}

int benchmarkSnapshot(const QString &folder)
{
    if (!fillFolder(folder)) {
        std::printf("could not create the folder entries\n");
        return 1;
    }
    std::vector<qint64> listing, snapshot, signature, total;
    qsizetype volumes = 0;
    for (int round = 0; round < snapshotRounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        const QStringList names = listVolumeFolder(folder);
        const qint64 listed = timer.nsecsElapsed();
        const QList<VolumeEntry> entries = volumeSnapshotFromListing(names);
        const qint64 built = timer.nsecsElapsed();
        const QByteArray text = volumeSnapshotSignature(entries);
        const qint64 signed_ = timer.nsecsElapsed();
        listing.push_back(listed);
        snapshot.push_back(built - listed);
        signature.push_back(signed_ - built);
        total.push_back(signed_);
        volumes = entries.size();
        if (text.isEmpty())
            return 1;
    }
    const Figures l = summarise(listing), s = summarise(snapshot), g = summarise(signature), t = summarise(total);
    std::printf("snapshot of %d entries (%lld volumes), %d rounds, median / best:\n", folderEntries,
                static_cast<long long>(volumes), snapshotRounds);
    std::printf("  listing    %7.2f ms / %7.2f ms\n", l.median, l.best);
    std::printf("  snapshot   %7.2f ms / %7.2f ms\n", s.median, s.best);
    std::printf("  signature  %7.2f ms / %7.2f ms\n", g.median, g.best);
    std::printf("  total      %7.2f ms / %7.2f ms  (target < 20 ms)\n", t.median, t.best);
    return t.median < 20.0 ? 0 : 1;
}

int benchmarkBurst(TestEnvironment &env)
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    QElapsedTimer clock;
    clock.start();
    QList<qint64> arrivals;
    QObject::connect(&agent, &FakeAgent::requestReceived, [&](const RecordedRequest &request) {
        if (request.path == syncPath)
            arrivals.append(clock.nsecsElapsed());
    });

    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(agent.baseURL()), fakes.services(), &host);
    delegate.configureMountedVolumeMonitoring();
    if (!QTest::qWaitFor([&] { return arrivals.size() == 1 && !delegate.mountedVolumeSyncInFlight; }, 5000)) {
        std::printf("app-launch sync did not arrive\n");
        return 1;
    }
    QDir(env.volumesDir()).mkdir(QStringLiteral("Freshly mounted"));

    // Spread the notifications evenly over the burst, letting the event loop run between them.
    const QStringList names = {WorkspaceNotification::didMount, WorkspaceNotification::didUnmount,
                               WorkspaceNotification::didRenameVolume};
    const qint64 start = clock.nsecsElapsed();
    qint64 lastPost = start;
    for (int i = 0; i < burstNotifications; ++i) {
        const qint64 due = start + burstNanoseconds * i / burstNotifications;
        while (clock.nsecsElapsed() < due)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        fakes.notifications->post(names[i % names.size()]);
        lastPost = clock.nsecsElapsed();
    }
    const qint64 burstLength = lastPost - start;
    // Well past the debounce: anything that was going to be sent has been.
    QTest::qWait(2500);

    const qsizetype requests = arrivals.size() - 1;
    std::printf("burst of %d notifications over %.1f ms: %lld request(s)", burstNotifications,
                milliseconds(burstLength), static_cast<long long>(requests));
    if (requests >= 1)
        std::printf(", first %.1f ms after the last notification", milliseconds(arrivals.at(1) - lastPost));
    std::printf(" (expected exactly 1)\n");
    return requests == 1 ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    TestEnvironment env; // keeps the log and every folder in a temporary place

    const QString folder = env.root() + QStringLiteral("/large-volume-folder");
    QDir().mkpath(folder);
    const int snapshotResult = benchmarkSnapshot(folder);
    const int burstResult = benchmarkBurst(env);
    return snapshotResult | burstResult;
}
