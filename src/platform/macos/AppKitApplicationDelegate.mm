#include "platform/macos/AppKitApplicationDelegate.h"

#include "app/ApplicationHost.h"
#include "app/log/AppLogger.h"

#include <QPointer>

#import <AppKit/AppKit.h>

@interface QuillmereApplicationDelegate : NSObject <NSApplicationDelegate>
@end

namespace {

QPointer<ApplicationHost> answeringHost;
// NSApplication does not keep its delegate alive; this reference does, for the whole process.
QuillmereApplicationDelegate *installedDelegate = nil;

NSApplicationTerminateReply appKitReply(ApplicationHost::TerminateReply reply)
{
    switch (reply) {
    case ApplicationHost::TerminateNow:
        return NSTerminateNow;
    case ApplicationHost::TerminateLater:
        return NSTerminateLater;
    case ApplicationHost::TerminateCancel:
        return NSTerminateCancel;
    }
    return NSTerminateNow;
}

} // namespace

@implementation QuillmereApplicationDelegate

- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication *)sender
{
    ApplicationHost *host = answeringHost.data();
    if (!host)
        return NSTerminateNow;
    // After "later" AppKit keeps its run loop going in the modal panel mode, one of the common
    // modes in which Qt's timers and posted events run, so the stop's completion still arrives;
    // its final answer is given back here.
    return appKitReply(host->systemRequestsTermination(
        [sender](bool shouldTerminate) { [sender replyToApplicationShouldTerminate:shouldTerminate ? YES : NO]; }));
}

- (void)applicationWillTerminate:(NSNotification *)notification
{
    (void)notification;
    // AppKit exits the process after this message without returning to main(): the delegate's
    // last steps and the log's last lines happen here.
    if (ApplicationHost *host = answeringHost.data())
        host->systemWillTerminate();
    AppLogger::shared().flush();
}

@end

void installAppKitApplicationDelegate()
{
    if (installedDelegate)
        return;
    installedDelegate = [[QuillmereApplicationDelegate alloc] init];
    NSApplication.sharedApplication.delegate = installedDelegate;
}

void connectAppKitApplicationDelegate(ApplicationHost *host)
{
    answeringHost = host;
}
