// The agent as the controller sees it: every kind of /healthz answer over loopback,
// the state line following the answers, and starting and stopping through a recording control
// script (titles, in-flight flags, exact log lines). The start at launch is checked with the
// getting-started page, in the pages test.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QElapsedTimer>
#include <QNetworkReply>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QString lastKnown = u"1.3.0"_s;
const QString v142 = u"1.4.2"_s;
QByteArray healthBody(const QByteArray &status, const QString &version = v142)
{
    return R"({"status":")" + status + R"(","version":")" + version.toUtf8() + "\"}";
}
const QByteArray okBody = healthBody("ok");
} // namespace

class AgentTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    ApplicationHost host;
    FakePlatform fakes;
    std::unique_ptr<FakeAgent> agent;
    std::unique_ptr<FakeControlScript> script;

    std::unique_ptr<AppDelegate> makeController(const QUrl &address)
    {
        auto d = std::make_unique<AppDelegate>(env.configuration(address), fakes.services(), &host);
        d->assembleStatusMenu();
        d->updateStateMenu(u"Status: Stopped"_s, v142, false);
        return d;
    }

private slots:
    void init()
    {
        script.reset();
        script = std::make_unique<FakeControlScript>(env.runtimeDir() + "/agentctl.sh"_L1);
        script->write();
        agent = std::make_unique<FakeAgent>(); // fresh, so a late probe of the last test is not counted
        agent->setHealthDown();
        env.markLog();
    }

    void probe_data()
    {
        QTest::addColumn<CannedResponse>("response"); // status 0: nothing listens
        QTest::addColumn<bool>("running");
        QTest::addColumn<QString>("version");
        const auto row = [](const char *name, CannedResponse response, bool running, const QString &version) {
            QTest::newRow(name) << response << running << version;
        };
        row("299, case and white space", {299, "{\"status\":\" \\n oK \\r\\n\",\"version\":\"\\t1.4.2\\n\"}"}, true,
            v142);
        row("201, extra keys", {201, R"({"status":"ok","version":"1.4.2","uptime":{"s":5}})"}, true, v142);
        row("null version", {200, R"({"status":"ok","version":null})"}, true, lastKnown);
        row("blank version", {200, healthBody("ok", u" \t "_s)}, true, lastKnown);
        row("null status", {200, R"({"status":null,"version":"1.4.2"})"}, false, v142);
        row("status with a full stop", {200, healthBody("ok.")}, false, v142);
        // A value of the wrong type spoils the whole body.
        row("numeric version", {200, R"({"status":"ok","version":142})"}, false, lastKnown);
        row("204, no body", {204, {}}, false, lastKnown);
        row("not JSON", {200, "ok", "text/plain"}, false, lastKnown);
        row("300, body ignored", {300, okBody}, false, lastKnown);
        row("503, body ignored", {503, okBody}, false, lastKnown);
        row("refused", {0, {}}, false, lastKnown);
        row("hung", {200, okBody, "application/json", true}, false, lastKnown);
        // Guards the fix that made a body cut off after the status line a transport failure: the
        // whole ok object arrives, but not the announced length.
        row("cut-off", {200, okBody, "application/json", false, 0, okBody.size() + 50}, false, lastKnown);
    }
    void probe()
    {
        QFETCH(CannedResponse, response);
        const int takesMs = response.hang ? 2500 : 0; // the probe gives up on a silent agent
        agent->setResponse("/healthz", response);
        auto d = makeController(response.status ? agent->baseURL() : QUrl(u"http://127.0.0.1:1"_s));
        QList<QPair<bool, QString>> answers;
        QElapsedTimer clock;
        clock.start();
        d->queryHealth([&](bool r, const QString &v) { answers.append({r, v}); });
        // The fallback is the version standing when the answer is judged, not when it was asked for.
        d->lastKnownVersion = lastKnown;
        QTRY_VERIFY_WITH_TIMEOUT(!answers.isEmpty(), 8000);
        const qint64 elapsed = clock.elapsed();
        QTest::qWait(0); // a second completion would come on the same turn
        QFETCH(bool, running);
        QFETCH(QString, version);
        QCOMPARE(answers, (QList<QPair<bool, QString>>{{running, version}}));
        QVERIFY2(elapsed >= takesMs - 200 && elapsed < takesMs + 1500, qPrintable(QString::number(elapsed)));
        QTRY_COMPARE_WITH_TIMEOUT(d->findChildren<QNetworkReply *>().size(), 0, 1000); // every reply released
    }

    void refresh_data()
    {
        QTest::addColumn<bool>("wasRunning");
        QTest::addColumn<bool>("startInFlight");
        QTest::addColumn<bool>("stopInFlight");
        QTest::addColumn<bool>("up");
        QTest::addColumn<QString>("title");
        QTest::newRow("running clears both flags") << false << true << true << true << "Status: Running";
        QTest::newRow("still running") << true << false << false << true << "Status: Running";
        QTest::newRow("start wins over stop") << true << true << true << false << "Status: Starting...";
    }
    void refresh()
    {
        QFETCH(bool, wasRunning);
        QFETCH(bool, startInFlight);
        QFETCH(bool, stopInFlight);
        QFETCH(bool, up);
        auto d = makeController(agent->baseURL());
        d->updateStateMenu(u"Status: Launching..."_s, lastKnown, wasRunning);
        d->startInFlight = startInFlight;
        d->stopInFlight = stopInFlight;
        const DispatchWorkItem *syncBefore = d->mountedVolumeSyncDebounceWorkItem.get();
        agent->setResponse("/healthz", {200, healthBody(up ? "ok" : "down", u"2.0.1"_s)});
        d->refreshHealth();
        QTRY_COMPARE(d->versionMenuItem->text(), u"Version: 2.0.1"_s);
        QTEST(d->stateMenuItem->text(), "title");
        // Only a change to running asks for a volume sync; only a running agent clears the flags.
        QCOMPARE(d->mountedVolumeSyncDebounceWorkItem.get() != syncBefore, up && !wasRunning);
        if (up && !wasRunning) // forced: sent at once, well inside the one-second debounce
            QTRY_COMPARE_WITH_TIMEOUT(agent->countFor("/api/mounted-volumes/cache-sync"), 1, 700);
        QCOMPARE(d->startInFlight, startInFlight && !up);
        QCOMPARE(d->stopInFlight, stopInFlight && !up);
    }

    void command_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("lines"); // in order; %S: the script, %R: the runtime folder, %L: the logs
        QTest::addColumn<QString>("finalTitle");
        QTest::addColumn<int>("pagesOpened");
        const QString state = u"State updated: Status: %1 version=1.4.2 running=false"_s;
        const QString starting = state.arg("Starting..."), stopping = state.arg("Stopping..."),
                      stopped = state.arg("Stopped");
        QTest::newRow("start fails") << "start" << 3
                                     << QStringList{starting,
                                                    "Agent start command failed with exit code 3",
                                                    "Opening startup page: %R/startup-status-failed.html",
                                                    "Opening logs directory: %L",
                                                    state.arg("Start failed"),
                                                    stopped}
                                     << "Status: Stopped" << 3;
        QTest::newRow("stop") << "stop" << 0
                              << QStringList{stopping, "Launching process: %S stop", "Process exited with code 0",
                                             stopped}
                              << "Status: Stopped" << 0;
    }
    void command()
    {
        QFETCH(QString, command);
        QFETCH(int, exitCode);
        QFETCH(QStringList, lines);
        const bool start = command == "start"_L1;
        script->write({exitCode, true, {}}, {exitCode, true, {}});
        auto d = makeController(agent->baseURL());
        if (!start)
            d->updateStateMenu(u"Status: Running"_s, v142, true);
        env.markLog();
        (start ? d->stopInFlight : d->startInFlight) = true; // the other command gives way
        start ? d->startAgentFromMenu() : d->stopAgentFromMenu();
        QTRY_COMPARE(script->runs(), QList<QStringList>{{command}});
        QCOMPARE(d->startInFlight, start);
        QCOMPARE(d->stopInFlight, !start);
        script->release(command);
        QFETCH(QString, finalTitle);
        QTRY_COMPARE(d->stateMenuItem->text(), finalTitle);
        QVERIFY(!d->startInFlight && !d->stopInFlight && !d->terminateAfterStop);

        const QStringList log = env.messagesSinceMark();
        qsizetype at = -1;
        for (QString &line : lines) {
            line.replace("%S", script->path()).replace("%R", env.runtimeDir()).replace("%L", env.logsDir());
            at = log.indexOf(line, at + 1);
            QVERIFY2(at >= 0, qPrintable(line + " missing or out of order in:\n"_L1 + log.join('\n')));
        }
        QTEST(int(fakes.opener->opened.size()), "pagesOpened");
    }

    void scriptThatIsNotExecutableRunsNothing()
    {
        QVERIFY(QFile::setPermissions(script->path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        auto d = makeController(agent->baseURL());
        env.markLog();
        d->startAgentFromMenu();
        QCOMPARE(env.messagesSinceMark(),
                 QStringList({"agentctl.sh exists but is not executable: "_L1 + script->path(),
                              u"State updated: Status: Missing runtime files version=1.4.2 running=false"_s}));
        QVERIFY(!d->startInFlight && !d->stopInFlight && fakes.opener->opened.isEmpty());
    }
};

QTEST_MAIN(AgentTest)
#include "tst_Agent.moc"
