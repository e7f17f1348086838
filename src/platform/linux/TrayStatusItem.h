// The status item as a system tray icon (a StatusNotifierItem with its menu on Linux desktops).
#pragma once

#include "platform/StatusItem.h"

#include <QMenu>
#include <QPointer>
#include <QSystemTrayIcon>

class TrayStatusItem : public StatusItem {
public:
    TrayStatusItem();
    ~TrayStatusItem() override;

    StatusButton *button() override { return &button_; }
    void setMenu(QMenu *menu) override;
    QMenu *menu() const override { return menu_; }

    QSystemTrayIcon &trayIcon() { return tray_; }

private:
    void apply();

    StatusButton button_;
    QSystemTrayIcon tray_;
    QPointer<QMenu> menu_;
    qint64 lastImageKey_ = 0;
};
