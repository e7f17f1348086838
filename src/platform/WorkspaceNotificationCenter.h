// Where the workspace posts its volume notifications. Observers are called on the main thread.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>

// The volume events by the names the agent receives as the sync's event; each platform maps its
// own notifications onto these.
namespace WorkspaceNotification {
inline const QString didMount = QStringLiteral("NSWorkspaceDidMountNotification");
inline const QString didUnmount = QStringLiteral("NSWorkspaceDidUnmountNotification");
inline const QString didRenameVolume = QStringLiteral("NSWorkspaceDidRenameVolumeNotification");
// The machine has woken from sleep.
inline const QString didWake = QStringLiteral("NSWorkspaceDidWakeNotification");
} // namespace WorkspaceNotification

class WorkspaceNotificationCenter : public QObject {
    Q_OBJECT
public:
    using Token = quint64;
    using Handler = std::function<void(const QString &name)>;

    using QObject::QObject;

    // Calls handler for every notification of that name while context lives.
    Token addObserver(const QString &name, QObject *context, Handler handler);
    void removeObserver(Token token);
    int observerCount() const { return int(observers_.size()); }

    // Delivers a notification to its observers. Must be called on the main thread.
    void post(const QString &name);

private:
    struct Observer {
        Token token;
        QString name;
        QPointer<QObject> context;
        Handler handler;
    };
    QList<Observer> observers_;
    Token nextToken_ = 1;
};
