// Starting and stopping the agent through its control script.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "app/process/ProcessRunner.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>

namespace {

const QString controlScriptName = QStringLiteral("agentctl.sh");

// Hands a child's exit code back to the controller on the main thread, if it still exists.
ProcessRunner::Completion onMainThread(AppDelegate *controller, std::function<void(AppDelegate &, int)> handler)
{
    return [weakSelf = QPointer<AppDelegate>(controller), handler = std::move(handler)](int exitCode, const QString &,
                                                                                        const QString &) {
        QMetaObject::invokeMethod(
            qApp,
            [weakSelf, handler, exitCode] {
                if (weakSelf)
                    handler(*weakSelf, exitCode);
            },
            Qt::QueuedConnection);
    };
}

} // namespace

void AppDelegate::startAgentFromMenu()
{
    startAgent(true);
}

void AppDelegate::stopAgentFromMenu()
{
    requestAgentStop(false);
}

std::optional<QString> AppDelegate::controlScriptPath() const
{
    const auto runtime = runtimeDirectory();
    return runtime ? std::optional(*runtime + QLatin1Char('/') + controlScriptName) : std::nullopt;
}

void AppDelegate::startAgent(bool openStatusPage)
{
    AppLogger &logger = AppLogger::shared();
    const std::optional<QString> script = controlScriptPath();
    if (!script) {
        logger.log(QStringLiteral("Could not resolve agentctl.sh inside app bundle."));
        updateStateMenu(QStringLiteral("Status: Missing runtime files"), lastKnownVersion, false);
        return;
    }
    const QFileInfo scriptInfo(*script);
    if (!scriptInfo.isFile() || !scriptInfo.isExecutable()) {
        logger.log(QStringLiteral("agentctl.sh exists but is not executable: ") + *script);
        updateStateMenu(QStringLiteral("Status: Missing runtime files"), lastKnownVersion, false);
        return;
    }

    if (openStatusPage)
        openStartupPage(false);
    startInFlight = true;
    stopInFlight = false;
    updateStateMenu(QStringLiteral("Status: Starting..."), lastKnownVersion, false);

    auto child = std::make_shared<RunningChild>();
    runningStarts_.append(child);
    const auto finished = [openStatusPage, child](AppDelegate &self, int exitCode) {
        self.startInFlight = false;
        self.runningStarts_.removeOne(child);
        self.startEndedSinceStopLaunched_ = true;
        self.refreshHealth();
        if (exitCode != 0) {
            AppLogger::shared().log(QStringLiteral("Agent start command failed with exit code ") +
                                    QString::number(exitCode));
            // A start ended by quitting is no failure to show pages about.
            if (openStatusPage && !self.startsEndedByTermination_) {
                self.openStartupPage(true);
                self.openLogs();
            }
            self.updateStateMenu(QStringLiteral("Status: Start failed"), self.lastKnownVersion, false);
        }
        emit self.agentCommandFinished(QStringLiteral("start"), exitCode);
        if (self.terminationWaitsForStart_)
            self.answerTerminationOnceStartsHaveEnded();
    };
    ProcessRunner::run(*script, {QStringLiteral("start")}, onMainThread(this, finished), child);
}

void AppDelegate::requestAgentStop(bool terminateWhenFinished)
{
    if (terminateWhenFinished)
        terminateAfterStop = true;

    const std::optional<QString> script = controlScriptPath();
    if (!script) {
        AppLogger::shared().log(QStringLiteral("Could not resolve agentctl.sh for stop request."));
        if (terminateAfterStop)
            finishTerminationAfterStop(1);
        return;
    }
    // Not checked for being executable: the runner reports a script it cannot start as exit 1.

    stopInFlight = true;
    startInFlight = false;
    startEndedSinceStopLaunched_ = false;
    updateStateMenu(terminateAfterStop ? QStringLiteral("Status: Stopping and Scanning...")
                                       : QStringLiteral("Status: Stopping..."),
                    lastKnownVersion, false);

    ProcessRunner::run(*script, {QStringLiteral("stop")}, onMainThread(this, [](AppDelegate &self, int exitCode) {
        self.stopInFlight = false;
        self.refreshHealth();
        if (exitCode != 0)
            AppLogger::shared().log(QStringLiteral("Agent stop command finished with exit code ") +
                                    QString::number(exitCode));
        emit self.agentCommandFinished(QStringLiteral("stop"), exitCode);
        if (self.terminateAfterStop)
            self.finishTerminationAfterStop(exitCode);
    }));
}
