#include "platform/macos/BundleRunningApplications.h"

#include <QList>
#include <unistd.h>

#import <AppKit/AppKit.h>

int BundleRunningApplications::runningApplicationCount(const QString &bundleIdentifier)
{
    // The list changes only as the main run loop turns in a common mode, so at the first turn it
    // may not hold this process yet: the others are counted, and this one added.
    QList<qint64> listed;
    for (NSRunningApplication *application in
         [NSRunningApplication runningApplicationsWithBundleIdentifier:bundleIdentifier.toNSString()])
        listed.append(application.processIdentifier);
    return runningCopiesIncludingThisOne(listed, ::getpid());
}
