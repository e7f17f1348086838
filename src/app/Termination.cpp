// Termination: the agent is stopped before the application exits.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "app/process/ProcessRunner.h"

#include <QTimer>
#include <csignal>
#include <utility>

ApplicationHost::TerminateReply AppDelegate::applicationShouldTerminate()
{
    if (!stopAgentOnTerminate) {
        AppLogger::shared().log(QStringLiteral("Termination requested with stop bypass enabled."));
        return ApplicationHost::TerminateNow;
    }
    if (terminationReplyPending)
        return ApplicationHost::TerminateLater;

    AppLogger::shared().log(QStringLiteral("Application termination requested. Stopping agent before exit."));
    terminationReplyPending = true;
    terminateAfterStop = true;
    if (stopInFlight)
        updateStateMenu(QStringLiteral("Status: Stopping and Scanning..."), lastKnownVersion, false);
    else
        requestAgentStop(true);
    return ApplicationHost::TerminateLater;
}

void AppDelegate::finishTerminationAfterStop(int exitCode)
{
    AppLogger::shared().log(QStringLiteral("Termination stop finished with exit code ") + QString::number(exitCode) +
                            QLatin1Char('.'));
    terminateAfterStop = false;
    answerTerminationOnceStartsHaveEnded();
}

void AppDelegate::answerTerminationOnceStartsHaveEnded()
{
    // A start script still running may bring the agent up after the stop: exiting now would leave
    // it running with nobody to stop it. The start's completion comes back here.
    terminationWaitsForStart_ = !runningStarts_.isEmpty();
    if (terminationWaitsForStart_) {
        // A start script that hangs must not keep the program from ever exiting.
        if (!std::exchange(startGraceArmed_, true))
            QTimer::singleShot(configuration_.startGraceAfterTerminationStop, this,
                               &AppDelegate::endStartsStillRunning);
        return;
    }
    // Cleared before the stop runs: a stop that cannot be launched must not come back here forever.
    if (std::exchange(startEndedSinceStopLaunched_, false)) {
        requestAgentStop(true);
        return;
    }
    if (terminationReplyPending) {
        terminationReplyPending = false;
        if (application_)
            application_->replyToApplicationShouldTerminate(true);
    } else if (application_) {
        application_->terminate();
    }
}

void AppDelegate::endStartsStillRunning()
{
    if (!terminationWaitsForStart_)
        return;
    startsEndedByTermination_ = true;
    const QString script = controlScriptPath().value_or(QString());
    AppLogger::shared().log(QStringLiteral("Agent start command still running %1 seconds after the termination "
                                           "stop. Ending its process group: ")
                                .arg(configuration_.startGraceAfterTerminationStop.count() / 1000.0) +
                            script);
    for (const std::shared_ptr<RunningChild> &child : std::as_const(runningStarts_)) {
        child->signalGroup(SIGTERM);
        // What ignores SIGTERM is not asked twice; the start's end then runs the stop once more.
        QTimer::singleShot(configuration_.processGroupKillDelay, this, [child] { child->signalGroup(SIGKILL); });
    }
}

void AppDelegate::applicationWillTerminate()
{
    AppLogger::shared().log(QStringLiteral("Application will terminate."));
    if (refreshTimer)
        refreshTimer->stop();
    removeMountedVolumeMonitoring();
}

void AppDelegate::quitApp()
{
    AppLogger::shared().log(QStringLiteral("Quit requested from menu."));
    stopAgentOnTerminate = true;
    if (application_)
        application_->terminate();
}
