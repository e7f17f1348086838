// Notices through the desktop's notification service (org.freedesktop.Notifications), with
// buttons where the service announces that it shows them.
#pragma once

#include "platform/StatusItem.h"

#include <QHash>
#include <QObject>

class DesktopNotifier : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // A session without the service shows nothing; one without the "actions" capability shows
    // the notice without its buttons.
    void notify(const QString &title, const QString &body, const QList<NotificationAction> &actions = {});

private slots:
    void actionInvoked(uint id, const QString &key);
    void notificationClosed(uint id);

private:
    void send(const QString &title, const QString &body, const QList<NotificationAction> &actions);

    // The buttons of notices still on screen, by the id the service gave each.
    QHash<uint, QList<NotificationAction>> shown_;
    bool listening_ = false;
};
