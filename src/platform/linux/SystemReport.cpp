// The Linux desktop as a diagnosis sees it: the tray hosts on the session bus and the X server,
// the notification service, and the XDG autostart entry.
#include "platform/SystemReport.h"

#include "app/Configuration.h"
#include "platform/LoginItemService.h"
#include "platform/linux/AutostartLoginItemService.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QJsonArray>
#include <xcb/xcb.h>

namespace {

// A panel answers at once; a bus that does not is itself the finding.
constexpr int busTimeoutMs = 1000;

QDBusMessage callSession(const QString &service, const QString &path, const QString &interface, const QString &method,
                         const QVariantList &arguments = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return QDBusConnection::sessionBus().call(message, QDBus::Block, busTimeoutMs);
}

bool xembedTrayOwned()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return false;
    int screen = 0;
    xcb_connection_t *connection = xcb_connect(nullptr, &screen);
    bool owned = false;
    if (!xcb_connection_has_error(connection)) {
        const QByteArray name = "_NET_SYSTEM_TRAY_S" + QByteArray::number(screen);
        if (xcb_intern_atom_reply_t *atom = xcb_intern_atom_reply(
                connection, xcb_intern_atom(connection, 1, uint16_t(name.size()), name.constData()), nullptr)) {
            if (atom->atom != XCB_ATOM_NONE) {
                if (xcb_get_selection_owner_reply_t *owner = xcb_get_selection_owner_reply(
                        connection, xcb_get_selection_owner(connection, atom->atom), nullptr)) {
                    owned = owner->owner != XCB_WINDOW_NONE;
                    free(owner);
                }
            }
            free(atom);
        }
    }
    xcb_disconnect(connection);
    return owned;
}

} // namespace

QJsonObject describeDesktop()
{
    const QString watcher = QStringLiteral("org.kde.StatusNotifierWatcher");
    const QDBusMessage host = callSession(watcher, QStringLiteral("/StatusNotifierWatcher"),
                                          QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"),
                                          {watcher, QStringLiteral("IsStatusNotifierHostRegistered")});
    const bool watcherPresent = host.type() == QDBusMessage::ReplyMessage;
    const bool hostRegistered = watcherPresent && host.arguments().value(0).value<QDBusVariant>().variant().toBool();
    const bool xembed = xembedTrayOwned();
    const QDBusMessage notifications =
        callSession(QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
                    QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("GetCapabilities"));
    const bool notificationService = notifications.type() == QDBusMessage::ReplyMessage;
    return {{QStringLiteral("sessionBus"), QDBusConnection::sessionBus().isConnected()},
            {QStringLiteral("statusNotifierWatcher"), watcherPresent},
            {QStringLiteral("statusNotifierHost"), hostRegistered},
            {QStringLiteral("xembedTray"), xembed},
            {QStringLiteral("trayHost"), hostRegistered ? QStringLiteral("StatusNotifierItem")
                                         : xembed       ? QStringLiteral("XEmbed")
                                                        : QStringLiteral("none")},
            {QStringLiteral("notifications"), notificationService},
            {QStringLiteral("notificationCapabilities"),
             QJsonArray::fromStringList(notificationService ? notifications.arguments().value(0).toStringList()
                                                            : QStringList())}};
}

QJsonObject describeRunAtStartup(const Configuration &configuration)
{
    const AutostartLoginItemService autostart(configuration.configDirectory, configuration.bundleIdentifier,
                                              configuration.executablePath.value_or(QString()), nullptr);
    return {{QStringLiteral("mechanism"), QStringLiteral("XDG autostart entry")},
            {QStringLiteral("file"), autostart.entryPath()},
            {QStringLiteral("enabled"), autostart.status() == LoginItemService::statusEnabled}};
}
