// Run at startup: the state shown and switched, each outcome with its launchctl runs, and the autostart entry.
#include "support/Testing.h"

#include "menu/MenuItemCheckState.h"
#ifdef Q_OS_LINUX
#include "platform/linux/AutostartLoginItemService.h"
#endif

#include <QProcess>
#include <unistd.h>

namespace {

const QString ownLabel = u"com.tallyhold.agent.app"_s;
const QStringList obsoleteLabels{"com.tallyhold.agent.menubarbeta.app", "com.tallyhold.agent.nativebeta.app",
                                 "com.tallyhold.agent"};
// Leftovers of an earlier edition: only valid UTF-8 carrying the login marker counts.
const QByteArray marked = "<plist><string>/Beta.app</string><string>--launched-at-login</string></plist>";
const QByteArray markedInComment = "<plist><!-- started with --launched-at-login --><dict/></plist>";
const QByteArray unmarked = "<plist><key>Label</key><string>com.tallyhold.agent</string></plist>";
const QByteArray notUtf8 = "<plist>\xff\xfe<string>--launched-at-login</string></plist>";

// Service available, own plist there, the service's status, each obsolete label's leftover.
using ResolveRow = std::tuple<bool, bool, int, QByteArray>;
// A failed register's or unregister's code (0: it succeeds; -1: no login-item service), the status after.
using OutcomeRow = std::pair<int, int>;

} // namespace

class RunAtStartupTest : public QObject {
    Q_OBJECT
    Configuration configuration() const { return env.configuration(QUrl(u"http://127.0.0.1:1"_s)); }
    QString agentsDir() const { return env.home() + u"/Library/LaunchAgents/"_s; }
    QString plistPath() const { return agentsDir() + ownLabel + ".plist"; }
    QString obsoletePath(int i) const { return agentsDir() + obsoleteLabels[i] + ".plist"; }
    QString recordPath() const { return env.root() + u"/launchctl-calls.txt"_s; }
    QStringList launchctlCalls() const { return QString(readFile(recordPath())).split('\n', Qt::SkipEmptyParts); }

    // What the login items were asked and which launch agents are left.
    QStringList outcome(const FakeLoginItemService &service) const
    {
        return {
            u"login items: [%1]"_s.arg(service.calls.join(u", "_s)),
            u"left: [%1]"_s.arg(QDir(agentsDir()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).join(u", "_s))};
    }

    // What is expected, from the block of run-at-startup.txt that the name heads (blocks part at blank lines), and
    // what came: each line that one ending in "$ANY" there starts given as that one.
    std::pair<QStringList, QStringList> expectedAndLogged(const QString &name, QStringList logged) const
    {
        QStringList lines = blockOf(QFINDTESTDATA("run-at-startup.txt"), name);
        lines.replaceInStrings(u"$HOME"_s, env.home()).replaceInStrings(u"$CONFIG"_s, env.configHome());
        lines.replaceInStrings(u"$ROOT"_s, env.root()).replaceInStrings(u"$UID"_s, QString::number(getuid()));
        for (qsizetype i = 0; i < std::min(logged.size(), lines.size()); ++i)
            if (lines[i].endsWith("$ANY"_L1) && logged[i].startsWith(lines[i].chopped(4)))
                logged[i] = lines[i];
        return {lines, logged};
    }

    TestEnvironment env;

private slots:
    void init()
    {
        QDir(env.home() + u"/Library"_s).removeRecursively();
        QDir(env.configHome() + u"/autostart"_s).removeRecursively();
        QDir(env.root() + u"/support&co"_s).removeRecursively();
        QFile::remove(recordPath());
        // A launchctl that records each run as one line of bracketed arguments.
        TestEnvironment::writeScript(
            *configuration().launchctlPath,
            u"{ printf launchctl; printf ' [%s]' \"$@\"; echo; } >> '%1'\n"_s.arg(recordPath()));
        env.markLog();
    }

    void resolvesShowsAndSwitches_data()
    {
        QTest::addColumn<ResolveRow>("row");
        QTest::newRow("no service, nothing") << ResolveRow{false, false, 1, {}};
        QTest::newRow("no service, own plist") << ResolveRow{false, true, 0, {}};
        QTest::newRow("requires approval") << ResolveRow{true, false, 2, {}};
        QTest::newRow("not found") << ResolveRow{true, false, 3, {}};
        QTest::newRow("requires approval, leftover") << ResolveRow{true, false, 2, markedInComment};
        QTest::newRow("leftover without marker") << ResolveRow{true, false, 0, unmarked};
        QTest::newRow("leftover not UTF-8") << ResolveRow{true, false, 0, notUtf8};
        QTest::newRow("leftover unreadable") << ResolveRow{true, false, 0, "/proc/self/mem"}; // opened, not read
    }

    void resolvesShowsAndSwitches()
    {
        QFETCH(ResolveRow, row);
        const auto [available, ownPlist, status, leftover] = row;
        if (ownPlist)
            writeFile(plistPath(), QByteArray());
        for (int i = 0; i < obsoleteLabels.size() && !leftover.isNull(); ++i) { // null: none; a path: a link to it
            writeFile(obsoletePath(i), leftover);
            if (leftover.startsWith('/'))
                QVERIFY(QFile::remove(obsoletePath(i)) && QFile::link(QString::fromLatin1(leftover), obsoletePath(i)));
        }
        Controller h(configuration(), false);
        FakeLoginItemService &service = *h.fakes.loginItems;
        std::tie(service.available, service.currentStatus) = std::pair(available, status);

        // The item shows the state (check mark, mixed mark, title); resolving changes nothing else.
        QAction *item = h.delegate.runAtStartupMenuItem();
        setMenuItemCheckState(item, menuItemStateMixed);
        h.delegate.refreshRunAtStartupState();
        QStringList seen{u"shown: %1, %2"_s.arg(
            QStringList{u"mixed"_s, u"off"_s, u"on"_s}.value(menuItemCheckState(item) + 1), item->text())};
        if (const QImage mark = item->icon().pixmap(16).toImage(); !mark.isNull()) // a grey dash across a clear square
            for (const QPoint at : {QPoint(8, 8), QPoint(1, 8), QPoint(8, 5)})
                seen << u"mark at %1,%2: %3"_s.arg(at.x()).arg(at.y()).arg(mark.pixelColor(at).name(QColor::HexArgb));
        QVERIFY(service.calls.isEmpty() && launchctlCalls().isEmpty() && env.messagesSinceMark().isEmpty());

        // Choosing turns on only what was off (needing approval counts as on); marked leftovers alone go, in label
        // order; a launch agent that is not there is not unloaded, yet its removal is logged.
        item->trigger();
        seen << u"chosen: %1, %2"_s.arg(item->isChecked() ? u"checked"_s : u"unchecked"_s, item->text())
             << env.messagesSinceMark() << outcome(service);
        const auto [lines, logged] = expectedAndLogged(QString::fromLatin1(QTest::currentDataTag()), seen);
        QCOMPARE(logged, lines);
    }

    // Switched on (off where the name says so) over a marked leftover and an earlier install of our own.
    void switchOutcomes_data()
    {
        // What is logged, then run, asked of the login items and left: the block of run-at-startup.txt the name heads.
        QTest::addColumn<OutcomeRow>("row");
        QTest::newRow("enable") << OutcomeRow{0, 1};
        QTest::newRow("needs approval") << OutcomeRow{0, 2};
        QTest::newRow("already registered") << OutcomeRow{12, 2};
        QTest::newRow("denied by user") << OutcomeRow{11, 0};
        QTest::newRow("other, needs approval") << OutcomeRow{1, 2};
        QTest::newRow("job not found") << OutcomeRow{6, 1};
        QTest::newRow("disable") << OutcomeRow{0, 0};
        QTest::newRow("disable, job not found is quiet") << OutcomeRow{6, 0};
        QTest::newRow("disable, other failure") << OutcomeRow{22, 0};
        QTest::newRow("no service") << OutcomeRow{-1, 0};
        QTest::newRow("no launchctl") << OutcomeRow{-1, 0};
        QTest::newRow("plist path a folder") << OutcomeRow{-1, 0};
        QTest::newRow("support folder a file") << OutcomeRow{-1, 0};
        QTest::newRow("no executable") << OutcomeRow{-1, 0};
        // Guards: a launch agent was written for a translocated copy, which is gone at the next login.
        QTest::newRow("translocated") << OutcomeRow{-1, 0};
    }

    void switchOutcomes()
    {
        QFETCH(OutcomeRow, row);
        const auto [code, statusAfter] = row;
        const QByteArray tag = QTest::currentDataTag();
        const bool enable = !tag.startsWith("disable");
        Configuration config = configuration();
        config.applicationSupportDirectory = env.root() + u"/support&co"_s; // logs folder made on the way
        // Guards: unescaped ampersands and quotes in the program path made launchd reject the whole file.
        config.executablePath = u"/Applications/Quillmere & Co.app/Contents/MacOS/Quillmere <Agent> \"&apos;'"_s;
        writeFile(obsoletePath(0), marked);
        if (tag.endsWith("a folder")) // a folder in the way stops the write even for root
            QVERIFY(QDir().mkpath(plistPath() + u"/inside"_s));
        else
            writeFile(plistPath(), "an earlier install");
        if (tag.endsWith("no launchctl"))
            QFile::remove(*config.launchctlPath);
        else if (tag.endsWith("no executable"))
            config.executablePath.reset();
        else if (tag.endsWith("translocated"))
            config.executablePath =
                u"/private/var/folders/x/AppTranslocation/1A2B/d/Quillmere Agent.app/Contents/MacOS/quillmere-menu"_s;
        else if (tag.endsWith("a file")) // and a file in the way of a folder's making
            writeFile(config.applicationSupportDirectory, {});
        Controller h(config, false);
        FakeLoginItemService &service = *h.fakes.loginItems;
        service.available = code >= 0;
        if (code > 0)
            (enable ? service.registerResult : service.unregisterResult) =
                LoginItemError{"SMAppServiceErrorDomain", code, "Operation failed."};
        service.statusAfterRegister = service.currentStatus = statusAfter;
        h.delegate.updateStateMenu(u"Status: Running"_s, u"2.3.4"_s, true);
        env.markLog();

        enable ? h.delegate.enableRunAtStartup() : h.delegate.disableRunAtStartup();

        // A quit while unloading our job must not stick; leftovers go once the new file is written, before loading.
        QVERIFY(h.delegate.stopAgentOnTerminate);
        const auto [lines, logged] = expectedAndLogged(
            QString::fromLatin1(tag),
            env.messagesSinceMark().filter(QRegularExpression(u"^(?!Launching process: |Process )"_s)) +
                launchctlCalls() + outcome(service));
        QCOMPARE(logged, lines);
        if (lines.contains("Enabled legacy run-at-startup plist at " + plistPath())) // every byte counts
            QCOMPARE(
                readFile(plistPath()),
                readFile(QFINDTESTDATA("launch-agent.plist"))
                    .replace("$SUPPORT", QFile::encodeName(config.applicationSupportDirectory).replace("&", "&amp;")));
    }

    void autostartEntryEndToEnd()
    {
#ifndef Q_OS_LINUX
        QSKIP("the XDG autostart entry is the login-item service of Linux desktops");
#else
        Configuration config = configuration();
        config.launchctlPath.reset(); // as on every Linux system
        Controller h(config, false);
        // The program is quoted, with the escapes of a desktop entry's strings and arguments.
        auto *entries =
            new AutostartLoginItemService(config.configDirectory, ownLabel, u"/a b/\"$`\\100%\n\t"_s, h.fakes.opener);
        h.delegate.platform().loginItems.reset(entries);
        const QString folder = env.configHome() + u"/autostart"_s, entry = folder + '/' + ownLabel + ".desktop";

        h.delegate.refreshRunAtStartupState();
        QAction *item = h.delegate.runAtStartupMenuItem();
        item->trigger();
        QVERIFY(item->isChecked());
        QCOMPARE(readFile(entry), readFile(QFINDTESTDATA("autostart.desktop")));
        QCOMPARE(QProcess::execute(u"desktop-file-validate"_s, {entry}), 0); // as desktop sessions read it
        const auto said = [](const std::optional<LoginItemError> &error) {
            return error ? u"%1 %2: %3"_s.arg(error->domain).arg(error->code).arg(error->message) : QString();
        };
        const QString twice = said(entries->registerApp());
        item->trigger();
        QVERIFY(!item->isChecked() && !QFile::exists(entry) && launchctlCalls().isEmpty()); // no launch agent either
        QCOMPARE(
            (QStringList{twice, said(entries->unregisterApp()),
                         said(AutostartLoginItemService(config.configDirectory, ownLabel, {}, nullptr).registerApp())}),
            blockOf(QFINDTESTDATA("run-at-startup.txt"), u"autostart errors"_s));

        // A switched-off entry counts as not registered and is replaced; a key outside the main group (before
        // any group, in another) does not count.
        for (const QByteArray text :
             {"[Desktop Entry]\nHidden = true\n", "[Desktop Entry]\nX-GNOME-Autostart-enabled=false\n",
              "Hidden=true\n[Desktop Entry]\nExec=x\n[Action a]\nHidden=true\n"}) {
            writeFile(entry, text);
            const bool off = !text.contains("[Action");
            QCOMPARE(entries->status(), off ? LoginItemService::statusNotRegistered : LoginItemService::statusEnabled);
            QCOMPARE(bool(entries->registerApp()), !off);
            QCOMPARE(entries->status(), LoginItemService::statusEnabled);
        }

        entries->openSystemSettingsLoginItems();
        QVERIFY(QFileInfo(folder).isDir());
        QCOMPARE(h.fakes.opener->opened, QList<QUrl>{QUrl::fromLocalFile(folder)});

        // No autostart folder (a file stops root too): said so, not faked with a launch agent Linux never reads.
        QDir(folder).removeRecursively();
        writeFile(folder, {});
        env.markLog();
        item->trigger();
        const auto [lines, logged] = expectedAndLogged(u"no autostart folder"_s, env.messagesSinceMark());
        QCOMPARE(logged, lines);
        QVERIFY(!item->isChecked() && !QFileInfo::exists(env.home() + u"/Library"_s));
#endif
    }
};

QTEST_MAIN(RunAtStartupTest)
#include "tst_RunAtStartup.moc"
