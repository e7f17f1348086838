// The real program, run from a copied install tree: a quit signal from the system stops the
// agent once and ends the process cleanly; a second copy leaves at once without touching it.
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/InstalledProgram.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QTest>
#include <csignal>

class QuitSignalsTest : public QObject {
    Q_OBJECT
private slots:
    void quitSignalStopsTheAgentOnceAndExits_data();
    void quitSignalStopsTheAgentOnceAndExits();
    void secondCopyLeavesAtOnceAndTheFirstKeepsRunning();

private:
    TestEnvironment env; // keeps this process's own log out of the real home folder
};

void QuitSignalsTest::quitSignalStopsTheAgentOnceAndExits_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
    QTest::newRow("SIGHUP") << int(SIGHUP);
}

void QuitSignalsTest::quitSignalStopsTheAgentOnceAndExits()
{
    QFETCH(int, signalNumber);

    FakeAgent agent;
    agent.setHealthy();
    InstalledProgram program;
    FakeControlScript script(program.controlScript());
    script.write();

    QProcess *process = program.start(agent.port());
    QVERIFY(program.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    QVERIFY(script.runs().isEmpty());

    ::kill(pid_t(process->processId()), signalNumber);

    QVERIFY(InstalledProgram::waitForExit(process));
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
    const QStringList log = program.logMessages();
    QCOMPARE(log.last(), QStringLiteral("Application will terminate."));
    QCOMPARE(log.count(QStringLiteral("Application termination requested. Stopping agent before exit.")), 1);
    QVERIFY(log.contains(QStringLiteral("Termination stop finished with exit code 0.")));
}

void QuitSignalsTest::secondCopyLeavesAtOnceAndTheFirstKeepsRunning()
{
    FakeAgent agent;
    agent.setHealthy();
    InstalledProgram program;
    FakeControlScript script(program.controlScript());
    script.write();

    QProcess *first = program.start(agent.port());
    QVERIFY(program.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));

    // Same user session (instance lock), own data folder so its log stands alone.
    QElapsedTimer clock;
    clock.start();
    QProcess *second = program.start(agent.port(), {}, QStringLiteral("second"));
    QVERIFY(InstalledProgram::waitForExit(second));
    const qint64 secondLifetime = clock.elapsed();
    qInfo("second copy ran for %lld ms", secondLifetime);
    QCOMPARE(second->exitStatus(), QProcess::NormalExit);
    QCOMPARE(second->exitCode(), 0);
    QVERIFY2(secondLifetime < 5000, "the second copy should leave at once");
    QCOMPARE(program.logMessages(QStringLiteral("second")),
             QStringList({QStringLiteral("Application did finish launching."),
                          QStringLiteral("Duplicate app instance detected. Terminating new instance."),
                          QStringLiteral("Termination requested with stop bypass enabled."),
                          QStringLiteral("Application will terminate.")}));
    QVERIFY(script.runs().isEmpty());

    QTest::qWait(200);
    QCOMPARE(first->state(), QProcess::Running);
    ::kill(pid_t(first->processId()), SIGTERM);
    QVERIFY(InstalledProgram::waitForExit(first));
    QCOMPARE(first->exitCode(), 0);
    QCOMPARE(script.runs(), QList<QStringList>{{QStringLiteral("stop")}});
}

QTEST_MAIN(QuitSignalsTest)
#include "tst_QuitSignals.moc"
