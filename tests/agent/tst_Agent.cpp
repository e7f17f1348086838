// The agent as the controller sees it: /healthz answers, the state line after them, and start and stop.
#include "control/AgentNotifications.h"
#include "support/Testing.h"

#include <QProcess>
#include <unistd.h>

namespace {
const QString lastKnown = u"1.3.0"_s, v142 = u"1.4.2"_s;
const QByteArray okBody = R"({"status":"ok","version":"1.4.2"})";
using RefreshRow = std::tuple<bool, bool, bool, bool, QString>;
} // namespace

class AgentTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    std::unique_ptr<FakeAgent> agent;
    std::unique_ptr<FakeControlScript> script;

    std::unique_ptr<Controller> makeController()
    {
        auto c = std::make_unique<Controller>(env.configuration(agent->baseURL()));
        c->delegate.updateStateMenu(u"Status: Stopped"_s, v142, false);
        env.markLog();
        return c;
    }

private slots:
    void init()
    {
        script = std::make_unique<FakeControlScript>(env.runtimeDir() + "/agentctl.sh"_L1);
        script->write();
        agent = std::make_unique<FakeAgent>(); // fresh, so a late probe of the last test is not counted
        agent->setHealthDown();
    }

    void probe_data()
    {
        QTest::addColumn<CannedResponse>("response");
        QTest::addColumn<QList<QPair<bool, QString>>>("answers");
        const auto row = [](const char *name, CannedResponse response, bool running, const QString &version) {
            QTest::newRow(name) << response << QList<QPair<bool, QString>>{{running, version}};
        };
        row("299, case and white space, more keys",
            {299, R"({"status":" \n oK \r\n","version":"\t1.4.2\n","uptime":5})"}, true, v142);
        row("null version", {200, R"({"status":"ok","version":null})"}, true, lastKnown);
        row("no version", {200, R"({"status":"ok"})"}, true, lastKnown);
        row("blank version", {200, R"({"status":"ok","version":" \t "})"}, true, lastKnown);
        row("status with a full stop", {200, R"({"status":"ok.","version":"1.4.2"})"}, false, v142);
        row("numeric version spoils the body", {200, R"({"status":"ok","version":142})"}, false, lastKnown);
        row("not JSON", {200, "ok", "text/plain"}, false, lastKnown);
        row("not an object", {200, R"([{"status":"ok"}])"}, false, lastKnown);
        row("no body", {204, {}}, false, lastKnown);
        row("300, body ignored", {300, okBody}, false, lastKnown);
        row("hung", {200, okBody, "application/json", true}, false, lastKnown);
        row("nobody listening", {200, okBody}, false, lastKnown); // refused: answered at once
        row("redirected on the origin", {307, {}, "text/plain", false, 0, -1, "/elsewhere"}, true, v142);
        // Guards: a body cut off after the status line was judged; the whole object arrives, not its length.
        row("cut-off", {200, okBody, "application/json", false, 0, okBody.size() + 50}, false, lastKnown);
    }
    void probe()
    {
        QFETCH(CannedResponse, response);
        agent->setResponse("/healthz", response);
        agent->setResponse("/elsewhere", {200, okBody});
        auto c = makeController();
        if (QTest::currentDataTag() == "nobody listening"_L1)
            agent.reset();
        QList<QPair<bool, QString>> answers;
        QElapsedTimer clock;
        clock.start();
        c->delegate.queryHealth([&](bool r, const QString &v) { answers.append({r, v}); });
        // The fallback is the version standing when the answer is judged, not when it was asked for.
        c->delegate.lastKnownVersion = lastKnown;
        QTRY_VERIFY_WITH_TIMEOUT(!answers.isEmpty(), 8000);
        const qint64 elapsed = clock.elapsed(), takesMs = response.hang ? 2500 : 0; // the probe's time-out
        QTest::qWait(0); // a second completion would come on the same turn
        QTEST(answers, "answers");
        QVERIFY2(elapsed >= takesMs - 200 && elapsed < takesMs + 1500, qPrintable(QString::number(elapsed)));
        QTRY_COMPARE_WITH_TIMEOUT(c->delegate.findChildren<QNetworkReply *>().size(), 0, 1000); // released
        QVERIFY(env.messagesSinceMark().isEmpty()); // a probe is no change of state
    }

    void refresh_data()
    {
        QTest::addColumn<RefreshRow>("row");
        QTest::newRow("running again clears both flags") << RefreshRow{false, true, true, true, "Status: Running"};
        QTest::newRow("launch found it running") << RefreshRow{true, false, false, true, "Status: Running"};
        QTest::newRow("still running") << RefreshRow{true, false, false, true, "Status: Running"};
        QTest::newRow("start wins over stop") << RefreshRow{true, true, true, false, "Status: Starting..."};
        QTest::newRow("stop under way") << RefreshRow{true, false, true, false, "Status: Stopping..."};
    }
    void refresh()
    {
        QFETCH(RefreshRow, row);
        const auto &[wasRunning, startInFlight, stopInFlight, up, title] = row;
        auto c = makeController();
        AppDelegate &d = c->delegate;
        agent->setResponse("/healthz",
                           {200, R"({"status":")" + QByteArray(up ? "ok" : "down") + R"(","version":"2.0.1"})"});
        if (QTest::currentDataTag() == "launch found it running"_L1) { // its start's answer came first
            d.startAgentIfNeededOnLaunch();
            QTRY_VERIFY(env.messagesSinceMark().contains(u"Agent already healthy during launch."_s));
        } else { // it ran before, so that running again is a second change to running
            d.updateStateMenu(u"Status: Running"_s, lastKnown, true);
            d.updateStateMenu(u"Status: Launching..."_s, lastKnown, wasRunning);
        }
        std::tie(d.startInFlight, d.stopInFlight) = std::pair(startInFlight, stopInFlight);
        const DispatchWorkItem *syncBefore = d.mountedVolumeSyncDebounceWorkItem.get();
        d.refreshHealth();
        QTRY_COMPARE(d.versionMenuItem->text(), u"Version: 2.0.1"_s);
        // Only a change to running asks for a forced volume sync (inside the 1 s debounce); only running clears flags.
        const int sync = up && !wasRunning;
        QTRY_COMPARE_WITH_TIMEOUT(std::tuple(d.stateMenuItem->text(), d.startInFlight, d.stopInFlight,
                                             int(d.mountedVolumeSyncDebounceWorkItem.get() != syncBefore),
                                             agent->countFor("/api/mounted-volumes/cache-sync")),
                                  std::tuple(title, startInFlight && !up, stopInFlight && !up, sync, sync), 700);
    }

    // What the user asked for is no news to them; only a failing start at launch is told.
    void command_data()
    {
        // "launch": the start at launch. What is logged, then what the user is told: commands.log's block for the name.
        QTest::addColumn<QString>("command");
        QTest::newRow("start fails") << u"start"_s;
        QTest::newRow("start at launch fails") << u"launch"_s;
        QTest::newRow("stop") << u"stop"_s;
    }
    void command()
    {
        QFETCH(QString, command);
        QStringList expected = blockOf(QFINDTESTDATA("commands.log"));
        expected.replaceInStrings(u"$RUNTIME"_s, env.runtimeDir()).replaceInStrings(u"$LOGS"_s, env.logsDir());
        const bool start = command != "stop"_L1;
        script->write({1, true, {}}, {0, true, {}});
        auto c = makeController();
        AppDelegate &d = c->delegate;
        AgentNotifications notifications(d);
        if (!start)
            d.updateStateMenu(u"Status: Running"_s, v142, true);
        env.markLog();
        (start ? d.stopInFlight : d.startInFlight) = true; // the other command gives way
        if (command == "launch"_L1)
            d.startAgent(false);
        else // through the item, as a user or a command does
            (start ? d.startMenuItem() : d.stopMenuItem())->trigger();
        QTRY_COMPARE(script->runs(), QList<QStringList>{{start ? u"start"_s : command}});
        // While the script runs its item is held back; a stop's counts the agent as down, so Start may be chosen.
        QCOMPARE(
            std::tuple(d.startInFlight, d.stopInFlight, d.startMenuItem()->isEnabled(), d.stopMenuItem()->isEnabled()),
            std::tuple(start, !start, !start, false));
        script->release(start ? u"start"_s : command);
        // A notification is one entry of several lines: title, text, then its actions.
        QTRY_COMPARE((env.messagesSinceMark() + c->fakes.statusItem->notifications).join(u'\n'), expected.join(u'\n'));
        QVERIFY(!d.startInFlight && !d.stopInFlight && !d.terminateAfterStop);
        QCOMPARE(c->fakes.opener->opened.size(), expected.filter(u"Opening"_s).size());

        QVERIFY(QFile::setPermissions(script->path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        env.markLog();
        d.startAgentFromMenu(); // runs nothing; nor with no runtime folder, which is still where the script is sought
        QVERIFY(QDir(env.runtimeDir()).removeRecursively());
        d.startAgentFromMenu();
        QCOMPARE(
            env.messagesSinceMark(),
            blockOf(QFINDTESTDATA("commands.log"), u"not executable"_s).replaceInStrings(u"$SCRIPT"_s, script->path()));
    }

    // An unasked stop is told once the next answer confirms it, but not in the first 30 s after a wake
    // (told by the system, or seen from the wall clock running ahead of the monotonic one).
    void stopToldOnceConfirmedUnlessJustWoken()
    {
        for (const bool woke : {false, true}) {
            auto c = makeController();
            AgentNotifications notifications(c->delegate);
            c->delegate.updateStateMenu(u"Status: Running"_s, v142, true);
            if (woke)
                c->fakes.notifications->post(WorkspaceNotification::didWake);
            c->delegate.updateStateMenu(u"Status: Stopped"_s, v142, false);
            emit c->delegate.healthAnswered(false);
            QCOMPARE(c->fakes.statusItem->notifications.size(), woke ? 0 : 1);
        }
        QCOMPARE((QList<bool>{sleptBetween(62000, 2000), sleptBetween(2900, 2000)}), (QList<bool>{true, false}));
    }

    // Another user's program on the agent's port is not the agent, whatever it answers: the start at
    // launch runs (and fails, the port being taken), no snapshot goes there, its owner is logged once.
    void strangerOnThePort()
    {
        const QString demoAgent = QStringLiteral(QUILLMERE_BUILD_RESOURCES "/runtime/quillmere-demo-agent");
        if (::getuid() != 0 || !QFile::exists(demoAgent))
            QSKIP("a listener of another user needs root (and the demo agent)");
        const QUrl base = agent->baseURL();
        agent.reset(); // its port goes to the stranger
        QProcess stranger;
        stranger.start(u"setpriv"_s, {u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s, u"env"_s,
                                      u"QUILLMERE_AGENT_PORT=%1"_s.arg(base.port()), demoAgent});
        QVERIFY(stranger.waitForReadyRead() && stranger.readAllStandardOutput().contains("listening"));
        script->write({3, false, {}});
        Controller c(env.configuration(base));
        env.markLog();
        c.delegate.syncMountedVolumesCache(u"app-launch"_s, true);
        QVERIFY(!c.delegate.mountedVolumeSyncInFlight);
        QList<QPair<bool, QString>> answers;
        c.delegate.startAgentIfNeededOnLaunch();
        c.delegate.queryHealth([&](bool r, const QString &v) { answers.append({r, v}); });
        QTRY_COMPARE(std::tuple(answers, script->runs(),
                                env.messagesSinceMark().filter(QRegularExpression(u"^Agent|running=true"_s))),
                     std::tuple(QList<QPair<bool, QString>>{{false, u"--"_s}}, QList<QStringList>{{u"start"_s}},
                                blockOf(QFINDTESTDATA("commands.log"), u"stranger on the port"_s)
                                    .replaceInStrings(u"$PORT"_s, QString::number(base.port()))));
    }
};

QTEST_MAIN(AgentTest)
#include "tst_Agent.moc"
