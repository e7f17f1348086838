// The status item as a Qt system tray icon with its menu, the same on every desktop; a platform
// that must wait for its tray, or opens the menu on a plain click, builds on it.
#pragma once

#include "platform/StatusItem.h"

#include <QImage>
#include <QMenu>
#include <QPointer>
#include <QSystemTrayIcon>
#include <memory>

class TrayStatusItem : public StatusItem {
public:
    enum class Start { Now, WhenHostReady };
    explicit TrayStatusItem(Start start = Start::Now);
    ~TrayStatusItem() override;

    StatusButton *button() override { return &button_; }
    void setMenu(QMenu *menu) override;
    QMenu *menu() const override { return menu_; }
    // As a message from the tray icon while a tray shows it (Qt's messages carry no buttons);
    // otherwise notifyWithoutTray.
    void notify(const QString &title, const QString &body, const QList<NotificationAction> &actions = {}) override;

protected:
    virtual void notifyWithoutTray(const QString &title, const QString &body, const QList<NotificationAction> &actions)
    {
        Q_UNUSED(title);
        Q_UNUSED(body);
        Q_UNUSED(actions);
    }
    // Makes the icon (once) and shows what the button holds; returns the icon.
    QSystemTrayIcon *createTrayIcon();
    QSystemTrayIcon *trayIcon() const { return tray_.get(); }

private:
    void apply();

    StatusButton button_;
    std::unique_ptr<QSystemTrayIcon> tray_; // null while the desktop has no tray to take it
    QPointer<QMenu> menu_;
    qint64 lastImageKey_ = 0;
    QImage shownLook_; // how the tray's icon looks; null while it has none
};
