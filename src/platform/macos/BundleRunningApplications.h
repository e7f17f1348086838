// Which copies of the application run, as the workspace knows them: every running application
// of the current user with the bundle identifier, this one included. Built only on macOS.
#pragma once

#include "platform/RunningApplications.h"

class BundleRunningApplications : public RunningApplications {
public:
    int runningApplicationCount(const QString &bundleIdentifier) override;
};
