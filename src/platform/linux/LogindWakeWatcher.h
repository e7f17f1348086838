// The machine waking from sleep, as logind announces it on the system bus, posted as the
// workspace's wake notification.
#pragma once

#include <QObject>
#include <QPointer>

class WorkspaceNotificationCenter;

class LogindWakeWatcher : public QObject {
    Q_OBJECT
public:
    // Quiet where there is no system bus or no logind (containers, other init systems).
    explicit LogindWakeWatcher(WorkspaceNotificationCenter *center, QObject *parent = nullptr);

private slots:
    void prepareForSleep(bool goingToSleep);

private:
    QPointer<WorkspaceNotificationCenter> center_;
};
