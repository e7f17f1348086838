// A tray host's registry on the session bus, as a desktop panel provides it: items announce
// themselves here, and the test finds the program's icon and menu through it.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>

class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredStatusNotifierItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isStatusNotifierHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    struct Item {
        QString service;
        QString path;
    };

    // On the process's session bus connection by default. A test that shows its own tray icon
    // passes a connection of its own: calls between two objects on one connection count as local
    // to QtDBus, and its blocking registration call would then wait out its whole timeout.
    explicit StatusNotifierWatcher(QDBusConnection bus = QDBusConnection::sessionBus()) : bus_(std::move(bus)) {}
    ~StatusNotifierWatcher() override;

    // Takes the well-known name on the session bus; false when another watcher holds it.
    bool start();
    // Gives the name up, as a panel that exits does; the items are forgotten.
    void stop();

    QStringList registeredStatusNotifierItems() const;
    bool isStatusNotifierHostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

    QList<Item> items() const { return items_; }
    // How many registrations arrived, repeated ones included.
    int registrationCount() const { return registrations_; }

public slots:
    void RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message);
    void RegisterStatusNotifierHost(const QString &service);

signals:
    void StatusNotifierItemRegistered(const QString &item);
    void StatusNotifierItemUnregistered(const QString &item);
    void StatusNotifierHostRegistered();

private:
    QDBusConnection bus_;
    bool started_ = false;
    QList<Item> items_;
    int registrations_ = 0;
};
