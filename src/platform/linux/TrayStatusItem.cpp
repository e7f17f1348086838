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

void TrayStatusItem::apply()
{
    if (tray_.icon().cacheKey() != button_.image().cacheKey())
        tray_.setIcon(button_.image());
    if (tray_.toolTip() != button_.toolTip())
        tray_.setToolTip(button_.toolTip());
    // The icon is shown once it has something to show; a tray without a host keeps it hidden.
    if (!button_.image().isNull() && !tray_.isVisible())
        tray_.show();
}
