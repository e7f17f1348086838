#include "control/AgentNotifications.h"

#include "app/AppDelegate.h"

#include <QAction>
#include <QDateTime>

AgentNotifications::AgentNotifications(AppDelegate &delegate, QObject *parent) : QObject(parent), delegate_(delegate)
{
    monotonic_.start();
    connect(&delegate_, &AppDelegate::stateMenuUpdated, this, &AgentNotifications::stateShown);
    connect(&delegate_, &AppDelegate::healthAnswered, this, &AgentNotifications::healthAnswered);
    connect(&delegate_, &AppDelegate::agentCommandFinished, this, &AgentNotifications::commandFinished);
    // The menu's Start, and a command, go through the item; the start at launch does not.
    connect(delegate_.startMenuItem(), &QAction::triggered, this, [this] { startAskedFor_ = true; });
    if (WorkspaceNotificationCenter *center = delegate_.platform().workspaceNotifications.get())
        center->addObserver(WorkspaceNotification::didWake, this,
                            [this](const QString &) { wokeAtMs_ = monotonic_.elapsed(); });
}

void AgentNotifications::stateShown()
{
    const AgentActivity now{delegate_.agentIsRunning, delegate_.startInFlight, delegate_.stopInFlight,
                            delegate_.terminateAfterStop || delegate_.terminationReplyPending};
    if (stoppedUnexpectedly(wasRunning_, now))
        stopUnconfirmed_ = true;
    else if (now.running || now.startInFlight || now.stopInFlight || now.terminating)
        stopUnconfirmed_ = false;
    wasRunning_ = now.running;
}

void AgentNotifications::healthAnswered(bool running)
{
    noteWakeFromClocks();
    if (running)
        stopUnconfirmed_ = false;
    // Right after a wake the agent is given time; a stop still seen after that is told then.
    if (!stopUnconfirmed_ || quietAfterWake())
        return;
    stopUnconfirmed_ = false;
    notify(QStringLiteral("Quillmere Agent stopped unexpectedly"),
           QStringLiteral("The agent stopped without being asked to. Choose Start Agent in the menu, or run "
                          "quillmere-menu --start-agent."),
           false);
}

void AgentNotifications::commandFinished(const QString &argument, int exitCode)
{
    if (argument != QLatin1String("start"))
        return;
    if (exitCode != 0 && !startAskedFor_)
        notify(QStringLiteral("Quillmere Agent could not start"),
               QStringLiteral("agentctl.sh start ended with exit code %1. The log is %2/menu-app.log.")
                   .arg(exitCode)
                   .arg(delegate_.logsDirectory()),
               true);
    startAskedFor_ = false;
}

void AgentNotifications::notify(const QString &title, const QString &body, bool withOpenLog)
{
    if (sinceLastNotification_.isValid() && !sinceLastNotification_.hasExpired(minimumIntervalMs))
        return;
    sinceLastNotification_.start();
    // The buttons do what the menu's items do, availability included.
    QList<NotificationAction> actions{{QStringLiteral("start-agent"), QStringLiteral("Start Agent"),
                                       [this] { delegate_.startMenuItem()->trigger(); }}};
    if (withOpenLog)
        actions.append({QStringLiteral("open-log"), QStringLiteral("Open Log"),
                        [this] { delegate_.openLogsMenuItem()->trigger(); }});
    delegate_.statusItem->notify(title, body, actions);
}

void AgentNotifications::noteWakeFromClocks()
{
    const qint64 wallClock = QDateTime::currentMSecsSinceEpoch(), monotonic = monotonic_.elapsed();
    if (lastWallClockMs_ >= 0 && sleptBetween(wallClock - lastWallClockMs_, monotonic - lastMonotonicMs_))
        wokeAtMs_ = monotonic;
    lastWallClockMs_ = wallClock;
    lastMonotonicMs_ = monotonic;
}

bool AgentNotifications::quietAfterWake() const
{
    return wokeAtMs_ >= 0 && monotonic_.elapsed() - wokeAtMs_ < quietAfterWakeMs;
}
