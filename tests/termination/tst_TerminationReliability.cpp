// The real program under awkward control scripts at exit: a stop that floods its output, one
// that dies by a signal, and a start that never returns while the user quits.
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/InstalledProgram.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QTest>
#include <csignal>

class TerminationReliabilityTest : public QObject {
    Q_OBJECT
private slots:
    void awkwardStopStillEndsTheProgram_data();
    void awkwardStopStillEndsTheProgram();
    void quitDuringAHungStartStopsOnceAndExits();

private:
    TestEnvironment env;
};

void TerminationReliabilityTest::awkwardStopStillEndsTheProgram_data()
{
    QTest::addColumn<QString>("stopLines");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("expectedLines");

    // 16 MiB on standard output, then a clean exit.
    QTest::newRow("floods its output") << QStringLiteral("head -c 16777216 /dev/zero | tr '\\000' x") << 0
                                       << QStringList{QStringLiteral("Process exited with code 0"),
                                                      QStringLiteral("Termination stop finished with exit code 0.")};
    // Killed by a signal: the signal's number stands in for the exit code.
    QTest::newRow("killed by a signal") << QStringLiteral("kill -9 $$") << 0
                                        << QStringList{QStringLiteral("Process exited with code 9"),
                                                       QStringLiteral("Agent stop command finished with exit code 9"),
                                                       QStringLiteral("Termination stop finished with exit code 9.")};
}

void TerminationReliabilityTest::awkwardStopStillEndsTheProgram()
{
    QFETCH(QString, stopLines);
    QFETCH(int, exitCode);
    QFETCH(QStringList, expectedLines);

    FakeAgent agent;
    agent.setHealthy();
    InstalledProgram program;
    FakeControlScript script(program.controlScript());
    script.write({}, {exitCode, false, stopLines});

    QProcess *process = program.start(agent.port());
    QVERIFY(program.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    QElapsedTimer clock;
    clock.start();
    ::kill(pid_t(process->processId()), SIGTERM);

    QVERIFY(InstalledProgram::waitForExit(process, 30000));
    qInfo("signal to exit: %lld ms", clock.elapsed());
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});

    const QStringList log = program.logMessages();
    QCOMPARE(log.last(), QStringLiteral("Application will terminate."));
    qsizetype from = 0;
    for (const QString &line : expectedLines) {
        const qsizetype at = log.indexOf(line, from);
        QVERIFY2(at >= 0, qPrintable(line));
        from = at + 1;
    }
    const QStringList output = log.filter(QStringLiteral("Process stdout: "));
    if (stopLines.startsWith(QLatin1String("head"))) {
        QCOMPARE(output.size(), 1);
        QCOMPARE(output.first().size(), qsizetype(16 * 1024 * 1024) + 16);
    }
}

void TerminationReliabilityTest::quitDuringAHungStartStopsOnceAndExits()
{
    FakeAgent agent;
    agent.setHealthDown();
    InstalledProgram program;
    FakeControlScript script(program.controlScript());
    script.write({0, true, {}}, {0, true, {}});

    QProcess *process = program.start(agent.port());
    // The launch start finds the agent down and runs a start that does not return.
    QTRY_COMPARE_WITH_TIMEOUT(script.runs(), QList<QStringList>{{QStringLiteral("start")}}, 15000);

    ::kill(pid_t(process->processId()), SIGTERM);
    QTRY_COMPARE_WITH_TIMEOUT(script.runs().size(), 2, 15000);
    // More requests while the stop runs change nothing.
    ::kill(pid_t(process->processId()), SIGTERM);
    ::kill(pid_t(process->processId()), SIGINT);
    QTest::qWait(200);
    QCOMPARE(process->state(), QProcess::Running);

    script.release(QStringLiteral("stop"));
    QVERIFY(InstalledProgram::waitForExit(process));
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(script.runs(), (QList<QStringList>{{QStringLiteral("start")}, {QStringLiteral("stop")}}));
    const QStringList log = program.logMessages();
    QCOMPARE(log.last(), QStringLiteral("Application will terminate."));
    QCOMPARE(log.count(QStringLiteral("Application termination requested. Stopping agent before exit.")), 1);
    QVERIFY(log.contains(QStringLiteral("State updated: Status: Stopping and Scanning... version=-- running=false")));
    QVERIFY(log.contains(QStringLiteral("Termination stop finished with exit code 0.")));
    // Only the stop ended while the program ran; the start was left running.
    QCOMPARE(log.filter(QStringLiteral("Process exited with code")).size(), 1);
}

QTEST_MAIN(TerminationReliabilityTest)
#include "tst_TerminationReliability.moc"
