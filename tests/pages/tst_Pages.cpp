// Pages and folders the menu opens with their log lines, and the launch: the getting-started page
// shown once per version and never at login, the startup status page only for a manual launch.
#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/Files.h"
#include <QAction>
#include <QMenu>
#include <QSettings>
#include <QTest>
#include <QtEndian>

static const QString welcomeKey = QStringLiteral("QuillmereAgentWelcomePresentedBundleVersion");

class PagesTest : public QObject {
    Q_OBJECT
    TestEnvironment env;
    FakeAgent agent;
    FakePlatform fakes;
    ApplicationHost host;
    std::unique_ptr<AppDelegate> delegate;
    std::unique_ptr<FakeControlScript> script;
    QString support; // a support folder of each test's own; the shared log stays where it is
    QString defaults() const { return env.configHome() + QStringLiteral("/com.tallyhold.agent.app.conf"); }
    QString logsFolder() const { return support + QStringLiteral("/TallyholdAgent/runtime/logs"); }
    QString runtimeFile(const char *name) const { return env.runtimeDir() + u'/' + QLatin1String(name); }

    void makeController(const QStringList &arguments = {QStringLiteral("quillmere-menu")},
                        std::chrono::milliseconds refreshInterval = std::chrono::hours(1))
    {
        support = env.root() + QStringLiteral("/support-") + QString::fromLatin1(QTest::currentDataTag());
        Configuration config = env.configuration(agent.baseURL());
        config.refreshInterval = refreshInterval;
        config.launchFlowDelay = std::chrono::milliseconds(10);
        config.arguments = arguments;
        config.applicationSupportDirectory = support;
        delegate = std::make_unique<AppDelegate>(config, fakes.services(), &host);
        host.setDelegate(delegate.get());
        env.markLog();
    }

private slots:
    void init()
    {
        QFile::remove(defaults());
        agent.setHealthDown();
        script = std::make_unique<FakeControlScript>(env.runtimeDir() + QStringLiteral("/agentctl.sh"));
        script->write();
    }
    void cleanup() { delegate.reset(); }

    void menuItemsOpenAndLog_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<bool>("running");
        QTest::addColumn<QString>("opened"); // "$r" stands for the runtime folder, "$l" for the logs folder
        QTest::addColumn<QString>("logLine");
        const auto row = [](const char *title, bool running, const QString &opened, const QString &logLine) {
            QTest::newRow(qPrintable(QString::fromUtf8(title) + (running ? ", running" : "")))
                << QString::fromUtf8(title) << running << opened << logLine;
        };
        const QString page = QStringLiteral("Opening startup page: $r/"),
                      failed = QStringLiteral("startup-status-failed.html"),
                      status = QStringLiteral("startup-status.html");
        row("Open Cloud Admin", false, QStringLiteral("https://quillmere.example/admin.html"),
            QStringLiteral("Opening cloud admin."));
        row("Check for Updates", false, QStringLiteral("https://quillmere.example/downloads/"),
            QStringLiteral("Opening update page."));
        row("Open Local Admin", false, agent.baseURL().toString() + u'/', QStringLiteral("Opening local admin."));
        row("Open Getting Started", false, QStringLiteral("$r/welcome.html"),
            QStringLiteral("Opening getting started page: $r/welcome.html"));
        row("Open Startup Status", false, "$r/" + failed, page + failed);
        row("Open Startup Status", true, "$r/" + status, page + status);
        row("Open Logs", false, QStringLiteral("$l"), QStringLiteral("Opening logs directory: $l"));
    }
    void menuItemsOpenAndLog()
    {
        QFETCH(QString, title);
        QFETCH(bool, running);
        QFETCH(QString, opened);
        QFETCH(QString, logLine);
        makeController();
        delegate->assembleStatusMenu();
        delegate->updateStateMenu(QStringLiteral("Status: Stopped"), QStringLiteral("1.4.2"), running);
        env.markLog();
        const QList<QAction *> actions = delegate->menu->actions();
        const auto item = std::find_if(actions.begin(), actions.end(), [&](QAction *a) { return a->text() == title; });
        QVERIFY(item != actions.end() && (*item)->isEnabled());
        (*item)->trigger();
        for (QString *text : {&opened, &logLine})
            text->replace(QStringLiteral("$r"), env.runtimeDir()).replace(QStringLiteral("$l"), logsFolder());
        QCOMPARE(fakes.opener->opened,
                 QList<QUrl>{opened.startsWith(u'/') ? QUrl::fromLocalFile(opened) : QUrl(opened)});
        QCOMPARE(env.messagesSinceMark(), QStringList{logLine});
        QCOMPARE(QFileInfo(logsFolder()).isDir(), title == QStringLiteral("Open Logs")); // the chain is created
        // Opened by hand, the getting-started page is not shown again at the next launch.
        QCOMPARE(QSettings(defaults(), QSettings::IniFormat).value(welcomeKey).toString(),
                 title == QStringLiteral("Open Getting Started") ? QStringLiteral("1.0.0") : QString());
    }

    void gettingStartedOnLaunch_data()
    {
        QTest::addColumn<QStringList>("arguments");
        // The system's open-application event: class, ID, property data (four-character codes).
        QTest::addColumn<QByteArrayList>("event");
        QTest::addColumn<QString>("stored"); // null: nothing stored
        QTest::addColumn<bool>("atLogin");
        QTest::addColumn<bool>("welcomeShown");
        const QString program = QStringLiteral("quillmere-menu"), flag = QStringLiteral("--launched-at-login");
        const QByteArrayList open{"aevt", "oapp"}, loginItem{"aevt", "oapp", "lgit"};
        QTest::newRow("first") << QStringList{program} << open << QString() << false << true;
        QTest::newRow("same") << QStringList{program} << open << QStringLiteral("1.0.0") << false << false;
        QTest::newRow("older") << QStringList{program} << open << QStringLiteral("0.9.0") << false << true;
        QTest::newRow("login") << QStringList{program, flag} << QByteArrayList() << QStringLiteral("0.9.0") << true
                               << false;
        QTest::newRow("login item") << QStringList{program} << loginItem << QStringLiteral("0.9.0") << true << false;
        QTest::newRow("service item") << QStringList{program} << QByteArrayList{"aevt", "oapp", "svit"}
                                      << QStringLiteral("1.0.0") << false << false;
        QTest::newRow("login mark on another event") << QStringList{program} << QByteArrayList{"aevt", "odoc", "lgit"}
                                                     << QStringLiteral("1.0.0") << false << false;
    }
    void gettingStartedOnLaunch()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArrayList, event);
        QFETCH(QString, stored);
        QFETCH(bool, atLogin);
        QFETCH(bool, welcomeShown);
        if (!stored.isNull())
            QSettings(defaults(), QSettings::IniFormat).setValue(welcomeKey, stored);
        const QByteArray before = readFile(defaults());
        makeController(arguments, std::chrono::milliseconds(100));
        const int probes = agent.countFor("/healthz");
        // As under AppKit: the launch waits for the system's report, which comes after a turn of the loop.
        host.awaitSystemLaunch();
        host.finishLaunching();
        QCoreApplication::processEvents();
        OpenApplicationEvent report;
        for (quint32 *code : {&report.eventClass, &report.eventID, &report.propertyData})
            if (!event.isEmpty())
                *code = qFromBigEndian<quint32>(event.takeFirst().constData());
        host.systemDidFinishLaunching(report);
        QTRY_VERIFY(env.messagesSinceMark().contains(QStringLiteral("Application did finish launching.")));
        QCOMPARE(delegate->launchedAtLogin, atLogin);
        QCOMPARE(delegate->presentedWelcomeOnLaunch, welcomeShown);
        // The agent is down, so the launch flow starts it: interactively that shows the status page.
        QTRY_COMPARE(script->runs(), QList<QStringList>{{QStringLiteral("start")}});
        QTRY_VERIFY_WITH_TIMEOUT(agent.countFor("/healthz") >= probes + 4, 3000); // the launch probe, then the refresh
        QList<QUrl> expected;
        if (welcomeShown || !atLogin)
            expected = {QUrl::fromLocalFile(runtimeFile(welcomeShown ? "welcome.html" : "startup-status.html"))};
        QCOMPARE(fakes.opener->opened, expected);
        if (atLogin)
            QCOMPARE(readFile(defaults()), before); // neither read nor changed
        else
            QCOMPARE(QSettings(defaults(), QSettings::IniFormat).value(welcomeKey).toString(),
                     welcomeShown ? QStringLiteral("1.0.0") : stored);
    }
};

QTEST_MAIN(PagesTest)
#include "tst_Pages.moc"
