// Keeping the menu in step with the agent's health, and the start at launch.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"

#include <QPointer>

void AppDelegate::refreshHealthTimerFired()
{
    refreshHealth();
}

void AppDelegate::refreshHealth()
{
    queryHealth([weakSelf = QPointer<AppDelegate>(this)](bool running, const QString &version) {
        if (!weakSelf)
            return;
        AppDelegate &self = *weakSelf;
        emit self.healthAnswered(running);
        if (running) {
            const bool wasRunning = self.agentIsRunning;
            self.startInFlight = false;
            self.stopInFlight = false;
            self.updateStateMenu(QStringLiteral("Status: Running"), version, true);
            if (!wasRunning)
                self.scheduleMountedVolumesSync(QStringLiteral("agent-running"), true);
            return;
        }
        // A start in flight wins over a stop in flight.
        const QString title = self.startInFlight  ? QStringLiteral("Status: Starting...")
                              : self.stopInFlight ? QStringLiteral("Status: Stopping...")
                                                  : QStringLiteral("Status: Stopped");
        self.updateStateMenu(title, version, false);
    });
}

void AppDelegate::startAgentIfNeededOnLaunch()
{
    queryHealth([weakSelf = QPointer<AppDelegate>(this)](bool running, const QString &) {
        if (!weakSelf)
            return;
        AppDelegate &self = *weakSelf;
        // A quit that came in while the launch probe was out has stopped (or is stopping) the
        // agent; starting it now would leave it running after we exit.
        if (self.terminateAfterStop || self.terminationReplyPending)
            return;
        if (running) {
            AppLogger::shared().log(QStringLiteral("Agent already healthy during launch."));
            self.updateStateMenu(QStringLiteral("Status: Running"), self.lastKnownVersion, true);
            return;
        }
        AppLogger::shared().log(QStringLiteral("Agent not healthy during launch. Starting agent."));
        self.startAgent(!self.launchedAtLogin && !self.presentedWelcomeOnLaunch);
    });
}
