// The real program on a user's desktops, driven with xdotool and read from the screen, the X window
// tree and the session bus: xfce4-panel (StatusNotifierItem) and tint2 (XEmbed) started after the
// program, no tray, and Wayland with the panel first. Each case has its own X server and bus.
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/InstalledProgram.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>
#include <QTest>
#include <QtDBus>
#include <functional>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeoutMs = 20000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s, itemInterface = u"org.kde.StatusNotifierItem"_s;

// Asks a tray item or its menu what a panel asks. Guards: a blocking call once never returned under
// load; and events must keep running (the fake agent lives on this thread).
QDBusMessage askItem(const QString &item, const QString &interface, const QString &method,
                     const QVariantList &arguments, const QString &path = u"/StatusNotifierItem"_s)
{
    QDBusMessage message = QDBusMessage::createMethodCall(item, path, interface, method);
    message.setArguments(arguments);
    QDBusPendingCallWatcher watcher(QDBusConnection::sessionBus().asyncCall(message, 5000));
    return QTest::qWaitFor([&] { return watcher.isFinished(); }, 6000) ? watcher.reply() : QDBusMessage();
}

// Each top-level menu entry as a panel shows it: "-" a separator, "(...)" disabled, "[x]"/"[ ]" a
// check mark on or off, "+icon" an icon beside it.
QStringList menuShown(const QString &item)
{
    // Qt exports an icon's menu at /MenuBar.
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
        QString shown = p.value(u"type"_s) == "separator"_L1 ? u"-"_s : p.value(u"label"_s).toString();
        if (!p.value(u"enabled"_s, true).toBool())
            shown = u'(' + shown + u')';
        if (p.value(u"toggle-type"_s) == "checkmark"_L1)
            shown += p.value(u"toggle-state"_s).toInt() == 1 ? " [x]"_L1 : " [ ]"_L1;
        if (p.contains(u"icon-data"_s) || p.contains(u"icon-name"_s))
            shown += " +icon"_L1;
        entries.append(shown);
    }
    return entries;
}

// The bus name of the first tray item the panel's watcher lists ("<bus name>[/<object path>]").
QString trayItem()
{
    QDBusInterface watcher(watcherService, u"/StatusNotifierWatcher"_s, watcherService);
    return watcher.property("RegisteredStatusNotifierItems").toStringList().value(0).section(u'/', 0, 0);
}
// The whole menu while the agent runs, as a panel shows it.
const QStringList runningMenu = u"(Status: Running)|(Version: 1.4.2)|-|(Start Agent)|Stop Agent|-|Open Cloud Admin|"
                                "Check for Updates|Open Local Admin|Open Getting Started|Open Startup Status|"
                                "Open Logs|-|Run at Startup [ ]|-|Quit"_s.split(u'|');

// The desktop's notification service, as a notification daemon offers it.
class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList shown; // summary, a line feed, body

public slots:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        shown.append(summary + u'\n' + body);
        return uint(shown.size());
    }
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

QImage grabScreen()
{
    return QGuiApplication::primaryScreen()->grabWindow(0).toImage().convertToFormat(QImage::Format_RGB32);
}

// The badge's running colours (its cyan mark, outline and fill), told apart from a theme's blue;
// the offline badge's mid-grey fill.
bool isBadgeCyan(const QImage &image, int x, int y)
{
    const QColor c(image.pixel(x, y));
    return c.blue() - c.red() > 50 && c.green() - c.red() > 30 && qAbs(c.green() - c.blue()) < 80;
}
bool isBadgeGrey(const QImage &image, int x, int y)
{
    const QColor c(image.pixel(x, y));
    return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25 && c.value() > 40 && c.value() < 150;
}
using ScreenTest = std::function<bool(const QImage &, int, int)>;
// The bounds of the points in an area of the screen that match.
QRect matching(const QImage &screen, const QRect &area, const ScreenTest &matches)
{
    QRect bounds;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            if (matches(screen, x, y))
                bounds |= QRect(x, y, 1, 1);
    return bounds;
}

// Waits until the points of the screen that match span at least minimum and the screen holds
// still between two looks; gives their bounds (empty on time-out) and the screen.
QRect waitForStill(const ScreenTest &matches, QSize minimum, QImage *settled)
{
    QImage previous;
    for (QDeadlineTimer deadline(timeoutMs); !deadline.hasExpired(); QTest::qWait(150)) {
        const QImage now = grabScreen();
        const QRect found = matching(now, now.rect(), matches);
        const bool still = now == previous;
        previous = now;
        if (still && found.width() >= minimum.width() && found.height() >= minimum.height())
            return *settled = now, found;
    }
    return {};
}

void savePicture(const QImage &image, const QString &name)
{
    const QString folder = qEnvironmentVariable("QUILLMERE_TEST_OUTPUT");
    if (!folder.isEmpty())
        QVERIFY(QDir().mkpath(folder) && image.save(folder + u'/' + name));
}

// Runs a desktop tool to its end; a tool that is missing or fails fails the test.
std::optional<QString> runTool(const QString &tool, const QStringList &arguments)
{
    QProcess process;
    process.start(tool, arguments);
    if (process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return QString::fromUtf8(process.readAllStandardOutput());
    qWarning().noquote() << tool << arguments << "failed:" << process.errorString() << process.readAllStandardError();
    return std::nullopt;
}

// Points with the mouse, clicks or presses keys; then waits for the screen to change in an area at
// least minimum in size and hold still, and gives that area (empty if it did not) and the screen.
QRect xdotool(const QStringList &arguments, QSize minimum, QImage *settled)
{
    const QImage before = grabScreen();
    if (!runTool(u"xdotool"_s, arguments))
        return {};
    return waitForStill([&](const QImage &now, int x, int y) { return now.pixel(x, y) != before.pixel(x, y); }, minimum,
                        settled);
}
QStringList clickAt(QPoint at)
{
    return {u"mousemove"_s, QString::number(at.x()), QString::number(at.y()), u"click"_s, u"1"_s};
}

// The screen rectangle of the program's window among tint2's, or an invalid rectangle.
QRect iconInTint2()
{
    static const QRegularExpression panel(uR"((0x[0-9a-f]+) "tint2")"_s),
        icon(uR"("quillmere-menu"\)\s+(\d+)x(\d+)\+-?\d+\+-?\d+\s+\+(-?\d+)\+(-?\d+))"_s);
    for (const QRegularExpressionMatch &window :
         panel.globalMatch(runTool(u"xwininfo"_s, {u"-root"_s, u"-tree"_s}).value_or(QString())))
        if (const auto m =
                icon.match(runTool(u"xwininfo"_s, {u"-tree"_s, u"-id"_s, window.captured(1)}).value_or(QString()));
            m.hasMatch())
            return {m.captured(3).toInt(), m.captured(4).toInt(), m.captured(1).toInt(), m.captured(2).toInt()};
    return {};
}

} // namespace

class DesktopTest : public QObject {
    Q_OBJECT

    FakeAgent agent_;
    QTemporaryDir desktopDir_;
    std::vector<std::unique_ptr<QProcess>> desktopPrograms_;
    std::unique_ptr<FakeControlScript> control_;

    // A panel or compositor that stays until the test function ends; one not installed fails the test.
    void startDesktopProgram(const QString &program, const QStringList &arguments,
                             const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
    {
        auto &process = desktopPrograms_.emplace_back(std::make_unique<QProcess>());
        process->setProcessEnvironment(environment);
        process->start(program, arguments);
        QVERIFY2(process->waitForStarted(10000), qPrintable(program + u": "_s + process->errorString()));
    }

    std::unique_ptr<InstalledProgram> makeProgram(const QString &platform = u"xcb"_s)
    {
        auto program = std::make_unique<InstalledProgram>(true, platform);
        control_ = std::make_unique<FakeControlScript>(program->controlScript());
        // Each run waits until the test lets it end, so that the menu can be looked at meanwhile.
        control_->write({0, true, {}}, {0, true, {}});
        return program;
    }

    void startXfcePanel()
    {
        const QString config = desktopDir_.path() + "/xfce-config"_L1;
        writeFile(config + "/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"_L1,
                  readFile(QFINDTESTDATA("xfce4-panel.xml")));
        // The settings daemon is started by the bus on demand, with the bus's environment.
        qDBusRegisterMetaType<QMap<QString, QString>>();
        QDBusConnection::sessionBus().interface()->call(
            u"UpdateActivationEnvironment"_s,
            QVariant::fromValue(QMap<QString, QString>{{u"XDG_CONFIG_HOME"_s, config}}));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_CONFIG_HOME"_s, config);
        startDesktopProgram(u"xfce4-panel"_s, {u"--disable-wm-check"_s}, environment);
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(watcherService),
                                 timeoutMs);
    }

private slots:
    void init() { agent_.setHealthy(u"1.4.2"_s); }

    void cleanup()
    {
        for (auto &process : desktopPrograms_)
            process->terminate(), process->waitForFinished(5000);
        desktopPrograms_.clear();
    }

    // The panel starts after the program, as at login: the tray is looked for before the first health
    // check, and the program has found none.
    void xfcePanel()
    {
        auto program = makeProgram();
        QProcess *process = program->start(agent_.port());
        QTRY_VERIFY_WITH_TIMEOUT(agent_.countFor("/healthz") > 0, timeoutMs);
        startXfcePanel();
        QImage screen;
        const QRect badge = waitForStill(isBadgeCyan, {8, 8}, &screen);
        QVERIFY2(!badge.isEmpty(), "no running badge on the panel");
        savePicture(screen, u"xfce-panel-running.png"_s);
        // The late tray icon's own menu, as the panel reads it for a right click.
        QTRY_COMPARE_WITH_TIMEOUT(menuShown(trayItem()), runningMenu, timeoutMs);
        // A click opens the menu, where a user picks the first (with "Down") or last ("Up") enabled
        // item with the keyboard and clicks it where it is highlighted.
        const auto choose = [&](const QString &key) {
            QImage shown;
            const QRect menu = xdotool(clickAt(badge.center()), {100, 150}, &shown);
            // The panel and the menu, for the README (the last menu opened is the running one).
            savePicture(shown.copy(QRect(QPoint(0, 0), menu.bottomRight() + QPoint(200, 12)).intersected(shown.rect())),
                        u"panel-menu.png"_s);
            const QRect item = xdotool({u"key"_s, key}, {60, 8}, &shown);
            return !menu.isEmpty() && !item.isEmpty() && runTool(u"xdotool"_s, clickAt(item.center()));
        };
        QVERIFY(choose(u"Down"_s)); // Stop Agent
        QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>{{u"stop"_s}}, timeoutMs);
        agent_.setHealthDown();
        control_->release(u"stop"_s);
        QTRY_VERIFY_WITH_TIMEOUT(
            (screen = grabScreen(), matching(screen, badge, isBadgeCyan).isEmpty() &&
                                        matching(screen, badge, isBadgeGrey).width() > badge.width() / 2),
            timeoutMs);
        savePicture(screen, u"xfce-panel-offline.png"_s);
        // Start Agent can be chosen once the stop has ended and the agent was found down.
        QTRY_VERIFY_WITH_TIMEOUT(!program->logMessages().filter(u"State updated: Status: Stopped"_s).isEmpty(),
                                 timeoutMs);
        QVERIFY(choose(u"Down"_s)); // Start Agent
        QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>({{u"stop"_s}, {u"start"_s}}), timeoutMs);
        agent_.setHealthy();
        control_->release(u"start"_s);
        QCOMPARE(waitForStill(isBadgeCyan, {8, 8}, &screen), badge);
        QVERIFY(choose(u"Up"_s)); // Quit: the agent is stopped before the program exits
        QVERIFY(process->waitForFinished(timeoutMs));
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        QCOMPARE(control_->runs().mid(2), QList<QStringList>{{u"stop"_s}});
        QCOMPARE(program->logMessages().constLast(), u"Application will terminate."_s);
    }

    // The panel comes 3 s after the program: its announcement is heard, its selection then read.
    void tint2()
    {
        // tint2 waits for a window manager to announce its desktops; this desktop has none.
        QVERIFY(runTool(u"xprop"_s, {u"-root"_s, u"-f"_s, u"_NET_NUMBER_OF_DESKTOPS"_s, u"32c"_s, u"-set"_s,
                                     u"_NET_NUMBER_OF_DESKTOPS"_s, u"1"_s}));
        auto program = makeProgram();
        program->start(agent_.port());
        QTest::qWait(3000); // the delay is the point, not a wait for something
        startDesktopProgram(u"tint2"_s, {u"-c"_s, QFINDTESTDATA("tint2rc")});
        // The icon is embedded as a child of the tray's window, and a click on it opens the menu.
        QRect icon;
        QTRY_VERIFY_WITH_TIMEOUT((icon = iconInTint2()).isValid(), timeoutMs);
        QCOMPARE(icon.size(), QSize(24, 24));
        QImage menuShown;
        QVERIFY2(!xdotool(clickAt(icon.center()), {100, 150}, &menuShown).isEmpty(), "no menu opened from the icon");
        savePicture(menuShown, u"tint2-late.png"_s);
    }

    void noTray()
    {
        NotificationService notifications;
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(
            bus.registerObject(u"/org/freedesktop/Notifications"_s, &notifications, QDBusConnection::ExportAllSlots) &&
            bus.registerService(u"org.freedesktop.Notifications"_s));
        // First another copy finds a panel whose host registers after its watcher; the panel then quits.
        FakeAgent otherAgent;
        otherAgent.setHealthy();
        InstalledProgram other(true);
        other.start(otherAgent.port());
        {
            StatusNotifierWatcher watcher;
            QVERIFY(bus.registerObject(u"/StatusNotifierWatcher"_s, &watcher, QDBusConnection::ExportAllContents) &&
                    bus.registerService(watcherService));
            QTRY_VERIFY_WITH_TIMEOUT(watcher.asked > 0, timeoutMs); // it looked and found no host
            watcher.hostRegistered = true;
            emit watcher.StatusNotifierHostRegistered();
            QTRY_COMPARE_WITH_TIMEOUT(watcher.items.size(), 1, timeoutMs);
            QVERIFY(bus.unregisterService(watcherService));
            bus.unregisterObject(u"/StatusNotifierWatcher"_s);
        }
        auto program = makeProgram();
        QElapsedTimer sinceLaunch;
        sinceLaunch.start();
        program->start(agent_.port());
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 1, timeoutMs);
        QVERIFY2(sinceLaunch.elapsed() > 9000, "a panel started at login may not be up yet");
        QElapsedTimer sinceNotice;
        sinceNotice.start();
        // The agent stops on its own, comes back and stops again: told once. A second launch is told.
        const auto stateLines = [&program] { return program->logMessages().filter(u"State updated: Status: "_s); };
        for (bool healthy : {false, true, false}) {
            healthy ? agent_.setHealthy(u"1.4.2"_s) : agent_.setHealthDown();
            const qsizetype before = stateLines().size();
            QTRY_VERIFY_WITH_TIMEOUT(stateLines().size() > before, timeoutMs);
        }
        QCOMPARE(program->run(agent_.port(), {}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 3, timeoutMs);
        QCOMPARE(notifications.shown.mid(1),
                 QStringList({u"Quillmere Agent stopped unexpectedly\nThe agent stopped without being asked to. Choose "
                              "Start Agent in the menu, or run quillmere-menu --start-agent."_s,
                              u"Quillmere Agent is already running\nStatus: Stopped, version 1.4.2. Its menu is in the "
                              "system tray."_s}));
        // The no-tray notice comes once per run, not again 10 s later, and not to the copy that found a tray.
        QTest::qWait(std::max<qint64>(0, 11500 - sinceNotice.elapsed()));
        QCOMPARE(notifications.shown.size(), 3);
        QCOMPARE(program->logMessages().filter(u"No system tray"_s).size(), 1);
    }

    void wayland()
    {
        startXfcePanel();            // the tray host, on the session bus both display servers share
        const QTemporaryDir runtime; // private to its owner, as a runtime folder must be
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_RUNTIME_DIR"_s, runtime.path());
        environment.remove(u"DISPLAY"_s);
        startDesktopProgram(u"weston"_s,
                            {u"--backend=headless-backend.so"_s, u"--socket=wayland-test"_s, u"--idle-time=0"_s},
                            environment);
        const QString socket = runtime.path() + "/wayland-test"_L1;
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socket), timeoutMs);

        qputenv("WAYLAND_DISPLAY", socket.toUtf8());
        auto program = makeProgram(u"wayland"_s);
        QProcess *process = program->start(agent_.port());
        qunsetenv("WAYLAND_DISPLAY");
        QString tray;
        QTRY_VERIFY_WITH_TIMEOUT(!(tray = trayItem()).isEmpty(), timeoutMs);
        // The icon has the badge as soon as the panel lists it.
        QVERIFY(QDebug::toString(
                    askItem(tray, u"org.freedesktop.DBus.Properties"_s, u"Get"_s, {itemInterface, u"IconPixmap"_s}))
                    .contains("a(iiay) {[Argument: (iiay) "_L1));
        // The menu of an icon made while the panel was there.
        QTRY_COMPARE_WITH_TIMEOUT(menuShown(tray), runningMenu, timeoutMs);
        // The tool tip's icon name, images, title and text, as Qt prints them.
        QTRY_VERIFY_WITH_TIMEOUT(QDebug::toString(askItem(tray, u"org.freedesktop.DBus.Properties"_s, u"Get"_s,
                                                          {itemInterface, u"ToolTip"_s}))
                                     .contains("\"Quillmere Agent is running\""_L1),
                                 timeoutMs);
        // A plain click opens the menu without a pointer position Wayland cannot give. The program
        // answers its bus in order, so the next answer comes after the menu was asked for; and Qt gives
        // up at once when it cannot reach the compositor: still running, the program runs on Wayland.
        QCOMPARE(askItem(tray, itemInterface, u"Activate"_s, {0, 0}).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(menuShown(tray).value(0), u"(Status: Running)"_s);
        QCOMPARE(process->state(), QProcess::Running);
    }
};

QTEST_MAIN(DesktopTest)
#include "tst_Desktop.moc"
