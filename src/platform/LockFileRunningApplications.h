// Single-instance detection: a per-user lock file named after the bundle identifier, in
// the session's runtime folder or, when that cannot hold it, in the temporary folder.
#pragma once

#include "platform/RunningApplications.h"

#include <QLockFile>
#include <memory>

class LockFileRunningApplications : public RunningApplications {
public:
    // fallbackDirectory is shared by all users, so the lock there carries the user id.
    explicit LockFileRunningApplications(QString lockDirectory, QString fallbackDirectory);
    // 1 when this process holds (or now takes) the lock, 2 when another live process holds it.
    int runningApplicationCount(const QString &bundleIdentifier) override;

private:
    QString lockDirectory_;
    QString fallbackDirectory_;
    std::unique_ptr<QLockFile> lock_;
};
