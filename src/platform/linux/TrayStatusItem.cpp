#include "platform/linux/TrayStatusItem.h"

#include <QCursor>
#include <QMenu>

TrayStatusItem::TrayStatusItem()
{
    QObject::connect(&button_, &StatusButton::changed, &tray_, [this] { apply(); });
    // A left click opens the menu as well, as a menu-bar status item does.
    QObject::connect(&tray_, &QSystemTrayIcon::activated, &tray_, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && menu_)
            menu_->popup(QCursor::pos());
    });
}

TrayStatusItem::~TrayStatusItem()
{
    tray_.hide();
}

void TrayStatusItem::setMenu(QMenu *menu)
{
    menu_ = menu;
    tray_.setContextMenu(menu);
}

namespace {

// The side at which two icons are compared by look.
constexpr int comparisonSide = 18;

bool looksTheSame(const QIcon &a, const QIcon &b)
{
    if (a.isNull() || b.isNull())
        return a.isNull() == b.isNull();
    return a.pixmap(comparisonSide).toImage() == b.pixmap(comparisonSide).toImage();
}

} // namespace

void TrayStatusItem::apply()
{
    // Every state update hands the button a new image, mostly with the same look. Handing the
    // tray a new icon makes it re-render and re-send it (over D-Bus to the panel), so only a new
    // look is passed on; each new image is compared once.
    const qint64 imageKey = button_.image().cacheKey();
    if (imageKey != lastImageKey_) {
        lastImageKey_ = imageKey;
        if (!looksTheSame(tray_.icon(), button_.image()))
            tray_.setIcon(button_.image());
    }
    if (tray_.toolTip() != button_.toolTip())
        tray_.setToolTip(button_.toolTip());
    // The icon is shown once it has something to show; a tray without a host keeps it hidden.
    if (!button_.image().isNull() && !tray_.isVisible())
        tray_.show();
}
