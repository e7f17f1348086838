// Commands from outside the menu: read as meant, carried out by the running program under its menu's
// rules or by the command itself when none runs, over a channel only this user reaches.
#include "control/CommandLine.h"
#include "support/InstalledProgram.h"
#include "support/Testing.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QLibraryInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <csignal>
#include <unistd.h>

using Result = InstalledProgram::Result;

// A socket file nobody listens at, as a copy that crashed leaves it: moved away from where its
// server listened, the file stays when the server closes.
static void leaveStaleSocket(const QString &path)
{
    QLocalServer crashed;
    QVERIFY(crashed.listen(path + u".new"_s) && QFile::rename(path + u".new"_s, path));
}

class ControlTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    FakeAgent agent;
    const quint16 port = agent.port();

private slots:
    void commandLineIsReadAsMeant_data()
    {
        QTest::addColumn<QString>("reading"); // of the row's name as arguments, as command-lines.txt gives it
        for (const QString &row : QString::fromUtf8(readFile(QFINDTESTDATA("command-lines.txt"))).split(u'\n'))
            if (!row.isEmpty() && !row.startsWith(u'#'))
                QTest::newRow(qPrintable(row.section(u" => "_s, 0, 0)))
                    << row.section(u" => "_s, 1).replace(u"$PAGES"_s, pageNames().join(u", "_s));
    }
    void commandLineIsReadAsMeant()
    {
        QFETCH(QString, reading);
        static const QStringList kinds = {u"launch"_s,     u"help"_s,      u"version"_s, u"status"_s, u"diagnose"_s,
                                          u"startAgent"_s, u"stopAgent"_s, u"open"_s,    u"quit"_s,   u"badUsage"_s};
        const CommandLine line = parseCommandLine(QStringList{u"quillmere-menu"_s} +
                                                  QString::fromLatin1(QTest::currentDataTag()).split(u' '));
        const QString flags = (line.json ? u"json"_s : QString()) + (line.watch ? u",watch"_s : QString());
        QCOMPARE(QStringList({kinds[int(line.kind)], flags, line.page, line.problem}).join(u'|'), reading);
    }

    // With no program the command does the job itself; with one, the program does it through its menu.
    void commandsDriveTheRunningProgram()
    {
        InstalledProgram program;
        FakeControlScript script(program.controlScript());
        // Each waits; a start that inherited a socket of the program fails (ls races the shell's own descriptors).
        script.write({0, true, u"ls -l /proc/$$/fd 2>/dev/null | grep -q socket: && exit 9"_s}, {0, true, {}});
        // Sent to another origin, the asker does not go: what is said there is not the agent's word.
        agent.setResponse(
            "/healthz",
            {307, {}, "text/plain", false, 0, -1, "http://localhost:%1/up"_ba.replace("%1", QByteArray::number(port))});
        agent.setResponse("/up", {200, R"({"status":"ok","version":"1.4.2"})"});
        QCOMPARE(program.run(port, {u"--diagnose"_s, u"--json"_s}).exitCode, 6); // nor does the diagnosis
        leaveStaleSocket(program.socketPath());                                  // a copy that crashed is none running
        QString said; // what each command said, in order; compared with commands.txt at the end
        const auto ask = [&](const QStringList &arguments) {
            const Result answer = program.run(port, arguments);
            said += u"$ %1 => %2\n%3"_s.arg(arguments.join(u' ')).arg(answer.exitCode).arg(answer.output);
        };
        for (const QString &arguments : {u"--status"_s, u"-v"_s, u"--open"_s, u"--quit"_s, u"--help"_s})
            ask({arguments});
        QCOMPARE(program.logMessages(), QStringList()); // asking is no change of state: polling leaves no trace

        QProcess *running = program.start(port);
        QTRY_COMPARE_WITH_TIMEOUT(script.runs().size(), 1, 15000);
        QCOMPARE(int(QFile::permissions(program.socketPath()) & 0x77), 0); // no group or other may connect
        ask({u"--status"_s, u"--json"_s});
        ask({u"--start-agent"_s});
        QProcess *watch = program.start(port, {u"--status"_s, u"--watch"_s});
        QTRY_COMPARE(watch->peek(200),
                     "Status: Starting...; Version: --; a start is in progress; watched by quillmere-menu\n");
        watch->terminate();
        // The refresh finds the agent up while the start still runs; a stop asked for then waits for
        // its own script, not for the end of the start's.
        agent.setHealthy();
        QTRY_COMPARE_WITH_TIMEOUT(program.run(port, {u"--status"_s}),
                                  (Result{0, u"Status: Running\nVersion: 1.4.2\n"_s}), 15000);
        ask({u"--open"_s, u"startup-status"_s});
        ask({u"--start-agent"_s});
        QProcess *stop = program.start(port, {u"--stop-agent"_s});
        QTRY_COMPARE(script.runs().size(), 2);
        ask({u"--status"_s});
        ask({u"--stop-agent"_s});
        script.release(u"start"_s);
        QTRY_VERIFY(program.logMessages().contains(u"Process exited with code 0"_s));
        QTest::qWait(300); // an answer taken from the start's end would have come by now
        QCOMPARE(stop->state(), QProcess::Running);
        agent.setHealthDown(); // as the stop brings it down
        script.release(u"stop"_s);
        QTRY_COMPARE(stop->state(), QProcess::NotRunning);
        QCOMPARE((Result{stop->exitCode(), QString::fromUtf8(stop->readAllStandardOutput())}),
                 (Result{0, u"Agent stop finished.\n"_s}));
        ask({u"--stop-agent"_s});
        script.write({4, false, {}}, {0, true, {}});
        ask({u"--start-agent"_s});
        for (const QString &page : pageNames())
            ask({u"--open"_s, page});

        // Sixty-four may be open at once (watches stay open); the next is turned away unanswered. A quit sent
        // on behind a watch is not read: one request per connection.
        const qint64 pid = running->processId(), descriptors = openDescriptors(pid), memory = memoryKb("VmRSS", pid);
        std::vector<std::unique_ptr<QLocalSocket>> watches, unfinished;
        const auto connected = [&program] {
            auto socket = std::make_unique<QLocalSocket>();
            socket->connectToServer(program.socketPath());
            return socket->waitForConnected(2000) ? std::move(socket) : nullptr;
        };
        while (watches.size() < 65) {
            const auto &socket = watches.emplace_back(connected());
            QVERIFY(socket && socket->write("{\"command\":\"watch\"}\n") &&
                    (watches.size() == 65 || socket->waitForReadyRead(2000)));
        }
        QTRY_COMPARE(watches.back()->state(), QLocalSocket::UnconnectedState);
        QVERIFY(watches.back()->readAll().isEmpty() && watches.front()->write("{\"command\":\"quit\"}\n") &&
                watches.front()->waitForBytesWritten(2000));
        watches.clear();
        QTRY_VERIFY(openDescriptors(pid) <= descriptors + 2); // let go before the flood, which the limit would meet

        // A flood of bad, oversized (a byte past the limit) and unfinished requests: all but the unfinished
        // answered, nothing kept.
        const QByteArray requests[] = {"{\"command\":\"bogus\"}\n",
                                       "not json\n",
                                       QByteArray(1025, 'x'),
                                       "{\"command\":\"open\",\"page\":\"bogus\"}\n",
                                       "{\"command\":\"status\",\"page\":\"logs\"}\n",
                                       "{\"command\":\"status\""};
        for (int i = 0; i < 1000; ++i) {
            auto socket = connected();
            QVERIFY(socket && socket->write(requests[i % 6]) && socket->waitForBytesWritten(2000) &&
                    (i % 6 == 5 || socket->waitForReadyRead(2000)));
            if (i < 6) // each answer in brackets, its line feed shown; the unfinished request has none
                said += u"request %1 => [%2]\n"_s.arg(i).arg(QString::fromUtf8(socket->readAll().replace('\n', "\\n")));
            if (i % 6 == 5 && unfinished.size() < 40)
                unfinished.push_back(std::move(socket));
        }
        QTRY_VERIFY_WITH_TIMEOUT(openDescriptors(pid) <= descriptors + 2, 10000); // unfinished ones dropped
        QElapsedTimer waited; // from before the connection, which the program's 2 s to finish a request follow
        waited.start();
        const auto unanswered = connected();
        QVERIFY(unanswered && unanswered->write("{") && unanswered->waitForDisconnected(3500));
        QCOMPARE_GE(waited.elapsed(), 1900);
        QCOMPARE_LT(memoryKb("VmRSS", pid) - memory, 4096); // kB

        ::kill(pid_t(pid), SIGSTOP); // a program that hangs
        ask({u"--status"_s});
        QVERIFY(program.run(port, {u"--diagnose"_s})
                    .output.contains(u"Hint: end process %1 and start quillmere-menu again."_s.arg(pid)));
        ::kill(pid_t(pid), SIGCONT);

        // Quit: the command returns once the program, having stopped the agent, has exited.
        script.hold(u"stop"_s);
        QProcess *quit = program.start(port, {u"--quit"_s});
        QTRY_COMPARE(script.runs().size(), 4);
        QTest::qWait(300); // an answer before the exit would have come by now
        QCOMPARE(quit->state(), QProcess::Running);
        script.release(u"stop"_s);
        QTRY_COMPARE(quit->state(), QProcess::NotRunning);
        QVERIFY(QByteArrayList({"", "Z"}).contains(processStat(pid)[0])); // gone, or a zombie not yet reaped
        QCOMPARE((Result{quit->exitCode(), QString::fromUtf8(quit->readAllStandardOutput())}), Result{});
        // After what each command said, what they did as the log tells it (the state lines follow the refresh's
        // timing) and every location handed to xdg-open.
        QVERIFY(!QFile::exists(program.socketPath()));
        said += u"--- the log\n%1\n--- xdg-open\n%2\n"_s.arg(
            program.logMessages()
                .filter(QRegularExpression(u"^(Launching|Process|Agent|Quit|Opening|Control|Termination)"_s))
                .join(u'\n'),
            program.openedLocations().join(u'\n'));
        QCOMPARE(said,
                 QString::fromUtf8(readFile(QFINDTESTDATA("commands.txt")))
                     .replace(u"$LOGS"_s, program.homeOf(u"first"_s) + "/.local/share/TallyholdAgent/runtime/logs"_L1)
                     .replace(u"$RUNTIME"_s, program.runtimeDir())
                     .replace(u"$PORT"_s, QString::number(port))
                     .replace(u"$VERSION"_s, u"" QUILLMERE_VERSION ""_s));
    }

    // A watch prints the state at once and a line per change alone: probing itself while no program
    // runs, then told by the program that starts; it ends 0 with the program, 4 on a broken channel.
    void watchFollowsTheState()
    {
        InstalledProgram program;
        FakeControlScript script(program.controlScript());
        script.write({}, {0, true, {}});
        const QStringList watch = {u"--status"_s, u"--watch"_s};
        QProcess *text = program.start(port, watch), *json = program.start(port, watch + QStringList{u"--json"_s});
        // Everything printed so far, as the bar would have shown it line by line.
        const auto printed = [](QProcess *watcher) { return QString::fromUtf8(watcher->peek(1 << 20)); };
        const QString probed = u"; Version: 1.4.2; watched by this command, quillmere-menu is not running\n"_s;
        QString shown;
        // Each change seen by both watchers' own probes before the next; the program then starts
        // with the agent as they last found it, so that taking over changes only who watches.
        for (const bool healthy : {true, false, true}) {
            healthy ? agent.setHealthy() : agent.setHealthDown();
            shown += (healthy ? u"Status: Running"_s : u"Status: Stopped"_s) + probed;
            QTRY_COMPARE_WITH_TIMEOUT(printed(text), shown, 15000);
            QTRY_COMPARE_WITH_TIMEOUT(printed(json).count(u'\n'), shown.count(u'\n'), 15000);
        }
        program.variables = {{u"QT_QPA_PLATFORM"_s, {}}}; // no display and no platform asked: headless
        QProcess *running = program.start(port, {u"--launched-at-login"_s});
        shown += u"Status: Running; Version: 1.4.2; watched by quillmere-menu\n"_s;
        QTRY_COMPARE_WITH_TIMEOUT(printed(text), shown, 15000);
        QTRY_VERIFY_WITH_TIMEOUT(printed(json).contains("\"programRunning\":true"_L1), 15000);
        // Just after a refresh found it running, so that none finds it running again while it stops.
        const int refreshed = agent.countFor("/healthz");
        QTRY_VERIFY_WITH_TIMEOUT(agent.countFor("/healthz") > refreshed, 15000);
        agent.setHealthDown();
        QProcess *stop = program.start(port, {u"--stop-agent"_s});
        QTRY_COMPARE(script.runs().size(), 1);
        script.release(u"stop"_s);
        QTRY_COMPARE(stop->state(), QProcess::NotRunning);
        shown += u"Status: Stopping...; Version: 1.4.2; a stop is in progress; watched by quillmere-menu\n"
                 u"Status: Stopping...; Version: 1.4.2; watched by quillmere-menu\n"
                 u"Status: Stopped; Version: 1.4.2; watched by quillmere-menu\n"_s;
        QTRY_COMPARE(printed(text), shown);
        // Past a refresh that finds the same state (the next one is asked once it was answered): no line.
        const int asked = agent.countFor("/healthz");
        QTRY_VERIFY_WITH_TIMEOUT(agent.countFor("/healthz") > asked + 1, 15000);
        QCOMPARE(printed(text), shown);
        QCOMPARE(program.run(port, {u"--quit"_s}), Result{});
        for (QProcess *process : {running, text, json})
            QTRY_COMPARE(process->state(), QProcess::NotRunning);
        QCOMPARE(program.openedLocations(), QStringList()); // started at login: no welcome page
        // The same changes, each as --status --json shows a status; the quit's own lines last.
        QCOMPARE((std::tuple{text->exitCode(), json->exitCode(), printed(json)}),
                 (std::tuple{0, 0, QString::fromUtf8(readFile(QFINDTESTDATA("watch.jsonl")))}));
        // With no program left the watch goes on probing until the user ends it.
        QProcess *alone = program.start(port, watch);
        QTRY_VERIFY_WITH_TIMEOUT(printed(alone).startsWith(u"Status: Stopped"_s), 3000); // at once, not 5 s later
        const int probes = agent.countFor("/healthz"); // a probe is answered long before the next is asked
        QTRY_VERIFY_WITH_TIMEOUT(agent.countFor("/healthz") > probes + 1, 15000);
        QCOMPARE(printed(alone).count(u'\n'), 1); // the same state found again: no line
        ::kill(pid_t(alone->processId()), SIGTERM);
        QTRY_COMPARE(alone->state(), QProcess::NotRunning);
        QCOMPARE((std::pair{alone->exitStatus(), alone->exitCode()}), (std::pair{QProcess::NormalExit, 0}));

        // A program that hangs, then one that vanishes without its last word (killed, crashed).
        QLocalServer other;
        QVERIFY(other.listen(program.socketPath()));
        QCOMPARE(program.run(port, watch),
                 (Result{4, u"quillmere-menu: the running program did not answer within 2 s.\n"_s}));
        QByteArray answer; // then a program that says what none of ours says, or accepts and ends
        connect(&other, &QLocalServer::newConnection, &other, [&other, &answer] {
            while (QLocalSocket *socket = other.nextPendingConnection())
                socket->write(answer), socket->flush(), delete socket;
        });
        QCOMPARE(program.run(port, watch),
                 (Result{4, u"quillmere-menu: the channel to the running program broke.\n"_s}));
        answer = "{\"message\":\"odd\",\"reply\":\"fine\"}\n";
        QCOMPARE(program.run(port, {u"--status"_s}),
                 (Result{4, u"quillmere-menu: the running program gave no usable answer (odd)\n"_s}));
        answer = "{\"reply\":\"accepted\"}\n";
        QCOMPARE(program.run(port, {u"--stop-agent"_s}),
                 (Result{4, u"quillmere-menu: the running program ended before the command finished.\n"_s}));
    }

    // The report on a healthy set-up finds no problem; on a broken one it names each problem, and
    // with the agent and the program both silent it waits on them at once, changing nothing.
    void diagnosisNamesWhatIsWrong()
    {
        InstalledProgram program;
        FakeControlScript script(program.controlScript());
        script.write();
        agent.setHealthy();
        QProcess *running = program.start(port);
        QTRY_COMPARE_WITH_TIMEOUT(program.run(port, {u"--status"_s}).exitCode, 0, 15000);
        // Asked again while the log grows, until the last lines it quotes are those of the log read after it.
        QJsonDocument found;
        QVERIFY(QTest::qWaitFor([&] {
            auto [exitCode, output] = program.run(port, {u"--diagnose"_s, u"--json"_s}); // read without stamps
            found = QJsonDocument::fromJson(output.replace(QRegularExpression(u"\"[^\"]+Z \\| "_s), u"\""_s).toUtf8());
            return exitCode == 0 &&
                   found["files"]["log"]["lastLines"] == QJsonArray::fromStringList(program.logMessages().last(5));
        }));
        QCOMPARE((QJsonArray{found["agent"]["version"], found["program"]["running"],
                             found["program"]["socket"]["trusted"], found["program"]["lock"]["pid"],
                             found["files"]["runtime"]["controlScriptExecutable"], found["problems"]}),
                 (QJsonArray{u"1.4.2"_s, true, true, running->processId(), true, QJsonArray()}));
        QVERIFY(program.run(port, {u"--diagnose"_s}).output.endsWith(u"\n\nNo problem found.\n"_s));
        QCOMPARE(program.run(port, {u"--quit"_s}).exitCode, 0);

        // Broken: the script not executable, the agent and a program at the socket silent.
        QFile::setPermissions(program.controlScript(), QFile::ReadOwner | QFile::WriteOwner);
        agent.setHealthDown(); // with no script to run a start says so at once
        QCOMPARE(program.run(port, {u"--start-agent"_s}),
                 (Result{1, u"Agent start did not run: Status: Missing runtime files\n"_s}));
        agent.setResponse("/healthz", {200, {}, "application/json", true});
        QLocalServer silent;
        silent.setSocketOptions(QLocalServer::UserAccessOption);
        QVERIFY(silent.listen(program.socketPath()));
        const auto tree = [&] { // every file below the program's folders: path, size, time of change
            QProcess find;
            find.start(u"find"_s, {program.root(), u"-printf"_s, u"%p %s %T@\n"_s});
            return find.waitForFinished() ? find.readAllStandardOutput() : QByteArray();
        };
        const QByteArray before = tree();
        // Told of a Wayland session with neither its display nor an X server to reach: a tray is missed.
        program.variables = {
            {u"QT_QPA_PLATFORM"_s, {}}, {u"XDG_SESSION_TYPE"_s, u"wayland"_s}, {u"DISPLAY"_s, u":7917"_s}};
        QElapsedTimer clock;
        clock.start();
        Result text = program.run(port, {u"--diagnose"_s});
        QCOMPARE_LT(clock.elapsed(), 4000); // the agent's 2.5 s and the program's 2 s, waited at once
        text.output.replace(program.root(), u"$ROOT"_s)
            .remove(QRegularExpression(u"[-0-9T:.]+Z \\| "_s))
            .replace(QRegularExpression(u"(elapsedMs|size): [0-9]+"_s), u"\\1: #"_s);
        for (const auto &[found, placeholder] : {std::pair{QString::number(port), u"$PORT"_s},
                                                 {u"owner: %1"_s.arg(::getuid()), u"owner: $UID"_s},
                                                 {QLibraryInfo::build(), u"$QTBUILD"_s},
                                                 {u"" QUILLMERE_VERSION ""_s, u"$VERSION"_s},
                                                 {QString::fromLatin1(qVersion()), u"$QT"_s}})
            text.output.replace(found, placeholder);
        QCOMPARE(text, (Result{6, QString::fromUtf8(readFile(QFINDTESTDATA("diagnosis.txt")))}));
        QCOMPARE(tree(), before);

        // Other users of the installation, other troubles: a log that cannot be written, no runtime folder,
        // a socket others may reach; then a log's tail read from its middle, and no session folder to use.
        program.variables.clear();
        agent.setHealthy();
        QVERIFY(QDir(program.runtimeDir()).removeRecursively());
        QVERIFY(
            QFile::setPermissions(program.socketPath(), QFile::permissions(program.socketPath()) | QFile::WriteOther));
        const QString logs = u"/.local/share/TallyholdAgent/runtime/logs"_s;
        writeFile(program.homeOf(u"second"_s) + logs, {});
        Result second = program.run(port, {u"--diagnose"_s}, u"second"_s);
        second.output = second.output.replace(program.root(), u"$ROOT"_s).split(u'\n').filter(u"PROBLEM"_s).join(u'\n');
        QCOMPARE(second, (Result{6, QString::fromUtf8(readFile(QFINDTESTDATA("problems.txt"))).trimmed()}));
        writeFile(program.homeOf(u"third"_s) + logs + u"/menu-app.log"_s,
                  QByteArray(2047, 'x') + '\n' + QByteArray(2048, 'y') + '\n'); // 4097 bytes
        program.variables = {{u"XDG_RUNTIME_DIR"_s, program.homeOf(u"second"_s) + logs}};
        writeFile(program.homeOf(u"fourth"_s) + logs + u"/menu-app.log"_s, "a short\nlog\n"); // read whole
        const auto diagnose = [&](const QString &user) {
            return QJsonDocument::fromJson(program.run(port, {u"--diagnose"_s, u"--json"_s}, user).output.toUtf8());
        };
        const QJsonDocument third = diagnose(u"third"_s);
        const QString fallback = u"%1/tmp/" QUILLMERE_BUNDLE_IDENTIFIER "-%2"_s.arg(program.root()).arg(::getuid());
        QCOMPARE((QJsonArray{third["files"]["log"]["lastLines"], third["program"]["lock"]["path"],
                             third["program"]["socket"]["path"], third["program"]["socket"]["owner"],
                             diagnose(u"fourth"_s)["files"]["log"]["lastLines"]}),
                 (QJsonArray{QJsonArray{QString(2048, u'y')}, fallback + u".lock"_s, fallback + u".socket"_s, -1,
                             QJsonArray{u"a short"_s, u"log"_s}}));
    }

    // A stale socket file of another user is refused, then a program of another user is not talked to.
    void channelTrustsThisUserAlone()
    {
        if (::getuid() != 0)
            QSKIP("needs root to act as another user");
        InstalledProgram program;
        agent.setHealthy();
        QCOMPARE(program.run(port, {u"--version"_s}).exitCode, 0); // lays out the folders
        const QString notTrusted =
            "quillmere-menu: "_L1 + program.socketPath() + " belongs to another user and is not trusted.\n"_L1;
        leaveStaleSocket(program.socketPath());
        QVERIFY(::chown(QFile::encodeName(program.socketPath()).constData(), 65534, 65534) == 0);
        QProcess *ours = program.start(port);
        QTRY_VERIFY_WITH_TIMEOUT(
            program.logMessages().contains(
                "Control socket "_L1 + program.socketPath() +
                " belongs to another user and is not trusted; commands cannot reach this program."_L1),
            15000);
        QCOMPARE(program.run(port, {u"--quit"_s}), (Result{4, notTrusted}));
        QVERIFY(program.run(port, {u"--diagnose"_s})
                    .output.contains(u"PROBLEM (program.socket): the command socket belongs to another user."_s));
        ours->kill();
        QVERIFY(ours->waitForFinished(5000) && QFile::remove(program.socketPath()));

        QCOMPARE(QProcess::execute(u"chown"_s, {u"-R"_s, u"65534:65534"_s, program.root()}), 0);
        program.launcher = QStringList{u"setpriv"_s, u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s};
        program.start(port);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(program.socketPath()), 15000);
        program.launcher.clear();
        for (const QStringList &command : {QStringList{u"--status"_s}, {u"--status"_s, u"--watch"_s}}) {
            const Result status = program.run(port, command); // Qt warns of the folder first
            QVERIFY2(status.exitCode == 4 && status.output.endsWith(notTrusted), toString(status));
        }
        // Past the file's own check, the program itself turns another user away unanswered.
        QLocalSocket socket;
        socket.connectToServer(program.socketPath());
        QVERIFY(socket.waitForConnected(2000));
        socket.write("{\"command\":\"quit\"}\n");
        QTRY_COMPARE(socket.state(), QLocalSocket::UnconnectedState);
        QCOMPARE(socket.readAll(), QByteArray());
        QTRY_VERIFY(program.logMessages().contains(u"Control request refused: a process of another user."_s));
    }
};

QTEST_MAIN(ControlTest)
#include "tst_Control.moc"
