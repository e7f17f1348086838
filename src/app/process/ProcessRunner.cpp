#include "app/process/ProcessRunner.h"

#include "app/log/AppLogger.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStringDecoder>
#include <QThreadPool>

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

} // namespace

ProcessResult ProcessRunner::runSync(const QString &executablePath, const QStringList &arguments)
{
    AppLogger &logger = AppLogger::shared();
    logger.log(QStringLiteral("Launching process: ") + executablePath + QLatin1Char(' ') +
               arguments.join(QLatin1Char(' ')));

    QProcess process;
    process.setProgram(executablePath);
    process.setArguments(arguments);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.start();
    if (!process.waitForStarted(-1)) {
        const QString description = process.errorString();
        logger.log(QStringLiteral("Process launch failed: ") + description);
        return {1, QString(), description};
    }

    // QProcess drains both pipes while it waits, so output of any size is collected.
    // A child ended by a signal reports the signal's number, as the termination status does.
    process.waitForFinished(-1);
    ProcessResult result{process.exitCode(), decodeUtf8(process.readAllStandardOutput()),
                         decodeUtf8(process.readAllStandardError())};

    const QString trimmedOut = result.stdOut.trimmed();
    if (!trimmedOut.isEmpty())
        logger.log(QStringLiteral("Process stdout: ") + trimmedOut);
    const QString trimmedErr = result.stdErr.trimmed();
    if (!trimmedErr.isEmpty())
        logger.log(QStringLiteral("Process stderr: ") + trimmedErr);
    logger.log(QStringLiteral("Process exited with code ") + QString::number(result.exitCode));
    return result;
}

void ProcessRunner::run(const QString &executablePath, const QStringList &arguments, Completion completion)
{
    processPool().start([executablePath, arguments, completion = std::move(completion)] {
        const ProcessResult result = runSync(executablePath, arguments);
        completion(result.exitCode, result.stdOut, result.stdErr);
    });
}
