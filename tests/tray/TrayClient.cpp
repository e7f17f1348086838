#include "TrayClient.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>
#include <QTimer>
#include <QtEndian>
#include <algorithm>

namespace {

const QString itemInterface = QStringLiteral("org.kde.StatusNotifierItem");
const QString menuInterface = QStringLiteral("com.canonical.dbusmenu");
// Waits with events running: the fake agent and the watcher live in the caller's thread, and the
// program may be asking them something while it is being asked.
constexpr int callTimeoutMs = 5000;

QDBusMessage callMethod(const QString &service, const QString &path, const QString &interface, const QString &method,
                        const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    // Not QDBus::BlockWithGui: once, under load, such a call never returned and the suite sat
    // until its time-out. A pending-call watcher reports a reply that came before it was made,
    // and our own deadline bounds the wait whatever the bus does.
    QDBusPendingCallWatcher watcher(QDBusConnection::sessionBus().asyncCall(message, callTimeoutMs));
    if (!watcher.isFinished()) {
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(callTimeoutMs + 1000, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (!watcher.isFinished())
        return QDBusMessage::createError(QDBusError::Timeout, QStringLiteral("no reply"));
    return watcher.reply();
}

TrayMenuEntry readEntry(const QDBusArgument &argument, QList<TrayMenuEntry> *children)
{
    TrayMenuEntry entry;
    QVariantMap properties;
    argument.beginStructure();
    argument >> entry.id >> properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        const TrayMenuEntry childEntry = readEntry(child.variant().value<QDBusArgument>(), nullptr);
        if (children)
            children->append(childEntry);
    }
    argument.endArray();
    argument.endStructure();

    if (properties.value(QStringLiteral("type")).toString() == QLatin1String("separator"))
        entry.label = QStringLiteral("-");
    else
        entry.label = properties.value(QStringLiteral("label")).toString();
    entry.enabled = properties.value(QStringLiteral("enabled"), true).toBool();
    entry.visible = properties.value(QStringLiteral("visible"), true).toBool();
    entry.toggleType = properties.value(QStringLiteral("toggle-type")).toString();
    entry.toggleState = properties.value(QStringLiteral("toggle-state"), -1).toInt();
    entry.hasIcon =
        properties.contains(QStringLiteral("icon-data")) || properties.contains(QStringLiteral("icon-name"));
    return entry;
}

// An a(iiay) list of pixmaps: network byte order ARGB, not premultiplied.
QList<QImage> readPixmaps(const QDBusArgument &argument)
{
    QList<QImage> images;
    argument.beginArray();
    while (!argument.atEnd()) {
        int width = 0;
        int height = 0;
        QByteArray data;
        argument.beginStructure();
        argument >> width >> height >> data;
        argument.endStructure();
        if (width <= 0 || height <= 0 || data.size() < qsizetype(width) * height * 4)
            continue;
        QImage image(width, height, QImage::Format_ARGB32);
        const auto *pixels = reinterpret_cast<const uchar *>(data.constData());
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                image.setPixel(x, y, qFromBigEndian<quint32>(pixels + 4 * (y * width + x)));
        images.append(image);
    }
    argument.endArray();
    return images;
}

} // namespace

TrayClient::TrayClient(QString service, QString itemPath) : service_(std::move(service)), itemPath_(std::move(itemPath))
{
}

QVariant TrayClient::itemProperty(const QString &name) const
{
    const QDBusMessage reply = callMethod(service_, itemPath_, QStringLiteral("org.freedesktop.DBus.Properties"),
                                          QStringLiteral("Get"), {itemInterface, name});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return {};
    return reply.arguments().constFirst().value<QDBusVariant>().variant();
}

QString TrayClient::menuPath() const
{
    return itemProperty(QStringLiteral("Menu")).value<QDBusObjectPath>().path();
}

QList<TrayMenuEntry> TrayClient::layout() const
{
    const QDBusMessage reply =
        callMethod(service_, menuPath(), menuInterface, QStringLiteral("GetLayout"), {0, -1, QStringList()});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2)
        return {};
    QList<TrayMenuEntry> entries;
    readEntry(reply.arguments().at(1).value<QDBusArgument>(), &entries);
    return entries;
}

QStringList TrayClient::labels() const
{
    QStringList labels;
    for (const TrayMenuEntry &entry : layout())
        labels.append(entry.label);
    return labels;
}

TrayMenuEntry TrayClient::entry(const QString &label) const
{
    const QList<TrayMenuEntry> entries = layout();
    const auto found =
        std::find_if(entries.begin(), entries.end(), [&](const TrayMenuEntry &entry) { return entry.label == label; });
    return found == entries.end() ? TrayMenuEntry{-1, {}, false, false, {}, -1, false} : *found;
}

bool TrayClient::click(const QString &label) const
{
    const TrayMenuEntry target = entry(label);
    if (target.id < 0)
        return false;
    const QDBusMessage reply =
        callMethod(service_, menuPath(), menuInterface, QStringLiteral("Event"),
                   {target.id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0u});
    return reply.type() == QDBusMessage::ReplyMessage;
}

bool TrayClient::activate(int x, int y) const
{
    const QDBusMessage reply = callMethod(service_, itemPath_, itemInterface, QStringLiteral("Activate"), {x, y});
    return reply.type() == QDBusMessage::ReplyMessage;
}

QList<QImage> TrayClient::iconPixmaps() const
{
    const QVariant value = itemProperty(QStringLiteral("IconPixmap"));
    if (!value.isValid())
        return {};
    QList<QImage> images = readPixmaps(value.value<QDBusArgument>());
    std::sort(images.begin(), images.end(), [](const QImage &a, const QImage &b) { return a.width() < b.width(); });
    return images;
}

QString TrayClient::toolTipTitle() const
{
    const QVariant value = itemProperty(QStringLiteral("ToolTip"));
    if (!value.isValid())
        return {};
    const QDBusArgument argument = value.value<QDBusArgument>();
    QString iconName;
    QString title;
    QString subTitle;
    argument.beginStructure();
    argument >> iconName;
    readPixmaps(argument);
    argument >> title >> subTitle;
    argument.endStructure();
    return title.isEmpty() ? subTitle : title;
}
