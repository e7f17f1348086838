// Runs one child process to its end and hands back its exit status and output, logging the
// command, its output and its exit status on the way.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <mutex>

struct ProcessResult {
    int exitCode = 0;
    QString stdOut;
    QString stdErr;
};

// A child started by ProcessRunner::run. Every child leads a process group of its own, so that
// ending the group ends what the child started (an agent, a helper it waits on) and nothing else.
class RunningChild {
public:
    // Sends signal to the child's process group, from any thread; false before the child has
    // started and once nothing of its group is left. The group outlives the child while something
    // it started runs on, and its number is not handed out again before the process ids wrap.
    bool signalGroup(int signal);

private:
    friend class ProcessRunner;
    std::mutex mutex_; // the worker thread sets what another thread signals
    qint64 pid_ = 0;
};

class ProcessRunner {
public:
    using Completion = std::function<void(int exitCode, const QString &stdOut, const QString &stdErr)>;

    ProcessRunner() = delete;

    // Bytes kept of each output stream: a child that writes more (a script gone wrong) costs no
    // more memory than this. The rest is read and left out of the result; its log line says how
    // many bytes were left out. A character the limit would cut in two is left out whole.
    static constexpr qsizetype outputLimitBytes = 1024 * 1024;

    // Blocks the calling thread until the child has exited. A child that cannot be started
    // gives exit code 1, empty output and the start error's description as standard error.
    static ProcessResult runSync(const QString &executablePath, const QStringList &arguments);
    // Runs runSync on a background thread and calls completion there, exactly once. The
    // application object, as it is destroyed, waits for every child started this way to end.
    // child, when given, is told the process so that its group can be ended.
    static void run(const QString &executablePath, const QStringList &arguments, Completion completion,
                    std::shared_ptr<RunningChild> child = nullptr);

private:
    static ProcessResult runSync(const QString &executablePath, const QStringList &arguments, RunningChild *child);
};
