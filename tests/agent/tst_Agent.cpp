// The agent as the controller sees it: what a /healthz exchange means, the probe over a real
// loopback connection, the state line following the answers, the start at launch, and starting
// and stopping through a recording control script (titles, in-flight flags, exact log lines).
#include "agent/HealthJudgement.h"
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {
const QString lastKnown = QStringLiteral("1.3.0");
const QString v142 = QStringLiteral("1.4.2");
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
    int versions = 0;

    std::unique_ptr<AppDelegate> makeController(const QUrl &address, bool withRuntimeFolder = true)
    {
        Configuration config = env.configuration(address);
        if (!withRuntimeFolder)
            config.resourceDirectory = std::nullopt;
        auto d = std::make_unique<AppDelegate>(config, fakes.services(), &host);
        d->assembleStatusMenu();
        d->updateStateMenu(QStringLiteral("Status: Stopped"), v142, false);
        return d;
    }
    // Answers the next probe with a new version, refreshes, and waits until the answer is applied.
    QString refreshWith(AppDelegate &d, bool up)
    {
        const QString version = QStringLiteral("2.0.%1").arg(++versions);
        agent->setResponse("/healthz", {200, healthBody(up ? "ok" : "down", version)});
        d.refreshHealth();
        [&] { QTRY_COMPARE(d.lastKnownVersion, version); }();
        return version;
    }

private slots:
    void init()
    {
        script.reset();
        script = std::make_unique<FakeControlScript>(env.runtimeDir() + QStringLiteral("/agentctl.sh"));
        script->write();
        agent = std::make_unique<FakeAgent>(); // fresh, so a late probe of the last test is not counted
        agent->setHealthDown();
        env.markLog();
    }

    void judgement_data();
    void judgement()
    {
        QFETCH(HealthExchange, exchange);
        const HealthAnswer answer = judgeHealthAnswer(exchange, lastKnown);
        QTEST(answer.running, "running");
        QTEST(answer.version, "version");
    }

    void probe_data()
    {
        QTest::addColumn<CannedResponse>("response");
        QTest::addColumn<bool>("cutOff"); // the whole ok object arrives, but not the announced length
        QTest::addColumn<bool>("running");
        QTest::addColumn<QString>("version");
        QTest::addColumn<int>("takesMs");
        QTest::newRow("ok") << CannedResponse{200, okBody} << false << true << v142 << 0;
        QTest::newRow("500 is an answer") << CannedResponse{500, okBody} << false << false << lastKnown << 0;
        QTest::newRow("hung agent times out")
            << CannedResponse{200, {}, {}, true} << false << false << lastKnown << 2500;
        QTest::newRow("cut-off body") << CannedResponse{} << true << false << lastKnown << 0;
    }
    void probe()
    {
        QFETCH(CannedResponse, response);
        QFETCH(bool, cutOff);
        QFETCH(int, takesMs);
        QFETCH(bool, running);
        QFETCH(QString, version);
        agent->setResponse("/healthz", response);
        QUrl address = agent->baseURL();
        QTcpServer peer;
        if (cutOff) {
            QVERIFY(peer.listen(QHostAddress::LocalHost));
            address.setPort(peer.serverPort());
            connect(&peer, &QTcpServer::newConnection, &peer, [&peer] {
                QTcpSocket *socket = peer.nextPendingConnection();
                connect(socket, &QTcpSocket::readyRead, socket, [socket] {
                    socket->readAll();
                    socket->write("HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n" + okBody);
                    socket->disconnectFromHost();
                });
            });
        }
        auto d = makeController(address);
        QList<QPair<bool, QString>> answers;
        QElapsedTimer clock;
        clock.start();
        d->queryHealth([&](bool r, const QString &v) { answers.append({r, v}); });
        // The fallback is the version standing when the answer is judged, not when it was asked for.
        d->lastKnownVersion = lastKnown;
        QTRY_VERIFY_WITH_TIMEOUT(!answers.isEmpty(), 8000);
        const qint64 elapsed = clock.elapsed();
        QTest::qWait(0); // a second completion would come on the same turn
        QCOMPARE(answers, (QList<QPair<bool, QString>>{{running, version}}));
        QVERIFY2(elapsed >= takesMs - 200 && elapsed < takesMs + 1500, qPrintable(QString::number(elapsed)));
    }

    void refresh_data()
    {
        QTest::addColumn<bool>("wasRunning");
        QTest::addColumn<bool>("startInFlight");
        QTest::addColumn<bool>("stopInFlight");
        QTest::addColumn<bool>("up");
        QTest::addColumn<QString>("title");
        // Only a change to running asks for a volume sync.
        QTest::newRow("running clears both flags") << false << true << true << true << "Status: Running";
        QTest::newRow("still running") << true << false << false << true << "Status: Running";
        QTest::newRow("down while starting") << true << true << false << false << "Status: Starting...";
        QTest::newRow("start wins over stop") << true << true << true << false << "Status: Starting...";
        QTest::newRow("down while stopping") << true << false << true << false << "Status: Stopping...";
        QTest::newRow("down") << true << false << false << false << "Status: Stopped";
    }
    void refresh()
    {
        QFETCH(bool, wasRunning);
        QFETCH(bool, startInFlight);
        QFETCH(bool, stopInFlight);
        QFETCH(bool, up);
        QFETCH(QString, title);
        auto d = makeController(agent->baseURL());
        d->updateStateMenu(QStringLiteral("Status: Launching..."), lastKnown, wasRunning);
        d->startInFlight = startInFlight;
        d->stopInFlight = stopInFlight;
        const DispatchWorkItem *syncBefore = d->mountedVolumeSyncDebounceWorkItem.get();
        const QString version = refreshWith(*d, up);
        QCOMPARE(d->mountedVolumeSyncDebounceWorkItem.get() != syncBefore, up && !wasRunning);
        QCOMPARE(d->stateMenuItem->text(), title);
        QCOMPARE(d->versionMenuItem->text(), QStringLiteral("Version: ") + version);
        QCOMPARE(d->agentIsRunning, up);
        QCOMPARE(d->startInFlight, startInFlight && !up); // only a running agent clears them
        QCOMPARE(d->stopInFlight, stopInFlight && !up);
    }

    void launch_data()
    {
        QTest::addColumn<bool>("healthy");
        QTest::addColumn<bool>("launchedAtLogin");
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("pagesOpened");
        const QString starting = QStringLiteral("Agent not healthy during launch. Starting agent.");
        QTest::newRow("healthy") << true << false << "Agent already healthy during launch." << 0;
        QTest::newRow("unhealthy, manual launch") << false << false << starting << 1;
        QTest::newRow("unhealthy, at login") << false << true << starting << 0;
    }
    void launch()
    {
        QFETCH(bool, healthy);
        QFETCH(QString, line);
        if (healthy)
            agent->setHealthy();
        auto d = makeController(agent->baseURL());
        QFETCH(bool, launchedAtLogin);
        d->launchedAtLogin = launchedAtLogin;
        d->startAgentIfNeededOnLaunch();
        QVERIFY(env.waitForLogMessage(line));
        QTRY_COMPARE(script->runs(), healthy ? QList<QStringList>{} : QList<QStringList>{{QStringLiteral("start")}});
        QTRY_COMPARE(d->stateMenuItem->text(),
                     healthy ? QStringLiteral("Status: Running") : QStringLiteral("Status: Stopped"));
        QCOMPARE(env.messagesSinceMark().filter(QStringLiteral("during launch")), QStringList{line});
        QTEST(int(fakes.opener->opened.size()), "pagesOpened");
    }

    void command_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("lines"); // in order; %S: the script, %R: the runtime folder, %L: the logs
        QTest::addColumn<QString>("finalTitle");
        QTest::addColumn<int>("pagesOpened");
        const QString starting = QStringLiteral("State updated: Status: Starting... version=1.4.2 running=false");
        const QString stopping = QStringLiteral("State updated: Status: Stopping... version=1.4.2 running=false");
        const QString stopped = QStringLiteral("State updated: Status: Stopped version=1.4.2 running=false");
        QTest::newRow("start") << "start" << 0
                               << QStringList{"Opening startup page: %R/startup-status.html", starting,
                                              "Launching process: %S start", "Process exited with code 0",
                                              "State updated: Status: Running version=2.0.1 running=true"}
                               << "Status: Running" << 1;
        QTest::newRow("start fails") << "start" << 3
                                     << QStringList{starting,
                                                    "Agent start command failed with exit code 3",
                                                    "Opening startup page: %R/startup-status-failed.html",
                                                    "Opening logs directory: %L",
                                                    "State updated: Status: Start failed version=1.4.2 running=false",
                                                    stopped}
                                     << "Status: Stopped" << 3;
        QTest::newRow("stop") << "stop" << 0
                              << QStringList{stopping, "Launching process: %S stop", "Process exited with code 0",
                                             stopped}
                              << "Status: Stopped" << 0;
        QTest::newRow("stop fails") << "stop" << 5
                                    << QStringList{stopping, "Agent stop command finished with exit code 5", stopped}
                                    << "Status: Stopped" << 0;
    }
    void command()
    {
        QFETCH(QString, command);
        QFETCH(int, exitCode);
        QFETCH(QStringList, lines);
        const bool start = command == QLatin1String("start");
        script->write({exitCode, true, {}}, {exitCode, true, {}});
        auto d = makeController(agent->baseURL());
        if (!start)
            d->updateStateMenu(QStringLiteral("Status: Running"), v142, true);
        env.markLog();
        (start ? d->stopInFlight : d->startInFlight) = true; // the other command gives way
        start ? d->startAgentFromMenu() : d->stopAgentFromMenu();
        QTRY_COMPARE(script->runs(), QList<QStringList>{{command}});
        QCOMPARE(d->startInFlight, start);
        QCOMPARE(d->stopInFlight, !start);
        // While it runs, nothing can start it again; a stopping agent already counts as not running.
        QCOMPARE(d->startMenuItem()->isEnabled(), !start);
        QVERIFY(!d->stopMenuItem()->isEnabled());
        if (start && exitCode == 0)
            agent->setHealthy(QStringLiteral("2.0.1"));
        script->release(command);
        QFETCH(QString, finalTitle);
        QTRY_COMPARE(d->stateMenuItem->text(), finalTitle);
        QVERIFY(!d->startInFlight && !d->stopInFlight && !d->terminateAfterStop);

        const QStringList log = env.messagesSinceMark();
        qsizetype at = -1;
        for (QString &line : lines) {
            line.replace("%S", script->path()).replace("%R", env.runtimeDir()).replace("%L", env.logsDir());
            at = log.indexOf(line, at + 1);
            QVERIFY2(at >= 0, qPrintable(line + QStringLiteral(" missing or out of order in:\n") + log.join('\n')));
        }
        // Success is quiet: only a failure has a line of its own.
        const QRegularExpression own(QStringLiteral("^Agent (start|stop) command"));
        QCOMPARE(log.filter(own), lines.filter(own));
        QTEST(int(fakes.opener->opened.size()), "pagesOpened");
    }

    void unusableScriptRunsNothing_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("log"); // %S: the script
        const QString missing =
            QStringLiteral("\nState updated: Status: Missing runtime files version=1.4.2 running=false");
        const QString notExecutable = QStringLiteral("agentctl.sh exists but is not executable: %S") + missing;
        QTest::newRow("start, not executable") << "not-executable" << notExecutable;
        QTest::newRow("start, missing") << "missing" << notExecutable;
        QTest::newRow("start, no runtime folder")
            << "start" << QStringLiteral("Could not resolve agentctl.sh inside app bundle.") + missing;
        QTest::newRow("stop, no runtime folder") << "stop"
                                                 << "Could not resolve agentctl.sh for stop request.";
    }
    void unusableScriptRunsNothing()
    {
        QFETCH(QString, kind);
        QFETCH(QString, log);
        if (kind == QLatin1String("not-executable"))
            QVERIFY(QFile::setPermissions(script->path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        if (kind == QLatin1String("missing"))
            QVERIFY(QFile::remove(script->path()));
        auto d = makeController(agent->baseURL(), kind != QLatin1String("start") && kind != QLatin1String("stop"));
        env.markLog();
        kind == QLatin1String("stop") ? d->stopAgentFromMenu() : d->startAgentFromMenu();
        QCOMPARE(env.messagesSinceMark().join('\n'), log.replace("%S", script->path()));
        QVERIFY(!d->startInFlight && !d->stopInFlight && fakes.opener->opened.isEmpty());
    }
};

void AgentTest::judgement_data()
{
    QTest::addColumn<HealthExchange>("exchange");
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("version");
    const auto row = [](const char *name, const QByteArray &body, bool running, const QString &version, int status) {
        QTest::newRow(name) << HealthExchange{false, status, body} << running << version;
    };
    row("ok", okBody, true, v142, 200);
    row("case and white space", "{\"status\":\" \\n oK \\r\\n\",\"version\":\"\\t1.4.2\\n\"}", true, v142, 299);
    row("null version keeps last", R"({"status":"ok","version":null})", true, lastKnown, 200);
    row("blank version keeps last", healthBody("ok", QStringLiteral(" \t ")), true, lastKnown, 200);
    // A value of the wrong type spoils the whole body; words other than ok still deliver a version.
    row("numeric version", R"({"status":"ok","version":142})", false, lastKnown, 200);
    row("boolean status", R"({"status":true,"version":"1.4.2"})", false, lastKnown, 200);
    for (const char *word : {"okay", "degraded", ""})
        QTest::addRow("status \"%s\"", word) << HealthExchange{false, 200, healthBody(word)} << false << v142;
    row("status missing, keys case-sensitive", R"({"Status":"ok","version":"1.4.2"})", false, v142, 200);
    row("array", "[" + okBody + "]", false, lastKnown, 200);
    // Outside 2xx the body is never looked at.
    for (int status : {300, 503})
        QTest::addRow("%d", status) << HealthExchange{false, status, okBody} << false << lastKnown;
    QTest::newRow("no body") << HealthExchange{false, 200, std::nullopt} << false << lastKnown;
    QTest::newRow("transport error after ok") << HealthExchange{true, 200, okBody} << false << lastKnown;
}

QTEST_MAIN(AgentTest)
#include "tst_Agent.moc"
