#include "platform/linux/TrayHostWatcher.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QGuiApplication>
#include <xcb/xcb.h>

namespace {

const QString statusNotifierWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString statusNotifierWatcherPath = QStringLiteral("/StatusNotifierWatcher");
// Only for a desktop whose announcements cannot be heard: otherwise nothing wakes the watcher
// while no tray is there, however long that lasts.
constexpr int fallbackCheckIntervalMs = 30000;

xcb_connection_t *x11Connection()
{
    const auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->connection() : nullptr;
}

xcb_atom_t internAtom(xcb_connection_t *connection, const QByteArray &name)
{
    xcb_intern_atom_reply_t *reply =
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, name.size(), name.constData()), nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    free(reply);
    return atom;
}

} // namespace

TrayHostWatcher::TrayHostWatcher(QObject *parent) : QObject(parent)
{
    connect(&busWatcher_, &QDBusServiceWatcher::serviceRegistered, this, &TrayHostWatcher::check);
    fallbackCheck_.setInterval(fallbackCheckIntervalMs);
    connect(&fallbackCheck_, &QTimer::timeout, this, &TrayHostWatcher::check);
}

TrayHostWatcher::~TrayHostWatcher()
{
    if (watching_ && traySelection_)
        qGuiApp->removeNativeEventFilter(this);
}

bool TrayHostWatcher::hostPresent() const
{
    return statusNotifierHostRegistered() || xembedTrayOwned();
}

// What Qt asks when it makes the icon: a watcher alone is not enough, a host that shows the items
// must have registered with it.
bool TrayHostWatcher::statusNotifierHostRegistered() const
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface() ||
        !bus.interface()->isServiceRegistered(statusNotifierWatcherService).value())
        return false;
    QDBusMessage get =
        QDBusMessage::createMethodCall(statusNotifierWatcherService, statusNotifierWatcherPath,
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get.setArguments({statusNotifierWatcherService, QStringLiteral("IsStatusNotifierHostRegistered")});
    const QDBusMessage reply = bus.call(get);
    return !reply.arguments().isEmpty() && reply.arguments().constFirst().value<QDBusVariant>().variant().toBool();
}

void TrayHostWatcher::watch()
{
    if (watching_)
        return;
    watching_ = true;
    bool deaf = false; // to an announcement some tray would make
    if (xcb_connection_t *connection = x11Connection()) {
        // The screen Qt connected to: the one DISPLAY names. A new tray's MANAGER message goes to
        // the root windows' structure listeners, which Qt's xcb backend already is on every screen.
        int screenNumber = 0;
        char *host = nullptr;
        int display = 0;
        if (xcb_parse_display(nullptr, &host, &display, &screenNumber) == 0)
            screenNumber = 0;
        free(host);
        traySelection_ = internAtom(connection, "_NET_SYSTEM_TRAY_S" + QByteArray::number(screenNumber));
        managerAtom_ = internAtom(connection, "MANAGER");
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        busWatcher_.setConnection(bus);
        busWatcher_.setWatchMode(QDBusServiceWatcher::WatchForRegistration);
        // Listening starts before the first question, so a host that appears in between is not missed.
        busWatcher_.addWatchedService(statusNotifierWatcherService);
        // A panel registers its watcher first and its host a moment later.
        deaf |= !bus.connect(statusNotifierWatcherService, statusNotifierWatcherPath, statusNotifierWatcherService,
                             QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(check()));
    }
    if (traySelection_)
        qGuiApp->installNativeEventFilter(this);
    if (deaf)
        fallbackCheck_.start();
    check();
}

bool TrayHostWatcher::xembedTrayOwned() const
{
    xcb_connection_t *connection = x11Connection();
    if (!connection || !traySelection_)
        return false;
    xcb_get_selection_owner_reply_t *reply =
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, traySelection_), nullptr);
    const bool owned = reply && reply->owner != XCB_WINDOW_NONE;
    free(reply);
    return owned;
}

void TrayHostWatcher::check()
{
    if (!watching_)
        return;
    if (!hostPresent())
        return;
    watching_ = false;
    fallbackCheck_.stop();
    busWatcher_.setWatchedServices({});
    QDBusConnection::sessionBus().disconnect(statusNotifierWatcherService, statusNotifierWatcherPath,
                                             statusNotifierWatcherService,
                                             QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(check()));
    if (traySelection_)
        qGuiApp->removeNativeEventFilter(this);
    emit hostAppeared();
}

bool TrayHostWatcher::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (eventType != "xcb_generic_event_t")
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) == XCB_CLIENT_MESSAGE) {
        const auto *client = static_cast<const xcb_client_message_event_t *>(message);
        if (client->type == managerAtom_ && client->format == 32 && client->data.data32[1] == traySelection_)
            QMetaObject::invokeMethod(this, &TrayHostWatcher::check, Qt::QueuedConnection);
    }
    return false;
}
