// The cache-sync request as the agent receives it, what an answer does to the accepted
// snapshot, and how requests asked for while one is outstanding are folded into one.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTest>

#include <memory>

namespace {

const QByteArray syncPath = "/api/mounted-volumes/cache-sync";

} // namespace

class VolumeSyncTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void requestCarriesTheSnapshotAsCompactJson();
    void answerDecidesWhetherTheSnapshotCounts_data();
    void answerDecidesWhetherTheSnapshotCounts();
    void forcedSyncIsSentWhenNothingChanged();
    void syncsAskedDuringARequestBecomeOneFollowUp_data();
    void syncsAskedDuringARequestBecomeOneFollowUp();
    void unreadableMountFolderPostsAnEmptyList();
    void bodyThatCannotBeWrittenIsLoggedNotSent();

private:
    std::unique_ptr<AppDelegate> makeController(const QUrl &agent,
                                                const std::function<void(Configuration &)> &adjust = {});
    void addVolume(const QString &name) const;
    static QJsonObject bodyOf(const RecordedRequest &request);
    static QStringList volumeNames(const QJsonObject &body);

    TestEnvironment env;
    FakePlatform fakes;
    ApplicationHost host;
};

void VolumeSyncTest::init()
{
    QDir(env.volumesDir()).removeRecursively();
    QVERIFY(QDir().mkpath(env.volumesDir()));
    env.markLog();
}

std::unique_ptr<AppDelegate> VolumeSyncTest::makeController(const QUrl &agent,
                                                            const std::function<void(Configuration &)> &adjust)
{
    Configuration config = env.configuration(agent);
    if (adjust)
        adjust(config);
    return std::make_unique<AppDelegate>(std::move(config), fakes.services(), &host);
}

void VolumeSyncTest::addVolume(const QString &name) const
{
    QVERIFY(QDir(env.volumesDir()).mkdir(name));
}

QJsonObject VolumeSyncTest::bodyOf(const RecordedRequest &request)
{
    return QJsonDocument::fromJson(request.body).object();
}

QStringList VolumeSyncTest::volumeNames(const QJsonObject &body)
{
    QStringList names;
    for (const QJsonValue &volume : body.value(QStringLiteral("volumes")).toArray())
        names.append(volume.toObject().value(QStringLiteral("name")).toString());
    return names;
}

void VolumeSyncTest::requestCarriesTheSnapshotAsCompactJson()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    addVolume(QStringLiteral("Beta"));
    addVolume(QStringLiteral("alpha"));
    addVolume(QStringLiteral(".Spotlight"));
    auto delegate = makeController(agent.baseURL());

    delegate->syncMountedVolumesCache(QStringLiteral("app-launch"), true);
    QTRY_COMPARE(agent.countFor(syncPath), 1);

    const RecordedRequest request = agent.requestsFor(syncPath).constFirst();
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
    QCOMPARE(request.body, QByteArray("{\"event\":\"app-launch\",\"source\":\"menu-app\",\"volumes\":["
                                      "{\"isMounted\":true,\"name\":\"alpha\",\"path\":\"/Volumes/alpha\"},"
                                      "{\"isMounted\":true,\"name\":\"Beta\",\"path\":\"/Volumes/Beta\"}]}"));

    // Beyond Content-Type only what the HTTP stack itself sends: framing and negotiation.
    const QSet<QByteArray> transportHeaders = {
        "host", "content-length", "connection", "accept-encoding", "accept-language", "user-agent"};
    for (const auto &[name, value] : request.headers) {
        if (name.toLower() != "content-type")
            QVERIFY2(transportHeaders.contains(name.toLower()), (name + ": " + value).constData());
    }
}

void VolumeSyncTest::answerDecidesWhetherTheSnapshotCounts_data()
{
    QTest::addColumn<QString>("answer");  // an HTTP status, "refused" or "silent"
    QTest::addColumn<QString>("logLine"); // empty: nothing logged
    QTest::addColumn<bool>("accepted");

    QTest::newRow("200") << QStringLiteral("200") << QString() << true;
    QTest::newRow("204 without body") << QStringLiteral("204") << QString() << true;
    QTest::newRow("400") << QStringLiteral("400")
                         << QStringLiteral("Mounted volume sync request failed with status 400.") << false;
    QTest::newRow("404") << QStringLiteral("404")
                         << QStringLiteral("Mounted volume sync request failed with status 404.") << false;
    QTest::newRow("500") << QStringLiteral("500")
                         << QStringLiteral("Mounted volume sync request failed with status 500.") << false;
    QTest::newRow("503") << QStringLiteral("503")
                         << QStringLiteral("Mounted volume sync request failed with status 503.") << false;
    QTest::newRow("agent not listening") << QStringLiteral("refused")
                                         << QStringLiteral("Mounted volume sync request failed: Connection refused")
                                         << false;
    QTest::newRow("agent never answers") << QStringLiteral("silent")
                                         << QStringLiteral("Mounted volume sync request failed: Operation canceled")
                                         << false;
}

void VolumeSyncTest::answerDecidesWhetherTheSnapshotCounts()
{
    QFETCH(QString, answer);
    QFETCH(QString, logLine);
    QFETCH(bool, accepted);

    FakeAgent agent;
    if (answer == QLatin1String("silent")) {
        CannedResponse hang;
        hang.hang = true;
        agent.setResponse(syncPath, hang);
    } else if (answer != QLatin1String("refused")) {
        agent.setResponse(syncPath, {answer.toInt(), "{}"});
    }
    const QUrl base = agent.baseURL();
    if (answer == QLatin1String("refused"))
        agent.close();
    addVolume(QStringLiteral("Disk"));
    auto delegate =
        makeController(base, [](Configuration &config) { config.volumeSyncTimeout = std::chrono::milliseconds(300); });

    delegate->syncMountedVolumesCache(QStringLiteral("NSWorkspaceDidMountNotification"), false);
    QVERIFY(delegate->mountedVolumeSyncInFlight);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);

    QStringList syncLines;
    for (const QString &line : env.messagesSinceMark()) {
        if (line.startsWith(QLatin1String("Mounted volume sync")))
            syncLines.append(line);
    }
    QCOMPARE(syncLines, logLine.isEmpty() ? QStringList() : QStringList{logLine});
    const QString signature = QString::fromUtf8(volumeSnapshotSignature(delegate->currentMountedVolumesPayload()));
    QCOMPARE(delegate->lastMountedVolumeSyncSignature, accepted ? signature : QString());

    // The same snapshot again, unforced: skipped only when the agent took it.
    delegate->syncMountedVolumesCache(QStringLiteral("NSWorkspaceDidMountNotification"), false);
    QCOMPARE(delegate->mountedVolumeSyncInFlight, !accepted);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    if (answer != QLatin1String("refused"))
        QCOMPARE(agent.countFor(syncPath), accepted ? 1 : 2);
}

void VolumeSyncTest::forcedSyncIsSentWhenNothingChanged()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    addVolume(QStringLiteral("Disk"));
    auto delegate = makeController(agent.baseURL());

    delegate->syncMountedVolumesCache(QStringLiteral("app-launch"), true);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    QVERIFY(!delegate->lastMountedVolumeSyncSignature.isEmpty());

    delegate->syncMountedVolumesCache(QStringLiteral("agent-running"), true);
    QTRY_COMPARE(agent.countFor(syncPath), 2);
    QCOMPARE(bodyOf(agent.requestsFor(syncPath).at(1)).value(QStringLiteral("event")).toString(),
             QStringLiteral("agent-running"));
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    QVERIFY(env.messagesSinceMark().filter(QStringLiteral("Mounted volume sync")).isEmpty());
}

void VolumeSyncTest::syncsAskedDuringARequestBecomeOneFollowUp_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("after an accepted request") << 200;
    QTest::newRow("after a failed request") << 500;
}

void VolumeSyncTest::syncsAskedDuringARequestBecomeOneFollowUp()
{
    QFETCH(int, status);
    FakeAgent agent;
    CannedResponse slow{status, "{}"};
    slow.delayMs = 300;
    agent.setResponse(syncPath, slow);
    addVolume(QStringLiteral("First"));
    auto delegate = makeController(agent.baseURL());

    delegate->syncMountedVolumesCache(QStringLiteral("app-launch"), true);
    QVERIFY(delegate->mountedVolumeSyncInFlight);
    addVolume(QStringLiteral("Second"));
    delegate->syncMountedVolumesCache(QStringLiteral("NSWorkspaceDidMountNotification"), false);
    delegate->syncMountedVolumesCache(QStringLiteral("agent-running"), true);
    delegate->syncMountedVolumesCache(QStringLiteral("NSWorkspaceDidUnmountNotification"), false);
    QVERIFY(delegate->mountedVolumeSyncPending);

    QTRY_COMPARE_WITH_TIMEOUT(agent.countFor(syncPath), 2, 5000);
    QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);
    // Idle with nothing pending: no third request can follow.
    QVERIFY(!delegate->mountedVolumeSyncPending);
    QCOMPARE(agent.countFor(syncPath), 2);

    const QList<RecordedRequest> requests = agent.requestsFor(syncPath);
    QCOMPARE(bodyOf(requests[0]).value(QStringLiteral("event")).toString(), QStringLiteral("app-launch"));
    QCOMPARE(volumeNames(bodyOf(requests[0])), QStringList{QStringLiteral("First")});
    QCOMPARE(bodyOf(requests[1]).value(QStringLiteral("event")).toString(), QStringLiteral("coalesced"));
    QCOMPARE(volumeNames(bodyOf(requests[1])), QStringList({QStringLiteral("First"), QStringLiteral("Second")}));
}

void VolumeSyncTest::unreadableMountFolderPostsAnEmptyList()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    auto delegate = makeController(agent.baseURL(), [this](Configuration &config) {
        config.volumeMountDirectory = env.root() + QStringLiteral("/no-such-folder");
    });

    QVERIFY(delegate->currentMountedVolumesPayload().isEmpty());
    delegate->syncMountedVolumesCache(QStringLiteral("NSWorkspaceDidUnmountNotification"), false);
    QTRY_COMPARE(agent.countFor(syncPath), 1);
    QCOMPARE(bodyOf(agent.requestsFor(syncPath).constFirst()).value(QStringLiteral("volumes")).toArray(), QJsonArray());
    QTRY_COMPARE(delegate->lastMountedVolumeSyncSignature, QStringLiteral("[]"));
}

void VolumeSyncTest::bodyThatCannotBeWrittenIsLoggedNotSent()
{
    FakeAgent agent;
    agent.setResponse(syncPath, {200, "{}"});
    auto delegate = makeController(agent.baseURL());

    // A lone surrogate has no UTF-8 form, so no JSON text can carry this event.
    delegate->syncMountedVolumesCache(QString(QChar(0xD800)), true);
    QVERIFY(!delegate->mountedVolumeSyncInFlight);
    QVERIFY(!delegate->mountedVolumeSyncPending);
    QVERIFY(delegate->lastMountedVolumeSyncSignature.isEmpty());
    QCOMPARE(env.messagesSinceMark(), QStringList{QStringLiteral("Mounted volume sync payload encoding failed.")});

    delegate->syncMountedVolumesCache(QStringLiteral("agent-running"), true);
    QTRY_COMPARE(agent.countFor(syncPath), 1);
    QCOMPARE(bodyOf(agent.requestsFor(syncPath).constFirst()).value(QStringLiteral("event")).toString(),
             QStringLiteral("agent-running"));
}

QTEST_MAIN(VolumeSyncTest)
#include "tst_VolumeSync.moc"
