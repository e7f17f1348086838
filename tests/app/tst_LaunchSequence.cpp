// Runtime locations, the application's version, and the order of the launch sequence.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMenu>
#include <QTest>
#include <QTimer>

class LaunchSequenceTest : public QObject {
    Q_OBJECT
private slots:
    void bundleVersionPrefersBuildVersion_data();
    void bundleVersionPrefersBuildVersion();
    void runtimeAndLogsLocations();
    void interactiveLaunchLogsInOrderAndDefersTheLaunchFlow();

private:
    TestEnvironment env;
    FakeAgent agent;
};

void LaunchSequenceTest::bundleVersionPrefersBuildVersion_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("marketing");
    QTest::addColumn<QString>("expected");
    QTest::newRow("both: build wins") << QStringLiteral("42") << QStringLiteral("1.3") << QStringLiteral("42");
    QTest::newRow("blank build") << QStringLiteral(" \n\t") << QStringLiteral("1.3") << QStringLiteral("1.3");
    QTest::newRow("padded build kept as read")
        << QStringLiteral(" 7 ") << QStringLiteral("1.3") << QStringLiteral(" 7 ");
    QTest::newRow("only marketing") << QString() << QStringLiteral("2.0") << QStringLiteral("2.0");
    QTest::newRow("neither") << QString() << QString() << QStringLiteral("1");
    QTest::newRow("both blank") << QStringLiteral(" ") << QString() << QStringLiteral("1");
}

void LaunchSequenceTest::bundleVersionPrefersBuildVersion()
{
    QFETCH(QString, build);
    QFETCH(QString, marketing);
    QFETCH(QString, expected);
    env.writeInfoPlist(build, marketing);
    FakePlatform fakes;
    AppDelegate delegate(env.configuration(agent.baseURL()), fakes.services(), nullptr);
    QCOMPARE(delegate.currentBundleVersion(), expected);
    env.writeInfoPlist(QStringLiteral("1.0.0"));
}

void LaunchSequenceTest::runtimeAndLogsLocations()
{
    FakePlatform fakes;
    Configuration config = env.configuration(agent.baseURL());
    {
        AppDelegate delegate(config, fakes.services(), nullptr);
        QCOMPARE(delegate.runtimeDirectory(), std::optional<QString>(env.runtimeDir()));
        QCOMPARE(delegate.logsDirectory(), env.logsDir());
    }
    // A numeric version counts as absent; a bundle without resources has no runtime folder.
    QFile plist(env.resourceDir() + QStringLiteral("/Info.plist"));
    QVERIFY(plist.open(QIODevice::WriteOnly | QIODevice::Truncate));
    plist.write("<plist version=\"1.0\"><dict><key>CFBundleVersion</key><integer>42</integer>"
                "<key>CFBundleShortVersionString</key><string>3.1</string></dict></plist>");
    plist.close();
    config.resourceDirectory.reset();
    AppDelegate bare(config, fakes.services(), nullptr);
    QVERIFY(!bare.runtimeDirectory());
    QCOMPARE(bare.currentBundleVersion(), QStringLiteral("3.1"));
    env.writeInfoPlist(QStringLiteral("1.0.0"));
}

void LaunchSequenceTest::interactiveLaunchLogsInOrderAndDefersTheLaunchFlow()
{
    agent.setHealthy(QStringLiteral("2.0.1"));
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(agent.baseURL()), fakes.services(), &host);
    host.setDelegate(&delegate);
    env.markLog();

    QElapsedTimer clock;
    clock.start();
    delegate.applicationDidFinishLaunching();
    QCOMPARE(host.activationPolicy(), ApplicationHost::ActivationPolicyAccessory);
    QVERIFY(!delegate.launchedAtLogin);
    QVERIFY(delegate.refreshTimer && delegate.refreshTimer->isActive());
    QCOMPARE(delegate.refreshTimer->interval(), 5000);
    QCOMPARE(delegate.menu->actions().size(), 16);
    QCOMPARE(fakes.statusItem->menu(), delegate.menu.get());

    QVERIFY(env.waitForLogMessage(QStringLiteral("Launch flow starting. launchedAtLogin=false")));
    const qint64 flowAfter = clock.elapsed();
    QVERIFY2(flowAfter >= 390 && flowAfter < 3000, qPrintable(QString::number(flowAfter)));

    const QStringList log = env.messagesSinceMark();
    QCOMPARE(log.value(0), QStringLiteral("Application did finish launching."));
    QCOMPARE(log.value(1), QStringLiteral("Configuring status menu."));
    const qsizetype flow = log.indexOf(QStringLiteral("Launch flow starting. launchedAtLogin=false"));
    QVERIFY(flow > 1);
    QVERIFY(env.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    QTRY_COMPARE(delegate.stateMenuItem->text(), QStringLiteral("Status: Running"));
    QCOMPARE(delegate.versionMenuItem->text(), QStringLiteral("Version: 2.0.1"));
}

QTEST_MAIN(LaunchSequenceTest)
#include "tst_LaunchSequence.moc"
