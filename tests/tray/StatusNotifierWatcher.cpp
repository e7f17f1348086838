#include "StatusNotifierWatcher.h"

#include <QDBusConnection>

namespace {
const QString watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString watcherPath = QStringLiteral("/StatusNotifierWatcher");
const QString defaultItemPath = QStringLiteral("/StatusNotifierItem");
} // namespace

StatusNotifierWatcher::~StatusNotifierWatcher()
{
    stop();
}

bool StatusNotifierWatcher::start()
{
    QDBusConnection &bus = bus_;
    if (!bus.registerObject(watcherPath, this,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties))
        return false;
    if (!bus.registerService(watcherService)) {
        bus.unregisterObject(watcherPath);
        return false;
    }
    started_ = true;
    emit StatusNotifierHostRegistered();
    return true;
}

void StatusNotifierWatcher::stop()
{
    if (!started_)
        return;
    QDBusConnection &bus = bus_;
    bus.unregisterService(watcherService);
    bus.unregisterObject(watcherPath);
    items_.clear();
    started_ = false;
}

QStringList StatusNotifierWatcher::registeredStatusNotifierItems() const
{
    QStringList names;
    for (const Item &item : items_)
        names.append(item.service + item.path);
    return names;
}

void StatusNotifierWatcher::RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message)
{
    // An item names either its bus name (object at the usual path) or only its object path.
    Item item =
        service.startsWith(QLatin1Char('/')) ? Item{message.service(), service} : Item{service, defaultItemPath};
    ++registrations_;
    const QString name = item.service + item.path;
    if (!registeredStatusNotifierItems().contains(name))
        items_.append(item);
    emit StatusNotifierItemRegistered(name);
}

void StatusNotifierWatcher::RegisterStatusNotifierHost(const QString &)
{
    emit StatusNotifierHostRegistered();
}
