// The application log, child processes, and where the program finds its folders.
#include "app/Locations.h"
#include "app/log/AppLogger.h"
#include "app/process/ProcessRunner.h"
#include "control/AgentNotifications.h"
#include "platform/Bundle.h"
#include "platform/LockFileRunningApplications.h"
#include "platform/QtPlatformChoice.h"
#include "platform/RunningApplications.h"
#include "support/Testing.h"

#include <QTimeZone>
#include <pwd.h>
#include <thread>
#include <unistd.h>

// Script body (null: no such file), exit code, arguments, standard output and error, log after the launching line.
using ProcessRow = std::tuple<QString, int, QStringList, QStringList, QStringList>;

class AppTest : public QObject {
    Q_OBJECT
    TestEnvironment env;

private slots:
    void logLinesAreOrderedWholeAndNeverLost()
    {
        // Guards: a log name taken by a link to a folder (or a read-only file) lost every line.
        QTemporaryDir dir;
        const QString path = dir.filePath(u"menu-app.log"_s);
        QVERIFY(QDir(dir.path()).mkdir(u"elsewhere"_s) && QFile::link(dir.filePath(u"elsewhere"_s), path));
        QStringList expected[2];
        {
            AppLogger logger(path);
            std::thread workers[2];
            for (int t = 0; t < 2; ++t)
                workers[t] = std::thread([&logger, &lines = expected[t], t] {
                    for (int i = 0; i < 500; ++i)
                        logger.log(
                            lines.emplace_back(u"thread %1 line %2 Größe | %3"_s.arg(t).arg(i).arg(QString(40, u'x'))));
                });
            for (std::thread &worker : workers) // before the logger goes
                worker.join();
            logger.flush(); // a writer with nothing to do is still woken for its end
        }

        const QStringList lines = TestEnvironment::logMessagesIn(path); // each stamped in UTC to the millisecond
        QCOMPARE(std::pair(lines.filter(u"thread 0 "_s) + lines.filter(u"thread 1 "_s), readFile(path).count('\n')),
                 std::pair(expected[0] + expected[1], qsizetype(1000))); // one line feed each
        // In UTC whatever the zone (here +05:30); a message as given, blank or of several lines.
        const QDateTime moment(QDate(2026, 1, 2), QTime(3, 4, 5, 6), QTimeZone(19800));
        QCOMPARE(AppLogger::formatLine(moment, u"a\nb"_s) + AppLogger::formatLine(moment, {}),
                 "2026-01-01T21:34:05.006Z | a\nb\n2026-01-01T21:34:05.006Z | \n");
        // Made as a temporary file, it still reads like any other file of the user's: rw-r--r--.
        QCOMPARE(QFile::permissions(path), QFileDevice::Permissions(0x6644)); // Qt's owner and user bits alike
    }

    void processResultAndLogLines_data()
    {
        QTest::addColumn<ProcessRow>("row");
        const QStringList stop{u"stop"_s}, none{QString(), QString()};
        const QString exited = u"Process exited with code %1"_s;
        // clang-format off
        QTest::newRow("missing") << ProcessRow{{}, 1, stop, none, {}};
        QTest::newRow("trimmed in log only, blank not logged") << ProcessRow{
            "printf ' started agent\\n'; printf '  \\n\\t' >&2; exit 3", 3, {}, {" started agent\n", "  \n\t"},
            {"Process stdout: started agent", exited.arg(3)}};
        QTest::newRow("undecodable dropped, killed") << ProcessRow{"printf 'ok\\377\\n'; kill -9 $$", 9, stop, none,
            {exited.arg(9)}};
        // 16 MiB on each stream at once; the limit falls on the last byte of a four-byte character.
        const QString out = u'a' + u"\U0001F4BE"_s.repeated(ProcessRunner::outputLimitBytes / 4 - 1),
                      err(ProcessRunner::outputLimitBytes, u'x');
        QTest::newRow("flood kept to the limit") << ProcessRow{
            "head -c 16777216 /dev/zero | tr '\\0' x >&2 & printf a; yes 💾 | tr -d '\\n' | head -c 16777216; wait", 0, stop,
            {out, err}, {"Process stdout: " + out + " [15728644 more bytes left out]",
                         "Process stderr: " + err + " [15728640 more bytes left out]", exited.arg(0)}};
        // clang-format on
    }
    void processResultAndLogLines()
    {
        QFETCH(ProcessRow, row);
        auto [body, exitCode, arguments, outputs, expectedLog] = row;
        const QString path = env.root() + u"/scripts/"_s + QString::fromLatin1(QTest::currentDataTag());
        if (!body.isNull()) // else no such file
            TestEnvironment::writeScript(path, body);
        env.markLog();
        const qint64 before = memoryKb("VmRSS");
        const ProcessResult result = ProcessRunner::runSync(path, arguments);
        if (body.isNull()) { // could not start: the reason is the error output and its log line
            QVERIFY(!result.stdErr.isEmpty());
            outputs[1] = result.stdErr;
            expectedLog = {u"Process launch failed: "_s + result.stdErr};
        }
        // With no arguments the launching line ends in the blank after the path.
        QCOMPARE(std::tuple(result.exitCode, QStringList{result.stdOut, result.stdErr}, env.messagesSinceMark()),
                 std::tuple(exitCode, outputs,
                            QStringList{u"Launching process: "_s + path + u' ' + arguments.join(u' ')} + expectedLog));
        QCOMPARE_LT(memoryKb("VmHWM") - before, 48 * 1024); // generous: ASan keeps some freed memory
    }

    void locationsFollowTheExecutable_data()
    {
        QTest::addColumn<QString>("in");
        QTest::addColumn<QString>("out");
        // Below the heading block of locations.txt, each block is a row's name, its "in" and its "out".
        for (const QStringList &row : blocksOf(QFINDTESTDATA("locations.txt")).mid(1))
            QTest::newRow(qPrintable(row.value(0))) << row.value(1) << row.value(2);
    }
    void locationsFollowTheExecutable()
    {
        QFETCH(QString, in);
        QFETCH(QString, out);
        const QStringList i = in.split(u'|');
        const Locations l = locationsFor({i[0], i[1], i[2], i[3], i[4], i[5]});
        QCOMPARE(QStringList({l.resourceDirectory.value_or(QString()), l.infoPlistPath, l.applicationSupportDirectory,
                              l.userDefaultsFile.value_or(QString()), l.volumeMountDirectories.join(u',')})
                     .join(u'|'),
                 out);
        QCOMPARE(l.applicationBundle, out.contains(u"/Contents/Resources|"_s));
    }

    // The AppKit delegate goes in only for cocoa, chosen before Qt loads; the system may not list this process yet.
    void qtPlatformAndRunningCopiesKnownBeforeTheApplicationExists()
    {
        // Arguments, QT_QPA_PLATFORM, the choice.
        const QList<std::tuple<QStringList, QByteArray, QString>> choices{
            {{}, {}, "cocoa"},
            {{"-platform", "minimal"}, "offscreen", "minimal"},
            {{}, "minimal:enable_fonts;cocoa", "minimal"},
            {{}, "offscreen;cocoa", "offscreen"},
            {{"--platform", "minimal", "-platform", "cocoa"}, "offscreen", "cocoa"},
            {{"--launched-at-login", "-platform"}, "offscreen", "offscreen"}};
        for (const auto &[arguments, environment, chosen] : choices)
            QCOMPARE(chosenQtPlatform(QStringList{"quillmere-menu"} + arguments, environment, "cocoa"), chosen);
        for (const auto &[pids, count] : QList<std::pair<QList<qint64>, int>>{{{}, 1}, {{7}, 1}, {{3, 7, 9}, 3}})
            QCOMPARE(runningCopiesIncludingThisOne(pids, 7), count);
        // With the runtime folder unusable the lock goes to the fallback folder, and the log says why;
        // with neither, this copy takes itself for the only one.
        QTemporaryDir dir;
        const QString file = dir.filePath(u"file"_s);
        writeFile(file, {});
        env.markLog();
        for (const auto &[folder, fallback] : {std::pair{QString(), dir.path()},
                                               {file + "/sub"_L1, dir.path()},
                                               {file, dir.path()},
                                               {u"/proc/self"_s, dir.path()},
                                               {file, file}})
            QCOMPARE(LockFileRunningApplications(folder, fallback).runningApplicationCount(u"id"_s), 1);
        QCOMPARE(env.messagesSinceMark().join(u'\n') + u'\n', QString::fromUtf8(readFile(QFINDTESTDATA("lock.log")))
                                                                  .replace(u"$DIR"_s, dir.path())
                                                                  .replace(u"$UID"_s, QString::number(::getuid())));
        // Every kind of value an Info.plist holds is read as what it is, so that none spoils its neighbours.
        const QVariantMap values{{u"i"_s, 7LL},   {u"t"_s, true},       {u"f"_s, false},
                                 {u"r"_s, 1.5},   {u"d"_s, QVariant()}, {u"a"_s, QVariantList{u"x"_s, QVariantMap()}},
                                 {u"s"_s, u"2"_s}};
        QCOMPARE(propertyListDictionary(readFile(QFINDTESTDATA("values.plist"))), values);
        for (const char *notADictionaryInAPlist : {"<plist><array><key>k</key><string>v</string></array></plist>",
                                                   "<dict><key>k</key><string>v</string></dict>"})
            QCOMPARE(propertyListDictionary(notADictionaryInAPlist), QVariantMap());
        const Configuration c; // the timings as shipped (ms), which most tests shorten
        QCOMPARE((QList<qint64>{c.launchFlowDelay.count(), c.refreshInterval.count(), c.healthTimeout.count(),
                                c.volumeSyncTimeout.count(), c.volumeSyncDebounce.count(),
                                c.startGraceAfterTerminationStop.count(), c.processGroupKillDelay.count(),
                                AgentNotifications::minimumIntervalMs, AgentNotifications::quietAfterWakeMs}),
                 (QList<qint64>{400, 5000, 2500, 3000, 1000, 10000, 2000, 60000, 30000}));
#ifdef Q_OS_MACOS
        QCOMPARE(Configuration().launchctlPath, u"/bin/launchctl"_s);
#else
        qputenv("QUILLMERE_AGENT_PORT", "65535"); // the highest port; above it the default stands
        qputenv("HOME", "relative/home");         // as a stripped environment may give it: the account's instead
        const Configuration highest = Configuration::fromEnvironment();
        qputenv("QUILLMERE_AGENT_PORT", "65536");
        qputenv("HOME", env.home().toUtf8());
        QCOMPARE((std::tuple{highest.launchctlPath, highest.healthURL.port(), highest.homeDirectory,
                             Configuration::fromEnvironment().healthURL}),
                 (std::tuple{std::optional<QString>(), 65535, QFile::decodeName(::getpwuid(::getuid())->pw_dir),
                             QUrl(u"http://127.0.0.1:8787/healthz"_s)})); // no launchctl
        QVERIFY(!RunningChild().signalGroup(0));                          // nothing started: never our own group
        const PlatformServices real = PlatformServices::forThisSystem(Configuration::fromEnvironment()); // all wired
        QVERIFY(real.makeStatusItem && real.opener && real.loginItems && real.workspaceNotifications &&
                real.volumeEventSource && real.wakeEventSource && real.runningApplications);
#endif
    }
};

QTEST_MAIN(AppTest)
#include "tst_App.moc"
