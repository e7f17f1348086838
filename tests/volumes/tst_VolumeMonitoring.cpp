// When the agent is told about volumes: at launch, after a burst of workspace notifications,
// and how a later trigger replaces the sync still waiting.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <memory>

using namespace std::chrono_literals;

namespace {

const QByteArray syncPath = "/api/mounted-volumes/cache-sync";

QString eventOf(const RecordedRequest &request)
{
    return QJsonDocument::fromJson(request.body).object().value(QStringLiteral("event")).toString();
}

} // namespace

class VolumeMonitoringTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void launchRegistersObserversAndSendsAppLaunch();
    void notificationBurstGivesOneSyncAfterTheLast();
    void laterTriggerReplacesTheWaitingOne_data();
    void laterTriggerReplacesTheWaitingOne();
    void removingMonitoringDropsTheWaitingSync();
    void configuringTwiceKeepsThreeRegistrations();

private:
    std::unique_ptr<AppDelegate> makeController(const FakeAgent &agent, std::chrono::milliseconds debounce = 1000ms);
    void addVolume(const QString &name) const { QVERIFY(QDir(env.volumesDir()).mkdir(name)); }
    // Arrival times of the sync requests, measured on clock.
    void recordArrivals(FakeAgent &agent);

    TestEnvironment env;
    FakePlatform fakes;
    ApplicationHost host;
    QElapsedTimer clock;
    QList<qint64> arrivals;
};

void VolumeMonitoringTest::init()
{
    QDir(env.volumesDir()).removeRecursively();
    QVERIFY(QDir().mkpath(env.volumesDir()));
    arrivals.clear();
    clock.start();
}

std::unique_ptr<AppDelegate> VolumeMonitoringTest::makeController(const FakeAgent &agent,
                                                                  std::chrono::milliseconds debounce)
{
    Configuration config = env.configuration(agent.baseURL());
    config.volumeSyncDebounce = debounce;
    return std::make_unique<AppDelegate>(std::move(config), fakes.services(), &host);
}

void VolumeMonitoringTest::recordArrivals(FakeAgent &agent)
{
    connect(&agent, &FakeAgent::requestReceived, this, [this](const RecordedRequest &request) {
        if (request.path == syncPath)
            arrivals.append(clock.elapsed());
    });
}

void VolumeMonitoringTest::launchRegistersObserversAndSendsAppLaunch()
{
    FakeAgent agent;
    agent.setHealthy();
    agent.setResponse(syncPath, {200, "{}"});
    addVolume(QStringLiteral("Disk"));
    AppDelegate delegate(env.configuration(agent.baseURL()), fakes.services(), &host);
    host.setDelegate(&delegate);
    // Even a snapshot the agent already has is sent at launch.
    delegate.lastMountedVolumeSyncSignature =
        QString::fromUtf8(volumeSnapshotSignature(delegate.currentMountedVolumesPayload()));

    delegate.applicationDidFinishLaunching();
    QCOMPARE(fakes.notifications->observerCount(), 3);
    QCOMPARE(delegate.mountedVolumeObserverTokens.size(), 3);

    QTRY_VERIFY(agent.countFor(syncPath) >= 1);
    const RecordedRequest first = agent.requestsFor(syncPath).constFirst();
    QCOMPARE(eventOf(first), QStringLiteral("app-launch"));
    QCOMPARE(QJsonDocument::fromJson(first.body).object().value(QStringLiteral("volumes")).toArray().size(), 1);

    delegate.applicationWillTerminate();
    QCOMPARE(fakes.notifications->observerCount(), 0);
    QVERIFY(delegate.mountedVolumeObserverTokens.isEmpty());
    QVERIFY(!delegate.mountedVolumeSyncDebounceWorkItem);
}

void VolumeMonitoringTest::notificationBurstGivesOneSyncAfterTheLast()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    recordArrivals(agent);
    auto delegate = makeController(agent);
    delegate->configureMountedVolumeMonitoring();
    QTRY_COMPARE(arrivals.size(), 1);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);

    // Three notifications 0.3 s apart, the volumes changing along the way.
    addVolume(QStringLiteral("Old"));
    fakes.notifications->post(WorkspaceNotification::didUnmount);
    QTest::qWait(300);
    addVolume(QStringLiteral("Renamed"));
    fakes.notifications->post(WorkspaceNotification::didRenameVolume);
    QTest::qWait(300);
    addVolume(QStringLiteral("New"));
    fakes.notifications->post(WorkspaceNotification::didMount);
    const qint64 lastNotification = clock.elapsed();

    QTRY_COMPARE_WITH_TIMEOUT(arrivals.size(), 2, 4000);
    const qint64 waited = arrivals.at(1) - lastNotification;
    QVERIFY2(waited >= 900 && waited <= 2000, QByteArray::number(waited).constData());
    QCOMPARE(eventOf(agent.requestsFor(syncPath).at(1)), WorkspaceNotification::didMount);

    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    // The slot keeps the item that ran and nothing else waits.
    QVERIFY(delegate->mountedVolumeSyncDebounceWorkItem);
    QVERIFY(delegate->mountedVolumeSyncDebounceWorkItem->hasRun());
    QVERIFY(!delegate->mountedVolumeSyncPending);
}

void VolumeMonitoringTest::laterTriggerReplacesTheWaitingOne_data()
{
    QTest::addColumn<QString>("firstReason");
    QTest::addColumn<bool>("firstForced");
    QTest::addColumn<QString>("secondReason");
    QTest::addColumn<bool>("secondForced");

    QTest::newRow("forced replaces a waiting unforced sync")
        << WorkspaceNotification::didMount << false << QStringLiteral("agent-running") << true;
    QTest::newRow("unforced replaces a forced sync that has not run yet")
        << QStringLiteral("agent-running") << true << WorkspaceNotification::didMount << false;
    QTest::newRow("unforced replaces a waiting unforced sync")
        << WorkspaceNotification::didUnmount << false << WorkspaceNotification::didMount << false;
}

void VolumeMonitoringTest::laterTriggerReplacesTheWaitingOne()
{
    QFETCH(QString, firstReason);
    QFETCH(bool, firstForced);
    QFETCH(QString, secondReason);
    QFETCH(bool, secondForced);

    constexpr auto debounce = 250ms;
    FakeAgent agent;
    // A refusing agent never accepts a snapshot, so any sync that runs reaches the wire.
    agent.setResponse(syncPath, {500, "{}"});
    recordArrivals(agent);
    auto delegate = makeController(agent, debounce);

    delegate->scheduleMountedVolumesSync(firstReason, firstForced);
    const qint64 scheduled = clock.elapsed();
    delegate->scheduleMountedVolumesSync(secondReason, secondForced);

    QTRY_COMPARE(arrivals.size(), 1);
    QCOMPARE(eventOf(agent.requestsFor(syncPath).constFirst()), secondReason);
    const qint64 waited = arrivals.constFirst() - scheduled;
    if (secondForced)
        QVERIFY2(waited < debounce.count() * 3 / 4, QByteArray::number(waited).constData());
    else
        QVERIFY2(waited >= debounce.count() * 9 / 10, QByteArray::number(waited).constData());

    // Long enough for the replaced item to have fired, had it not been cancelled.
    QTest::qWait(int(debounce.count()) + 300);
    QCOMPARE(arrivals.size(), 1);
}

void VolumeMonitoringTest::removingMonitoringDropsTheWaitingSync()
{
    constexpr auto debounce = 300ms;
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    recordArrivals(agent);
    auto delegate = makeController(agent, debounce);
    delegate->configureMountedVolumeMonitoring();
    QTRY_COMPARE(arrivals.size(), 1);

    addVolume(QStringLiteral("Disk"));
    fakes.notifications->post(WorkspaceNotification::didMount);
    QVERIFY(delegate->mountedVolumeSyncDebounceWorkItem);
    const auto waiting = delegate->mountedVolumeSyncDebounceWorkItem;
    delegate->removeMountedVolumeMonitoring();
    QVERIFY(waiting->isCancelled());
    QVERIFY(!delegate->mountedVolumeSyncDebounceWorkItem);
    QVERIFY(delegate->mountedVolumeObserverTokens.isEmpty());
    QCOMPARE(fakes.notifications->observerCount(), 0);

    // No longer listening either.
    fakes.notifications->post(WorkspaceNotification::didMount);
    QVERIFY(!delegate->mountedVolumeSyncDebounceWorkItem);

    QTest::qWait(int(debounce.count()) + 300);
    QCOMPARE(arrivals.size(), 1);
    QVERIFY(!waiting->hasRun());
}

void VolumeMonitoringTest::configuringTwiceKeepsThreeRegistrations()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {500, "{}"});
    recordArrivals(agent);
    auto delegate = makeController(agent, 50ms);
    delegate->configureMountedVolumeMonitoring();
    delegate->configureMountedVolumeMonitoring();
    QCOMPARE(fakes.notifications->observerCount(), 3);
    QCOMPARE(delegate->mountedVolumeObserverTokens.size(), 3);
    QTRY_COMPARE(arrivals.size(), 1);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);

    // Each registration passes its own notification name on as the event.
    const QStringList names = {WorkspaceNotification::didMount, WorkspaceNotification::didUnmount,
                               WorkspaceNotification::didRenameVolume};
    for (const QString &name : names) {
        fakes.notifications->post(name);
        QTRY_COMPARE(arrivals.size(), int(names.indexOf(name)) + 2);
        QCOMPARE(eventOf(agent.requestsFor(syncPath).constLast()), name);
        QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    }

    const auto lastItem = delegate->mountedVolumeSyncDebounceWorkItem;
    fakes.notifications->post(QStringLiteral("NSWorkspaceDidWakeNotification"));
    QCOMPARE(delegate->mountedVolumeSyncDebounceWorkItem, lastItem);
}

QTEST_MAIN(VolumeMonitoringTest)
#include "tst_VolumeMonitoring.moc"
