// Health refresh and the start at launch: what each answer does to the state line and the
// in-flight flags, when the volume sync is asked for, and the launch-time wiring of the probes.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <memory>

namespace {

enum class AgentState { up, down, unreachable };

const QString running = QStringLiteral("Status: Running");
const QString starting = QStringLiteral("Status: Starting...");
const QString stopping = QStringLiteral("Status: Stopping...");
const QString stopped = QStringLiteral("Status: Stopped");

QByteArray healthBody(bool ok, const QString &version)
{
    return QByteArray(R"({"status":")") + (ok ? "ok" : "down") + R"(","version":")" + version.toUtf8() + "\"}";
}

} // namespace

Q_DECLARE_METATYPE(AgentState)

class HealthRefreshTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void answerSetsTitleAndFlags_data();
    void answerSetsTitleAndFlags();
    void changeToRunningSchedulesOneSync();
    void answersAfterTheControllerIsGoneChangeNothing();
    void launchFindsTheAgentHealthy();
    void launchStartsAnUnhealthyAgent_data();
    void launchStartsAnUnhealthyAgent();
    void launchWiresProbesAndTimer();
    void productionTimerFirstFiresAfterFiveSeconds();

private:
    std::unique_ptr<AppDelegate> makeDelegate(Configuration config);
    // Sets the agent's next /healthz answer, refreshes and waits until the answer is applied;
    // every answer carries a new version so that its arrival is visible.
    QString refreshWith(AppDelegate &delegate, bool agentRunning);
    QString callsFile() const { return env.root() + QStringLiteral("/agentctl-calls"); }
    QString recordedCalls() const;

    TestEnvironment env;
    ApplicationHost host;
    FakePlatform fakes;
    std::unique_ptr<FakeAgent> agent;
    int versionCounter = 0;
};

void HealthRefreshTest::init()
{
    agent = std::make_unique<FakeAgent>();
    QFile::remove(callsFile());
    // The control script records how it was called and succeeds.
    TestEnvironment::writeScript(env.runtimeDir() + QStringLiteral("/agentctl.sh"),
                                 QStringLiteral("printf '%s\\n' \"$*\" >> '%1'\n").arg(callsFile()));
    env.markLog();
}

void HealthRefreshTest::cleanup()
{
    agent.reset();
}

std::unique_ptr<AppDelegate> HealthRefreshTest::makeDelegate(Configuration config)
{
    auto delegate = std::make_unique<AppDelegate>(std::move(config), fakes.services(), &host);
    delegate->assembleStatusMenu();
    delegate->updateStateMenu(QStringLiteral("Status: Launching..."), QStringLiteral("1.3.0"), false);
    return delegate;
}

QString HealthRefreshTest::refreshWith(AppDelegate &delegate, bool agentRunning)
{
    const QString version = QStringLiteral("2.0.%1").arg(++versionCounter);
    agent->setResponse("/healthz", {200, healthBody(agentRunning, version)});
    delegate.refreshHealth();
    [&] { QTRY_COMPARE(delegate.lastKnownVersion, version); }();
    return version;
}

QString HealthRefreshTest::recordedCalls() const
{
    QFile file(callsFile());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void HealthRefreshTest::answerSetsTitleAndFlags_data()
{
    QTest::addColumn<QString>("shownBefore");
    QTest::addColumn<bool>("startInFlight");
    QTest::addColumn<bool>("stopInFlight");
    QTest::addColumn<AgentState>("agentState");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("startAfter");
    QTest::addColumn<bool>("stopAfter");

    QTest::newRow("running clears both flags")
        << starting << true << true << AgentState::up << running << false << false;
    QTest::newRow("running while a stop runs")
        << stopping << false << true << AgentState::up << running << false << false;
    QTest::newRow("running with nothing in flight")
        << stopped << false << false << AgentState::up << running << false << false;
    QTest::newRow("down while starting") << stopped << true << false << AgentState::down << starting << true << false;
    QTest::newRow("start wins over stop") << stopped << true << true << AgentState::down << starting << true << true;
    QTest::newRow("down while stopping") << running << false << true << AgentState::down << stopping << false << true;
    QTest::newRow("down, nothing in flight")
        << running << false << false << AgentState::down << stopped << false << false;
    QTest::newRow("down replaces start failed")
        << QStringLiteral("Status: Start failed") << false << false << AgentState::down << stopped << false << false;
    QTest::newRow("down replaces missing runtime files") << QStringLiteral("Status: Missing runtime files") << false
                                                         << false << AgentState::down << stopped << false << false;
    QTest::newRow("down during termination") << QStringLiteral("Status: Stopping and Scanning...") << false << true
                                             << AgentState::down << stopping << false << true;
    QTest::newRow("unreachable while starting")
        << stopped << true << false << AgentState::unreachable << starting << true << false;
    QTest::newRow("unreachable, nothing in flight")
        << running << false << false << AgentState::unreachable << stopped << false << false;
}

void HealthRefreshTest::answerSetsTitleAndFlags()
{
    QFETCH(QString, shownBefore);
    QFETCH(bool, startInFlight);
    QFETCH(bool, stopInFlight);
    QFETCH(AgentState, agentState);
    QFETCH(QString, title);
    QFETCH(bool, startAfter);
    QFETCH(bool, stopAfter);

    auto delegate = makeDelegate(env.configuration(agent->baseURL()));
    delegate->updateStateMenu(shownBefore, QStringLiteral("1.3.0"), shownBefore == running);
    delegate->startInFlight = startInFlight;
    delegate->stopInFlight = stopInFlight;

    QString version = QStringLiteral("1.3.0"); // unreachable: the last known version stays
    if (agentState == AgentState::unreachable) {
        agent->close();
        delegate->refreshHealth();
        QTRY_COMPARE(delegate->stateMenuItem->text(), title);
    } else {
        version = refreshWith(*delegate, agentState == AgentState::up);
    }

    QCOMPARE(delegate->stateMenuItem->text(), title);
    QCOMPARE(delegate->lastStateTitle, title);
    QCOMPARE(delegate->versionMenuItem->text(), QStringLiteral("Version: ") + version);
    QCOMPARE(delegate->agentIsRunning, agentState == AgentState::up);
    QCOMPARE(delegate->startInFlight, startAfter);
    QCOMPARE(delegate->stopInFlight, stopAfter);
}

void HealthRefreshTest::changeToRunningSchedulesOneSync()
{
    auto delegate = makeDelegate(env.configuration(agent->baseURL()));

    // Each step: the agent's answer, and whether it asks for a new volume sync.
    const QList<QPair<bool, bool>> steps = {
        {false, false}, {true, true}, {true, false}, {true, false}, {false, false}, {false, false}, {true, true},
    };
    for (qsizetype i = 0; i < steps.size(); ++i) {
        const auto [agentRunning, schedules] = steps[i];
        const DispatchWorkItem *before = delegate->mountedVolumeSyncDebounceWorkItem.get();
        refreshWith(*delegate, agentRunning);
        const bool replaced = delegate->mountedVolumeSyncDebounceWorkItem.get() != before;
        QVERIFY2(replaced == schedules, qPrintable(QStringLiteral("step %1").arg(i)));
    }
}

void HealthRefreshTest::answersAfterTheControllerIsGoneChangeNothing()
{
    agent->setResponse("/healthz", {200, healthBody(false, QStringLiteral("2.0.0")), "application/json", false, 200});
    auto delegate = makeDelegate(env.configuration(agent->baseURL()));
    env.markLog();

    delegate->refreshHealth();
    delegate->startAgentIfNeededOnLaunch();
    QTRY_COMPARE(agent->countFor("/healthz"), 2);
    delegate.reset();

    // Nothing is left to signal that an answer was dropped: give the delayed answers time to
    // arrive, then check that none of them acted.
    QTest::qWait(500);
    QVERIFY(env.messagesSinceMark().isEmpty());
    QVERIFY(recordedCalls().isEmpty());
}

void HealthRefreshTest::launchFindsTheAgentHealthy()
{
    agent->setResponse("/healthz", {200, healthBody(true, QStringLiteral("2.0.0"))});
    auto delegate = makeDelegate(env.configuration(agent->baseURL()));
    const DispatchWorkItem *syncBefore = delegate->mountedVolumeSyncDebounceWorkItem.get();

    delegate->startAgentIfNeededOnLaunch();
    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    QTRY_COMPARE(delegate->stateMenuItem->text(), running);
    QVERIFY(delegate->agentIsRunning);
    QCOMPARE(delegate->lastKnownVersion, QStringLiteral("1.3.0")); // the answer's version is not shown
    QVERIFY(!delegate->startInFlight);
    QVERIFY(!delegate->stopInFlight);
    QVERIFY(!env.messagesSinceMark().contains(QStringLiteral("Agent not healthy during launch. Starting agent.")));
    QCOMPARE(delegate->mountedVolumeSyncDebounceWorkItem.get(), syncBefore);

    // The refresh that follows sees no change to running: no second sync for the agent.
    refreshWith(*delegate, true);
    QCOMPARE(delegate->stateMenuItem->text(), running);
    QCOMPARE(delegate->mountedVolumeSyncDebounceWorkItem.get(), syncBefore);
    QVERIFY(recordedCalls().isEmpty());
    QVERIFY(fakes.opener->opened.isEmpty());
}

void HealthRefreshTest::launchStartsAnUnhealthyAgent_data()
{
    QTest::addColumn<bool>("launchedAtLogin");
    QTest::addColumn<bool>("presentedWelcome");
    QTest::addColumn<bool>("opensStatusPage");

    QTest::newRow("manual launch") << false << false << true;
    QTest::newRow("launched at login") << true << false << false;
    QTest::newRow("getting started shown") << false << true << false;
    QTest::newRow("login and getting started") << true << true << false;
}

void HealthRefreshTest::launchStartsAnUnhealthyAgent()
{
    QFETCH(bool, launchedAtLogin);
    QFETCH(bool, presentedWelcome);
    QFETCH(bool, opensStatusPage);

    agent->setHealthDown();
    auto delegate = makeDelegate(env.configuration(agent->baseURL()));
    delegate->launchedAtLogin = launchedAtLogin;
    delegate->presentedWelcomeOnLaunch = presentedWelcome;

    delegate->startAgentIfNeededOnLaunch();
    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent not healthy during launch. Starting agent.")));
    QTRY_COMPARE(recordedCalls(), QStringLiteral("start\n"));
    // The start's own refresh then finds the agent still down.
    QTRY_COMPARE(delegate->stateMenuItem->text(), stopped);
    QVERIFY(!delegate->startInFlight);

    const QUrl statusPage = QUrl::fromLocalFile(env.runtimeDir() + QStringLiteral("/startup-status.html"));
    QCOMPARE(fakes.opener->opened, opensStatusPage ? QList<QUrl>{statusPage} : QList<QUrl>{});
    QVERIFY(!env.messagesSinceMark().contains(QStringLiteral("Agent already healthy during launch.")));
}

void HealthRefreshTest::launchWiresProbesAndTimer()
{
    agent->setResponse("/healthz", {200, healthBody(true, QStringLiteral("2.0.0"))});
    Configuration config = env.configuration(agent->baseURL());
    config.launchFlowDelay = std::chrono::milliseconds(100);
    config.refreshInterval = std::chrono::milliseconds(400);
    AppDelegate delegate(config, fakes.services(), &host);

    QList<qint64> arrivals;
    QElapsedTimer clock;
    QObject recording; // ends the recording before arrivals goes away
    connect(agent.get(), &FakeAgent::requestReceived, &recording, [&](const RecordedRequest &request) {
        if (request.path == "/healthz")
            arrivals.append(clock.elapsed());
    });
    clock.start();
    delegate.applicationDidFinishLaunching();

    QVERIFY(delegate.refreshTimer);
    QCOMPARE(delegate.refreshTimer->parent(), &delegate);
    QVERIFY(delegate.refreshTimer->isActive());
    QVERIFY(!delegate.refreshTimer->isSingleShot());
    QCOMPARE(delegate.refreshTimer->interval(), 400);

    // The launch refresh at once, the launch flow's probe after its delay, then the ticks.
    QTRY_VERIFY_WITH_TIMEOUT(arrivals.size() >= 4, 5000);
    const QString timeline = QStringLiteral("arrivals (ms): %1").arg([&] {
        QStringList parts;
        for (qint64 ms : arrivals)
            parts << QString::number(ms);
        return parts.join(QLatin1Char(' '));
    }());
    QVERIFY2(arrivals[0] < 250, qPrintable(timeline));
    QVERIFY2(arrivals[1] >= 90 && arrivals[1] < 370, qPrintable(timeline));
    QVERIFY2(arrivals[2] >= 370 && arrivals[2] < 1500, qPrintable(timeline));
    QVERIFY2(arrivals[3] - arrivals[2] >= 350 && arrivals[3] - arrivals[2] < 1500, qPrintable(timeline));

    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    const QStringList log = env.messagesSinceMark();
    QVERIFY(log.indexOf(QStringLiteral("Launch flow starting. launchedAtLogin=false")) <
            log.indexOf(QStringLiteral("Agent already healthy during launch.")));
    QCOMPARE(delegate.stateMenuItem->text(), running);
    QVERIFY(recordedCalls().isEmpty());
}

void HealthRefreshTest::productionTimerFirstFiresAfterFiveSeconds()
{
    agent->setResponse("/healthz", {200, healthBody(true, QStringLiteral("2.0.0"))});
    Configuration config = env.configuration(agent->baseURL());
    config.launchFlowDelay = std::chrono::minutes(1); // keep the launch flow out of the way
    AppDelegate delegate(config, fakes.services(), &host);
    delegate.applicationDidFinishLaunching();

    QVERIFY(delegate.refreshTimer);
    QCOMPARE(delegate.refreshTimer->interval(), 5000);
    QVERIFY(!delegate.refreshTimer->isSingleShot());
    // A coarse timer may slide a tick by up to 5 % to wake up together with others.
    const int remaining = delegate.refreshTimer->remainingTime();
    QVERIFY2(remaining >= 4700 && remaining <= 5250, qPrintable(QString::number(remaining)));
}

QTEST_MAIN(HealthRefreshTest)
#include "tst_HealthRefresh.moc"
