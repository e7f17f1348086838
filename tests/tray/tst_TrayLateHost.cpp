// A program started before the desktop's tray host, as autostarted programs often are: it works
// without a tray, registers its icon and menu once a host appears, and registers again when the
// host restarts.
#include "StatusNotifierWatcher.h"
#include "TrayClient.h"
#include "TrayProgram.h"
#include "support/FakeAgent.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QGuiApplication>
#include <QTest>

namespace {
constexpr int programTimeoutMs = 15000;
}

class TrayLateHostTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void worksWithoutTrayHost();
    void registersWhenHostAppears();
    void registersAgainWhenHostRestarts();
    void quits();

private:
    StatusNotifierWatcher watcher_;
    FakeAgent agent_;
    TrayProgram program_;
};

void TrayLateHostTest::initTestCase()
{
    QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (run under dbus-run-session)");
    QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "needs an X display (run under xvfb-run)");
    QVERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(
        QStringLiteral("org.kde.StatusNotifierWatcher")));
    agent_.setHealthDown();
    program_.start(agent_.port());
    QVERIFY(program_.process().waitForStarted());
}

void TrayLateHostTest::worksWithoutTrayHost()
{
    // The agent is supervised and the log written while no tray exists.
    QTRY_COMPARE_WITH_TIMEOUT(program_.controlCalls(), QStringList{QStringLiteral("start")}, programTimeoutMs);
    QVERIFY(program_.logMessages().contains(QStringLiteral("Agent not healthy during launch. Starting agent.")));
    agent_.setHealthy();
    program_.finishControlCall(QStringLiteral("start"));
    QTRY_VERIFY_WITH_TIMEOUT(
        program_.logMessages().contains(QStringLiteral("State updated: Status: Running version=1.4.2 running=true")),
        programTimeoutMs);
    QCOMPARE(program_.process().state(), QProcess::Running);
}

void TrayLateHostTest::registersWhenHostAppears()
{
    QVERIFY(watcher_.start());
    QTRY_VERIFY_WITH_TIMEOUT(!watcher_.items().isEmpty(), programTimeoutMs);
    const StatusNotifierWatcher::Item item = watcher_.items().constFirst();
    const TrayClient tray(item.service, item.path);
    // Icon, tool tip and menu carry the state reached before the host came.
    QTRY_COMPARE_WITH_TIMEOUT(tray.labels().value(0), QStringLiteral("Status: Running"), programTimeoutMs);
    QCOMPARE(tray.labels().size(), 16);
    QCOMPARE(tray.toolTipTitle(), QStringLiteral("Quillmere Agent is running"));
    QVERIFY(!tray.iconPixmaps().isEmpty());
}

void TrayLateHostTest::registersAgainWhenHostRestarts()
{
    const int before = watcher_.registrationCount();
    watcher_.stop();
    QVERIFY(watcher_.start());
    QTRY_VERIFY_WITH_TIMEOUT(watcher_.registrationCount() > before, programTimeoutMs);
    QCOMPARE(watcher_.items().size(), 1);
    const TrayClient tray(watcher_.items().constFirst().service, watcher_.items().constFirst().path);
    QCOMPARE(tray.labels().value(0), QStringLiteral("Status: Running"));
}

void TrayLateHostTest::quits()
{
    const TrayClient tray(watcher_.items().constFirst().service, watcher_.items().constFirst().path);
    QVERIFY(tray.click(QStringLiteral("Quit")));
    QTRY_COMPARE_WITH_TIMEOUT(program_.controlCalls().value(1), QStringLiteral("stop"), programTimeoutMs);
    agent_.setHealthDown();
    program_.finishControlCall(QStringLiteral("stop"));
    QVERIFY(program_.process().waitForFinished(programTimeoutMs));
    QCOMPARE(program_.process().exitCode(), 0);
}

QTEST_MAIN(TrayLateHostTest)
#include "tst_TrayLateHost.moc"
