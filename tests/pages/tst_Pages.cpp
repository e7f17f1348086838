// Pages and folders the menu opens, and the getting-started page shown once per version and
// never at login.
#include "app/AppDelegate.h"
#include "platform/Bundle.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/InstalledProgram.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QSettings>
#include <QTest>
#include <csignal>

namespace {

const QString welcomeKey = QStringLiteral("QuillmereAgentWelcomePresentedBundleVersion");
const QString currentVersion = QStringLiteral("1.0.0"); // what TestEnvironment's Info.plist says

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class PagesTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();

    void webPagesLogAndOpenTheirAddress_data();
    void webPagesLogAndOpenTheirAddress();
    void gettingStartedOnLaunch_data();
    void gettingStartedOnLaunch();
    void gettingStartedFromTheMenuRecordsTheVersion();
    void startupStatusShowsTheFailurePageUnlessRunning_data();
    void startupStatusShowsTheFailurePageUnlessRunning();
    void openLogsCreatesTheFolderChain_data();
    void openLogsCreatesTheFolderChain();
    void withoutRuntimeFolderPagesOnlyLog();
    void realProgramOpensTheWelcomePageOnlyOnItsFirstInteractiveLaunch();

private:
    void makeController(const QStringList &arguments = {QStringLiteral("quillmere-menu")},
                        bool withRuntimeFolder = true, const QString &applicationSupportDirectory = QString())
    {
        Configuration config = env.configuration(agent->baseURL());
        config.refreshInterval = std::chrono::hours(1);
        config.launchFlowDelay = std::chrono::milliseconds(10);
        config.arguments = arguments;
        if (!withRuntimeFolder)
            config.resourceDirectory = std::nullopt;
        if (!applicationSupportDirectory.isNull())
            config.applicationSupportDirectory = applicationSupportDirectory;
        delegate = std::make_unique<AppDelegate>(config, fakes.services(), &host);
        host.setDelegate(delegate.get());
    }

    QString defaultsFile() const { return env.configHome() + QStringLiteral("/com.tallyhold.agent.app.conf"); }
    QUrl runtimeFile(const QString &name) const
    {
        return QUrl::fromLocalFile(env.runtimeDir() + QLatin1Char('/') + name);
    }

    TestEnvironment env;
    std::unique_ptr<FakeAgent> agent;
    FakePlatform fakes;
    ApplicationHost host;
    std::unique_ptr<AppDelegate> delegate;
};

void PagesTest::init()
{
    QFile::remove(defaultsFile());
    QFile::remove(env.runtimeDir() + QStringLiteral("/agentctl.sh"));
    agent = std::make_unique<FakeAgent>();
    agent->setHealthDown();
    env.markLog();
}

void PagesTest::cleanup()
{
    delegate.reset();
    agent.reset();
}

void PagesTest::webPagesLogAndOpenTheirAddress_data()
{
    QTest::addColumn<QString>("menuTitle");
    QTest::addColumn<QString>("logLine");
    QTest::addColumn<QString>("address"); // relative to the agent's address when it starts with '/'
    QTest::newRow("cloud admin") << QStringLiteral("Open Cloud Admin") << QStringLiteral("Opening cloud admin.")
                                 << QStringLiteral("https://quillmere.example/admin.html");
    QTest::newRow("updates") << QStringLiteral("Check for Updates") << QStringLiteral("Opening update page.")
                             << QStringLiteral("https://quillmere.example/downloads/");
    QTest::newRow("local admin") << QStringLiteral("Open Local Admin") << QStringLiteral("Opening local admin.")
                                 << QStringLiteral("/");
}

void PagesTest::webPagesLogAndOpenTheirAddress()
{
    QFETCH(QString, menuTitle);
    QFETCH(QString, logLine);
    QFETCH(QString, address);

    makeController(); // the agent counts as not running: every web page is offered anyway
    delegate->assembleStatusMenu();
    env.markLog();

    QAction *item = nullptr;
    for (QAction *action : delegate->menu->actions()) {
        if (action->text() == menuTitle)
            item = action;
    }
    QVERIFY(item);
    QVERIFY(item->isEnabled());
    item->trigger();

    const QUrl expected =
        address.startsWith(QLatin1Char('/')) ? agent->baseURL().resolved(QUrl(address)) : QUrl(address);
    QCOMPARE(fakes.opener->opened, QList<QUrl>{expected});
    QCOMPARE(env.messagesSinceMark(), QStringList{logLine});
}

void PagesTest::gettingStartedOnLaunch_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("stored"); // null: nothing stored
    QTest::addColumn<bool>("atLogin");
    QTest::addColumn<bool>("welcomeShown");

    const QString program = QStringLiteral("quillmere-menu");
    const QString flag = QStringLiteral("--launched-at-login");
    QTest::newRow("first launch") << QStringList{program} << QString() << false << true;
    QTest::newRow("same version again") << QStringList{program} << currentVersion << false << false;
    QTest::newRow("older version stored") << QStringList{program} << QStringLiteral("0.9.0") << false << true;
    QTest::newRow("newer version stored") << QStringList{program} << QStringLiteral("2.0.0") << false << true;
    QTest::newRow("stored with a trailing blank")
        << QStringList{program} << currentVersion + QLatin1Char(' ') << false << true;
    QTest::newRow("login launch, older version stored")
        << QStringList{program, flag} << QStringLiteral("0.9.0") << true << false;
    QTest::newRow("login launch, nothing stored")
        << QStringList{program, QStringLiteral("-v"), flag} << QString() << true << false;
    QTest::newRow("flag with something appended")
        << QStringList{program, flag + QStringLiteral("=1")} << currentVersion << false << false;
    QTest::newRow("flag in other letter case")
        << QStringList{program, QStringLiteral("--Launched-At-Login")} << QString() << false << true;
}

void PagesTest::gettingStartedOnLaunch()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, stored);
    QFETCH(bool, atLogin);
    QFETCH(bool, welcomeShown);

    if (!stored.isNull()) {
        QSettings settings(defaultsFile(), QSettings::IniFormat);
        settings.setValue(welcomeKey, stored);
    }
    const QByteArray defaultsBefore = readAll(defaultsFile());
    FakeControlScript script(env.runtimeDir() + QStringLiteral("/agentctl.sh"));
    script.write();
    makeController(arguments);

    delegate->applicationDidFinishLaunching();

    QCOMPARE(delegate->launchedAtLogin, atLogin);
    QCOMPARE(delegate->presentedWelcomeOnLaunch, welcomeShown);
    // The agent is down, so the launch flow starts it; wait until the script runs.
    QVERIFY(env.waitForLogMessage(QStringLiteral("Launch flow starting. launchedAtLogin=") +
                                  (atLogin ? QStringLiteral("true") : QStringLiteral("false"))));
    QTRY_COMPARE(script.runs(), QList<QStringList>{{QStringLiteral("start")}});

    QList<QUrl> expectedOpened;
    if (welcomeShown)
        expectedOpened = {runtimeFile(QStringLiteral("welcome.html"))};
    else if (!atLogin)
        expectedOpened = {runtimeFile(QStringLiteral("startup-status.html"))};
    QCOMPARE(fakes.opener->opened, expectedOpened);

    const QStringList log = env.messagesSinceMark();
    QCOMPARE(log.contains(QStringLiteral("Opening getting started page: ") + env.runtimeDir() +
                          QStringLiteral("/welcome.html")),
             welcomeShown);

    if (atLogin) {
        QCOMPARE(readAll(defaultsFile()), defaultsBefore); // neither read nor changed
        QCOMPARE(QFile::exists(defaultsFile()), !stored.isNull());
    } else {
        QSettings settings(defaultsFile(), QSettings::IniFormat);
        QCOMPARE(settings.value(welcomeKey).toString(), welcomeShown ? currentVersion : stored);
    }
}

void PagesTest::gettingStartedFromTheMenuRecordsTheVersion()
{
    {
        QSettings settings(defaultsFile(), QSettings::IniFormat);
        settings.setValue(welcomeKey, QStringLiteral("0.1"));
    }
    makeController();
    delegate->assembleStatusMenu();
    env.markLog();

    delegate->openGettingStartedMenuItem()->trigger();

    QCOMPARE(fakes.opener->opened, QList<QUrl>{runtimeFile(QStringLiteral("welcome.html"))});
    QCOMPARE(env.messagesSinceMark(), QStringList{QStringLiteral("Opening getting started page: ") + env.runtimeDir() +
                                                  QStringLiteral("/welcome.html")});
    QSettings settings(defaultsFile(), QSettings::IniFormat);
    QCOMPARE(settings.value(welcomeKey).toString(), currentVersion);

    // The next launch of this version shows nothing.
    delegate.reset();
    makeController();
    delegate->applicationDidFinishLaunching();
    QVERIFY(!delegate->presentedWelcomeOnLaunch);
    QVERIFY(fakes.opener->opened.isEmpty());
}

void PagesTest::startupStatusShowsTheFailurePageUnlessRunning_data()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<bool>("starting");
    QTest::addColumn<QString>("page");
    QTest::newRow("running") << true << false << QStringLiteral("startup-status.html");
    QTest::newRow("stopped") << false << false << QStringLiteral("startup-status-failed.html");
    QTest::newRow("still starting") << false << true << QStringLiteral("startup-status-failed.html");
}

void PagesTest::startupStatusShowsTheFailurePageUnlessRunning()
{
    QFETCH(bool, running);
    QFETCH(bool, starting);
    QFETCH(QString, page);

    makeController();
    delegate->assembleStatusMenu();
    delegate->startInFlight = starting;
    delegate->updateStateMenu(running ? QStringLiteral("Status: Running") : QStringLiteral("Status: Starting..."),
                              QStringLiteral("1.4.2"), running);
    env.markLog();

    QVERIFY(delegate->openStartupPageMenuItem()->isEnabled());
    delegate->openStartupPageMenuItem()->trigger();

    QCOMPARE(fakes.opener->opened, QList<QUrl>{runtimeFile(page)});
    QCOMPARE(env.messagesSinceMark(),
             QStringList{QStringLiteral("Opening startup page: ") + env.runtimeDir() + QLatin1Char('/') + page});
}

void PagesTest::openLogsCreatesTheFolderChain_data()
{
    QTest::addColumn<QString>("supportSuffix");
    QTest::addColumn<bool>("blocked");
    QTest::newRow("missing chain") << QStringLiteral("/support-a") << false;
    QTest::newRow("support folder given with a trailing separator") << QStringLiteral("/support-b/") << false;
    QTest::newRow("a file in the way") << QStringLiteral("/support-c") << true;
}

void PagesTest::openLogsCreatesTheFolderChain()
{
    QFETCH(QString, supportSuffix);
    QFETCH(bool, blocked);

    // A support folder of its own: the shared log keeps writing to the test environment's.
    const QString support = env.root() + supportSuffix;
    const QString folder = QDir::cleanPath(support) + QStringLiteral("/TallyholdAgent/runtime/logs");
    QVERIFY(!QFileInfo::exists(QDir::cleanPath(support)));
    if (blocked) {
        QVERIFY(QDir().mkpath(support));
        QFile obstacle(support + QStringLiteral("/TallyholdAgent"));
        QVERIFY(obstacle.open(QIODevice::WriteOnly));
    }
    makeController({QStringLiteral("quillmere-menu")}, true, support);
    delegate->assembleStatusMenu();
    env.markLog();

    delegate->openLogsMenuItem()->trigger();

    QCOMPARE(QFileInfo(folder).isDir(), !blocked);
    QCOMPARE(fakes.opener->opened, QList<QUrl>{QUrl::fromLocalFile(folder)});
    QCOMPARE(env.messagesSinceMark(), QStringList{QStringLiteral("Opening logs directory: ") + folder});
}

void PagesTest::withoutRuntimeFolderPagesOnlyLog()
{
    makeController({QStringLiteral("quillmere-menu")}, false);
    delegate->assembleStatusMenu();
    QVERIFY(!delegate->openGettingStartedMenuItem()->isEnabled());
    QVERIFY(!delegate->openStartupPageMenuItem()->isEnabled());
    env.markLog();

    QVERIFY(!delegate->openGettingStartedPage(true));
    delegate->openStartupPage(false);
    delegate->openStartupPage(true);

    QCOMPARE(env.messagesSinceMark(), QStringList({QStringLiteral("Getting started page could not be resolved."),
                                                   QStringLiteral("Startup page could not be resolved. failed=false"),
                                                   QStringLiteral("Startup page could not be resolved. failed=true")}));
    QVERIFY(fakes.opener->opened.isEmpty());
    QVERIFY(!QFile::exists(defaultsFile()));

    // At launch the page cannot be shown, so nothing counts as presented.
    delegate.reset();
    makeController({QStringLiteral("quillmere-menu")}, false);
    delegate->applicationDidFinishLaunching();
    QVERIFY(!delegate->presentedWelcomeOnLaunch);
    QVERIFY(!QFile::exists(defaultsFile()));
}

void PagesTest::realProgramOpensTheWelcomePageOnlyOnItsFirstInteractiveLaunch()
{
    agent->setHealthy();
    InstalledProgram program;
    FakeControlScript script(program.controlScript());
    script.write();
    const QString welcome = program.runtimeDir() + QStringLiteral("/welcome.html");
    const QString version = readPropertyListDictionary(program.resourceDir() + QStringLiteral("/Info.plist"))
                                .value(QStringLiteral("CFBundleVersion"))
                                .toString();
    QVERIFY(!version.isEmpty());

    QProcess *first = program.start(agent->port());
    QVERIFY(program.waitForLogMessage(QStringLiteral("Agent already healthy during launch.")));
    QTRY_COMPARE(program.openedLocations(), QStringList{welcome});
    QVERIFY(program.logMessages().contains(QStringLiteral("Opening getting started page: ") + welcome));
    ::kill(pid_t(first->processId()), SIGTERM);
    QVERIFY(InstalledProgram::waitForExit(first));
    const QString defaults =
        program.configHomeOf(QStringLiteral("first")) + QStringLiteral("/com.tallyhold.agent.app.conf");
    QCOMPARE(QSettings(defaults, QSettings::IniFormat).value(welcomeKey).toString(), version);
    QSettings(defaults, QSettings::IniFormat).setValue(welcomeKey, QStringLiteral("0.0.1"));
    const QByteArray defaultsBefore = readAll(defaults);

    // At login nothing is shown even though the stored version is older.
    QProcess *atLogin = program.start(agent->port(), {QStringLiteral("--launched-at-login")});
    QVERIFY(program.waitForLogMessage(QStringLiteral("Launch flow starting. launchedAtLogin=true")));
    QVERIFY(program.waitForLogMessage(QStringLiteral("Agent already healthy during launch."), QStringLiteral("first"),
                                      15000, 2));
    ::kill(pid_t(atLogin->processId()), SIGTERM);
    QVERIFY(InstalledProgram::waitForExit(atLogin));
    QCOMPARE(atLogin->exitCode(), 0);
    QCOMPARE(program.openedLocations(), QStringList{welcome});
    QCOMPARE(readAll(defaults), defaultsBefore);
}

QTEST_MAIN(PagesTest)
#include "tst_Pages.moc"
