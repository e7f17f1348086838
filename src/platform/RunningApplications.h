// Which copies of this application the current user runs.
#pragma once

#include <QString>

class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    // How many applications with this bundle identifier run for the current user, this one
    // included.
    virtual int runningApplicationCount(const QString &bundleIdentifier) = 0;
};
