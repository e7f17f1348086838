// Orderly termination: the agent is stopped once before the program goes, whoever asks and however
// often, and not before a running start has ended; a second copy leaves at once.
#include "support/InstalledProgram.h"
#include "support/Testing.h"

#include <csignal>
#include <unistd.h>

// The setup, who asks (0: the menu's Quit or a quit signal; else how often the system asks).
using AskRow = std::pair<QString, int>;

// A log kept beside the test, a line each, with this run's paths and numbers put in for its placeholders.
static QStringList expectedLog(const QString &name, const QList<std::pair<QString, QString>> &values)
{
    QString text = QString::fromUtf8(readFile(QFINDTESTDATA(name)));
    for (const auto &[placeholder, value] : values)
        text.replace(placeholder, value);
    return text.split(u'\n', Qt::SkipEmptyParts);
}

class TerminationTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    std::unique_ptr<FakeAgent> agent; // fresh per test: a late probe from the last one is not counted
    std::unique_ptr<Controller> c;
    std::unique_ptr<QSignalSpy> terminated;
    std::unique_ptr<FakeControlScript> script;

    // A controller whose stop script exits with stopExit once released (at once without resources); a start
    // still running 0.3 s after the termination stop is ended, its group killed 1.5 s later.
    void makeController(int stopExit = 0, bool showRunning = true, bool withResources = true)
    {
        script = std::make_unique<FakeControlScript>(env.runtimeDir() + u"/agentctl.sh"_s);
        script->write({0, true, {}}, {stopExit, true, {}});
        agent->setHealthy();
        Configuration config = env.configuration(agent->baseURL());
        if (!withResources)
            config.resourceDirectory.reset();
        config.refreshInterval = std::chrono::hours(1);
        config.launchFlowDelay = std::chrono::milliseconds(20);
        config.startGraceAfterTerminationStop = std::chrono::milliseconds(300);
        config.processGroupKillDelay = std::chrono::milliseconds(1500);
        c = std::make_unique<Controller>(config, showRunning);
        terminated = std::make_unique<QSignalSpy>(&c->host, &ApplicationHost::terminated);
        if (showRunning)
            c->delegate.updateStateMenu(u"Status: Running"_s, u"1.4.2"_s, true);
        env.markLog();
    }

private slots:
    void init() { agent = std::make_unique<FakeAgent>(); }
    void cleanup() { c.reset(); }

    // Whoever asks, the agent is stopped once, the asker answered once after the reply, the program ended once.
    void terminationStopsTheAgentOnceThenEndsOnce_data()
    {
        QTest::addColumn<AskRow>("row"); // the lines logged: the block of terminations.log that the name heads
        QTest::newRow("quit") << AskRow{"", 0};
        QTest::newRow("quit, failing stop, bypass left on") << AskRow{"bypass, failing", 0};
        // Guards: a Quit during a menu stop started a second stop.
        QTest::newRow("quit during a menu stop") << AskRow{"menu stop", 0};
        QTest::newRow("signal before launch") << AskRow{"signal", 0};
        // Guards: the early answer came before the reply, and a repeated request was answered twice or not at all.
        QTest::newRow("system, no delegate") << AskRow{"no delegate", 1};
        QTest::newRow("system, stop bypass") << AskRow{"bypass", 1};
        QTest::newRow("system, twice") << AskRow{"", 2};
        QTest::newRow("system, no resource folder") << AskRow{"no resources", 1};
    }
    void terminationStopsTheAgentOnceThenEndsOnce()
    {
        QFETCH(AskRow, row);
        const auto &[setup, askers] = row;
        const QStringList log = blockOf(QFINDTESTDATA("terminations.log"));
        makeController(setup.endsWith("failing"_L1) ? 2 : 0, setup != "signal"_L1, setup != "no resources"_L1);
        if (setup == "no delegate"_L1)
            c->host.setDelegate(nullptr);
        c->delegate.stopAgentOnTerminate = !setup.startsWith("bypass"_L1);
        if (setup == "menu stop"_L1) {
            c->delegate.stopMenuItem()->trigger();
            QTRY_COMPARE(script->runs().size(), 1);
        }
        const bool now = askers && (setup == "no delegate"_L1 || setup == "bypass"_L1);
        QList<int> answers; // the askers answered yes, in order
        for (int asker = 1; asker <= askers; ++asker) {
            QCOMPARE(
                c->host.systemRequestsTermination([&answers, asker](bool yes) { answers.append(yes ? asker : 0); }),
                now ? ApplicationHost::TerminateNow : ApplicationHost::TerminateLater);
            QVERIFY(answers.isEmpty()); // never before the reply has been returned
        }
        if (setup == "signal"_L1) {
            // Guards: a quit signal that came before launching had finished was forgotten, and a quit while the
            // launch probe was out still started the agent once the probe answered.
            agent->setResponse("/healthz", {503, "{}", "application/json", false, 300}); // down, slow to say so
            c->host.installQuitSignalHandlers();
            ::raise(SIGTERM);
            QCoreApplication::processEvents(); // the signal is read, but nothing is launched to ask yet
            QCOMPARE(script->runs().size(), 0);
            c->host.finishLaunching();
            QTRY_VERIFY(env.messagesSinceMark().contains(u"Launch flow starting. launchedAtLogin=false"_s));
            // The launch probe is out, and its answer has come and gone.
            QTRY_VERIFY(agent->countFor("/healthz") >= 2 && c->delegate.findChildren<QNetworkReply *>().isEmpty());
        } else if (!askers) {
            c->delegate.quitMenuItem()->trigger();
            QCOMPARE(c->delegate.stateMenuItem->text(), u"Status: Stopping and Scanning..."_s);
            c->delegate.quitApp(); // a repeated request while the answer is pending starts nothing new
        }
        const int stops = now || setup == "no resources"_L1 ? 0 : 1;
        QTRY_COMPARE(script->runs(), QList<QStringList>(stops, {u"stop"_s}));
        QCOMPARE(terminated->count(), 0); // the final answer waits for the stop
        script->release(u"stop"_s);
        QTRY_VERIFY_WITH_TIMEOUT(askers ? answers.size() == (now ? 0 : askers) : terminated->count() == 1, 10000);
        QTest::qWait(100); // a second stop, answer or end would have come by now
        // A system asker ends the program, not the host.
        QCOMPARE(std::tuple(answers, terminated->count()),
                 std::tuple(QList<int>({1, 2}).first(now ? 0 : askers), askers ? 0 : 1));
        c->host.systemWillTerminate();
        c->host.systemWillTerminate();
        QCOMPARE(std::tuple(terminated->count(), script->runs(),
                            env.messagesSinceMark().filter(QRegularExpression(
                                u"^(Quit|Application|Termination|Agent stop|Could not|State updated: Status: Stop)"_s)),
                            c->delegate.terminationReplyPending, c->delegate.stopInFlight,
                            c->delegate.terminateAfterStop, c->host.hasTerminated(),
                            c->fakes.notifications->observerCount()), // nor a volume sync on its way out
                 std::tuple(1, QList<QStringList>(stops, {u"stop"_s}), log, false, false, false, true, 0));
    }

    // A start script that hangs past the grace after the termination stop is ended with all it started
    // (SIGKILL for what ignores SIGTERM), the agent stopped once more, and the program exits.
    void hungStartIsEndedWithItsGroupAndStoppedAgain()
    {
        for (const bool ignoresTerm : {false, true}) {
            makeController();
            const QString helper = env.root() + u"/helper-pid"_s; // what the start started, in its group
            QFile::remove(helper);
            script->write(
                {0, true, (ignoresTerm ? u"trap '' TERM; "_s : QString()) + u"sleep 600 & echo $! > "_s + helper},
                {0, false, {}});
            c->delegate.startAgent(true); // with its status page, but a start ended by quitting is no failure
            QTRY_VERIFY(QFile::exists(helper));
            env.markLog();
            QElapsedTimer sinceKill;
            c->delegate.quitApp();
            QTRY_VERIFY_WITH_TIMEOUT(env.messagesSinceMark().filter(u"still running"_s).size() == 1, 5000);
            sinceKill.start();
            QTRY_COMPARE_WITH_TIMEOUT(terminated->count(), 1, 10000);
            QVERIFY2((sinceKill.elapsed() >= 1400) == ignoresTerm, qPrintable(QString::number(sinceKill.elapsed())));
            QCOMPARE(
                env.messagesSinceMark().filter(
                    QRegularExpression(u"^(Quit|Application|Termination|Agent|Process|.* stop$)"_s)),
                expectedLog(u"hung-start.log"_s, {{u"$RUNTIME"_s, env.runtimeDir()},
                                                  {u"$SIGNAL"_s, QString::number(ignoresTerm ? SIGKILL : SIGTERM)}}));
            QCOMPARE(std::pair(script->runs(), c->fakes.opener->opened.size()),
                     std::pair(QList<QStringList>({{u"start"_s}, {u"stop"_s}, {u"stop"_s}}), qsizetype(1)));
            QTRY_VERIFY(QList<QByteArray>({"", "Z"}).contains(processStat(readFile(helper).trimmed().toLongLong())[0]));
        }
    }

    // Guards: a SIGTERM during the launch start exited before it ended, leaving its agent running; and a
    // second copy went unnoticed where the runtime folder is unusable (a file: even root cannot write).
    void realProgramLeavesOnceAsSecondCopyAndWaitsForTheStartOnSigterm()
    {
        InstalledProgram program;
        FakeControlScript realScript(program.controlScript());
        realScript.write({0, true, {}}, {0, false, {}});
        writeFile(program.root() + "/xdg-runtime"_L1, {});
        agent->setHealthDown();
        QElapsedTimer sinceLaunch;
        QList<qint64> probes; // arrivals on sinceLaunch
        connect(agent.get(), &FakeAgent::requestReceived, this, [&](const RecordedRequest &request) {
            if (request.path == "/healthz")
                probes.append(sinceLaunch.elapsed());
        });
        sinceLaunch.start();
        QProcess *first = program.start(agent->port());
        QTRY_COMPARE_WITH_TIMEOUT(realScript.runs(), QList<QStringList>{QStringList{u"start"_s}}, 15000);

        // Same session (instance lock), own data folder so its log stands alone.
        const qint64 secondFrom = sinceLaunch.elapsed();
        QCOMPARE(program.run(agent->port(), {}, u"second"_s).exitCode, 0);
        QVERIFY2(sinceLaunch.elapsed() - secondFrom < 5000, "the second copy should leave at once");
        const QString fallback =
            program.root() + "/tmp/" QUILLMERE_BUNDLE_IDENTIFIER "-"_L1 + QString::number(::getuid());
        const QList<std::pair<QString, QString>> values{
            {u"$RUNTIME"_s, program.runtimeDir()}, {u"$FALLBACK"_s, fallback}, {u"$ROOT"_s, program.root()}};
        // The control socket falls back beside the lock, its name as private to this user.
        QCOMPARE(std::pair(program.logMessages(u"second"_s), QFileInfo::exists(fallback + ".socket"_L1)),
                 std::pair(expectedLog(u"second-copy.log"_s, values), true));
        // Default timings: probes at launch, 0.4 s and 5 s later; idle in between (a spin takes much of a core),
        // while the start runs on past 30 s, the time Qt waits for a process unless told otherwise.
        const auto cpuMs = [pid = first->processId()] {
            const QList<QByteArray> stat = processStat(pid);
            return (stat.value(11).toLongLong() + stat.value(12).toLongLong()) * 1000 / ::sysconf(_SC_CLK_TCK);
        };
        const qint64 cpuBefore = cpuMs(), idleFrom = sinceLaunch.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(probes.size() >= 3 && sinceLaunch.elapsed() > 31000, 40000);
        const qint64 idle = sinceLaunch.elapsed() - idleFrom, cpu = cpuMs() - cpuBefore;
        QVERIFY2(cpu < 100 + idle / 8, qPrintable(u"%1 ms CPU in %2 ms"_s.arg(cpu).arg(idle)));
        const qint64 toSecond = probes[1] - probes[0], toThird = probes[2] - probes[0];
        QVERIFY2(toSecond >= 200 && toSecond < 2000 && toThird >= 4000 && toThird < 7500,
                 qPrintable(u"%1 %2"_s.arg(toSecond).arg(toThird)));

        ::kill(pid_t(first->processId()), SIGTERM);
        const QString stopped = u"Termination stop finished with exit code 0."_s;
        QTRY_VERIFY_WITH_TIMEOUT(program.logMessages().contains(stopped), 15000);
        QCOMPARE(first->state(), QProcess::Running); // the start has not ended: no final answer yet
        ::kill(pid_t(first->processId()), SIGTERM);  // a repeated request starts nothing new
        realScript.release(u"start"_s);
        QTRY_COMPARE_WITH_TIMEOUT(first->state(), QProcess::NotRunning, 15000);
        QCOMPARE(std::pair(first->exitStatus(), first->exitCode()), std::pair(QProcess::NormalExit, 0));
        // In order: the welcome page, a start (the agent is down), the termination stop, one more for the start.
        QCOMPARE(program.logMessages().filter(QRegularExpression(
                     "^(Application|Single|Configuring|Opening|Launch|Agent not|Process|Termination)"_L1)),
                 expectedLog(u"sigterm-during-start.log"_s, values));
        // A path is opened, not a URL; the launch posted the (empty) volumes once, whatever the agent's health.
        const QList<RecordedRequest> syncs = agent->requestsFor("/api/mounted-volumes/cache-sync");
        QCOMPARE(std::tuple(program.openedLocations(), syncs.size(), syncs.value(0).body),
                 std::tuple(QStringList{program.runtimeDir() + "/welcome.html"_L1}, qsizetype(1),
                            QByteArray(R"({"event":"app-launch","source":"menu-app","volumes":[]})")));
    }
};

QTEST_MAIN(TerminationTest)
#include "tst_Termination.moc"
