#include "platform/linux/LinuxTrayStatusItem.h"

#include "app/log/AppLogger.h"

#include <QCursor>
#include <QGuiApplication>
#include <QScreen>

namespace {

// Long enough for a panel started in the same login to come up.
constexpr int noTrayNoticeDelayMs = 10000;
const QString noTrayTitle = QStringLiteral("Quillmere Agent runs without a tray icon");
const QString noTrayBody =
    QStringLiteral("No system tray was found, so the Quillmere Agent icon cannot be shown. The agent keeps being "
                   "supervised. To quit, send SIGTERM to quillmere-menu or log out: either stops the agent first. "
                   "On GNOME, install an AppIndicator/KStatusNotifierItem extension to see the icon.");

// Qt's headless platforms have no tray to wait for.
bool onDesktop()
{
    const QString platform = QGuiApplication::platformName();
    return platform != QLatin1String("offscreen") && platform != QLatin1String("minimal");
}

} // namespace

// Qt settles once per process, when the first tray icon is made, whether the tray speaks
// StatusNotifierItem or XEmbed, and never looks again: the icon is made only once the desktop has
// a tray, so that a panel started after the program (as at login) is still used the way it talks.
LinuxTrayStatusItem::LinuxTrayStatusItem() : TrayStatusItem(Start::WhenHostReady)
{
    if (!onDesktop()) {
        start();
        return;
    }
    QObject::connect(&hostWatcher_, &TrayHostWatcher::hostAppeared, &hostWatcher_, [this] { start(); });
    noTrayNotice_.setSingleShot(true);
    noTrayNotice_.setInterval(noTrayNoticeDelayMs);
    QObject::connect(&noTrayNotice_, &QTimer::timeout, &hostWatcher_, [this] {
        AppLogger::shared().log(QStringLiteral("No system tray found after 10 seconds; the agent keeps being "
                                               "supervised. Send SIGTERM or log out to quit."));
        notifier_.notify(noTrayTitle, noTrayBody);
    });
    noTrayNotice_.start();
    hostWatcher_.watch();
}

void LinuxTrayStatusItem::notifyWithoutTray(const QString &title, const QString &body,
                                            const QList<NotificationAction> &actions)
{
    notifier_.notify(title, body, actions);
}

void LinuxTrayStatusItem::start()
{
    noTrayNotice_.stop();
    QSystemTrayIcon *tray = createTrayIcon();
    // A plain click opens the menu as well, as a menu-bar status item does. (A StatusNotifierItem
    // host shows the menu itself on a secondary click; Qt's XEmbed icon does so on a right click.)
    QObject::connect(tray, &QSystemTrayIcon::activated, tray, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            popUpMenu();
    });
}

void LinuxTrayStatusItem::popUpMenu()
{
    QMenu *shown = menu();
    if (!shown)
        return;
    // On X11 the pointer is where the click was. A Wayland client cannot know where the pointer is
    // outside its own windows, and the compositor places a popup that has no parent surface, so no
    // pointer position is asked for there.
    if (QGuiApplication::platformName() == QLatin1String("xcb")) {
        shown->popup(QCursor::pos());
    } else {
        const QScreen *screen = QGuiApplication::primaryScreen();
        shown->popup(screen ? screen->availableGeometry().center() : QPoint());
    }
}
