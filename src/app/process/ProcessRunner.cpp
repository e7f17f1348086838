#include "app/process/ProcessRunner.h"

#include "app/log/AppLogger.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStringDecoder>
#include <QThreadPool>

#include <csignal>
#include <unistd.h>

namespace {

// Children run on threads of their own pool, so that a script that never ends does not starve
// other runs. The application waits for the pool as it goes: a child is never abandoned to run
// on after the program has exited.
QThreadPool &processPool()
{
    static QThreadPool *pool = [] {
        auto *created = new QThreadPool;
        created->setMaxThreadCount(64);
        created->setExpiryTimeout(30'000);
        qAddPostRoutine([] { processPool().waitForDone(); });
        return created;
    }();
    return *pool;
}

QString decodeUtf8(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    return decoder.hasError() ? QString() : text;
}

// One stream's output as it arrives: the first ProcessRunner::outputLimitBytes and a count of
// the rest, which is read (so that the child never blocks on a full pipe) and dropped.
struct BoundedOutput {
    QByteArray kept;
    qint64 leftOut = 0;

    void append(const QByteArray &chunk)
    {
        if (leftOut > 0) {
            leftOut += chunk.size();
            return;
        }
        kept += chunk;
        if (kept.size() <= ProcessRunner::outputLimitBytes)
            return;
        qsizetype cut = ProcessRunner::outputLimitBytes;
        // A UTF-8 character cut in two would make all that is kept undecodable: it goes whole.
        for (int back = 0; back < 3 && cut > 0 && (uchar(kept[cut]) & 0xC0) == 0x80; ++back)
            --cut;
        leftOut = kept.size() - cut;
        kept.truncate(cut);
        kept.squeeze();
    }

    // The log's copy: trimmed, and saying how much was left out.
    QString logged(const QString &text) const
    {
        QString shown = text.trimmed();
        if (leftOut > 0)
            shown += (shown.isEmpty() ? QString() : QStringLiteral(" ")) +
                     QStringLiteral("[%1 more bytes left out]").arg(leftOut);
        return shown;
    }
};

} // namespace

bool RunningChild::signalGroup(int signal)
{
    const std::lock_guard lock(mutex_);
    return pid_ > 0 && ::kill(-pid_t(pid_), signal) == 0;
}

ProcessResult ProcessRunner::runSync(const QString &executablePath, const QStringList &arguments)
{
    return runSync(executablePath, arguments, nullptr);
}

ProcessResult ProcessRunner::runSync(const QString &executablePath, const QStringList &arguments, RunningChild *child)
{
    AppLogger &logger = AppLogger::shared();
    logger.log(QStringLiteral("Launching process: ") + executablePath + QLatin1Char(' ') +
               arguments.join(QLatin1Char(' ')));

    QProcess process;
    process.setProgram(executablePath);
    process.setArguments(arguments);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    // A group of its own: ending it must not reach us, and a terminal's Ctrl-C reaches us alone,
    // so that quitting still stops the agent through its script.
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
    // QProcess drains both pipes while it waits and reports each read here, on this thread, so
    // output of any size is collected and no more than the limit of it is held.
    BoundedOutput out, err;
    QObject::connect(&process, &QProcess::readyReadStandardOutput,
                     [&] { out.append(process.readAllStandardOutput()); });
    QObject::connect(&process, &QProcess::readyReadStandardError, [&] { err.append(process.readAllStandardError()); });
    process.start();
    if (!process.waitForStarted(-1)) {
        const QString description = process.errorString();
        logger.log(QStringLiteral("Process launch failed: ") + description);
        return {1, QString(), description};
    }
    if (child) {
        const std::lock_guard lock(child->mutex_);
        child->pid_ = process.processId();
    }

    // A child ended by a signal reports the signal's number, as the termination status does.
    process.waitForFinished(-1);
    out.append(process.readAllStandardOutput());
    err.append(process.readAllStandardError());
    ProcessResult result{process.exitCode(), decodeUtf8(out.kept), decodeUtf8(err.kept)};

    const QString loggedOut = out.logged(result.stdOut);
    if (!loggedOut.isEmpty())
        logger.log(QStringLiteral("Process stdout: ") + loggedOut);
    const QString loggedErr = err.logged(result.stdErr);
    if (!loggedErr.isEmpty())
        logger.log(QStringLiteral("Process stderr: ") + loggedErr);
    logger.log(QStringLiteral("Process exited with code ") + QString::number(result.exitCode));
    return result;
}

void ProcessRunner::run(const QString &executablePath, const QStringList &arguments, Completion completion,
                        std::shared_ptr<RunningChild> child)
{
    processPool().start([executablePath, arguments, child = std::move(child), completion = std::move(completion)] {
        const ProcessResult result = runSync(executablePath, arguments, child.get());
        completion(result.exitCode, result.stdOut, result.stdErr);
    });
}
