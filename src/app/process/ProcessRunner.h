// Runs one child process to its end and hands back its exit status and output, logging the
// command, its output and its exit status on the way.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

struct ProcessResult {
    int exitCode = 0;
    QString stdOut;
    QString stdErr;
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
    static void run(const QString &executablePath, const QStringList &arguments, Completion completion);
};
