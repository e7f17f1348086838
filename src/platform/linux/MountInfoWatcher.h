// Volume mount, unmount and rename events on Linux, from changes of /proc/self/mountinfo.
#pragma once

#include <QObject>
#include <QString>

class WorkspaceNotificationCenter;

class MountInfoWatcher : public QObject {
    Q_OBJECT
public:
    MountInfoWatcher(QString mountFolder, WorkspaceNotificationCenter *center, QObject *parent = nullptr);

private:
    QString mountFolder_;
    WorkspaceNotificationCenter *center_;
};
