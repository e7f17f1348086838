// Running child processes: results, log lines, output of any size, background completion.
#include "app/process/ProcessRunner.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <atomic>

class ProcessRunnerTest : public QObject {
    Q_OBJECT
private slots:
    void childThatCannotStart_data();
    void childThatCannotStart();
    void exitCodeAndOutputs_data();
    void exitCodeAndOutputs();
    void largeOutputOnBothStreamsDoesNotDeadlock();
    void invalidUtf8GivesEmptyOutput();
    void runCompletesOnceOffTheMainThread();

private:
    QString script(const QString &name, const QString &body) const;
    TestEnvironment env;
};

QString ProcessRunnerTest::script(const QString &name, const QString &body) const
{
    const QString path = env.root() + QStringLiteral("/scripts/") + name;
    TestEnvironment::writeScript(path, body);
    return path;
}

void ProcessRunnerTest::childThatCannotStart_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("missing") << QStringLiteral("missing");
    QTest::newRow("not executable") << QStringLiteral("not-executable");
}

void ProcessRunnerTest::childThatCannotStart()
{
    QFETCH(QString, kind);
    QString path = env.root() + QStringLiteral("/nowhere/agentctl.sh");
    if (kind == QStringLiteral("not-executable")) {
        path = script(QStringLiteral("plain.sh"), QStringLiteral("exit 0\n"));
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }
    env.markLog();
    const ProcessResult result = ProcessRunner::runSync(path, {QStringLiteral("start")});
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.stdOut.isEmpty());
    QVERIFY(!result.stdErr.isEmpty());

    const QStringList log = env.messagesSinceMark();
    QCOMPARE(log.size(), 2);
    QCOMPARE(log[0], QStringLiteral("Launching process: ") + path + QStringLiteral(" start"));
    QCOMPARE(log[1], QStringLiteral("Process launch failed: ") + result.stdErr);
}

void ProcessRunnerTest::exitCodeAndOutputs_data()
{
    QTest::addColumn<QString>("body");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("stdOut");
    QTest::addColumn<QString>("stdErr");
    QTest::addColumn<QStringList>("expectedLog"); // after the launching line

    QTest::newRow("silent success") << QStringLiteral("exit 0\n") << QStringList() << 0 << QString() << QString()
                                    << QStringList{QStringLiteral("Process exited with code 0")};
    QTest::newRow("exit 3") << QStringLiteral("exit 3\n") << QStringList{QStringLiteral("stop")} << 3 << QString()
                            << QString() << QStringList{QStringLiteral("Process exited with code 3")};
    QTest::newRow("trimmed in log, kept in result")
        << QStringLiteral("printf ' started agent\\n'\nprintf 'warn\\n' >&2\n") << QStringList() << 0
        << QStringLiteral(" started agent\n") << QStringLiteral("warn\n")
        << QStringList{QStringLiteral("Process stdout: started agent"), QStringLiteral("Process stderr: warn"),
                       QStringLiteral("Process exited with code 0")};
    QTest::newRow("whitespace-only stderr is not logged")
        << QStringLiteral("printf '  \\n\\t' >&2\n") << QStringList() << 0 << QString() << QStringLiteral("  \n\t")
        << QStringList{QStringLiteral("Process exited with code 0")};
    QTest::newRow("ended by a signal reports the signal number")
        << QStringLiteral("kill -9 $$\n") << QStringList() << 9 << QString() << QString()
        << QStringList{QStringLiteral("Process exited with code 9")};
}

void ProcessRunnerTest::exitCodeAndOutputs()
{
    QFETCH(QString, body);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, stdOut);
    QFETCH(QString, stdErr);
    QFETCH(QStringList, expectedLog);

    const QString path = script(QStringLiteral("child.sh"), body);
    env.markLog();
    const ProcessResult result = ProcessRunner::runSync(path, arguments);
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.stdOut, stdOut);
    QCOMPARE(result.stdErr, stdErr);

    const QStringList log = env.messagesSinceMark();
    // With no arguments the launching line ends in the blank after the path.
    QCOMPARE(log.value(0),
             QStringLiteral("Launching process: ") + path + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')));
    QCOMPARE(log.mid(1), expectedLog);
}

void ProcessRunnerTest::largeOutputOnBothStreamsDoesNotDeadlock()
{
    // Far more than a pipe buffer on each stream, written before the child exits.
    const QString path =
        script(QStringLiteral("flood.sh"), QStringLiteral("head -c 8388608 /dev/zero | tr '\\0' 'o'\n"
                                                          "head -c 8388608 /dev/zero | tr '\\0' 'e' >&2\nexit 0\n"));
    const ProcessResult result = ProcessRunner::runSync(path, {});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.stdOut.size(), 8 * 1024 * 1024);
    QCOMPARE(result.stdErr.size(), 8 * 1024 * 1024);
    QVERIFY(result.stdOut.startsWith(QLatin1Char('o')) && result.stdErr.endsWith(QLatin1Char('e')));
}

void ProcessRunnerTest::invalidUtf8GivesEmptyOutput()
{
    const QString path = script(QStringLiteral("binary.sh"), QStringLiteral("printf '\\377\\376ok'\n"));
    env.markLog();
    const ProcessResult result = ProcessRunner::runSync(path, {});
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.stdOut.isEmpty());
    QVERIFY(!env.messagesSinceMark().join(QLatin1Char('\n')).contains(QStringLiteral("Process stdout")));
}

void ProcessRunnerTest::runCompletesOnceOffTheMainThread()
{
    const QString path = script(QStringLiteral("slow.sh"), QStringLiteral("sleep 0.2\necho done\nexit 4\n"));
    std::atomic<int> calls{0};
    std::atomic<bool> onMainThread{true};
    QThread *const mainThread = QThread::currentThread();
    QObject receiver;
    QSignalSpy spy(&receiver, &QObject::objectNameChanged);

    ProcessRunner::run(path, {QStringLiteral("start")}, [&](int exitCode, const QString &out, const QString &) {
        onMainThread = QThread::currentThread() == mainThread;
        ++calls;
        QMetaObject::invokeMethod(&receiver, [&receiver, exitCode, out] {
            receiver.setObjectName(QString::number(exitCode) + out.trimmed());
        });
    });
    QVERIFY(spy.wait(10000));
    QCOMPARE(receiver.objectName(), QStringLiteral("4done"));
    QVERIFY(!onMainThread);
    QTest::qWait(100); // a second completion would have arrived by now
    QCOMPARE(calls.load(), 1);
}

QTEST_GUILESS_MAIN(ProcessRunnerTest)
#include "tst_ProcessRunner.moc"
