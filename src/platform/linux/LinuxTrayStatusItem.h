// The tray icon on a Linux desktop: made once the desktop has a tray to take it, opened by a plain
// click as well, and, when no tray appears, one notice to the user that the program still runs.
#pragma once

#include "platform/TrayStatusItem.h"
#include "platform/linux/DesktopNotifier.h"
#include "platform/linux/TrayHostWatcher.h"

#include <QTimer>

class LinuxTrayStatusItem : public TrayStatusItem {
public:
    LinuxTrayStatusItem();

protected:
    void notifyWithoutTray(const QString &title, const QString &body,
                           const QList<NotificationAction> &actions) override;

private:
    void start();
    void popUpMenu();

    TrayHostWatcher hostWatcher_;
    DesktopNotifier notifier_;
    QTimer noTrayNotice_;
};
