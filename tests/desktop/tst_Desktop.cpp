// The real program on the desktops a user may have, driven from outside as a panel and a user
// drive it: a stand-in status notifier watcher of the test's own that gives way to xfce4-panel (a
// StatusNotifierItem host), tint2 (an XEmbed tray only), no tray at all, and a Wayland session.
// Pointer and keys go through xdotool; what happened is read from the screen, the X window tree
// and the session bus. Each case runs on an X server and a session bus of its own (see
// CMakeLists.txt), named on the command line.
#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"
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
#include <QMenu>
#include <QMutex>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTest>
#include <QThread>
#include <QtEndian>
#include <atomic>
#include <functional>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeoutMs = 20000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;

// A panel's registry of tray items, kept as "<bus name>/<object path>". It answers from a thread
// and a connection of its own: this process's own icon asks it things while being asked itself.
class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)

public:
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"tray-host"_s);
    mutable std::atomic<bool> hasHost = false, hostAsked = false;

    QStringList items() const
    {
        QMutexLocker lock(&mutex_);
        return items_;
    }
    bool hostRegistered() const { return hostAsked = true, hasHost.load(); }
    // Takes or gives up the well-known name, as a panel that starts or exits.
    bool run(bool running)
    {
        bus.unregisterService(watcherService);
        return !running || (bus.registerObject(u"/StatusNotifierWatcher"_s, this, QDBusConnection::ExportAllContents) &&
                            bus.registerService(watcherService));
    }

signals:
    void StatusNotifierHostRegistered();

public slots:
    void RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message)
    {
        QMutexLocker lock(&mutex_);
        items_.append(service.startsWith(u'/') ? message.service() + service : service + "/StatusNotifierItem"_L1);
    }

private:
    mutable QMutex mutex_;
    QStringList items_;
};

// A panel's side of one tray item: its properties and its exported menu.
class TrayClient {
public:
    explicit TrayClient(const QString &item) : service_(item.section(u'/', 0, 0)), path_(item.mid(service_.size()))
    {
        if (path_.isEmpty())
            path_ = u"/StatusNotifierItem"_s;
    }

    // Each top-level entry as a panel shows it: "-" a separator, "(...)" disabled, "[x]"/"[ ]" a
    // check mark on or off, "+icon" an icon beside it; with its id.
    QList<std::pair<int, QString>> layout() const
    {
        const QDBusMessage reply = call(menuPath(), menuInterface, u"GetLayout"_s, {0, -1, QStringList()});
        QList<std::pair<int, QString>> entries;
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2)
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
            QVariantList children;
            item.beginStructure();
            item >> id >> p >> children;
            item.endStructure();
            QString shown = p.value(u"type"_s) == "separator"_L1 ? u"-"_s : p.value(u"label"_s).toString();
            if (!p.value(u"enabled"_s, true).toBool())
                shown = u'(' + shown + u')';
            if (p.value(u"toggle-type"_s) == "checkmark"_L1)
                shown += p.value(u"toggle-state"_s).toInt() == 1 ? " [x]"_L1 : " [ ]"_L1;
            if (p.contains(u"icon-data"_s) || p.contains(u"icon-name"_s))
                shown += " +icon"_L1;
            entries.append({id, shown});
        }
        return entries;
    }
    QStringList shown() const
    {
        QStringList shown;
        for (const auto &entry : layout())
            shown.append(entry.second);
        return shown;
    }
    bool click(const QString &label) const
    {
        for (const auto &[id, shown] : layout())
            if (shown.startsWith(label))
                return call(menuPath(), menuInterface, u"Event"_s,
                            {id, u"clicked"_s, QVariant::fromValue(QDBusVariant(0)), 0u})
                           .type() == QDBusMessage::ReplyMessage;
        return false;
    }
    // A primary click on the icon.
    bool activate() const
    {
        return call(path_, itemInterface, u"Activate"_s, {0, 0}).type() == QDBusMessage::ReplyMessage;
    }
    QString menuPath() const { return property(u"Menu"_s).value<QDBusObjectPath>().path(); }
    // The largest image of the exported icon: a(iiay), network byte order ARGB, not premultiplied.
    QImage iconPixmap() const
    {
        const QDBusArgument argument = property(u"IconPixmap"_s).value<QDBusArgument>();
        QImage largest;
        argument.beginArray();
        while (!argument.atEnd()) {
            int width = 0, height = 0;
            QByteArray data;
            argument.beginStructure();
            argument >> width >> height >> data;
            argument.endStructure();
            if (width <= largest.width() || data.size() < qsizetype(width) * height * 4)
                continue;
            largest = QImage(width, height, QImage::Format_ARGB32);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    largest.setPixel(x, y, qFromBigEndian<quint32>(data.constData() + 4 * (y * width + x)));
        }
        argument.endArray();
        return largest;
    }
    QString toolTipTitle() const
    {
        // (s a(iiay) s s): icon name, pixmaps, title, text.
        const QDBusArgument argument = property(u"ToolTip"_s).value<QDBusArgument>();
        QString text;
        if (argument.currentType() != QDBusArgument::StructureType)
            return text;
        argument.beginStructure();
        argument >> text;
        argument.beginArray();
        while (!argument.atEnd()) {
            int size = 0;
            QByteArray data;
            argument.beginStructure();
            argument >> size >> size >> data;
            argument.endStructure();
        }
        argument.endArray();
        argument >> text;
        return text;
    }

private:
    static inline const QString itemInterface = u"org.kde.StatusNotifierItem"_s;
    static inline const QString menuInterface = u"com.canonical.dbusmenu"_s;

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
bool isBadgeCyan(QRgb pixel)
{
    const QColor c(pixel);
    return c.blue() - c.red() > 50 && c.green() - c.red() > 30 && qAbs(c.green() - c.blue()) < 80;
}
bool isBadgeGrey(QRgb pixel)
{
    const QColor c(pixel);
    return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25 && c.value() > 40 && c.value() < 150;
}
// The bounds of the points in an area that match, and how many match.
QRect matching(const QRect &area, const std::function<bool(int, int)> &matches, int *count = nullptr)
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

// The whole menu while the agent runs, as a panel shows it (see TrayClient::layout).
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

    void xfcePanel()
    {
        // First a stand-in panel whose host registers a moment after its watcher, as at login: the
        // program, already running, registers once the host is there.
        QThread hostThread;
        StatusNotifierWatcher *watcher = new StatusNotifierWatcher;
        watcher->moveToThread(&hostThread);
        connect(&hostThread, &QThread::finished, watcher, &QObject::deleteLater);
        hostThread.start();
        const auto runWatcher = [&](bool running) {
            bool done = false;
            QMetaObject::invokeMethod(
                watcher, [&] { done = watcher->run(running); }, Qt::BlockingQueuedConnection);
            return done;
        };
        const auto stopThread = qScopeGuard([&] { hostThread.quit(), hostThread.wait(); });
        QVERIFY(runWatcher(true));
        auto program = makeProgram();
        QProcess *process = program->start(agent_.port());
        QTRY_VERIFY_WITH_TIMEOUT(watcher->hostAsked, timeoutMs);
        QVERIFY(watcher->items().isEmpty());
        watcher->hasHost = true;
        QMetaObject::invokeMethod(watcher, &StatusNotifierWatcher::StatusNotifierHostRegistered,
                                  Qt::BlockingQueuedConnection);
        QTRY_COMPARE_WITH_TIMEOUT(watcher->items().size(), 1, timeoutMs);
        TrayClient tray(watcher->items()[0]);
        QCOMPARE(tray.menuPath(), u"/MenuBar"_s);
        QTRY_COMPARE_WITH_TIMEOUT(tray.shown(), fullMenu, timeoutMs);
        // The tool tip, and the exported icon in the badge's own 18-point grid: a light cyan mark
        // (its upper stroke near (12, 9)) on a dark cyan fill (inside the lower right corner, where
        // the gradient starts) while running, light grey on mid grey when offline.
        const auto checkBadge = [&](bool running) {
            QTRY_COMPARE_WITH_TIMEOUT(tray.toolTipTitle(),
                                      running ? u"Quillmere Agent is running"_s : u"Quillmere Agent is offline"_s,
                                      timeoutMs);
            const QImage image = tray.iconPixmap();
            const auto at = [&](double x, double y) {
                return image.pixelColor(int(x * image.width() / 18), int(y * image.width() / 18));
            };
            const QColor mark = at(11.6, 8.6), fill = at(14.3, 14.3);
            const auto cyan = [](const QColor &c, int margin) {
                return c.blue() - c.red() > margin && c.green() - c.red() > margin / 2;
            };
            const auto grey = [](const QColor &c) {
                return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25;
            };
            const QByteArray what =
                u"%1 px, mark %2, fill %3"_s.arg(image.width()).arg(mark.name(), fill.name()).toUtf8();
            QVERIFY2(!image.isNull() && at(0.2, 0.2).alpha() < 40, what);
            if (running)
                QVERIFY2(cyan(mark, 60) && mark.red() > 100 && cyan(fill, 40) && fill.value() < 140, what);
            else
                QVERIFY2(grey(mark) && mark.red() > 150 && grey(fill) && fill.value() > 40 && fill.value() < 150, what);
        };
        checkBadge(true);
        // The state line and the Start and Stop items.
        const auto waitForMenu = [&](const QStringList &expected) {
            const auto look = [&] {
                const QStringList s = tray.shown();
                return QStringList{s.value(0), s.value(3), s.value(4)};
            };
            QTRY_COMPARE_WITH_TIMEOUT(look(), expected, timeoutMs);
        };

        // Every location item, with what the recording xdg-open was handed.
        const QString runtime = program->runtimeDir();
        const QList<std::pair<QString, QString>> locations = {
            {u"Open Local Admin"_s, u"http://127.0.0.1:%1/"_s.arg(agent_.port())},
            {u"Open Cloud Admin"_s, u"https://"_s},
            {u"Check for Updates"_s, u"https://"_s},
            {u"Open Getting Started"_s, runtime + "/welcome.html"_L1},
            {u"Open Startup Status"_s, runtime + "/startup-status.html"_L1},
            {u"Open Logs"_s, program->homeOf(u"first"_s) + "/.local/share/TallyholdAgent/runtime/logs"_L1}};
        for (const auto &[label, location] : locations) {
            const qsizetype before = program->openedLocations().size();
            QVERIFY(tray.click(label));
            QTRY_COMPARE_WITH_TIMEOUT(program->openedLocations().size(), before + 1, timeoutMs);
            const QString opened = program->openedLocations().constLast();
            QVERIFY2(location.endsWith(u'/') ? opened.startsWith(location) : opened == location, qPrintable(opened));
        }
        // Run at Startup writes and removes the autostart entry, its check mark following.
        const QString entry = program->configHomeOf(u"first"_s) + "/autostart/com.tallyhold.agent.app.desktop"_L1;
        for (const bool on : {true, false}) {
            QVERIFY(tray.click(u"Run at Startup"_s));
            QTRY_COMPARE_WITH_TIMEOUT(QFile::exists(entry), on, timeoutMs);
            QTRY_COMPARE_WITH_TIMEOUT(tray.shown().value(13), on ? u"Run at Startup [x]"_s : u"Run at Startup [ ]"_s,
                                      timeoutMs);
        }
        {
            // The mixed check state as a panel sees it, on an icon of this process's own: dbusmenu
            // knows an indeterminate toggle state, but Qt only ever sends 0 or 1, so the mixed state
            // arrives as unchecked, told apart by the dash drawn as the item's icon.
            QMenu menu;
            QAction *item = menu.addAction(u"Run at Startup"_s);
            QSystemTrayIcon icon(makeBrandStatusImage(false));
            icon.setContextMenu(&menu);
            icon.show();
            QTRY_COMPARE(watcher->items().size(), 2);
            const TrayClient own(watcher->items()[1]);
            for (const auto &[state, shown] : QList<std::pair<int, QString>>{{menuItemStateMixed, u"[ ] +icon"_s},
                                                                             {menuItemStateOn, u"[x]"_s},
                                                                             {menuItemStateMixed, u"[ ] +icon"_s},
                                                                             {menuItemStateOff, u"[ ]"_s}}) {
                setMenuItemCheckState(item, state);
                QTRY_COMPARE_WITH_TIMEOUT(own.shown(), QStringList{"Run at Startup "_L1 + shown}, 5000);
            }
        }

        // The stand-in panel exits and xfce4-panel takes its place: the icon moves to the real panel,
        // where the running badge is drawn and holds still.
        QVERIFY(runWatcher(false));
        startXfcePanel();
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
        savePicture(screen, u"xfce-panel-running.png"_s);
        tray = TrayClient(registeredItems().value(0));

        // A click opens the menu; the first item a user can choose while the agent runs is "Stop
        // Agent", which is disabled while its stop runs.
        QRect menu;
        QImage menuShown = openMenu(badge.center(), &menu);
        QVERIFY2(!menu.isEmpty(), "no menu opened from the icon");
        // The panel and the menu, for the README.
        savePicture(
            menuShown.copy(QRect(QPoint(0, 0), menu.bottomRight() + QPoint(200, 12)).intersected(menuShown.rect())),
            u"panel-menu.png"_s);
        QVERIFY(chooseItem(menuShown, u"Down"_s));
        QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>{{u"stop"_s}}, timeoutMs);
        agent_.setHealthDown();
        control_->release(u"stop"_s);
        waitForMenu({u"(Status: Stopped)"_s, u"Start Agent"_s, u"(Stop Agent)"_s});
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                screen = grabScreen();
                return countIn(screen, badge, isBadgeCyan) == 0 &&
                       countIn(screen, badge, isBadgeGrey) > badge.width() * badge.height() / 4;
            }(),
            timeoutMs);
        savePicture(screen, u"xfce-panel-offline.png"_s);
        checkBadge(false);

        // A start from the menu shows the startup status page and the version the agent reports.
        QVERIFY(tray.click(u"Start Agent"_s));
        QTRY_COMPARE_WITH_TIMEOUT(control_->runs(), QList<QStringList>({{u"stop"_s}, {u"start"_s}}), timeoutMs);
        waitForMenu({u"(Status: Starting...)"_s, u"(Start Agent)"_s, u"(Stop Agent)"_s});
        QTRY_COMPARE_WITH_TIMEOUT(program->openedLocations().constLast(), locations[4].second, timeoutMs);
        agent_.setHealthy(u"1.5.0"_s);
        control_->release(u"start"_s);
        waitForMenu({u"(Status: Running)"_s, u"(Start Agent)"_s, u"Stop Agent"_s});
        QCOMPARE(tray.shown().value(1), u"(Version: 1.5.0)"_s);

        // Quit is the last item; it stops the agent once more, then the program exits.
        menuShown = openMenu(badge.center(), &menu);
        QVERIFY2(!menu.isEmpty(), "no menu opened from the icon");
        QVERIFY(chooseItem(menuShown, u"Up"_s));
        QVERIFY(process->waitForFinished(timeoutMs));
        QCOMPARE(control_->runs(), QList<QStringList>({{u"stop"_s}, {u"start"_s}, {u"stop"_s}}));
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        const QStringList log = program->logMessages();
        QCOMPARE(log.filter(u"State updated: Status: Stopping and Scanning..."_s).size(), 1);
        QCOMPARE(log.constLast(), u"Application will terminate."_s);
    }

    // xfce4-panel already there when the program starts: the icon goes straight onto it.
    void xfcePanelBeforeTheProgram()
    {
        startXfcePanel();
        auto program = makeProgram();
        QProcess *process = program->start(agent_.port());
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                const QImage now = grabScreen();
                const QRect found = matching(now.rect(), [&](int x, int y) { return isBadgeCyan(now.pixel(x, y)); });
                return found.width() >= 8 && found.height() >= 8;
            }(),
            timeoutMs);
        control_->release(u"stop"_s);
        process->terminate();
        QVERIFY(process->waitForFinished(timeoutMs));
        QCOMPARE(process->exitCode(), 0);
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
