// Orderly termination inside the process: the agent is stopped once before the application
// goes, the exit code is logged but never holds the exit, and a duplicate instance leaves at once.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QFile>
#include <QMenu>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <csignal>

namespace {

const QString quitLine = QStringLiteral("Quit requested from menu.");
const QString requestLine = QStringLiteral("Application termination requested. Stopping agent before exit.");
const QString willTerminateLine = QStringLiteral("Application will terminate.");

// The lines up to and including the final one.
QStringList upToWillTerminate(const QStringList &log)
{
    const qsizetype end = log.indexOf(willTerminateLine);
    return end < 0 ? log : log.mid(0, end + 1);
}

} // namespace

class TerminationTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void quitWithTheAgentIdleStopsItThenTerminates_data();
    void quitWithTheAgentIdleStopsItThenTerminates();
    void quitWhileAMenuStopRunsWaitsForThatStop();
    void repeatedRequestsStartNothingNew();
    void stopExitCodeIsLoggedButNeverHoldsTheExit_data();
    void stopExitCodeIsLoggedButNeverHoldsTheExit();
    void noRuntimeFolderTerminatesAtOnce();
    void duplicateInstanceLeavesWithoutTouchingTheAgent();
    void willTerminateStopsTheRefreshTimer();
    void quitSignalBeforeLaunchFinishedWaitsForTheLaunch();
    void quitDuringTheLaunchProbeStartsNoAgent();

private:
    void makeController(bool withRuntimeFolder = true)
    {
        Configuration config = env.configuration(agent().baseURL());
        config.refreshInterval = std::chrono::hours(1);
        config.launchFlowDelay = std::chrono::milliseconds(20);
        if (!withRuntimeFolder)
            config.resourceDirectory = std::nullopt;
        host = std::make_unique<ApplicationHost>();
        delegate = std::make_unique<AppDelegate>(config, fakes.services(), host.get());
        host->setDelegate(delegate.get());
        terminated = std::make_unique<QSignalSpy>(host.get(), &ApplicationHost::terminated);
    }

    // The steady state after launch, without the launch sequence's own probes and pages.
    void showAgentRunning()
    {
        delegate->assembleStatusMenu();
        delegate->updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.4.2"), true);
    }

    QString scriptPath() const { return env.runtimeDir() + QStringLiteral("/agentctl.sh"); }

    TestEnvironment env;
    // A fresh agent per test, so that a probe sent just before a test ended is not counted.
    std::unique_ptr<FakeAgent> agentHolder;
    FakeAgent &agent() { return *agentHolder; }
    FakePlatform fakes;
    std::unique_ptr<ApplicationHost> host;
    std::unique_ptr<AppDelegate> delegate;
    std::unique_ptr<QSignalSpy> terminated;
};

void TerminationTest::init()
{
    QFile::remove(scriptPath());
    QFile::remove(env.configHome() + QStringLiteral("/com.tallyhold.agent.app.conf"));
    agentHolder = std::make_unique<FakeAgent>();
    agent().setHealthy(QStringLiteral("1.4.2"));
    env.markLog();
}

void TerminationTest::cleanup()
{
    terminated.reset();
    delegate.reset();
    host.reset();
}

void TerminationTest::quitWithTheAgentIdleStopsItThenTerminates_data()
{
    QTest::addColumn<bool>("bypassClearedEarlier");
    QTest::newRow("default") << false;
    QTest::newRow("stop bypass left on by someone else") << true;
}

void TerminationTest::quitWithTheAgentIdleStopsItThenTerminates()
{
    QFETCH(bool, bypassClearedEarlier);

    FakeControlScript script(scriptPath());
    script.write({}, {0, true, {}});
    makeController();
    showAgentRunning();
    delegate->stopAgentOnTerminate = !bypassClearedEarlier;
    env.markLog();

    delegate->quitMenuItem()->trigger();

    QVERIFY(delegate->stopAgentOnTerminate);
    QVERIFY(delegate->terminationReplyPending);
    QVERIFY(delegate->terminateAfterStop);
    QVERIFY(host->isTerminating());
    QCOMPARE(delegate->stateMenuItem->text(), QStringLiteral("Status: Stopping and Scanning..."));
    QTRY_COMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
    QTest::qWait(50);
    QCOMPARE(terminated->count(), 0); // the final answer waits for the stop

    script.release(QStringLiteral("stop"));
    QVERIFY(terminated->wait(10000));

    QCOMPARE(upToWillTerminate(env.messagesSinceMark()),
             QStringList({quitLine, requestLine,
                          QStringLiteral("State updated: Status: Stopping and Scanning... version=1.4.2 running=false"),
                          QStringLiteral("Launching process: ") + script.path() + QStringLiteral(" stop"),
                          QStringLiteral("Process exited with code 0"),
                          QStringLiteral("Termination stop finished with exit code 0."), willTerminateLine}));
    QVERIFY(!delegate->terminationReplyPending);
    QVERIFY(!delegate->terminateAfterStop);
    QVERIFY(!delegate->stopInFlight);
    QVERIFY(host->hasTerminated());
}

void TerminationTest::quitWhileAMenuStopRunsWaitsForThatStop()
{
    FakeControlScript script(scriptPath());
    script.write({}, {0, true, {}});
    makeController();
    showAgentRunning();

    delegate->stopMenuItem()->trigger();
    QCOMPARE(delegate->stateMenuItem->text(), QStringLiteral("Status: Stopping..."));
    QTRY_COMPARE(script.runs().size(), 1);
    env.markLog();

    delegate->quitApp();

    QCOMPARE(delegate->stateMenuItem->text(), QStringLiteral("Status: Stopping and Scanning..."));
    QVERIFY(delegate->terminateAfterStop);
    QCOMPARE(
        env.messagesSinceMark(),
        QStringList({quitLine, requestLine,
                     QStringLiteral("State updated: Status: Stopping and Scanning... version=1.4.2 running=false")}));

    script.release(QStringLiteral("stop"));
    QVERIFY(terminated->wait(10000));
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
    const QStringList log = upToWillTerminate(env.messagesSinceMark());
    QVERIFY(log.contains(QStringLiteral("Termination stop finished with exit code 0.")));
    QCOMPARE(log.filter(QStringLiteral("Launching process:")).size(), 0);
    QCOMPARE(log.last(), willTerminateLine);
}

void TerminationTest::repeatedRequestsStartNothingNew()
{
    FakeControlScript script(scriptPath());
    script.write({}, {0, true, {}});
    makeController();
    showAgentRunning();

    delegate->quitApp();
    QTRY_COMPARE(script.runs().size(), 1);
    // A second Quit, and a request from elsewhere (a signal), while the answer is pending.
    delegate->quitApp();
    host->terminate();
    QCOMPARE(delegate->applicationShouldTerminate(), ApplicationHost::TerminateLater);
    QCOMPARE(terminated->count(), 0);

    script.release(QStringLiteral("stop"));
    QVERIFY(terminated->wait(10000));
    QTest::qWait(100);
    QCOMPARE(terminated->count(), 1);
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
    const QStringList log = env.messagesSinceMark();
    QCOMPARE(log.count(quitLine), 2);
    QCOMPARE(log.count(requestLine), 1);
    QCOMPARE(log.filter(QStringLiteral("Launching process:")).size(), 1);
    QCOMPARE(log.count(willTerminateLine), 1);
}

void TerminationTest::stopExitCodeIsLoggedButNeverHoldsTheExit_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("executable");
    QTest::addColumn<QStringList>("expectedLines");
    QTest::newRow("exit 2") << 2 << true
                            << QStringList{QStringLiteral("Process exited with code 2"),
                                           QStringLiteral("Agent stop command finished with exit code 2"),
                                           QStringLiteral("Termination stop finished with exit code 2.")};
    // The stop does not check the script; the runner's start failure counts as exit 1.
    QTest::newRow("script not executable")
        << 0 << false
        << QStringList{QStringLiteral("Agent stop command finished with exit code 1"),
                       QStringLiteral("Termination stop finished with exit code 1.")};
}

void TerminationTest::stopExitCodeIsLoggedButNeverHoldsTheExit()
{
    QFETCH(int, exitCode);
    QFETCH(bool, executable);
    QFETCH(QStringList, expectedLines);

    FakeControlScript script(scriptPath());
    script.write({}, {exitCode, false, {}});
    if (!executable)
        QVERIFY(QFile::setPermissions(scriptPath(), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    makeController();
    showAgentRunning();
    env.markLog();

    delegate->quitApp();
    QVERIFY(terminated->wait(10000));

    const QStringList log = upToWillTerminate(env.messagesSinceMark());
    QCOMPARE(log.last(), willTerminateLine);
    qsizetype from = 0;
    for (const QString &line : expectedLines) {
        const qsizetype at = log.indexOf(line, from);
        QVERIFY2(at >= 0, qPrintable(line));
        from = at + 1;
    }
    if (!executable) {
        QVERIFY(!log.filter(QStringLiteral("Process launch failed: ")).isEmpty());
        QVERIFY(script.runs().isEmpty());
    }
}

void TerminationTest::noRuntimeFolderTerminatesAtOnce()
{
    makeController(false);
    showAgentRunning();
    env.markLog();

    delegate->quitApp();

    // The final answer came while the delegate was still being asked; the host applies it at once.
    QCOMPARE(terminated->count(), 1);
    QCOMPARE(env.messagesSinceMark(),
             QStringList({quitLine, requestLine, QStringLiteral("Could not resolve agentctl.sh for stop request."),
                          QStringLiteral("Termination stop finished with exit code 1."), willTerminateLine}));
    QVERIFY(!delegate->terminationReplyPending);
    QVERIFY(!delegate->terminateAfterStop);
    QVERIFY(!delegate->stopInFlight);
    QCOMPARE(delegate->stateMenuItem->text(), QStringLiteral("Status: Running"));

    host->terminate(); // later requests meet a finished termination
    QCOMPARE(terminated->count(), 1);
}

void TerminationTest::duplicateInstanceLeavesWithoutTouchingTheAgent()
{
    FakeControlScript script(scriptPath());
    script.write();
    makeController();
    fakes.runningApplications->count = 2;

    host->finishLaunching();
    QVERIFY(terminated->wait(5000));
    QTest::qWait(100); // longer than the launch flow delay: nothing deferred may run

    QCOMPARE(env.messagesSinceMark(),
             QStringList({QStringLiteral("Application did finish launching."),
                          QStringLiteral("Duplicate app instance detected. Terminating new instance."),
                          QStringLiteral("Termination requested with stop bypass enabled."), willTerminateLine}));
    QVERIFY(!delegate->stopAgentOnTerminate);
    QVERIFY(delegate->menu->actions().isEmpty());
    QVERIFY(fakes.statusItem->menu() == nullptr);
    QVERIFY(delegate->refreshTimer == nullptr);
    QVERIFY(!delegate->presentedWelcomeOnLaunch);
    QVERIFY(fakes.opener->opened.isEmpty());
    QVERIFY(script.runs().isEmpty());
    QCOMPARE(agent().requests().size(), 0);
    QCOMPARE(host->activationPolicy(), ApplicationHost::ActivationPolicyRegular);
}

void TerminationTest::willTerminateStopsTheRefreshTimer()
{
    FakeControlScript script(scriptPath());
    script.write();
    makeController();
    delegate->applicationDidFinishLaunching();
    QVERIFY(delegate->refreshTimer);
    QVERIFY(delegate->refreshTimer->isActive());
    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));

    delegate->quitApp();
    QVERIFY(terminated->wait(10000));

    QVERIFY(delegate->refreshTimer);
    QVERIFY(!delegate->refreshTimer->isActive());
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
}

void TerminationTest::quitSignalBeforeLaunchFinishedWaitsForTheLaunch()
{
    FakeControlScript script(scriptPath());
    script.write();
    makeController();
    fakes.runningApplications->count = 2;
    host->installQuitSignalHandlers();

    // The signal is delivered, and the event loop turns, before the launch callback has run.
    ::raise(SIGTERM);
    QTest::qWait(50);
    QCOMPARE(terminated->count(), 0);
    QVERIFY(env.messagesSinceMark().isEmpty());
    host->finishLaunching();
    QVERIFY(terminated->wait(5000));

    // The duplicate check ran first, so this copy left without stopping the agent.
    QCOMPARE(env.messagesSinceMark(),
             QStringList({QStringLiteral("Application did finish launching."),
                          QStringLiteral("Duplicate app instance detected. Terminating new instance."),
                          QStringLiteral("Termination requested with stop bypass enabled."), willTerminateLine}));
    QVERIFY(script.runs().isEmpty());
}

void TerminationTest::quitDuringTheLaunchProbeStartsNoAgent()
{
    FakeControlScript script(scriptPath());
    script.write({}, {0, true, {}});
    // The agent is down and slow to say so: the quit lands while the launch probe is out.
    agent().setResponse("/healthz", {503, "{}", "application/json", false, 300});
    makeController();
    host->finishLaunching();
    QVERIFY(env.waitForLogMessage(QStringLiteral("Launch flow starting. launchedAtLogin=false")));
    delegate->quitApp();
    QTRY_COMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});

    // Wait until the launch probe's answer has come and gone, then let the stop finish.
    QTRY_VERIFY(agent().countFor("/healthz") >= 2);
    QTest::qWait(400);
    script.release(QStringLiteral("stop"));
    QVERIFY(terminated->wait(10000));
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
    QVERIFY(!env.messagesSinceMark().contains(QStringLiteral("Agent not healthy during launch. Starting agent.")));
}

QTEST_MAIN(TerminationTest)
#include "tst_Termination.moc"
