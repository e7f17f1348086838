#include "platform/macos/WorkspaceVolumeNotifications.h"

#include "platform/WorkspaceNotificationCenter.h"

#include <QPointer>
#include <QString>

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
    NSArray<NSNotificationName> *names =
        @[ NSWorkspaceDidMountNotification, NSWorkspaceDidUnmountNotification, NSWorkspaceDidRenameVolumeNotification ];
    for (NSNotificationName name in names) {
        // The main queue runs the block on the main thread, where the controller lives.
        id<NSObject> token = [workspaceCenter addObserverForName:name
                                                          object:nil
                                                           queue:NSOperationQueue.mainQueue
                                                      usingBlock:^(NSNotification *notification) {
                                                        if (target)
                                                            target->post(QString::fromNSString(notification.name));
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
