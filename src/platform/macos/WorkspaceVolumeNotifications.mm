#include "platform/macos/WorkspaceVolumeNotifications.h"

#include "platform/WorkspaceNotificationCenter.h"

#include <QPointer>
#include <QString>
#include <utility>

#import <AppKit/AppKit.h>

struct WorkspaceVolumeNotifications::Tokens {
    NSMutableArray<id<NSObject>> *list = [NSMutableArray array];
};

WorkspaceVolumeNotifications::WorkspaceVolumeNotifications(WorkspaceNotificationCenter *center, QObject *parent)
    : QObject(parent), tokens_(new Tokens)
{
    // The workspace posts these only on its own centre, not on the process's default one.
    NSNotificationCenter *workspaceCenter = NSWorkspace.sharedWorkspace.notificationCenter;
    QPointer<WorkspaceNotificationCenter> target = center;
    // Each of Apple's notifications becomes one of the program's own events by name: the value of
    // Apple's constants is not documented, so it is never passed on.
    const std::pair<NSNotificationName, QString> events[] = {
        {NSWorkspaceDidMountNotification, WorkspaceNotification::didMount},
        {NSWorkspaceDidUnmountNotification, WorkspaceNotification::didUnmount},
        {NSWorkspaceDidRenameVolumeNotification, WorkspaceNotification::didRenameVolume},
    };
    for (const auto &[name, event] : events) {
        // The main queue runs the block on the main thread, where the controller lives.
        const QString posted = event;
        id<NSObject> token = [workspaceCenter addObserverForName:name
                                                          object:nil
                                                           queue:NSOperationQueue.mainQueue
                                                      usingBlock:^(NSNotification *notification) {
                                                        (void)notification;
                                                        if (target)
                                                            target->post(posted);
                                                      }];
        [tokens_->list addObject:token];
    }
}

WorkspaceVolumeNotifications::~WorkspaceVolumeNotifications()
{
    NSNotificationCenter *workspaceCenter = NSWorkspace.sharedWorkspace.notificationCenter;
    for (id<NSObject> token in tokens_->list)
        [workspaceCenter removeObserver:token];
    delete tokens_;
}
