// The status item as a system tray icon (a StatusNotifierItem with its menu on Linux desktops).
#pragma once

#include "platform/StatusItem.h"

#include <QImage>
#include <QMenu>
#include <QPointer>
#include <QSystemTrayIcon>
#include <memory>

class QDBusServiceWatcher;

class TrayStatusItem : public StatusItem {
public:
    TrayStatusItem();
    ~TrayStatusItem() override;

    StatusButton *button() override { return &button_; }
    void setMenu(QMenu *menu) override;
    QMenu *menu() const override { return menu_; }

private:
    void createTrayIcon();
    void apply();

    StatusButton button_;
    std::unique_ptr<QSystemTrayIcon> tray_; // null while the session waits for a tray host
    std::unique_ptr<QDBusServiceWatcher> hostWatcher_;
    QPointer<QMenu> menu_;
    qint64 lastImageKey_ = 0;
    QImage shownLook_; // how the tray's icon looks; null while it has none
};
