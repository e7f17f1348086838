// The real program on the desktops a user may have, driven from outside as a panel and a user
// drive it: xfce4-panel (a StatusNotifierItem host) started before and after the program, tint2
// (an XEmbed tray only), no tray at all, and a Wayland session. Pointer and keys go through
// xdotool; what happened is read from the screen, the X window tree and the session bus. Each case
// runs on an X server and a session bus of its own (see CMakeLists.txt), named on the command line.
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/InstalledProgram.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>
#include <QTest>
#include <functional>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeoutMs = 20000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;

// A panel's side of one tray item, "<bus name>[/<object path>]" as the watcher lists it.
class TrayClient {
public:
    explicit TrayClient(const QString &item) : service_(item.section(u'/', 0, 0)), path_(item.mid(service_.size()))
    {
        if (path_.isEmpty())
            path_ = u"/StatusNotifierItem"_s;
    }

    // Each top-level menu entry as a panel shows it: "-" a separator, "(...)" disabled, "[x]"/"[ ]"
    // a check mark on or off, "+icon" an icon beside it.
    QStringList shown() const
    {
        const QString menu = property(u"Menu"_s).value<QDBusObjectPath>().path();
        const QDBusMessage reply = call(menu, u"com.canonical.dbusmenu"_s, u"GetLayout"_s, {0, -1, QStringList()});
        QStringList entries;
        if (reply.arguments().size() < 2)
            return entries;
        const QDBusArgument root = reply.arguments().at(1).value<QDBusArgument>();
        int id = 0;
        QVariantMap p;
        root.beginStructure();
        root >> id >> p;
        root.beginArray();
        while (!root.atEnd()) {
            QDBusVariant child;
            root >> child;
            const QDBusArgument item = child.variant().value<QDBusArgument>();
            item.beginStructure();
            item >> id >> p;
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
    // A primary click on the icon.
    bool activate() const
    {
        return call(path_, itemInterface, u"Activate"_s, {0, 0}).type() == QDBusMessage::ReplyMessage;
    }
    QString toolTipTitle() const
    {
        // (s a(iiay) s s): icon name, images, title, text.
        const QDBusArgument tip = property(u"ToolTip"_s).value<QDBusArgument>();
        QString title;
        tip.beginStructure();
        tip >> title;
        tip.asVariant();
        tip >> title;
        return title;
    }

private:
    static inline const QString itemInterface = u"org.kde.StatusNotifierItem"_s;

    QDBusMessage call(const QString &path, const QString &interface, const QString &method,
                      const QVariantList &arguments) const
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service_, path, interface, method);
        message.setArguments(arguments);
        // Not a blocking call: once, under load, one never returned and the suite sat until its
        // time-out. Events keep running meanwhile (the fake agent lives on this thread).
        QDBusPendingCallWatcher watcher(QDBusConnection::sessionBus().asyncCall(message, 5000));
        QDeadlineTimer deadline(6000);
        while (!watcher.isFinished() && !deadline.hasExpired())
            QTest::qWait(10);
        return watcher.isFinished() ? watcher.reply() : QDBusMessage::createError(QDBusError::Timeout, u"no reply"_s);
    }
    QVariant property(const QString &name) const
    {
        const QDBusMessage reply = call(path_, u"org.freedesktop.DBus.Properties"_s, u"Get"_s, {itemInterface, name});
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }

    QString service_;
    QString path_;
};

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
// The bounds of the points in an area of the screen that match, and how many match.
QRect matching(const QImage &screen, const QRect &area, const ScreenTest &matches, int *count = nullptr)
{
    QRect bounds;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            if (matches(screen, x, y)) {
                bounds |= QRect(x, y, 1, 1);
                if (count)
                    ++*count;
            }
    return bounds;
}
int countIn(const QImage &screen, const QRect &area, const ScreenTest &matches)
{
    int count = 0;
    matching(screen, area, matches, &count);
    return count;
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
QRect waitForChange(const QImage &before, QSize minimum, QImage *settled)
{
    return waitForStill([&](const QImage &now, int x, int y) { return now.pixel(x, y) != before.pixel(x, y); }, minimum,
                        settled);
}
QRect waitForBadge(QImage *settled)
{
    return waitForStill(isBadgeCyan, {8, 8}, settled);
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
bool click(QPoint at)
{
    return runTool(u"xdotool"_s, {u"mousemove"_s, QString::number(at.x()), QString::number(at.y()), u"click"_s, u"1"_s})
        .has_value();
}

// The screen rectangle of the first window in a panel's part of the X window tree whose class is
// the program's, or an invalid rectangle.
QRect embeddedIconIn(const QString &panelName)
{
    static const QRegularExpression line(
        uR"(^(\s*)0x[0-9a-f]+ (.*)\s(\d+)x(\d+)\+-?\d+\+-?\d+\s+\+(-?\d+)\+(-?\d+)\s*$)"_s);
    int panelIndent = -1;
    for (const QString &text : runTool(u"xwininfo"_s, {u"-root"_s, u"-tree"_s}).value_or(QString()).split(u'\n')) {
        const QRegularExpressionMatch match = line.match(text);
        if (!match.hasMatch())
            continue;
        const int indent = int(match.capturedLength(1));
        if (panelIndent >= 0 && indent <= panelIndent)
            panelIndent = -1; // left the panel's windows
        if (panelIndent < 0 && match.captured(2).startsWith(u'"' + panelName + u'"'))
            panelIndent = indent;
        else if (panelIndent >= 0 && match.captured(2).contains("\"quillmere-menu\""_L1))
            return {match.captured(5).toInt(), match.captured(6).toInt(), match.captured(3).toInt(),
                    match.captured(4).toInt()};
    }
    return {};
}

// Opens the menu with a click on the icon and gives the screen with the menu shown.
QImage openMenu(QPoint icon, QRect *menu)
{
    const QImage before = grabScreen();
    QImage shown;
    if (click(icon))
        *menu = waitForChange(before, {100, 150}, &shown);
    return shown;
}
// Highlights an item with a key, as a user finds it, and clicks it where it is highlighted.
bool chooseItem(const QImage &menuShown, const QString &key)
{
    QImage highlighted;
    if (!runTool(u"xdotool"_s, {u"key"_s, key}))
        return false;
    const QRect item = waitForChange(menuShown, {60, 8}, &highlighted);
    return !item.isEmpty() && click(item.center());
}

// The items registered with the desktop's watcher, each "<bus name>[/<object path>]".
QStringList registeredItems()
{
    QDBusMessage get = QDBusMessage::createMethodCall(watcherService, u"/StatusNotifierWatcher"_s,
                                                      u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get.setArguments({watcherService, u"RegisteredStatusNotifierItems"_s});
    return QDBusConnection::sessionBus().call(get).arguments().value(0).value<QDBusVariant>().variant().toStringList();
}

// The whole menu while the agent runs, as a panel shows it (see TrayClient::shown).
const QStringList fullMenu = u"(Status: Running)|(Version: 1.4.2)|-|(Start Agent)|Stop Agent|-|Open Cloud Admin|"
                             "Check for Updates|Open Local Admin|Open Getting Started|Open Startup Status|"
                             "Open Logs|-|Run at Startup [ ]|-|Quit"_s.split(u'|');

} // namespace

class DesktopTest : public QObject {
    Q_OBJECT

    FakeAgent agent_;
    QTemporaryDir desktopDir_;
    std::vector<std::unique_ptr<QProcess>> desktopPrograms_;
    std::unique_ptr<FakeControlScript> control_;

    // Starts a panel or compositor that stays until the test function ends; one that is not
    // installed fails the test.
    void startDesktopProgram(const QString &program, const QStringList &arguments,
                             const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
    {
        auto &process = desktopPrograms_.emplace_back(std::make_unique<QProcess>());
        process->setProcessEnvironment(environment);
        process->setStandardOutputFile(QProcess::nullDevice());
        process->setStandardErrorFile(QProcess::nullDevice());
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
        writeFile(config + "/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"_L1, readFile(XFCE_PANEL_CONFIG));
        // The settings daemon is started by the bus on demand, with the bus's environment.
        QDBusMessage update =
            QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                           u"org.freedesktop.DBus"_s, u"UpdateActivationEnvironment"_s);
        qDBusRegisterMetaType<QMap<QString, QString>>();
        update.setArguments({QVariant::fromValue(QMap<QString, QString>{{u"XDG_CONFIG_HOME"_s, config}})});
        QCOMPARE(QDBusConnection::sessionBus().call(update).type(), QDBusMessage::ReplyMessage);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_CONFIG_HOME"_s, config);
        startDesktopProgram(u"xfce4-panel"_s, {u"--disable-wm-check"_s}, environment);
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(watcherService),
                                 timeoutMs);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (run under dbus-run-session)");
        QVERIFY2(QGuiApplication::platformName() == "xcb"_L1, "needs an X display (run under xvfb-run)");
    }

    void init() { agent_.setHealthy(u"1.4.2"_s); }

    void cleanup()
    {
        for (auto &process : desktopPrograms_) {
            process->terminate();
            if (!process->waitForFinished(5000))
                process->kill();
        }
        desktopPrograms_.clear();
    }

    void xfcePanel_data()
    {
        QTest::addColumn<bool>("panelFirst");
        QTest::newRow("panel after the program, as at login") << false;
        QTest::newRow("panel before the program") << true;
    }

    void xfcePanel()
    {
        QFETCH(bool, panelFirst);
        if (panelFirst)
            startXfcePanel();
        auto program = makeProgram();
        QProcess *process = program->start(agent_.port());
        if (!panelFirst) {
            // The tray is looked for before the first health check: the program has found none.
            QTRY_VERIFY_WITH_TIMEOUT(agent_.countFor("/healthz") > 0, timeoutMs);
            startXfcePanel();
        }
        QImage screen;
        const QRect badge = waitForBadge(&screen);
        QVERIFY2(!badge.isEmpty(), "no running badge on the panel");
        if (panelFirst) {
            control_->release(u"stop"_s);
            process->terminate();
        } else {
            savePicture(screen, u"xfce-panel-running.png"_s);
            // A click opens the menu, where a user picks the first (with "Down") or last ("Up")
            // enabled item with the keyboard and clicks it where it is highlighted.
            const auto choose = [&](const QString &key, const QString &picture = {}) {
                QRect menu;
                const QImage menuShown = openMenu(badge.center(), &menu);
                if (!picture.isEmpty()) // the panel and the menu, for the README
                    savePicture(
                        menuShown.copy(
                            QRect(QPoint(0, 0), menu.bottomRight() + QPoint(200, 12)).intersected(menuShown.rect())),
                        picture);
                return !menu.isEmpty() && chooseItem(menuShown, key);
            };
            QVERIFY(choose(u"Down"_s, u"panel-menu.png"_s)); // Stop Agent
            QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>{{u"stop"_s}}, timeoutMs);
            agent_.setHealthDown();
            control_->release(u"stop"_s);
            QTRY_VERIFY_WITH_TIMEOUT(
                (screen = grabScreen(), countIn(screen, badge, isBadgeCyan) == 0 &&
                                            countIn(screen, badge, isBadgeGrey) > badge.width() * badge.height() / 4),
                timeoutMs);
            savePicture(screen, u"xfce-panel-offline.png"_s);
            // Start Agent can be chosen once the stop has ended and the agent was found down.
            QTRY_VERIFY_WITH_TIMEOUT(!program->logMessages().filter(u"State updated: Status: Stopped"_s).isEmpty(),
                                     timeoutMs);
            QVERIFY(choose(u"Down"_s)); // Start Agent
            QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>({{u"stop"_s}, {u"start"_s}}), timeoutMs);
            agent_.setHealthy();
            control_->release(u"start"_s);
            QCOMPARE(waitForBadge(&screen), badge);
            QVERIFY(choose(u"Up"_s)); // Quit
        }
        // Either way the agent is stopped before the program exits.
        QVERIFY(process->waitForFinished(timeoutMs));
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        QCOMPARE(control_->runs().constLast(), QStringList{u"stop"_s});
        QCOMPARE(program->logMessages().constLast(), u"Application will terminate."_s);
    }

    void tint2_data()
    {
        QTest::addColumn<bool>("panelFirst");
        QTest::newRow("panel before the program") << true;
        QTest::newRow("panel 3 s after the program") << false;
    }

    void tint2()
    {
        QFETCH(bool, panelFirst);
        // tint2 waits for a window manager to announce its desktops; this desktop has none.
        QVERIFY(runTool(u"xprop"_s, {u"-root"_s, u"-f"_s, u"_NET_NUMBER_OF_DESKTOPS"_s, u"32c"_s, u"-set"_s,
                                     u"_NET_NUMBER_OF_DESKTOPS"_s, u"1"_s}));
        const QString config = desktopDir_.path() + "/tint2rc"_L1;
        writeFile(config, "panel_items = S\npanel_size = 100% 32\npanel_position = bottom center horizontal\n"
                          "systray_padding = 2 2 2\nsystray_icon_size = 24\n");
        if (panelFirst)
            startDesktopProgram(u"tint2"_s, {u"-c"_s, config});
        auto program = makeProgram();
        program->start(agent_.port());
        if (!panelFirst) {
            // The late panel is the case under test: its delay is the point, not a wait for something.
            QTest::qWait(3000);
            startDesktopProgram(u"tint2"_s, {u"-c"_s, config});
        }
        // The icon is embedded as a child of the tray's window, and a click on it opens the menu.
        QRect icon;
        QTRY_VERIFY_WITH_TIMEOUT((icon = embeddedIconIn(u"tint2"_s)).isValid(), timeoutMs);
        QCOMPARE(icon.size(), QSize(24, 24));
        QRect menu;
        const QImage menuShown = openMenu(icon.center(), &menu);
        QVERIFY2(!menu.isEmpty(), "no menu opened from the icon");
        savePicture(menuShown, "tint2-%1.png"_L1.arg(panelFirst ? "first"_L1 : "late"_L1));
        runTool(u"xdotool"_s, {u"key"_s, u"Escape"_s});
    }

    void noTray()
    {
        NotificationService notifications;
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(
            bus.registerObject(u"/org/freedesktop/Notifications"_s, &notifications, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(u"org.freedesktop.Notifications"_s));
        auto program = makeProgram();
        program->start(agent_.port());
        QTRY_COMPARE_WITH_TIMEOUT(notifications.shown.size(), 1, timeoutMs);
        const QString shown = notifications.shown[0];
        for (const char *part : {"supervised", "SIGTERM", "log out", "GNOME", "AppIndicator/KStatusNotifierItem"})
            QVERIFY2(shown.contains(QLatin1String(part)), qPrintable(shown));
        // Once per run: nothing follows while the program keeps running without a tray.
        QTest::qWait(2500);
        QCOMPARE(notifications.shown.size(), 1);
        QCOMPARE(program->logMessages().filter(u"No system tray"_s).size(), 1);
    }

    void wayland()
    {
        startXfcePanel(); // the tray host, on the session bus both display servers share
        const QString runtime = desktopDir_.path() + "/weston-runtime"_L1;
        QVERIFY(QDir().mkpath(runtime));
        QFile::setPermissions(runtime, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_RUNTIME_DIR"_s, runtime);
        environment.remove(u"DISPLAY"_s);
        startDesktopProgram(u"weston"_s,
                            {u"--backend=headless-backend.so"_s, u"--socket=wayland-test"_s, u"--idle-time=0"_s},
                            environment);
        const QString socket = runtime + "/wayland-test"_L1;
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socket), timeoutMs);

        qputenv("WAYLAND_DISPLAY", socket.toUtf8());
        auto program = makeProgram(u"wayland"_s);
        QProcess *process = program->start(agent_.port());
        qunsetenv("WAYLAND_DISPLAY");

        QStringList items;
        QTRY_VERIFY_WITH_TIMEOUT(!(items = registeredItems()).isEmpty(), timeoutMs);
        const TrayClient tray(items[0]);
        QTRY_COMPARE_WITH_TIMEOUT(tray.shown(), fullMenu, timeoutMs);
        QTRY_COMPARE_WITH_TIMEOUT(tray.toolTipTitle(), u"Quillmere Agent is running"_s, timeoutMs);
        // A plain click opens the menu without a pointer position Wayland cannot give. The program
        // answers its bus in order, so the next answer comes after the menu was asked for; and Qt gives
        // up at once when it cannot reach the compositor: still running, the program runs on Wayland.
        QVERIFY(tray.activate());
        QCOMPARE(tray.shown().value(0), u"(Status: Running)"_s);
        QCOMPARE(process->state(), QProcess::Running);
    }
};

QTEST_MAIN(DesktopTest)
#include "tst_Desktop.moc"
