// The launch's pages: getting started once per version and never at login, startup status only by hand.
#include "support/Testing.h"

#include <QSettings>
#include <QtEndian>

// At login (by the flag or the open-application event); the event's class, ID and property data (four-character
// codes) or command-line arguments; the version stored (null: none); whether getting started is shown.
using LaunchRow = std::tuple<bool, QByteArrayList, QString, bool>;

class PagesTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    FakeAgent agent;
    const QString defaults = env.configHome() + u"/com.tallyhold.agent.app.conf"_s,
                  welcomeKey = u"QuillmereAgentWelcomePresentedBundleVersion"_s;
    QString storedVersion() const { return QSettings(defaults, QSettings::IniFormat).value(welcomeKey).toString(); }

private slots:
    void gettingStartedOnLaunch_data()
    {
        QTest::addColumn<LaunchRow>("row");
        const QByteArrayList open{"aevt", "oapp"};
        QTest::newRow("first") << LaunchRow{false, open, QString(), true};
        QTest::newRow("same, agent up") << LaunchRow{false, open, u"1.0.0"_s, false};
        QTest::newRow("older") << LaunchRow{false, open, u"0.9.0"_s, true};
        QTest::newRow("login") << LaunchRow{true, {"--launched-at-login"}, u"0.9.0"_s, false};
        QTest::newRow("flag in other case or with more")
            << LaunchRow{false, {"--Launched-At-Login", "--launched-at-login=1"}, u"0.9.0"_s, true};
        QTest::newRow("login item") << LaunchRow{true, {"aevt", "oapp", "lgit"}, u"0.9.0"_s, false};
        QTest::newRow("service item") << LaunchRow{false, {"aevt", "oapp", "svit"}, u"1.0.0"_s, false};
        QTest::newRow("login mark on another event") << LaunchRow{false, {"aevt", "odoc", "lgit"}, u"1.0.0"_s, false};
    }
    void gettingStartedOnLaunch()
    {
        QFETCH(LaunchRow, row);
        auto [atLogin, event, stored, welcomeShown] = row;
        QFile::remove(defaults);
        const bool agentUp = QByteArray(QTest::currentDataTag()).endsWith("agent up");
        agentUp ? agent.setHealthy() : agent.setHealthDown();
        FakeControlScript script(env.runtimeDir() + u"/agentctl.sh"_s);
        script.write();
        if (!stored.isNull())
            QSettings(defaults, QSettings::IniFormat).setValue(welcomeKey, stored);
        Configuration config = env.configuration(agent.baseURL());
        config.refreshInterval = std::chrono::milliseconds(100);
        config.launchFlowDelay = std::chrono::milliseconds(10);
        config.arguments = QStringList{u"quillmere-menu"_s};
        while (event.value(0).startsWith("--")) // arguments instead of an event
            config.arguments << QString::fromLatin1(event.takeFirst());
        // A support folder of each row's own, so that the logs item has to make it; the log stays.
        config.applicationSupportDirectory = env.root() + u"/support-"_s + QString::fromLatin1(QTest::currentDataTag());
        Controller c(config, false);
        env.markLog();
        const int probes = agent.countFor("/healthz");
        // As under AppKit: the launch waits for the system's report, which comes after a turn of the loop.
        c.host.awaitSystemLaunch();
        c.host.finishLaunching();
        QCoreApplication::processEvents();
        OpenApplicationEvent report;
        for (quint32 *code : {&report.eventClass, &report.eventID, &report.propertyData})
            if (!event.isEmpty())
                *code = qFromBigEndian<quint32>(event.takeFirst().constData());
        c.host.systemDidFinishLaunching(report);
        // An agent that is down is started, interactively with the status page; one that is up is left alone.
        QTRY_VERIFY(env.messagesSinceMark().contains(agentUp ? u"Agent already healthy during launch."_s
                                                             : u"Agent not healthy during launch. Starting agent."_s));
        QVERIFY(env.messagesSinceMark().contains("Launch flow starting. launchedAtLogin="_L1 +
                                                 (atLogin ? "true"_L1 : "false"_L1)));
        QTRY_VERIFY_WITH_TIMEOUT(agent.countFor("/healthz") >= probes + 4, 3000); // the launch probe, then the refresh
        // The last answer may still be on its way when its request has arrived.
        QTRY_COMPARE(
            std::tuple(c.delegate.launchedAtLogin, c.delegate.presentedWelcomeOnLaunch, script.runs(),
                       c.delegate.stateMenuItem->text(), storedVersion()),
            std::tuple(atLogin, welcomeShown, agentUp ? QList<QStringList>() : QList<QStringList>{{u"start"_s}},
                       agentUp ? u"Status: Running"_s : u"Status: Stopped"_s, welcomeShown ? u"1.0.0"_s : stored));

        // Opened from the menu, getting started is not shown again; the logs item makes the folder it opens.
        const QString logs = config.applicationSupportDirectory + u"/TallyholdAgent/runtime/logs"_s;
        QVERIFY(!QFileInfo::exists(logs));
        c.delegate.openGettingStartedMenuItem()->trigger();
        c.delegate.openLogsMenuItem()->trigger();
        QCOMPARE(std::pair(storedVersion(), QFileInfo(logs).isDir()), std::pair(u"1.0.0"_s, true));
        QList<QUrl> opened{QUrl::fromLocalFile(env.runtimeDir() + u"/welcome.html"_s), QUrl::fromLocalFile(logs)};
        if (welcomeShown || (!atLogin && !agentUp)) // first, what the launch opened
            opened.prepend(QUrl::fromLocalFile(env.runtimeDir() +
                                               (welcomeShown ? "/welcome.html"_L1 : "/startup-status.html"_L1)));
        QCOMPARE(c.fakes.opener->opened, opened);
    }

    // A controller as made knows and runs nothing; getting started is for the build's version as written, else the
    // marketing one (blanks or a number count as none), else "1".
    void madeController_data()
    {
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QString>("version");
        const QString marketing = u"<key>CFBundleShortVersionString</key><string>1.3</string>"_s;
        QTest::newRow("both") << u"<key>CFBundleVersion</key><string>42</string>"_s + marketing << u"42"_s;
        QTest::newRow("build blanks") << u"<key>CFBundleVersion</key><string> \n </string>"_s + marketing << u"1.3"_s;
        QTest::newRow("build a number") << u"<key>CFBundleVersion</key><integer>7</integer>"_s + marketing << u"1.3"_s;
        QTest::newRow("spaces kept") << u"<key>CFBundleVersion</key><string> 2.0 </string>"_s << u" 2.0 "_s;
        QTest::newRow("neither") << u"<key>CFBundleShortVersionString</key><string> </string>"_s << u"1"_s;
    }
    void madeController()
    {
        QFETCH(QString, keys);
        QFETCH(QString, version);
        Configuration config = env.configuration(agent.baseURL());
        config.infoPlistPath = env.root() + u"/row-Info.plist"_s;
        writeFile(config.infoPlistPath, ("<plist><dict>"_L1 + keys + "</dict></plist>"_L1).toUtf8());
        const Controller c(config, false);
        const AppDelegate &d = c.delegate;
        QCOMPARE((QVariantList{d.agentIsRunning, d.startInFlight, d.stopInFlight, d.launchedAtLogin,
                               d.presentedWelcomeOnLaunch, d.terminationReplyPending, d.terminateAfterStop,
                               d.stopAgentOnTerminate, d.mountedVolumeSyncInFlight, d.mountedVolumeSyncPending,
                               d.lastKnownVersion, d.lastStateTitle, d.lastMountedVolumeSyncSignature,
                               d.mountedVolumeObserverTokens.size(), bool(d.mountedVolumeSyncDebounceWorkItem),
                               bool(d.refreshTimer), d.mountedVolumeSyncURL, d.currentBundleVersion()}),
                 (QVariantList{false, false, false, false, false, false, false, true, false, false, u"--"_s, QString(),
                               QString(), 0, false, false,
                               agent.baseURL().resolved(u"/api/mounted-volumes/cache-sync"_s), version}));
    }
};

QTEST_MAIN(PagesTest)
#include "tst_Pages.moc"
