#include "platform/linux/DesktopNotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");

// Calls done, each handled by the receiver while it lives; nothing waits on the service.
template <typename Handler>
void callAsync(QObject *receiver, const QString &method, const QVariantList &arguments, Handler handler)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, interface, method);
    call.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), receiver);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, receiver, [watcher, handler] {
        watcher->deleteLater();
        handler(*watcher);
    });
}

} // namespace

void DesktopNotifier::notify(const QString &title, const QString &body, const QList<NotificationAction> &actions)
{
    if (actions.isEmpty()) {
        send(title, body, {});
        return;
    }
    callAsync(this, QStringLiteral("GetCapabilities"), {}, [this, title, body, actions](QDBusPendingCall &call) {
        const QDBusPendingReply<QStringList> capabilities = call;
        const bool showsButtons = capabilities.isValid() && capabilities.value().contains(QLatin1String("actions"));
        send(title, body, showsButtons ? actions : QList<NotificationAction>());
    });
}

void DesktopNotifier::send(const QString &title, const QString &body, const QList<NotificationAction> &actions)
{
    QStringList keysAndLabels;
    for (const NotificationAction &action : actions)
        keysAndLabels << action.key << action.label;
    if (!actions.isEmpty() && !listening_) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        listening_ = bus.connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                                 SLOT(actionInvoked(uint, QString))) &&
                     bus.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                                 SLOT(notificationClosed(uint)));
    }
    const QVariantList arguments{
        QStringLiteral("Quillmere Agent"), 0u, QString(), title, body, keysAndLabels, QVariantMap(), -1};
    callAsync(this, QStringLiteral("Notify"), arguments, [this, actions](QDBusPendingCall &call) {
        const QDBusPendingReply<uint> id = call;
        if (!actions.isEmpty() && id.isValid())
            shown_.insert(id.value(), actions);
    });
}

void DesktopNotifier::actionInvoked(uint id, const QString &key)
{
    for (const NotificationAction &action : shown_.value(id)) {
        if (action.key == key && action.invoke)
            action.invoke();
    }
}

void DesktopNotifier::notificationClosed(uint id)
{
    shown_.remove(id);
}
