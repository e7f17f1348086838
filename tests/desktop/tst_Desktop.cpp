// The real program on a user's desktops, driven and read as panels do: no tray for long (a late StatusNotifierItem
// watcher, then tint2's XEmbed tray), and Wayland beside xfce4-panel. Each case has its own X server and bus.
#include "platform/linux/DesktopNotifier.h"
#include "support/InstalledProgram.h"
#include "support/Testing.h"

#include <QtDBus>

namespace {

constexpr int timeoutMs = 20000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s, itemInterface = u"org.kde.StatusNotifierItem"_s;

// Asks a tray item or its menu what a panel asks, not blocking: that once hung under load, and starves the fake agent.
QDBusMessage askItem(const QString &item, const QString &interface, const QString &method,
                     const QVariantList &arguments, const QString &path = u"/StatusNotifierItem"_s)
{
    QDBusMessage message = QDBusMessage::createMethodCall(item, path, interface, method);
    message.setArguments(arguments);
    QDBusPendingCallWatcher watcher(QDBusConnection::sessionBus().asyncCall(message, 5000));
    return QTest::qWaitFor([&] { return watcher.isFinished(); }, 6000) ? watcher.reply() : QDBusMessage();
}

// Each top-level entry of the menu Qt exports at /MenuBar, as a panel shows it: "-" a separator, "(...)" disabled,
// "[x]"/"[ ]" a check mark on or off; and each label's item id, which a click names.
QStringList menuShown(const QString &item, QHash<QString, int> *ids = nullptr)
{
    const QDBusMessage layout =
        askItem(item, u"com.canonical.dbusmenu"_s, u"GetLayout"_s, {0, -1, QStringList()}, u"/MenuBar"_s);
    const QDBusArgument root = layout.arguments().value(1).value<QDBusArgument>();
    QStringList entries;
    int id = 0;
    QVariantMap p;
    root.beginStructure();
    root >> id >> p;
    root.beginArray();
    while (!root.atEnd()) {
        const QDBusArgument entry = qvariant_cast<QDBusVariant>(root.asVariant()).variant().value<QDBusArgument>();
        entry.beginStructure();
        entry >> id >> p;
        if (ids)
            ids->insert(p.value(u"label"_s).toString(), id);
        QString shown = p.value(u"type"_s) == "separator"_L1 ? u"-"_s : p.value(u"label"_s).toString();
        if (p.value(u"toggle-type"_s) == "checkmark"_L1)
            shown += p.value(u"toggle-state"_s).toInt() == 1 ? " [x]"_L1 : " [ ]"_L1;
        entries.append(p.value(u"enabled"_s, true).toBool() ? shown : u'(' + shown + u')');
    }
    return entries;
}

// The desktop's notification service, as a notification daemon that shows buttons offers it.
class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList shown; // summary, a line feed, body, and a line per button: its key, a space, its label
    QStringList capabilities{u"actions"_s, u"body"_s};

public slots:
    QStringList GetCapabilities() { return capabilities; }
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &actions, const QVariantMap &, int)
    {
        QString notice = summary + u'\n' + body;
        for (qsizetype i = 0; i + 1 < actions.size(); i += 2)
            notice += u'\n' + actions[i] + u' ' + actions[i + 1];
        shown.append(notice);
        return uint(shown.size());
    }
signals:
    void ActionInvoked(uint id, const QString &key);
    void NotificationClosed(uint id, uint reason);
};

// A panel's watcher whose host registers a moment after it, as some panels' do.
class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
public:
    bool hostRegistered = false;
    mutable int asked = 0; // whether a host is there
    QStringList items;
    bool isHostRegistered() const { return ++asked, hostRegistered; }

public slots:
    void RegisterStatusNotifierItem(const QString &item) { items.append(item); }
signals:
    void StatusNotifierHostRegistered();
};

} // namespace

class DesktopTest : public QObject {
    Q_OBJECT

    FakeAgent agent_;
    std::vector<std::unique_ptr<QProcess>> desktopPrograms_;

    // What a panel shows (the whole menu while the agent runs), the diagnosis tells or the log says: a block of
    // desktop.txt, its lines joined.
    static QString expected(const QString &block) { return blockOf(QFINDTESTDATA("desktop.txt"), block).join(u'\n'); }
    static QStringList runningMenu() { return expected(u"running menu"_s).split(u'\n'); }

    // A panel or compositor kept to the function's end, in the test's environment but given variables (null: unset).
    void startDesktopProgram(const QString &program, const QStringList &arguments,
                             const QHash<QString, QString> &variables = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const auto &[name, value] : variables.asKeyValueRange())
            value.isNull() ? environment.remove(name) : environment.insert(name, value);
        auto &process = desktopPrograms_.emplace_back(std::make_unique<QProcess>());
        process->setProcessEnvironment(environment);
        process->start(program, arguments);
        QVERIFY2(process->waitForStarted(10000), qPrintable(program + u": "_s + process->errorString()));
    }

private slots:
    void init() { agent_.setHealthy(u"1.4.2"_s); }

    void cleanup()
    {
        for (auto &process : desktopPrograms_)
            process->terminate(), process->waitForFinished(5000);
        desktopPrograms_.clear();
    }

    void noTray()
    {
        qputenv("DISPLAY", qgetenv("DISPLAY") + ".1"); // this desktop's programs and tray on the second screen
        NotificationService notifications;
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.registerObject(u"/org/freedesktop/Notifications"_s, &notifications,
                                   QDBusConnection::ExportAllContents) &&
                bus.registerService(u"org.freedesktop.Notifications"_s));
        { // Buttons only where shown; a button acts for its own notice and key until it closes. Clicked until the
          // notifier listens (the bus takes a moment); each notice is shown and known before the next signals.
            DesktopNotifier notifier;
            int clicks = 0;
            const auto notify = [&](const QString &capability) {
                notifications.capabilities = {capability, u"body"_s};
                notifier.notify(u"T"_s, u"B"_s, {{u"k"_s, u"K"_s, [&clicks] { ++clicks; }}});
                const qsizetype shown = notifications.shown.size() + 1;
                return QTest::qWaitFor( // and its reply, with the notice's id, is read
                    [&] { return notifications.shown.size() == shown && notifier.children().isEmpty(); });
            };
            QVERIFY(notify(u"actions"_s));
            QTRY_VERIFY((emit notifications.ActionInvoked(1u, u"k"_s), clicks > 0));
            QVERIFY(notify(u"actions"_s));
            clicks = 0; // then clicks on notice 2 and others (0: notice 2 closes)
            for (const auto &[id, key] : {std::pair{3u, u"k"_s}, {2u, u"x"_s}, {2u, u"k"_s}, {0u, u""_s}, {2u, u"k"_s}})
                id ? emit notifications.ActionInvoked(id, key) : emit notifications.NotificationClosed(2u, 2u);
            QVERIFY(notify(u"sound"_s) && notify(u"actions"_s)); // the last one restores the service
            QTRY_COMPARE(std::tuple(notifications.shown, clicks, notifier.children().size()), // no call left behind
                         std::tuple(u"T\nB\nk K|T\nB\nk K|T\nB|T\nB\nk K"_s.split(u'|'), 1, 0));
            notifications.shown.clear();
        }
        // First another copy finds a late panel whose host registers after its watcher; the late icon has the menu.
        FakeAgent otherAgent;
        otherAgent.setHealthy();
        auto other = std::make_unique<InstalledProgram>(u"xcb"_s);
        other->start(otherAgent.port());
        {
            StatusNotifierWatcher watcher;
            QVERIFY(bus.registerObject(u"/StatusNotifierWatcher"_s, &watcher, QDBusConnection::ExportAllContents) &&
                    bus.registerService(watcherService));
            QTRY_VERIFY_WITH_TIMEOUT(watcher.asked > 0, timeoutMs); // it looked and found no host
            watcher.hostRegistered = true;
            emit watcher.StatusNotifierHostRegistered();
            QTRY_COMPARE_WITH_TIMEOUT(watcher.items.size(), 1, timeoutMs);
            QTRY_COMPARE_WITH_TIMEOUT(menuShown(watcher.items[0].section(u'/', 0, 0)), runningMenu(), timeoutMs);
            QVERIFY(bus.unregisterService(watcherService));
            bus.unregisterObject(u"/StatusNotifierWatcher"_s);
        }
        InstalledProgram program(u"xcb"_s);
        FakeControlScript control(program.controlScript());
        control.write({0, true, {}}, {0, true, {}}); // each run waits until the test lets it end
        QElapsedTimer sinceLaunch;
        sinceLaunch.start();
        program.start(agent_.port());
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 1, timeoutMs);
        QVERIFY2(sinceLaunch.elapsed() > 9000, "a panel started at login may not be up yet");
        // One answer too slow between good ones, then a stop the next answer confirms: the menu follows
        // each, the user is told once, at the confirmation; the notice's button starts the agent. Back and
        // stopped again within the minute: not told again. A second launch is told.
        const CannedResponse up{200, R"({"status":"ok","version":"1.4.2"})"}, down{503, R"({"status":"down"})"};
        const auto answerShows = [&](const CannedResponse &answer, const QString &title) {
            agent_.setResponse("/healthz", answer);
            return QTest::qWaitFor(
                [&] { return program.logMessages().last().startsWith("State updated: "_L1 + title); }, timeoutMs);
        };
        QVERIFY(answerShows({200, up.body, "application/json", false, 3000}, u"Status: Stopped"_s));
        QVERIFY(answerShows(up, u"Status: Running"_s));
        QVERIFY(answerShows(down, u"Status: Stopped"_s));
        QCOMPARE(notifications.shown.size(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 2, timeoutMs);
        emit notifications.ActionInvoked(2, u"start-agent"_s);
        QTRY_COMPARE_WITH_TIMEOUT(control.runs(), QList<QStringList>{{u"start"_s}}, timeoutMs);
        agent_.setResponse("/healthz", up); // before the start ends
        control.release(u"start"_s);
        QVERIFY(answerShows(up, u"Status: Running"_s));
        QVERIFY(answerShows(down, u"Status: Stopped"_s));
        const int probes = agent_.countFor("/healthz");
        QTRY_VERIFY_WITH_TIMEOUT(agent_.countFor("/healthz") > probes, timeoutMs);
        QCOMPARE(program.run(agent_.port(), {}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 3, timeoutMs);
        QCOMPARE(notifications.shown,
                 QString::fromUtf8(readFile(QFINDTESTDATA("notices.txt"))).trimmed().split("\n\n"_L1));
        // The no-tray notice came once per run, not again 10 s later, and not to the copy that found a tray.
        QCOMPARE(program.logMessages().filter(u"No system tray"_s), QStringList{expected(u"no tray logged"_s)});
        other.reset();

        // An XEmbed tray comes at last: its announcement is heard (within seconds, not at the half-minute
        // check for desktops that cannot be heard), its selection read, the icon embedded (only then shown).
        // tint2 waits for a window manager to announce its desktops; this desktop has none.
        QCOMPARE(QProcess::execute(
                     u"xprop"_s, u"-root -f _NET_NUMBER_OF_DESKTOPS 32c -set _NET_NUMBER_OF_DESKTOPS 1"_s.split(u' ')),
                 0);
        startDesktopProgram(u"tint2"_s, {u"-c"_s, QFINDTESTDATA("tint2rc")});
        const QStringList icon = u"search --onlyvisible --classname quillmere-menu"_s.split(u' ');
        const auto windows = [&icon](const QStringList &then) { // the program's visible windows, a line each
            QProcess xdotool;
            xdotool.start(u"xdotool"_s, icon + then);
            return xdotool.waitForFinished(10000) ? QString::fromUtf8(xdotool.readAllStandardOutput()) : QString();
        };
        QTRY_VERIFY_WITH_TIMEOUT(windows({u"getwindowgeometry"_s}).contains("Geometry: 24x24"_L1), 10000);
        // A left click on it opens the menu: a second window of the program shows.
        QCOMPARE(QProcess::execute(u"xdotool"_s, icon + u"mousemove --window %1 12 12 click 1"_s.split(u' ')), 0);
        QTRY_COMPARE_WITH_TIMEOUT(windows({}).count(u'\n'), 2, timeoutMs);
        // The diagnosis sees the desktop as it is: a tray over XEmbed alone, notices that show buttons.
        const QString report = program.run(agent_.port(), {u"--diagnose"_s}).output;
        QCOMPARE(report.section(u"\ndesktop:\n"_s, 1).section(u"runAtStartup:"_s, 0, 0),
                 expected(u"diagnosis of a tray over XEmbed alone"_s) + u'\n');
    }

    // Xfce's panel is there first; the program runs on Wayland and is driven as the panel drives it.
    void wayland()
    {
        const QTemporaryDir runtime; // private to its owner, as a runtime folder must be
        const QString config = runtime.path() + "/xfce-config"_L1;
        writeFile(config + "/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"_L1,
                  readFile(QFINDTESTDATA("xfce4-panel.xml")));
        // The settings daemon is started by the bus on demand, with the bus's environment.
        qDBusRegisterMetaType<QMap<QString, QString>>();
        QDBusConnection::sessionBus().interface()->call(
            u"UpdateActivationEnvironment"_s,
            QVariant::fromValue(QMap<QString, QString>{{u"XDG_CONFIG_HOME"_s, config}}));
        startDesktopProgram(u"xfce4-panel"_s, {u"--disable-wm-check"_s}, {{u"XDG_CONFIG_HOME"_s, config}});
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(watcherService),
                                 timeoutMs);
        startDesktopProgram(u"weston"_s,
                            u"--backend=headless-backend.so --socket=wayland-test --idle-time=0"_s.split(u' '),
                            {{u"XDG_RUNTIME_DIR"_s, runtime.path()}, {u"DISPLAY"_s, {}}});
        const QString socket = runtime.path() + "/wayland-test"_L1;
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socket), timeoutMs);

        InstalledProgram program(u"wayland"_s);
        FakeControlScript control(program.controlScript());
        control.write({0, true, {}}, {0, true, {}}); // so that the menu can be looked at while a stop runs
        program.variables = {{u"WAYLAND_DISPLAY"_s, socket}};
        QProcess *process = program.start(agent_.port());
        QDBusInterface watcher(watcherService, u"/StatusNotifierWatcher"_s, watcherService);
        const auto registered = [&watcher] { return watcher.property("RegisteredStatusNotifierItems").toStringList(); };
        QTRY_COMPARE_WITH_TIMEOUT(registered().size(), 1, timeoutMs);
        const QString tray = registered()[0].section(u'/', 0, 0); // "<bus name>[/<object path>]"
        const auto property = [&tray](const QString &name) {
            return QDebug::toString(
                askItem(tray, u"org.freedesktop.DBus.Properties"_s, u"Get"_s, {itemInterface, name}));
        };
        // The icon has the badge as soon as the panel lists it, and the title its desktop entry gives.
        QVERIFY(property(u"IconPixmap"_s).contains("a(iiay) {[Argument: (iiay) "_L1));
        QVERIFY(property(u"Title"_s).contains("[Variant(QString): \"Quillmere Agent\"]"_L1));
        // The menu of an icon made while the panel was there; the tool tip's title and text.
        QTRY_COMPARE_WITH_TIMEOUT(menuShown(tray), runningMenu(), timeoutMs);
        QTRY_VERIFY_WITH_TIMEOUT(property(u"ToolTip"_s).contains("\"Quillmere Agent is running\""_L1), timeoutMs);
        const QString diagnosis = program.run(agent_.port(), {u"--diagnose"_s}).output; // names the tray Qt uses
        QVERIFY(diagnosis.contains(expected(u"diagnosis of both trays"_s) + u'\n'));
        const QString runningIcon = property(u"IconPixmap"_s);
        // A plain click opens the menu without a pointer position Wayland cannot give. The program
        // answers its bus in order, so the next answer comes after the menu was asked for; and Qt gives
        // up at once when it cannot reach the compositor: still running, the program runs on Wayland.
        QCOMPARE(askItem(tray, itemInterface, u"Activate"_s, {0, 0}).type(), QDBusMessage::ReplyMessage);
        const auto click = [&tray](const QString &label) {
            QHash<QString, int> ids;
            menuShown(tray, &ids);
            return askItem(tray, u"com.canonical.dbusmenu"_s, u"Event"_s,
                           {ids.value(label, -1), u"clicked"_s, QVariant::fromValue(QDBusVariant(0)), 0u},
                           u"/MenuBar"_s)
                       .type() == QDBusMessage::ReplyMessage;
        };
        QTRY_VERIFY_WITH_TIMEOUT(program.logMessages().contains(u"Agent already healthy during launch."_s), timeoutMs);
        QVERIFY(click(u"Stop Agent"_s));
        QTRY_COMPARE_WITH_TIMEOUT(control.runs(), QList<QStringList>{{u"stop"_s}}, timeoutMs);
        agent_.setHealthDown();
        control.release(u"stop"_s);
        QTRY_VERIFY_WITH_TIMEOUT(property(u"ToolTip"_s).contains("\"Quillmere Agent is offline\""_L1), timeoutMs);
        QTRY_VERIFY_WITH_TIMEOUT(property(u"IconPixmap"_s) != runningIcon, timeoutMs);
        // Run at Startup writes the entry where this user's session reads it, naming this program.
        QVERIFY(click(u"Run at Startup"_s));
        QTRY_VERIFY(readFile(program.homeOf(u"first"_s) + "/.config/autostart/com.tallyhold.agent.app.desktop"_L1)
                        .contains("\nExec=\"" + QFile::encodeName(program.root()) +
                                  "/bin/quillmere-menu\" --launched-at-login\n"));
        // Quit: the agent is stopped before the program exits.
        QVERIFY(click(u"Quit"_s));
        QTRY_VERIFY_WITH_TIMEOUT(process->state() == QProcess::NotRunning && process->exitCode() == 0, timeoutMs);
        QCOMPARE(control.runs(), QList<QStringList>({{u"stop"_s}, {u"stop"_s}}));
    }
};

QTEST_MAIN(DesktopTest)
#include "tst_Desktop.moc"
