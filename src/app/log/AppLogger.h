// The application log: one time-stamped line per call, appended to menu-app.log by a serial
// writer thread so that no caller ever waits for the file.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

class AppLogger {
public:
    // The process-wide logger, created on first use at
    // <per-user application support>/TallyholdAgent/runtime/logs/menu-app.log.
    static AppLogger &shared();

    // A logger of its own writing to logFilePath; the folder is created here. Used by shared()
    // and by tests.
    explicit AppLogger(const QString &logFilePath);
    ~AppLogger();
    AppLogger(const AppLogger &) = delete;
    AppLogger &operator=(const AppLogger &) = delete;

    // Queues one line and returns at once. Safe from any thread.
    void log(const QString &message);
    // Blocks until every line queued before the call is in the file.
    void flush();

    // The logs folder below a per-user application-support folder.
    static QString logsDirectoryUnder(const QString &applicationSupportDirectory);
    // The line as written for a message at a moment: timestamp, " | ", message, line feed.
    static QByteArray formatLine(const QDateTime &moment, const QString &message);

private:
    void writerLoop();
    void writeBatch(std::deque<QString> &batch);

    QString logURL_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable drained_;
    std::deque<QString> pending_;
    quint64 queuedCount_ = 0;
    quint64 writtenCount_ = 0;
    bool stopping_ = false;
    std::thread writer_;
};
