// Single-instance detection on Linux: a per-user lock file named after the bundle identifier.
#pragma once

#include "platform/RunningApplications.h"

#include <QLockFile>
#include <memory>

class LockFileRunningApplications : public RunningApplications {
public:
    explicit LockFileRunningApplications(QString lockDirectory);
    // 1 when this process holds (or now takes) the lock, 2 when another live process holds it.
    int runningApplicationCount(const QString &bundleIdentifier) override;

private:
    QString lockDirectory_;
    std::unique_ptr<QLockFile> lock_;
};
