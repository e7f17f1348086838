// A freshly constructed controller holds the documented initial state and configuration.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QMenu>
#include <QTest>

class ControllerStateTest : public QObject {
    Q_OBJECT
private slots:
    void freshControllerHoldsInitialState();
    void productionDefaultsUseTheDocumentedEndpoints();

private:
    TestEnvironment env;
};

void ControllerStateTest::freshControllerHoldsInitialState()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(QUrl(QStringLiteral("http://127.0.0.1:1"))), fakes.services(), &host);

    QVERIFY(!delegate.agentIsRunning);
    QVERIFY(!delegate.startInFlight);
    QVERIFY(!delegate.stopInFlight);
    QVERIFY(!delegate.launchedAtLogin);
    QCOMPARE(delegate.lastKnownVersion, QStringLiteral("--"));
    QVERIFY(delegate.lastStateTitle.isEmpty());
    QVERIFY(!delegate.presentedWelcomeOnLaunch);
    QVERIFY(!delegate.terminationReplyPending);
    QVERIFY(!delegate.terminateAfterStop);
    QVERIFY(delegate.stopAgentOnTerminate);
    QVERIFY(!delegate.refreshTimer);
    QVERIFY(delegate.mountedVolumeObserverTokens.isEmpty());
    QVERIFY(!delegate.mountedVolumeSyncInFlight);
    QVERIFY(!delegate.mountedVolumeSyncPending);
    QVERIFY(!delegate.mountedVolumeSyncDebounceWorkItem);
    QVERIFY(delegate.lastMountedVolumeSyncSignature.isEmpty());
    for (QAction *item : {delegate.startMenuItem_, delegate.stopMenuItem_, delegate.openCloudAdminMenuItem_,
                          delegate.checkForUpdatesMenuItem_, delegate.openLocalAdminMenuItem_,
                          delegate.openGettingStartedMenuItem_, delegate.openStartupPageMenuItem_,
                          delegate.runAtStartupMenuItem_, delegate.openLogsMenuItem_, delegate.quitMenuItem_})
        QVERIFY(item == nullptr);

    QVERIFY(delegate.statusItem);
    QVERIFY(delegate.menu->actions().isEmpty());
    QCOMPARE(delegate.stateMenuItem->text(), QStringLiteral("Status: Launching..."));
    QCOMPARE(delegate.versionMenuItem->text(), QStringLiteral("Version: --"));
    QVERIFY(env.logMessages().isEmpty()); // construction logs nothing
}

void ControllerStateTest::productionDefaultsUseTheDocumentedEndpoints()
{
    qunsetenv("QUILLMERE_AGENT_PORT");
    const Configuration config = Configuration::fromEnvironment();
    QCOMPARE(config.localAdminURL, QUrl(QStringLiteral("http://127.0.0.1:8787/")));
    QCOMPARE(config.healthURL, QUrl(QStringLiteral("http://127.0.0.1:8787/healthz")));
    QCOMPARE(config.mountedVolumeSyncURL, QUrl(QStringLiteral("http://127.0.0.1:8787/api/mounted-volumes/cache-sync")));
    QCOMPARE(config.cloudAdminURL, QUrl(QStringLiteral("https://quillmere.example/admin.html")));
    QCOMPARE(config.agentUpdateURL, QUrl(QStringLiteral("https://quillmere.example/downloads/")));
    QCOMPARE(config.launchAgentLabel, QStringLiteral("com.tallyhold.agent.app"));
    QCOMPARE(config.obsoleteNativeLaunchAgentLabels, QStringList({QStringLiteral("com.tallyhold.agent.menubarbeta.app"),
                                                                  QStringLiteral("com.tallyhold.agent.nativebeta.app"),
                                                                  QStringLiteral("com.tallyhold.agent")}));
    QVERIFY(!config.obsoleteNativeLaunchAgentLabels.contains(config.launchAgentLabel));
    QCOMPARE(config.welcomePresentationDefaultsKey, QStringLiteral("QuillmereAgentWelcomePresentedBundleVersion"));
    QCOMPARE(config.applicationSupportDirectory, env.dataHome());
    QCOMPARE(config.refreshInterval.count(), 5000);
    QCOMPARE(config.launchFlowDelay.count(), 400);
    QCOMPARE(config.healthTimeout.count(), 2500);
    QCOMPARE(config.volumeSyncTimeout.count(), 3000);
    QCOMPARE(config.volumeSyncDebounce.count(), 1000);

    // Folders from the environment are tidied, and a relative XDG folder is ignored.
    const QByteArray home = qgetenv("HOME");
    const QByteArray dataHome = qgetenv("XDG_DATA_HOME");
    qputenv("HOME", home + "/");
    qputenv("XDG_DATA_HOME", "relative/share");
    const Configuration tidied = Configuration::fromEnvironment();
    qputenv("HOME", home);
    qputenv("XDG_DATA_HOME", dataHome);
    QCOMPARE(tidied.homeDirectory, QString::fromLocal8Bit(home));
    QCOMPARE(tidied.applicationSupportDirectory, QString::fromLocal8Bit(home) + QStringLiteral("/.local/share"));
}

QTEST_MAIN(ControllerStateTest)
#include "tst_ControllerState.moc"
