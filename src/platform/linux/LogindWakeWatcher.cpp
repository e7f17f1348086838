#include "platform/linux/LogindWakeWatcher.h"

#include "platform/WorkspaceNotificationCenter.h"

#include <QDBusConnection>

LogindWakeWatcher::LogindWakeWatcher(WorkspaceNotificationCenter *center, QObject *parent)
    : QObject(parent), center_(center)
{
    QDBusConnection::systemBus().connect(QStringLiteral("org.freedesktop.login1"),
                                         QStringLiteral("/org/freedesktop/login1"),
                                         QStringLiteral("org.freedesktop.login1.Manager"),
                                         QStringLiteral("PrepareForSleep"), this, SLOT(prepareForSleep(bool)));
}

void LogindWakeWatcher::prepareForSleep(bool goingToSleep)
{
    if (!goingToSleep && center_)
        center_->post(WorkspaceNotification::didWake);
}
