// Run at startup as the controller does it: the state resolved from the login-item service and
// the launch agent files, the menu item, switching on and off with every outcome of the service,
// and the launch agent files with their launchctl runs (recorded by a stand-in launchctl).
#include "app/AppDelegate.h"
#include "menu/MenuItemCheckState.h"
#include "startup/LegacyLaunchAgent.h"
#include "support/FakePlatform.h"
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QTest>
#include <unistd.h>

namespace {

const QString ownLabel = QStringLiteral("com.tallyhold.agent.app");
const QStringList obsoleteLabels = {QStringLiteral("com.tallyhold.agent.menubarbeta.app"),
                                    QStringLiteral("com.tallyhold.agent.nativebeta.app"),
                                    QStringLiteral("com.tallyhold.agent")};
const QString enabledWithService = QStringLiteral("Enabled run-at-startup with SMAppService.");
const QString requiresApproval =
    QStringLiteral("SMAppService registration requires approval. Opening Login Items settings.");
const QString approvalRequired =
    QStringLiteral("User approval is required for login-item registration. Opening Login Items settings.");

const QByteArray obsoleteWithMarker = "<plist><dict><key>ProgramArguments</key><array><string>/Applications/Beta.app"
                                      "</string><string>--launched-at-login</string></array></dict></plist>";
const QByteArray obsoleteMarkerInComment = "<plist><!-- started with --launched-at-login --><dict/></plist>";
const QByteArray obsoleteWithoutMarker =
    "<plist><dict><key>Label</key><string>com.tallyhold.agent</string></dict></plist>";
const QByteArray obsoleteNotUtf8 = "<plist>\xff\xfe<string>--launched-at-login</string></plist>";

QString uid()
{
    return QString::number(getuid());
}

LoginItemError serviceError(int code)
{
    return LoginItemError{QStringLiteral("SMAppServiceErrorDomain"), code, QStringLiteral("Operation failed.")};
}

QString registrationFailedLine(int code)
{
    return QStringLiteral("SMAppService registration failed: domain=SMAppServiceErrorDomain code=") +
           QString::number(code) + QStringLiteral(" message=Operation failed.");
}

// One controller with fake platform services; the fakes stay reachable through `fakes`.
struct Harness {
    explicit Harness(const Configuration &configuration)
    {
        delegate = std::make_unique<AppDelegate>(configuration, fakes.services(), &host);
        host.setDelegate(delegate.get());
    }
    FakeLoginItemService &loginItems() { return *fakes.loginItems; }

    FakePlatform fakes;
    ApplicationHost host;
    std::unique_ptr<AppDelegate> delegate;
};

enum class Legacy { none, ownEmpty, obsoleteMarker, obsoleteMarkerInComment, obsoleteWithoutMarker, obsoleteNotUtf8 };

} // namespace

Q_DECLARE_METATYPE(Legacy)
Q_DECLARE_METATYPE(RunAtStartupState)

class RunAtStartupTest : public QObject {
    Q_OBJECT
private slots:
    void init();

    void resolvingCombinesServiceAndLaunchAgentFiles_data();
    void resolvingCombinesServiceAndLaunchAgentFiles();
    void enablingFollowsEveryServiceOutcome_data();
    void enablingFollowsEveryServiceOutcome();
    void disablingAlwaysRemovesTheLaunchAgent_data();
    void disablingAlwaysRemovesTheLaunchAgent();
    void togglingSwitchesFromEachState_data();
    void togglingSwitchesFromEachState();

    void installWritesThenCleansUpThenLoads();
    void failedBootstrapIsLoggedAndKeepsTheFile_data();
    void failedBootstrapIsLoggedAndKeepsTheFile();
    void installFailureIsShownOnTheStateLine_data();
    void installFailureIsShownOnTheStateLine();
    void installWithoutExecutableDoesNothing();
    void removalUnloadsDeletesAndCleansUpLeftovers_data();
    void removalUnloadsDeletesAndCleansUpLeftovers();

private:
    Configuration configuration() const;
    QString plistPath() const
    {
        return env.home() + QStringLiteral("/Library/LaunchAgents/") + ownLabel + QStringLiteral(".plist");
    }
    QString obsoletePath(int index) const
    {
        return env.home() + QStringLiteral("/Library/LaunchAgents/") + obsoleteLabels.at(index) +
               QStringLiteral(".plist");
    }
    QString recordPath() const { return env.root() + QStringLiteral("/launchctl-calls.txt"); }
    QString bootstrapFailsFlag() const { return env.root() + QStringLiteral("/bootstrap-fails"); }
    // A launchctl that records each run as one line of bracketed arguments.
    void installRecordingLaunchctl() const;
    QStringList launchctlCalls() const;
    // The log lines since the mark, without the process runner's own lines.
    QStringList ownLines() const;
    void placeLegacy(Legacy legacy) const;

    TestEnvironment env;
};

Configuration RunAtStartupTest::configuration() const
{
    return env.configuration(QUrl(QStringLiteral("http://127.0.0.1:1")));
}

void RunAtStartupTest::installRecordingLaunchctl() const
{
    TestEnvironment::writeScript(configuration().launchctlPath,
                                 QStringLiteral("line=''\n"
                                                "for a in \"$@\"; do line=\"$line[$a]\"; done\n"
                                                "printf '%s\\n' \"$line\" >> '") +
                                     recordPath() +
                                     QStringLiteral("'\n"
                                                    "if [ \"$1\" = bootstrap ] && [ -e '") +
                                     bootstrapFailsFlag() + QStringLiteral("' ]; then exit 5; fi\nexit 0\n"));
}

QStringList RunAtStartupTest::launchctlCalls() const
{
    return QString::fromUtf8(readFile(recordPath())).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QStringList RunAtStartupTest::ownLines() const
{
    QStringList lines;
    for (const QString &line : env.messagesSinceMark()) {
        if (!line.startsWith(QStringLiteral("Launching process: ")) && !line.startsWith(QStringLiteral("Process ")))
            lines.append(line);
    }
    return lines;
}

void RunAtStartupTest::placeLegacy(Legacy legacy) const
{
    switch (legacy) {
    case Legacy::none:
        break;
    case Legacy::ownEmpty:
        writeFile(plistPath(), QByteArray());
        break;
    case Legacy::obsoleteMarker:
        writeFile(obsoletePath(1), obsoleteWithMarker);
        break;
    case Legacy::obsoleteMarkerInComment:
        writeFile(obsoletePath(2), obsoleteMarkerInComment);
        break;
    case Legacy::obsoleteWithoutMarker:
        writeFile(obsoletePath(0), obsoleteWithoutMarker);
        break;
    case Legacy::obsoleteNotUtf8:
        writeFile(obsoletePath(0), obsoleteNotUtf8);
        break;
    }
}

void RunAtStartupTest::init()
{
    QDir(env.home() + QStringLiteral("/Library")).removeRecursively();
    QFile::remove(env.home() + QStringLiteral("/Library"));
    QFile::remove(recordPath());
    QFile::remove(bootstrapFailsFlag());
    installRecordingLaunchctl();
    env.markLog();
}

void RunAtStartupTest::resolvingCombinesServiceAndLaunchAgentFiles_data()
{
    QTest::addColumn<bool>("available");
    QTest::addColumn<int>("status");
    QTest::addColumn<Legacy>("legacy");
    QTest::addColumn<RunAtStartupState>("expected");

    const auto off = RunAtStartupState::disabled;
    const auto on = RunAtStartupState::enabled;
    const auto approval = RunAtStartupState::needsApproval;
    QTest::newRow("no service, nothing") << false << 1 << Legacy::none << off;
    QTest::newRow("no service, own plist") << false << 0 << Legacy::ownEmpty << on;
    QTest::newRow("no service, leftover") << false << 0 << Legacy::obsoleteMarker << on;
    QTest::newRow("not registered") << true << 0 << Legacy::none << off;
    QTest::newRow("enabled") << true << 1 << Legacy::none << on;
    QTest::newRow("requires approval") << true << 2 << Legacy::none << approval;
    QTest::newRow("requires approval, own plist") << true << 2 << Legacy::ownEmpty << on;
    QTest::newRow("requires approval, leftover") << true << 2 << Legacy::obsoleteMarker << on;
    QTest::newRow("not found") << true << 3 << Legacy::none << off;
    QTest::newRow("not found, own plist") << true << 3 << Legacy::ownEmpty << on;
    QTest::newRow("unknown status") << true << 7 << Legacy::none << off;
    QTest::newRow("not registered, own empty plist") << true << 0 << Legacy::ownEmpty << on;
    QTest::newRow("leftover with marker") << true << 0 << Legacy::obsoleteMarker << on;
    QTest::newRow("leftover, marker in a comment") << true << 0 << Legacy::obsoleteMarkerInComment << on;
    QTest::newRow("leftover without marker") << true << 0 << Legacy::obsoleteWithoutMarker << off;
    QTest::newRow("leftover not UTF-8") << true << 0 << Legacy::obsoleteNotUtf8 << off;
    QTest::newRow("leftover not UTF-8, approval") << true << 2 << Legacy::obsoleteNotUtf8 << approval;
}

void RunAtStartupTest::resolvingCombinesServiceAndLaunchAgentFiles()
{
    QFETCH(bool, available);
    QFETCH(int, status);
    QFETCH(Legacy, legacy);
    QFETCH(RunAtStartupState, expected);

    placeLegacy(legacy);
    Harness h(configuration());
    h.loginItems().available = available;
    h.loginItems().currentStatus = status;
    QCOMPARE(h.delegate->resolveRunAtStartupState(), expected);
    QCOMPARE(h.loginItems().statusReads, available ? 1 : 0);

    // The item shows it: check mark, mixed state and title, and nothing else changes.
    QAction *item = h.delegate->runAtStartupMenuItem();
    item->setEnabled(false);
    item->setChecked(true);
    setMenuItemCheckState(item, menuItemStateMixed);
    h.delegate->refreshRunAtStartupState();
    QVERIFY(item->isCheckable());
    QCOMPARE(item->isChecked(), expected == RunAtStartupState::enabled);
    const int shown = expected == RunAtStartupState::enabled         ? menuItemStateOn
                      : expected == RunAtStartupState::needsApproval ? menuItemStateMixed
                                                                     : menuItemStateOff;
    QCOMPARE(menuItemCheckState(item), shown);
    QCOMPARE(item->text(), expected == RunAtStartupState::needsApproval
                               ? QStringLiteral("Run at Startup (Needs Approval)")
                               : QStringLiteral("Run at Startup"));
    QVERIFY(!item->isEnabled());
    QVERIFY(h.loginItems().calls.isEmpty());
    QVERIFY(launchctlCalls().isEmpty());
    QVERIFY(env.messagesSinceMark().isEmpty());
}

enum class PlistAfter { removed, untouched, installed };
Q_DECLARE_METATYPE(PlistAfter)

void RunAtStartupTest::enablingFollowsEveryServiceOutcome_data()
{
    QTest::addColumn<int>("registerCode"); // 0: registration succeeds
    QTest::addColumn<int>("statusAfter");
    QTest::addColumn<bool>("statusRead");
    QTest::addColumn<PlistAfter>("plistAfter");
    QTest::addColumn<bool>("settingsOpened");
    QTest::addColumn<QStringList>("lines");

    const QString removed = QStringLiteral("Removed legacy run-at-startup plist at ") + plistPath();
    const QString installed = QStringLiteral("Enabled legacy run-at-startup plist at ") + plistPath();
    QTest::newRow("succeeds") << 0 << 1 << true << PlistAfter::removed << false
                              << QStringList{enabledWithService, removed};
    QTest::newRow("succeeds, not found afterwards")
        << 0 << 3 << true << PlistAfter::removed << false << QStringList{enabledWithService, removed};
    QTest::newRow("succeeds, needs approval")
        << 0 << 2 << true << PlistAfter::removed << true << QStringList{enabledWithService, removed, requiresApproval};
    QTest::newRow("already registered") << 12 << 2 << false << PlistAfter::removed << false
                                        << QStringList{registrationFailedLine(12), removed};
    QTest::newRow("denied by user") << 11 << 0 << false << PlistAfter::untouched << true
                                    << QStringList{registrationFailedLine(11), approvalRequired};
    QTest::newRow("other code, needs approval")
        << 1 << 2 << true << PlistAfter::untouched << true << QStringList{registrationFailedLine(1), approvalRequired};
    QTest::newRow("other code, not registered")
        << 1 << 0 << true << PlistAfter::installed << false << QStringList{registrationFailedLine(1), installed};
    QTest::newRow("negative code, not found")
        << -67 << 3 << true << PlistAfter::installed << false << QStringList{registrationFailedLine(-67), installed};
    QTest::newRow("job not found while registering")
        << 6 << 1 << true << PlistAfter::installed << false << QStringList{registrationFailedLine(6), installed};
}

void RunAtStartupTest::enablingFollowsEveryServiceOutcome()
{
    QFETCH(int, registerCode);
    QFETCH(int, statusAfter);
    QFETCH(bool, statusRead);
    QFETCH(PlistAfter, plistAfter);
    QFETCH(bool, settingsOpened);
    QFETCH(QStringList, lines);

    const QByteArray oldPlist = "an earlier install";
    writeFile(plistPath(), oldPlist);
    Harness h(configuration());
    FakeLoginItemService &service = h.loginItems();
    if (registerCode == 0) {
        service.statusAfterRegister = statusAfter;
    } else {
        service.registerResult = serviceError(registerCode);
        service.currentStatus = statusAfter;
    }

    h.delegate->enableRunAtStartup();

    QCOMPARE(ownLines(), lines);
    QCOMPARE(service.statusReads, statusRead ? 1 : 0);
    QStringList expectedCalls{QStringLiteral("register")};
    if (settingsOpened)
        expectedCalls << QStringLiteral("openSettings");
    QCOMPARE(service.calls, expectedCalls);
    QVERIFY(h.delegate->stopAgentOnTerminate);

    const QString domain = QStringLiteral("[gui/") + uid() + QStringLiteral("]");
    switch (plistAfter) {
    case PlistAfter::removed:
        QVERIFY(!QFile::exists(plistPath()));
        QCOMPARE(launchctlCalls(),
                 QStringList{QStringLiteral("[bootout]") + domain + QLatin1Char('[') + plistPath() + QLatin1Char(']')});
        break;
    case PlistAfter::untouched:
        QCOMPARE(readFile(plistPath()), oldPlist);
        QVERIFY(launchctlCalls().isEmpty());
        break;
    case PlistAfter::installed:
        QVERIFY(readFile(plistPath()).contains("<string>--launched-at-login</string>"));
        QCOMPARE(launchctlCalls().size(), 3);
        break;
    }
}

void RunAtStartupTest::disablingAlwaysRemovesTheLaunchAgent_data()
{
    QTest::addColumn<bool>("available");
    QTest::addColumn<int>("unregisterCode"); // 0: unregistering succeeds
    QTest::addColumn<QStringList>("serviceCalls");
    QTest::addColumn<QStringList>("lines");

    const QString removed = QStringLiteral("Removed legacy run-at-startup plist at ") + plistPath();
    const QStringList unregister{QStringLiteral("unregister")};
    QTest::newRow("unregistered") << true << 0 << unregister
                                  << QStringList{QStringLiteral("Disabled run-at-startup with SMAppService."), removed};
    QTest::newRow("job not found is quiet") << true << 6 << unregister << QStringList{removed};
    QTest::newRow("other failure") << true << 22 << unregister
                                   << QStringList{QStringLiteral(
                                                      "SMAppService unregister failed: domain=SMAppServiceErrorDomain "
                                                      "code=22 message=Operation failed."),
                                                  removed};
    QTest::newRow("no service") << false << 0 << QStringList() << QStringList{removed};
}

void RunAtStartupTest::disablingAlwaysRemovesTheLaunchAgent()
{
    QFETCH(bool, available);
    QFETCH(int, unregisterCode);
    QFETCH(QStringList, serviceCalls);
    QFETCH(QStringList, lines);

    writeFile(plistPath(), "installed earlier");
    Harness h(configuration());
    h.loginItems().available = available;
    if (unregisterCode != 0)
        h.loginItems().unregisterResult = serviceError(unregisterCode);
    h.delegate->stopAgentOnTerminate = true;

    h.delegate->disableRunAtStartup();

    QCOMPARE(h.loginItems().calls, serviceCalls);
    QCOMPARE(ownLines(), lines);
    QVERIFY(!QFile::exists(plistPath()));
    QCOMPARE(launchctlCalls().size(), 1);
    QVERIFY(h.delegate->stopAgentOnTerminate);
}

void RunAtStartupTest::togglingSwitchesFromEachState_data()
{
    QTest::addColumn<bool>("available");
    QTest::addColumn<int>("status");
    QTest::addColumn<Legacy>("legacy");
    QTest::addColumn<QStringList>("serviceCalls");
    QTest::addColumn<bool>("checkedAfter");
    QTest::addColumn<bool>("plistAfter");

    const QStringList reg{QStringLiteral("register")};
    const QStringList unreg{QStringLiteral("unregister")};
    QTest::newRow("off turns on") << true << 0 << Legacy::none << reg << true << false;
    QTest::newRow("on turns off") << true << 1 << Legacy::none << unreg << false << false;
    QTest::newRow("needs approval turns off") << true << 2 << Legacy::none << unreg << false << false;
    QTest::newRow("own plist turns off") << true << 0 << Legacy::ownEmpty << unreg << false << false;
    QTest::newRow("leftover turns off") << true << 3 << Legacy::obsoleteMarker << unreg << false << false;
    QTest::newRow("no service, off turns on") << false << 0 << Legacy::none << QStringList() << true << true;
    QTest::newRow("no service, on turns off") << false << 0 << Legacy::ownEmpty << QStringList() << false << false;
    QTest::newRow("no service, leftover turns off")
        << false << 0 << Legacy::obsoleteMarkerInComment << QStringList() << false << false;
}

void RunAtStartupTest::togglingSwitchesFromEachState()
{
    QFETCH(bool, available);
    QFETCH(int, status);
    QFETCH(Legacy, legacy);
    QFETCH(QStringList, serviceCalls);
    QFETCH(bool, checkedAfter);
    QFETCH(bool, plistAfter);

    placeLegacy(legacy);
    Harness h(configuration());
    h.loginItems().available = available;
    h.loginItems().currentStatus = status;
    h.delegate->refreshRunAtStartupState();
    QAction *item = h.delegate->runAtStartupMenuItem();

    item->trigger();

    QCOMPARE(h.loginItems().calls, serviceCalls);
    QCOMPARE(item->isChecked(), checkedAfter);
    QCOMPARE(menuItemCheckState(item), checkedAfter ? menuItemStateOn : menuItemStateOff);
    QCOMPARE(item->text(), QStringLiteral("Run at Startup"));
    QCOMPARE(QFile::exists(plistPath()), plistAfter);
    for (int i = 0; i < obsoleteLabels.size(); ++i)
        QVERIFY(!QFile::exists(obsoletePath(i)));

    // A second switch goes back.
    h.loginItems().calls.clear();
    item->trigger();
    QCOMPARE(item->isChecked(), !checkedAfter);
}

void RunAtStartupTest::installWritesThenCleansUpThenLoads()
{
    writeFile(obsoletePath(1), obsoleteWithMarker);
    Configuration config = configuration();
    // A logs folder that does not exist yet, to see it created.
    config.applicationSupportDirectory = env.root() + QStringLiteral("/fresh-support");
    Harness h(config);

    h.delegate->installLegacyRunAtStartup();

    const QString logs = env.root() + QStringLiteral("/fresh-support/TallyholdAgent/runtime/logs");
    QVERIFY(QFileInfo(logs).isDir());
    QCOMPARE(readFile(plistPath()),
             legacyLaunchAgentPlistText(ownLabel, *config.executablePath, logs + QStringLiteral("/menu-app.out.log"),
                                        logs + QStringLiteral("/menu-app.err.log"))
                 .toUtf8());
    QVERIFY(!QFile::exists(obsoletePath(1)));

    const QString domain = QStringLiteral("[gui/") + uid() + QStringLiteral("]");
    QCOMPARE(launchctlCalls(),
             QStringList({
                 QStringLiteral("[bootout]") + domain + QLatin1Char('[') + obsoletePath(1) + QLatin1Char(']'),
                 QStringLiteral("[bootout]") + domain + QLatin1Char('[') + plistPath() + QLatin1Char(']'),
                 QStringLiteral("[bootstrap]") + domain + QLatin1Char('[') + plistPath() + QLatin1Char(']'),
                 QStringLiteral("[kickstart][-k][gui/") + uid() + QLatin1Char('/') + ownLabel + QLatin1Char(']'),
             }));
    QCOMPARE(ownLines(),
             QStringList({QStringLiteral("Removed obsolete beta run-at-startup plist at ") + obsoletePath(1),
                          QStringLiteral("Enabled legacy run-at-startup plist at ") + plistPath()}));
    // Each run goes through the process runner, which logs it.
    QCOMPARE(env.messagesSinceMark().filter(QStringLiteral("Launching process: ") + config.launchctlPath).size(), 4);
    QCOMPARE(h.delegate->resolveRunAtStartupState(), RunAtStartupState::enabled);
}

void RunAtStartupTest::failedBootstrapIsLoggedAndKeepsTheFile_data()
{
    QTest::addColumn<bool>("launchctlMissing");
    QTest::newRow("bootstrap exits non-zero") << false;
    QTest::newRow("launchctl cannot start") << true;
}

void RunAtStartupTest::failedBootstrapIsLoggedAndKeepsTheFile()
{
    QFETCH(bool, launchctlMissing);
    if (launchctlMissing)
        QFile::remove(configuration().launchctlPath);
    else
        writeFile(bootstrapFailsFlag(), QByteArray());
    Harness h(configuration());

    h.delegate->installLegacyRunAtStartup();

    QCOMPARE(ownLines(), QStringList({QStringLiteral("Legacy bootstrap failed for ") + plistPath(),
                                      QStringLiteral("Enabled legacy run-at-startup plist at ") + plistPath()}));
    if (launchctlMissing) {
        QVERIFY(launchctlCalls().isEmpty());
        QCOMPARE(env.messagesSinceMark().filter(QStringLiteral("Process launch failed: ")).size(), 3);
    } else {
        QCOMPARE(launchctlCalls().size(), 3);
        QVERIFY(launchctlCalls().at(2).startsWith(QStringLiteral("[kickstart][-k]")));
    }
    QVERIFY(QFile::exists(plistPath()));
    h.delegate->refreshRunAtStartupState();
    QVERIFY(h.delegate->runAtStartupMenuItem()->isChecked());
}

void RunAtStartupTest::installFailureIsShownOnTheStateLine_data()
{
    QTest::addColumn<QString>("blocked");
    QTest::newRow("LaunchAgents is a file") << QStringLiteral("LaunchAgents");
    QTest::newRow("Library is a file") << QStringLiteral("Library");
    QTest::newRow("logs folder blocked") << QStringLiteral("logs");
    QTest::newRow("plist path is a folder") << QStringLiteral("plist");
}

void RunAtStartupTest::installFailureIsShownOnTheStateLine()
{
    QFETCH(QString, blocked);
    // A regular file where a folder is needed stops the write even for root, unlike permissions.
    Configuration config = configuration();
    if (blocked == QLatin1String("LaunchAgents")) {
        writeFile(env.home() + QStringLiteral("/Library/LaunchAgents"), "not a folder");
    } else if (blocked == QLatin1String("Library")) {
        writeFile(env.home() + QStringLiteral("/Library"), "not a folder");
    } else if (blocked == QLatin1String("logs")) {
        // The shared log lives in the environment's logs folder: block a separate one.
        config.applicationSupportDirectory = env.root() + QStringLiteral("/blocked-support");
        writeFile(config.applicationSupportDirectory + QStringLiteral("/TallyholdAgent"), "not a folder");
    } else {
        QVERIFY(QDir().mkpath(plistPath() + QStringLiteral("/inside")));
    }
    Harness h(config);
    h.delegate->updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("2.3.4"), true);
    env.markLog();

    h.delegate->installLegacyRunAtStartup();

    const QStringList lines = ownLines();
    QCOMPARE(lines.size(), 2);
    const QString prefix = QStringLiteral("Failed writing legacy run-at-startup plist: ");
    QVERIFY2(lines.at(0).startsWith(prefix) && lines.at(0).size() > prefix.size(), qPrintable(lines.at(0)));
    QCOMPARE(lines.at(1),
             QStringLiteral("State updated: Status: Could not save startup setting version=2.3.4 running=true"));
    QCOMPARE(h.delegate->stateMenuItem->text(), QStringLiteral("Status: Could not save startup setting"));
    QCOMPARE(h.delegate->versionMenuItem->text(), QStringLiteral("Version: 2.3.4"));
    QVERIFY(h.delegate->agentIsRunning);
    QVERIFY(launchctlCalls().isEmpty());
    QVERIFY(!QFileInfo(plistPath()).isFile());
}

void RunAtStartupTest::installWithoutExecutableDoesNothing()
{
    Configuration config = configuration();
    config.executablePath.reset();
    writeFile(obsoletePath(0), obsoleteWithMarker);
    Harness h(config);

    h.delegate->installLegacyRunAtStartup();

    QCOMPARE(ownLines(),
             QStringList{QStringLiteral("Could not resolve app executable path for legacy run-at-startup.")});
    QVERIFY(!QFile::exists(plistPath()));
    QVERIFY(QFile::exists(obsoletePath(0)));
    QVERIFY(launchctlCalls().isEmpty());
    QCOMPARE(h.delegate->stateMenuItem->text(), QStringLiteral("Status: Launching..."));
}

void RunAtStartupTest::removalUnloadsDeletesAndCleansUpLeftovers_data()
{
    QTest::addColumn<bool>("ownPresent");
    QTest::addColumn<QList<QByteArray>>("leftovers"); // per obsolete label; null: no file
    QTest::addColumn<QList<int>>("removedLeftovers");

    const QByteArray none;
    QTest::newRow("nothing there") << false << QList<QByteArray>{none, none, none} << QList<int>{};
    QTest::newRow("own only") << true << QList<QByteArray>{none, none, none} << QList<int>{};
    QTest::newRow("two leftovers in label order")
        << true << QList<QByteArray>{obsoleteWithMarker, obsoleteWithoutMarker, obsoleteMarkerInComment}
        << QList<int>{0, 2};
    QTest::newRow("leftover without own plist")
        << false << QList<QByteArray>{obsoleteNotUtf8, obsoleteWithMarker, none} << QList<int>{1};
    QTest::newRow("empty leftover stays") << false << QList<QByteArray>{QByteArray(""), none, none} << QList<int>{};
}

void RunAtStartupTest::removalUnloadsDeletesAndCleansUpLeftovers()
{
    QFETCH(bool, ownPresent);
    QFETCH(QList<QByteArray>, leftovers);
    QFETCH(QList<int>, removedLeftovers);

    if (ownPresent)
        writeFile(plistPath(), "installed earlier");
    for (int i = 0; i < leftovers.size(); ++i) {
        if (!leftovers.at(i).isNull())
            writeFile(obsoletePath(i), leftovers.at(i));
    }
    Harness h(configuration());

    h.delegate->removeLegacyRunAtStartup();

    const QString domain = QStringLiteral("[gui/") + uid() + QStringLiteral("]");
    QStringList calls;
    QStringList lines{QStringLiteral("Removed legacy run-at-startup plist at ") + plistPath()};
    if (ownPresent)
        calls << QStringLiteral("[bootout]") + domain + QLatin1Char('[') + plistPath() + QLatin1Char(']');
    for (int index : removedLeftovers) {
        calls << QStringLiteral("[bootout]") + domain + QLatin1Char('[') + obsoletePath(index) + QLatin1Char(']');
        lines << QStringLiteral("Removed obsolete beta run-at-startup plist at ") + obsoletePath(index);
    }
    QCOMPARE(launchctlCalls(), calls);
    QCOMPARE(ownLines(), lines);
    QVERIFY(!QFile::exists(plistPath()));
    for (int i = 0; i < leftovers.size(); ++i)
        QCOMPARE(QFile::exists(obsoletePath(i)), !leftovers.at(i).isNull() && !removedLeftovers.contains(i));
}

QTEST_MAIN(RunAtStartupTest)
#include "tst_RunAtStartup.moc"
