#include "control/AgentNotifications.h"

#include "app/AppDelegate.h"

#include <QAction>

AgentNotifications::AgentNotifications(AppDelegate &delegate, QObject *parent) : QObject(parent), delegate_(delegate)
{
    connect(&delegate_, &AppDelegate::stateMenuUpdated, this, &AgentNotifications::stateShown);
    connect(&delegate_, &AppDelegate::agentCommandFinished, this, &AgentNotifications::commandFinished);
    // The menu's Start, and a command, go through the item; the start at launch does not.
    connect(delegate_.startMenuItem(), &QAction::triggered, this, [this] { startAskedFor_ = true; });
}

void AgentNotifications::stateShown()
{
    const AgentActivity now{delegate_.agentIsRunning, delegate_.startInFlight, delegate_.stopInFlight,
                            delegate_.terminateAfterStop || delegate_.terminationReplyPending};
    if (stoppedUnexpectedly(wasRunning_, now))
        notify(QStringLiteral("Quillmere Agent stopped unexpectedly"),
               QStringLiteral("The agent stopped without being asked to. Choose Start Agent in the menu, or run "
                              "quillmere-menu --start-agent."));
    wasRunning_ = now.running;
}

void AgentNotifications::commandFinished(const QString &argument, int exitCode)
{
    if (argument != QLatin1String("start"))
        return;
    if (exitCode != 0 && !startAskedFor_)
        notify(QStringLiteral("Quillmere Agent could not start"),
               QStringLiteral("agentctl.sh start ended with exit code %1. The log is %2/menu-app.log.")
                   .arg(exitCode)
                   .arg(delegate_.logsDirectory()));
    startAskedFor_ = false;
}

void AgentNotifications::notify(const QString &title, const QString &body)
{
    if (sinceLastNotification_.isValid() && !sinceLastNotification_.hasExpired(minimumIntervalMs))
        return;
    sinceLastNotification_.start();
    delegate_.statusItem->notify(title, body);
}
