// Posts the workspace's volume notifications (did mount, did unmount, did rename) into the
// program's WorkspaceNotificationCenter, on the main thread, each as the program's own event
// name, which the volume sync sends to the agent as the event. Built only on macOS.
#pragma once

#include <QObject>

class WorkspaceNotificationCenter;

class WorkspaceVolumeNotifications : public QObject {
public:
    explicit WorkspaceVolumeNotifications(WorkspaceNotificationCenter *center, QObject *parent = nullptr);
    ~WorkspaceVolumeNotifications() override;

private:
    // The observer tokens of NSWorkspace's notification centre, as Objective-C objects.
    struct Tokens;
    Tokens *tokens_;
};
