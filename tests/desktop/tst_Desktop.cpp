// The real program on the desktops a user may have: xfce4-panel (a StatusNotifierItem host that
// also embeds XEmbed icons), tint2 (an XEmbed tray only), no tray at all, and a Wayland session.
// The panels are Debian's own; pointer and keys go through xdotool, and what happened is read
// from the screen, the X window tree and the session bus. Each case runs on an X server and a
// session bus of its own (see CMakeLists.txt), named on the command line.
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/InstalledProgram.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>
#include <QTest>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeoutMs = 20000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;

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

// The badge's running colours (its cyan mark, outline and fill), told apart from a theme's blue.
bool isBadgeCyan(QRgb pixel)
{
    const QColor c(pixel);
    return c.blue() - c.red() > 50 && c.green() - c.red() > 30 && qAbs(c.green() - c.blue()) < 80;
}
// The offline badge's mid-grey fill.
bool isBadgeGrey(QRgb pixel)
{
    const QColor c(pixel);
    return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25 && c.value() > 40 && c.value() < 150;
}
// The bounds of the points in an area that match, and how many match.
template <typename Matches>
QRect matching(const QRect &area, Matches matches, int *count = nullptr)
{
    QRect bounds;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            if (matches(x, y)) {
                bounds |= QRect(x, y, 1, 1);
                if (count)
                    ++*count;
            }
    return bounds;
}
int countIn(const QImage &image, const QRect &area, bool (*isColour)(QRgb))
{
    int count = 0;
    matching(
        area, [&](int x, int y) { return isColour(image.pixel(x, y)); }, &count);
    return count;
}

// Waits until the screen differs from before in an area at least minimum in size and holds still
// between two looks; gives that area (empty on time-out) and the screen.
QRect waitForChange(const QImage &before, QSize minimum, QImage *settled)
{
    QImage previous = before;
    for (QDeadlineTimer deadline(timeoutMs); !deadline.hasExpired(); QTest::qWait(150)) {
        const QImage now = grabScreen();
        const QRect changed = matching(now.rect(), [&](int x, int y) { return now.pixel(x, y) != before.pixel(x, y); });
        const bool still = now == previous;
        previous = now;
        if (still && changed.width() >= minimum.width() && changed.height() >= minimum.height()) {
            *settled = now;
            return changed;
        }
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

QVariant busProperty(const QString &service, const QString &path, const QString &interface, const QString &name)
{
    QDBusMessage get = QDBusMessage::createMethodCall(service, path, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get.setArguments({interface, name});
    return QDBusConnection::sessionBus().call(get).arguments().value(0).value<QDBusVariant>().variant();
}

// The top level of a dbusmenu layout as a panel shows it: labels, "-" for separators.
QStringList menuLabels(const QString &service, const QString &path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, u"com.canonical.dbusmenu"_s, u"GetLayout"_s);
    call.setArguments({0, 1, QStringList()});
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 5000);
    QStringList labels;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2)
        return labels;
    const QDBusArgument root = reply.arguments().at(1).value<QDBusArgument>();
    int id = 0;
    QVariantMap properties;
    root.beginStructure();
    root >> id >> properties;
    root.beginArray();
    while (!root.atEnd()) {
        QDBusVariant child;
        root >> child;
        const QDBusArgument item = child.variant().value<QDBusArgument>();
        QVariantList children;
        item.beginStructure();
        item >> id >> properties >> children;
        item.endStructure();
        labels.append(properties.value(u"type"_s) == "separator"_L1 ? u"-"_s : properties.value(u"label"_s).toString());
    }
    return labels;
}

} // namespace

class DesktopTest : public QObject {
    Q_OBJECT

    FakeAgent agent_;
    QTemporaryDir desktopDir_;
    std::vector<std::unique_ptr<QProcess>> desktopPrograms_;

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
    std::unique_ptr<FakeControlScript> control_;

    std::unique_ptr<InstalledProgram> makeProgram(const QString &platform = QStringLiteral("xcb"))
    {
        auto program = std::make_unique<InstalledProgram>(true, platform);
        control_ = std::make_unique<FakeControlScript>(program->controlScript());
        // A stop waits until the test has taken the agent down, so that the next look finds it stopped.
        control_->write({}, {0, true, {}});
        return program;
    }

    // xfce4-panel with one panel holding its status tray, as a fresh Xfce session has.
    void startXfcePanel()
    {
        const QString config = desktopDir_.path() + "/xfce-config"_L1;
        writeFile(config + "/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml"_L1,
                  R"(<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="32"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray"/>
  </property>
</channel>
)");
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
        QTest::newRow("panel before the program") << true;
        QTest::newRow("panel right after the program, as at login") << false;
    }

    void xfcePanel()
    {
        QFETCH(bool, panelFirst);
        if (panelFirst)
            startXfcePanel();
        auto program = makeProgram();
        QProcess *process = program->start(agent_.port());
        if (!panelFirst)
            startXfcePanel();
        const QString row = panelFirst ? u"first"_s : u"late"_s;

        // The running badge on the panel, drawn and holding still.
        QRect badge;
        QImage screen;
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                const QImage now = grabScreen();
                const QRect found = matching(now.rect(), [&](int x, int y) { return isBadgeCyan(now.pixel(x, y)); });
                const bool still = !found.isEmpty() && found == badge && now == screen;
                badge = found;
                screen = now;
                return still && found.width() >= 8 && found.height() >= 8;
            }(),
            timeoutMs);
        savePicture(screen, "xfce-panel-%1-running.png"_L1.arg(row));

        QRect menu;
        const QImage menuShown = openMenu(badge.center(), &menu);
        QVERIFY2(!menu.isEmpty(), "no menu opened from the icon");
        // The panel and the menu, for the README.
        if (panelFirst)
            savePicture(
                menuShown.copy(QRect(QPoint(0, 0), menu.bottomRight() + QPoint(200, 12)).intersected(menuShown.rect())),
                u"panel-menu.png"_s);

        // The first item a user can choose while the agent runs is "Stop Agent".
        QVERIFY(chooseItem(menuShown, u"Down"_s));
        QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>{{u"stop"_s}}, timeoutMs);
        agent_.setHealthDown();
        control_->release(u"stop"_s);
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                screen = grabScreen();
                return countIn(screen, badge, isBadgeCyan) == 0 &&
                       countIn(screen, badge, isBadgeGrey) > badge.width() * badge.height() / 4;
            }(),
            timeoutMs);
        savePicture(screen, "xfce-panel-%1-offline.png"_L1.arg(row));

        // Quit is the last item; it stops the agent once more, then the program exits.
        const QImage again = openMenu(badge.center(), &menu);
        QVERIFY2(!menu.isEmpty(), "no menu opened from the icon");
        QVERIFY(chooseItem(again, u"Up"_s));
        QVERIFY(process->waitForFinished(timeoutMs));
        QCOMPARE(control_->runs(), QList<QStringList>({{u"stop"_s}, {u"stop"_s}}));
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
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
                                     u"_NET_NUMBER_OF_DESKTOPS"_s, u"1"_s})
                    .has_value());
        const QString config = desktopDir_.path() + "/tint2rc"_L1;
        writeFile(config, "panel_items = S\npanel_size = 100% 32\npanel_position = bottom center horizontal\n"
                          "systray_padding = 2 2 2\nsystray_icon_size = 24\n");
        const auto startPanel = [&] { startDesktopProgram(u"tint2"_s, {u"-c"_s, config}); };
        if (panelFirst)
            startPanel();
        auto program = makeProgram();
        program->start(agent_.port());
        if (!panelFirst) {
            // The late panel is the case under test: its delay is the point, not a wait for something.
            QTest::qWait(3000);
            startPanel();
        }
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
        QCOMPARE(program->logMessages().filter(u"No system tray"_s).size(), 1);
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

        QStringList items; // each "<bus name>[/<object path>]"
        QTRY_VERIFY_WITH_TIMEOUT(!(items = busProperty(watcherService, u"/StatusNotifierWatcher"_s, watcherService,
                                                       u"RegisteredStatusNotifierItems"_s)
                                               .toStringList())
                                      .isEmpty(),
                                 timeoutMs);
        const QString service = items[0].section(u'/', 0, 0);
        const QString itemPath =
            items[0].mid(service.size()).isEmpty() ? u"/StatusNotifierItem"_s : items[0].mid(service.size());
        const QString path =
            busProperty(service, itemPath, u"org.kde.StatusNotifierItem"_s, u"Menu"_s).value<QDBusObjectPath>().path();
        QTRY_COMPARE_WITH_TIMEOUT(menuLabels(service, path).value(0), u"Status: Running"_s, timeoutMs);
        QCOMPARE(menuLabels(service, path),
                 QStringList({"Status: Running", "Version: 1.4.2", "-", "Start Agent", "Stop Agent", "-",
                              "Open Cloud Admin", "Check for Updates", "Open Local Admin", "Open Getting Started",
                              "Open Startup Status", "Open Logs", "-", "Run at Startup", "-", "Quit"}));
        // A plain click opens the menu without a pointer position Wayland cannot give. The program
        // answers its bus in order, so the next answer comes after the menu was asked for; and Qt gives
        // up at once when it cannot reach the compositor: still running, the program runs on Wayland.
        QDBusMessage activate =
            QDBusMessage::createMethodCall(service, itemPath, u"org.kde.StatusNotifierItem"_s, u"Activate"_s);
        activate.setArguments({0, 0});
        QCOMPARE(QDBusConnection::sessionBus().call(activate).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(menuLabels(service, path).value(0), u"Status: Running"_s);
        QCOMPARE(process->state(), QProcess::Running);
    }
};

QTEST_MAIN(DesktopTest)
#include "tst_Desktop.moc"
