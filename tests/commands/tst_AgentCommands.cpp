// Starting and stopping the agent through its control script: progress titles, in-flight flags,
// the menu items they hold back, failures, and completions that outlive the controller.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QSignalSpy>
#include <QTest>

namespace {

QString startLaunchLine(const QString &script)
{
    return QStringLiteral("Launching process: ") + script + QStringLiteral(" start");
}

QString stopLaunchLine(const QString &script)
{
    return QStringLiteral("Launching process: ") + script + QStringLiteral(" stop");
}

QList<QStringList> single(const QString &argument)
{
    return {QStringList{argument}};
}

} // namespace

class AgentCommandsTest : public QObject {
    Q_OBJECT
private slots:
    void init();

    void menuStartShowsProgressThenTheHealthAnswer_data();
    void menuStartShowsProgressThenTheHealthAnswer();
    void failedStartShowsStartFailedUntilTheNextAnswer_data();
    void failedStartShowsStartFailedUntilTheNextAnswer();
    void unusableScriptRunsNothing_data();
    void unusableScriptRunsNothing();
    void missingRuntimeFolderRunsNothing_data();
    void missingRuntimeFolderRunsNothing();
    void menuStopShowsStoppingAndLogsOnlyFailures_data();
    void menuStopShowsStoppingAndLogsOnlyFailures();
    void overlappingCommandsClearOnlyTheirOwnFlag();
    void completionsAfterTheControllerIsGoneDoNothing_data();
    void completionsAfterTheControllerIsGoneDoNothing();

private:
    // A controller with its menu built, talking to the fake agent, nothing else started.
    std::unique_ptr<AppDelegate> makeController(bool withRuntimeFolder = true)
    {
        Configuration config = env.configuration(agent().baseURL());
        config.refreshInterval = std::chrono::hours(1);
        if (!withRuntimeFolder)
            config.resourceDirectory = std::nullopt;
        auto delegate = std::make_unique<AppDelegate>(config, fakes.services(), &host);
        host.setDelegate(delegate.get());
        delegate->assembleStatusMenu();
        return delegate;
    }

    QString scriptPath() const { return env.runtimeDir() + QStringLiteral("/agentctl.sh"); }

    TestEnvironment env;
    // A fresh agent per test, so that a probe sent just before a test ended is not counted.
    std::unique_ptr<FakeAgent> agentHolder;
    FakeAgent &agent() { return *agentHolder; }
    FakePlatform fakes;
    ApplicationHost host;
};

void AgentCommandsTest::init()
{
    QFile::remove(scriptPath());
    QDir(scriptPath()).removeRecursively();
    agentHolder = std::make_unique<FakeAgent>();
    agent().setHealthDown();
    env.markLog();
}

void AgentCommandsTest::menuStartShowsProgressThenTheHealthAnswer_data()
{
    QTest::addColumn<bool>("agentAnswers");
    QTest::addColumn<QString>("finalTitle");
    QTest::newRow("agent up") << true << QStringLiteral("Status: Running");
    QTest::newRow("agent not yet answering") << false << QStringLiteral("Status: Stopped");
}

void AgentCommandsTest::menuStartShowsProgressThenTheHealthAnswer()
{
    QFETCH(bool, agentAnswers);
    QFETCH(QString, finalTitle);

    FakeControlScript script(scriptPath());
    script.write({0, true, {}});
    auto d = makeController();
    d->updateStateMenu(QStringLiteral("Status: Stopped"), QStringLiteral("--"), false);
    QVERIFY(d->startMenuItem()->isEnabled());

    d->startMenuItem()->trigger();

    // The status page is handed over before the script runs.
    QCOMPARE(fakes.opener->opened,
             QList<QUrl>{QUrl::fromLocalFile(env.runtimeDir() + QStringLiteral("/startup-status.html"))});
    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Starting..."));
    QVERIFY(d->startInFlight);
    QVERIFY(!d->startMenuItem()->isEnabled());
    QVERIFY(!d->stopMenuItem()->isEnabled());

    QTRY_COMPARE(script.runs(), single(QStringLiteral("start")));
    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Starting..."));
    QVERIFY(!d->startMenuItem()->isEnabled());
    QVERIFY(!d->stopMenuItem()->isEnabled());

    if (agentAnswers)
        agent().setHealthy(QStringLiteral("2.0.1"));
    script.release(QStringLiteral("start"));

    QTRY_COMPARE(d->stateMenuItem->text(), finalTitle);
    QVERIFY(!d->startInFlight);
    QCOMPARE(d->startMenuItem()->isEnabled(), !agentAnswers);
    QCOMPARE(d->stopMenuItem()->isEnabled(), agentAnswers);
    if (agentAnswers)
        QCOMPARE(d->versionMenuItem->text(), QStringLiteral("Version: 2.0.1"));

    const QStringList log = env.messagesSinceMark();
    QVERIFY(log.contains(startLaunchLine(script.path())));
    QVERIFY(log.contains(QStringLiteral("Process exited with code 0")));
    for (const QString &line : log)
        QVERIFY2(!line.startsWith(QStringLiteral("Agent start command")), qPrintable(line));
    QCOMPARE(fakes.opener->opened.size(), 1);
}

void AgentCommandsTest::failedStartShowsStartFailedUntilTheNextAnswer_data()
{
    QTest::addColumn<bool>("fromMenu");
    QTest::newRow("menu start") << true;
    QTest::newRow("launch start without status page") << false;
}

void AgentCommandsTest::failedStartShowsStartFailedUntilTheNextAnswer()
{
    QFETCH(bool, fromMenu);

    FakeControlScript script(scriptPath());
    script.write({3, false, {}});
    // A slow answer leaves time to see the failure title before the refresh replaces it.
    agent().setResponse("/healthz", {503, "{}", "application/json", false, 600});
    auto d = makeController();

    if (fromMenu)
        d->startAgentFromMenu();
    else
        d->startAgent(false);

    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent start command failed with exit code 3")));
    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Start failed"));
    QVERIFY(!d->startInFlight);
    QTRY_COMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopped"));

    const QString failurePage = env.runtimeDir() + QStringLiteral("/startup-status-failed.html");
    const QString logsFolder = env.logsDir();
    QList<QUrl> expectedOpened;
    if (fromMenu)
        expectedOpened = {QUrl::fromLocalFile(env.runtimeDir() + QStringLiteral("/startup-status.html")),
                          QUrl::fromLocalFile(failurePage), QUrl::fromLocalFile(logsFolder)};
    QCOMPARE(fakes.opener->opened, expectedOpened);

    // The failure line comes first, then the pages, then the title.
    const QStringList log = env.messagesSinceMark();
    const qsizetype failed = log.indexOf(QStringLiteral("Agent start command failed with exit code 3"));
    const qsizetype title = log.indexOf(QStringLiteral("State updated: Status: Start failed version=-- running=false"));
    QVERIFY(failed >= 0 && title > failed);
    if (fromMenu) {
        const qsizetype page = log.indexOf(QStringLiteral("Opening startup page: ") + failurePage);
        const qsizetype logs = log.indexOf(QStringLiteral("Opening logs directory: ") + logsFolder);
        QVERIFY(failed < page && page < logs && logs < title);
    }
}

void AgentCommandsTest::unusableScriptRunsNothing_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("without execute permission") << QStringLiteral("not-executable");
    QTest::newRow("missing") << QStringLiteral("missing");
    QTest::newRow("a folder") << QStringLiteral("folder");
}

void AgentCommandsTest::unusableScriptRunsNothing()
{
    QFETCH(QString, kind);

    FakeControlScript script(scriptPath());
    if (kind == QLatin1String("not-executable")) {
        script.write();
        QVERIFY(QFile::setPermissions(scriptPath(), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                        QFileDevice::ReadGroup | QFileDevice::ReadOther));
    } else if (kind == QLatin1String("folder")) {
        QVERIFY(QDir().mkpath(scriptPath()));
    }
    auto d = makeController();
    d->updateStateMenu(QStringLiteral("Status: Stopped"), QStringLiteral("1.4.2"), false);
    env.markLog();

    d->startAgentFromMenu();

    QCOMPARE(env.messagesSinceMark(),
             QStringList({QStringLiteral("agentctl.sh exists but is not executable: ") + scriptPath(),
                          QStringLiteral("State updated: Status: Missing runtime files version=1.4.2 running=false")}));
    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Missing runtime files"));
    QVERIFY(!d->startInFlight);
    QVERIFY(!d->stopInFlight);
    QVERIFY(fakes.opener->opened.isEmpty());
    QTest::qWait(100); // nothing was started, so nothing can record a run later
    QVERIFY(script.runs().isEmpty());
}

void AgentCommandsTest::missingRuntimeFolderRunsNothing_data()
{
    QTest::addColumn<bool>("start");
    QTest::newRow("start") << true;
    QTest::newRow("stop") << false;
}

void AgentCommandsTest::missingRuntimeFolderRunsNothing()
{
    QFETCH(bool, start);

    FakeControlScript script(scriptPath());
    script.write();
    auto d = makeController(false);
    d->updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.4.2"), true);
    d->startInFlight = !start; // a flag set earlier must survive the early return
    d->stopInFlight = start;
    env.markLog();
    QSignalSpy terminated(&host, &ApplicationHost::terminated);

    if (start) {
        d->startAgentFromMenu();
        QCOMPARE(
            env.messagesSinceMark(),
            QStringList({QStringLiteral("Could not resolve agentctl.sh inside app bundle."),
                         QStringLiteral("State updated: Status: Missing runtime files version=1.4.2 running=false")}));
        QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Missing runtime files"));
    } else {
        d->stopAgentFromMenu();
        QCOMPARE(env.messagesSinceMark(),
                 QStringList{QStringLiteral("Could not resolve agentctl.sh for stop request.")});
        QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Running"));
        QVERIFY(!d->terminateAfterStop);
    }
    QCOMPARE(d->startInFlight, !start);
    QCOMPARE(d->stopInFlight, start);
    QVERIFY(fakes.opener->opened.isEmpty());
    QCOMPARE(terminated.count(), 0);
    QTest::qWait(100);
    QVERIFY(script.runs().isEmpty());
}

void AgentCommandsTest::menuStopShowsStoppingAndLogsOnlyFailures_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::newRow("success") << 0;
    QTest::newRow("failure") << 5;
}

void AgentCommandsTest::menuStopShowsStoppingAndLogsOnlyFailures()
{
    QFETCH(int, exitCode);

    FakeControlScript script(scriptPath());
    script.write({}, {exitCode, true, {}});
    auto d = makeController();
    d->updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.4.2"), true);
    QVERIFY(d->stopMenuItem()->isEnabled());
    QVERIFY(!d->startMenuItem()->isEnabled());
    QSignalSpy terminated(&host, &ApplicationHost::terminated);

    d->stopMenuItem()->trigger();

    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopping..."));
    QVERIFY(d->stopInFlight);
    QVERIFY(!d->agentIsRunning);
    QVERIFY(!d->stopMenuItem()->isEnabled());
    QVERIFY(d->startMenuItem()->isEnabled()); // the agent now counts as not running
    QCOMPARE(d->versionMenuItem->text(), QStringLiteral("Version: 1.4.2"));
    QTRY_COMPARE(script.runs(), single(QStringLiteral("stop")));

    script.release(QStringLiteral("stop"));
    QTRY_COMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopped"));
    QVERIFY(!d->stopInFlight);
    QVERIFY(!d->terminateAfterStop);
    QCOMPARE(terminated.count(), 0);

    const QStringList log = env.messagesSinceMark();
    QVERIFY(log.contains(stopLaunchLine(script.path())));
    QVERIFY(log.contains(QStringLiteral("Process exited with code %1").arg(exitCode)));
    QStringList stopLines;
    for (const QString &line : log) {
        if (line.startsWith(QStringLiteral("Agent stop command")) || line.startsWith(QStringLiteral("Termination")))
            stopLines.append(line);
    }
    QCOMPARE(stopLines,
             exitCode == 0
                 ? QStringList()
                 : QStringList{QStringLiteral("Agent stop command finished with exit code %1").arg(exitCode)});
    QVERIFY(fakes.opener->opened.isEmpty());
}

void AgentCommandsTest::overlappingCommandsClearOnlyTheirOwnFlag()
{
    FakeControlScript script(scriptPath());
    script.write({0, true, {}}, {0, true, {}});
    auto d = makeController();
    d->updateStateMenu(QStringLiteral("Status: Stopped"), QStringLiteral("--"), false);

    d->startAgent(false);
    QTRY_COMPARE(script.runs().size(), 1);
    d->requestAgentStop(false);
    QVERIFY(!d->startInFlight);
    QVERIFY(d->stopInFlight);
    QCOMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopping..."));
    QTRY_COMPARE(script.runs().size(), 2);

    script.release(QStringLiteral("start"));
    QVERIFY(env.waitForLogMessage(QStringLiteral("Process exited with code 0")));
    QTRY_VERIFY(agent().countFor("/healthz") >= 1); // the start's completion asked for a refresh
    QVERIFY(d->stopInFlight);
    QTRY_COMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopping..."));

    script.release(QStringLiteral("stop"));
    QTRY_COMPARE(d->stateMenuItem->text(), QStringLiteral("Status: Stopped"));
    QVERIFY(!d->startInFlight);
    QVERIFY(!d->stopInFlight);
    QCOMPARE(script.runs(), (QList<QStringList>{{QStringLiteral("start")}, {QStringLiteral("stop")}}));
}

void AgentCommandsTest::completionsAfterTheControllerIsGoneDoNothing_data()
{
    QTest::addColumn<bool>("start");
    QTest::newRow("start") << true;
    QTest::newRow("stop for termination") << false;
}

void AgentCommandsTest::completionsAfterTheControllerIsGoneDoNothing()
{
    QFETCH(bool, start);

    FakeControlScript script(scriptPath());
    script.write({4, true, {}}, {4, true, {}});
    auto d = makeController();
    QSignalSpy terminated(&host, &ApplicationHost::terminated);
    if (start)
        d->startAgentFromMenu();
    else
        d->requestAgentStop(true);
    QTRY_COMPARE(script.runs().size(), 1);
    fakes.opener->opened.clear();

    d.reset();
    env.markLog();
    script.release(start ? QStringLiteral("start") : QStringLiteral("stop"));
    QVERIFY(env.waitForLogMessage(QStringLiteral("Process exited with code 4")));
    QTest::qWait(200); // give a stray completion the chance to run

    QCOMPARE(env.messagesSinceMark(), QStringList{QStringLiteral("Process exited with code 4")});
    QCOMPARE(terminated.count(), 0);
    QCOMPARE(agent().countFor("/healthz"), 0);
}

QTEST_MAIN(AgentCommandsTest)
#include "tst_AgentCommands.moc"
