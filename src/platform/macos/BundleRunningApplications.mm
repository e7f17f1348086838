#include "platform/macos/BundleRunningApplications.h"

#import <AppKit/AppKit.h>

int BundleRunningApplications::runningApplicationCount(const QString &bundleIdentifier)
{
    NSArray<NSRunningApplication *> *running =
        [NSRunningApplication runningApplicationsWithBundleIdentifier:bundleIdentifier.toNSString()];
    return int(running.count);
}
