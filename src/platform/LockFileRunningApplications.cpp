#include "platform/LockFileRunningApplications.h"

#include "app/log/AppLogger.h"

#include <QDir>
#include <QFileInfo>
#include <optional>
#include <unistd.h>

namespace {

// Takes the lock at path; nullopt when it cannot be created at all.
std::optional<int> lockAt(const QString &path, std::unique_ptr<QLockFile> &holder)
{
    auto lock = std::make_unique<QLockFile>(path);
    // A lock left by a process that no longer runs is taken over; only a live holder counts.
    lock->setStaleLockTime(0);
    if (lock->tryLock(0)) {
        holder = std::move(lock);
        return 1;
    }
    if (lock->error() == QLockFile::LockFailedError)
        return 2;
    return std::nullopt;
}

QString whyUnusable(const QString &directory)
{
    if (directory.isEmpty())
        return QStringLiteral("XDG_RUNTIME_DIR is not set");
    const QFileInfo info(directory);
    if (!info.exists())
        return QStringLiteral("the folder is missing and cannot be created");
    if (!info.isDir())
        return QStringLiteral("it is not a folder");
    return info.isWritable() ? QStringLiteral("the lock file cannot be created there")
                             : QStringLiteral("the folder is not writable");
}

} // namespace

LockFileRunningApplications::LockFileRunningApplications(QString lockDirectory, QString fallbackDirectory)
    : lockDirectory_(std::move(lockDirectory)), fallbackDirectory_(std::move(fallbackDirectory))
{
}

int LockFileRunningApplications::runningApplicationCount(const QString &bundleIdentifier)
{
    if (lock_)
        return 1;
    const QString name = bundleIdentifier + QStringLiteral(".lock");
    if (!lockDirectory_.isEmpty() && QDir().mkpath(lockDirectory_)) {
        if (const auto count = lockAt(lockDirectory_ + QLatin1Char('/') + name, lock_))
            return *count;
    }
    // Without a lock two copies would both supervise the agent: every copy of this user that
    // meets the same trouble meets again here instead.
    const QString fallback = fallbackDirectory_ + QLatin1Char('/') + bundleIdentifier + QLatin1Char('-') +
                             QString::number(::getuid()) + QStringLiteral(".lock");
    AppLogger::shared().log(QStringLiteral("Single-instance lock cannot be created in ") +
                            (lockDirectory_.isEmpty() ? QStringLiteral("the runtime folder") : lockDirectory_) +
                            QStringLiteral(" (") + whyUnusable(lockDirectory_) + QStringLiteral("). Using ") +
                            fallback + QStringLiteral(" instead."));
    if (const auto count = lockAt(fallback, lock_))
        return *count;
    AppLogger::shared().log(QStringLiteral("Single-instance lock cannot be created at ") + fallback +
                            QStringLiteral(" either. Another copy of the application will not be detected."));
    return 1;
}
