#include "platform/TrayStatusItem.h"

namespace {

// The side at which two icons are compared by look.
constexpr int comparisonSide = 18;

} // namespace

TrayStatusItem::TrayStatusItem(Start start)
{
    QObject::connect(&button_, &StatusButton::changed, &button_, [this] { apply(); });
    if (start == Start::Now)
        createTrayIcon();
}

TrayStatusItem::~TrayStatusItem()
{
    if (tray_)
        tray_->hide();
}

QSystemTrayIcon *TrayStatusItem::createTrayIcon()
{
    if (tray_)
        return tray_.get();
    tray_ = std::make_unique<QSystemTrayIcon>();
    lastImageKey_ = 0; // the new icon has no image yet
    shownLook_ = QImage();
    if (menu_)
        tray_->setContextMenu(menu_);
    apply();
    return tray_.get();
}

void TrayStatusItem::setMenu(QMenu *menu)
{
    menu_ = menu;
    if (tray_)
        tray_->setContextMenu(menu);
}

void TrayStatusItem::notify(const QString &title, const QString &body, const QList<NotificationAction> &actions)
{
    if (tray_ && tray_->isVisible() && QSystemTrayIcon::isSystemTrayAvailable())
        tray_->showMessage(title, body);
    else
        notifyWithoutTray(title, body, actions);
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
