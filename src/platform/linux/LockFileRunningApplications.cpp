#include "platform/linux/LockFileRunningApplications.h"

#include <QDir>

LockFileRunningApplications::LockFileRunningApplications(QString lockDirectory)
    : lockDirectory_(std::move(lockDirectory))
{
}

int LockFileRunningApplications::runningApplicationCount(const QString &bundleIdentifier)
{
    if (lock_)
        return 1;
    QDir().mkpath(lockDirectory_);
    auto lock =
        std::make_unique<QLockFile>(lockDirectory_ + QLatin1Char('/') + bundleIdentifier + QStringLiteral(".lock"));
    // A lock left by a process that no longer runs is taken over; only a live holder counts.
    lock->setStaleLockTime(0);
    if (lock->tryLock(0)) {
        lock_ = std::move(lock);
        return 1;
    }
    return lock->error() == QLockFile::LockFailedError ? 2 : 1;
}
