#include "platform/macos/AppKitApplicationDelegate.h"

#include "app/ApplicationHost.h"
#include "app/log/AppLogger.h"
#include "platform/QtPlatformChoice.h"

#include <QPointer>
#include <QStringList>
#include <QtGlobal>

#import <AppKit/AppKit.h>

// The launch decides on these codes as plain integers; they must be Apple's.
static_assert(OpenApplicationEvent::coreEventClass == quint32(kCoreEventClass));
static_assert(OpenApplicationEvent::openApplication == quint32(kAEOpenApplication));
static_assert(OpenApplicationEvent::launchedAsLogInItem == quint32(keyAELaunchedAsLogInItem));

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

// The Apple event AppKit is handling: while it reports the end of launching, the
// open-application event. A missing event or parameter reads as 0.
OpenApplicationEvent currentOpenApplicationEvent()
{
    NSAppleEventDescriptor *event = NSAppleEventManager.sharedAppleEventManager.currentAppleEvent;
    if (!event)
        return {};
    return {event.eventClass, event.eventID, [event paramDescriptorForKeyword:keyAEPropData].enumCodeValue};
}

} // namespace

@implementation QuillmereApplicationDelegate

- (void)applicationDidFinishLaunching:(NSNotification *)notification
{
    (void)notification;
    // Qt's delegate passes this on first thing. A start by the login-item service is marked only
    // in the open-application event, so the launch sequence waits for it (see
    // connectAppKitApplicationDelegate).
    if (ApplicationHost *host = answeringHost.data())
        host->systemDidFinishLaunching(currentOpenApplicationEvent());
}

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
    // AppKit calls exit() after this message: main() does not resume, and the application
    // object, the controller and the platform services are never destroyed. So what must happen
    // at exit happens here or needs no destructor:
    // - the controller's last steps (timer, volume observers, last log line) and the host's
    //   terminated() signal, where anything else that must not outlive the process is released,
    //   run in systemWillTerminate();
    // - the log is flushed here (and once more by its atexit handler);
    // - no control script is left running: the final yes comes only after the termination stop
    //   and any start still running have ended, and "now" is answered only to a copy that
    //   started none (a duplicate);
    // - the single-instance lock of a copy outside a bundle stays on disk, and the next copy
    //   takes it over because its holder no longer runs; a bundled copy holds no lock;
    // - the control socket's file stays on disk too, and the next copy that is not a duplicate
    //   removes it before it listens;
    // - the signal socket pair closes with the process.
    if (ApplicationHost *host = answeringHost.data())
        host->systemWillTerminate();
    AppLogger::shared().flush();
}

@end

void installAppKitApplicationDelegate()
{
    if (installedDelegate)
        return;
    QStringList arguments;
    for (NSString *argument in NSProcessInfo.processInfo.arguments)
        arguments.append(QString::fromNSString(argument));
    if (chosenQtPlatform(arguments, qgetenv("QT_QPA_PLATFORM"), QStringLiteral("cocoa")) != QLatin1String("cocoa"))
        return;
    // Unless told otherwise, Qt's cocoa plugin makes the process a Dock application when it runs
    // outside a bundle, and activates it when launching has finished: a menu-bar item would take
    // the focus from whatever the user is doing at every launch and login. The activation policy
    // is set by the launch sequence instead.
    qputenv("QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM", "1");
    installedDelegate = [[QuillmereApplicationDelegate alloc] init];
    NSApplication.sharedApplication.delegate = installedDelegate;
}

void connectAppKitApplicationDelegate(ApplicationHost *host)
{
    answeringHost = host;
    if (!installedDelegate || !host)
        return;
    host->awaitSystemLaunch();
    host->setActivationPolicyHandler([](ApplicationHost::ActivationPolicy policy) {
        [NSApp setActivationPolicy:policy == ApplicationHost::ActivationPolicyAccessory
                                       ? NSApplicationActivationPolicyAccessory
                                       : NSApplicationActivationPolicyRegular];
    });
}
