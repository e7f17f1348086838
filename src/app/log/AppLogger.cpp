#include "app/log/AppLogger.h"

#include "app/Configuration.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>
#include <cstdio>
#include <cstdlib>

AppLogger &AppLogger::shared()
{
    // Deliberately never destroyed: background threads may still log while the process exits.
    // Queued lines are written by the flush registered with atexit.
    static AppLogger *instance = [] {
        auto *logger = new AppLogger(logsDirectoryUnder(Configuration::applicationSupportDirectoryFromEnvironment()) +
                                     QStringLiteral("/menu-app.log"));
        std::atexit([] { AppLogger::shared().flush(); });
        return logger;
    }();
    return *instance;
}

QString AppLogger::logsDirectoryUnder(const QString &applicationSupportDirectory)
{
    return applicationSupportDirectory + QStringLiteral("/TallyholdAgent/runtime/logs");
}

QByteArray AppLogger::formatLine(const QDateTime &moment, const QString &message)
{
    QString line = moment.toUTC().toString(Qt::ISODateWithMs);
    line += QStringLiteral(" | ");
    line += message;
    line += QLatin1Char('\n');
    return line.toUtf8();
}

AppLogger::AppLogger(const QString &logFilePath) : logURL_(logFilePath)
{
    // A failure here is not reported: later writes fail and their lines are lost.
    QDir().mkpath(QFileInfo(logFilePath).absolutePath());
    writer_ = std::thread([this] { writerLoop(); });
}

AppLogger::~AppLogger()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    writer_.join();
}

void AppLogger::log(const QString &message)
{
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(message);
        ++queuedCount_;
    }
    wake_.notify_one();
}

void AppLogger::flush()
{
    std::unique_lock lock(mutex_);
    const quint64 target = queuedCount_;
    drained_.wait(lock, [&] { return writtenCount_ >= target; });
}

void AppLogger::writerLoop()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
        if (pending_.empty() && stopping_)
            return;
        std::deque<QString> batch;
        batch.swap(pending_);
        lock.unlock();
        const auto count = batch.size();
        writeBatch(batch);
        lock.lock();
        writtenCount_ += count;
        drained_.notify_all();
    }
}

void AppLogger::writeBatch(std::deque<QString> &batch)
{
    // Each line carries the time it is written, not the time of the call.
    QByteArray bytes;
    for (const QString &message : batch)
        bytes += formatLine(QDateTime::currentDateTimeUtc(), message);

    QFile file(logURL_);
    if (file.exists() && file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        file.write(bytes);
        file.close();
        return;
    }
    // No file yet, or it cannot be opened for appending: the lines become the whole new content,
    // written beside it and renamed over it. QSaveFile is no help here: it refuses to replace a
    // file it could not write in place, and that is exactly the file this has to replace.
    QTemporaryFile replacement(logURL_ + QStringLiteral(".XXXXXX"));
    replacement.setAutoRemove(false);
    if (!replacement.open())
        return;
    const bool written = replacement.write(bytes) == bytes.size() && replacement.flush();
    // A fresh log reads like any other file the user owns, not like a private temporary one.
    replacement.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                               QFileDevice::WriteUser | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    replacement.close();
    if (!written ||
        std::rename(QFile::encodeName(replacement.fileName()).constData(), QFile::encodeName(logURL_).constData()) != 0)
        QFile::remove(replacement.fileName());
}
