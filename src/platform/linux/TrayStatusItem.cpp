#include "platform/linux/TrayStatusItem.h"

#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QGuiApplication>
#include <QMenu>

namespace {

const QString statusNotifierWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
// The side at which two icons are compared by look.
constexpr int comparisonSide = 18;

// Qt decides once per process, when the first tray icon is made, whether the desktop's tray speaks
// StatusNotifierItem; a "no" is never revisited. Programs started at login often run before the
// panel, so on a desktop session bus without a tray host yet the icon is made only once one appears.
bool mustWaitForTrayHost(QDBusServiceWatcher &watcher)
{
    const QString platform = QGuiApplication::platformName();
    if (platform == QLatin1String("offscreen") || platform == QLatin1String("minimal"))
        return false;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface())
        return false;
    // The watcher listens before the question is asked, so a host that appears in between is not missed.
    watcher.setConnection(bus);
    watcher.addWatchedService(statusNotifierWatcherService);
    return !bus.interface()->isServiceRegistered(statusNotifierWatcherService).value();
}

} // namespace

TrayStatusItem::TrayStatusItem()
{
    QObject::connect(&button_, &StatusButton::changed, &button_, [this] { apply(); });

    hostWatcher_ = std::make_unique<QDBusServiceWatcher>();
    hostWatcher_->setWatchMode(QDBusServiceWatcher::WatchForRegistration);
    if (!mustWaitForTrayHost(*hostWatcher_)) {
        hostWatcher_.reset();
        createTrayIcon();
        return;
    }
    QObject::connect(hostWatcher_.get(), &QDBusServiceWatcher::serviceRegistered, &button_, [this] {
        // Once made, Qt's icon follows a host that restarts on its own.
        hostWatcher_.release()->deleteLater();
        createTrayIcon();
        apply();
    });
}

TrayStatusItem::~TrayStatusItem()
{
    if (tray_)
        tray_->hide();
}

void TrayStatusItem::createTrayIcon()
{
    tray_ = std::make_unique<QSystemTrayIcon>();
    lastImageKey_ = 0; // the new icon has no image yet
    shownLook_ = QImage();
    if (menu_)
        tray_->setContextMenu(menu_);
    // A left click opens the menu as well, as a menu-bar status item does.
    QObject::connect(tray_.get(), &QSystemTrayIcon::activated, &button_,
                     [this](QSystemTrayIcon::ActivationReason reason) {
                         if (reason == QSystemTrayIcon::Trigger && menu_)
                             menu_->popup(QCursor::pos());
                     });
}

void TrayStatusItem::setMenu(QMenu *menu)
{
    menu_ = menu;
    if (tray_)
        tray_->setContextMenu(menu);
}

void TrayStatusItem::apply()
{
    if (!tray_)
        return;
    // Every state update hands the button a new image, mostly with the same look. Handing the
    // tray a new icon makes it re-render and re-send it (over D-Bus to the panel), so only a new
    // look is passed on; each new image is drawn once, at the side two looks are compared at.
    const qint64 imageKey = button_.image().cacheKey();
    if (imageKey != lastImageKey_) {
        lastImageKey_ = imageKey;
        QImage look = button_.image().isNull() ? QImage() : button_.image().pixmap(comparisonSide).toImage();
        if (look != shownLook_) {
            shownLook_ = std::move(look);
            tray_->setIcon(button_.image());
        }
    }
    if (tray_->toolTip() != button_.toolTip())
        tray_->setToolTip(button_.toolTip());
    // The icon is shown once it has something to show.
    if (!button_.image().isNull() && !tray_->isVisible())
        tray_->show();
}
