// Telling the user, outside the menu, what they would otherwise miss: the agent stopping without
// this program having stopped it, and a start the user did not ask for (the one at launch)
// failing. Never for what the user asked for, and at most one a minute while the agent flaps.
#pragma once

#include <QElapsedTimer>
#include <QObject>

class AppDelegate;

struct AgentActivity {
    bool running = false;
    bool startInFlight = false;
    bool stopInFlight = false;
    bool terminating = false;
};

// The agent was shown running and now is not, with no start or stop of this program under way.
constexpr bool stoppedUnexpectedly(bool wasRunning, const AgentActivity &now)
{
    return wasRunning && !now.running && !now.startInFlight && !now.stopInFlight && !now.terminating;
}

class AgentNotifications : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 minimumIntervalMs = 60000;

    explicit AgentNotifications(AppDelegate &delegate, QObject *parent = nullptr);

private:
    void stateShown();
    void commandFinished(const QString &argument, int exitCode);
    void notify(const QString &title, const QString &body);

    AppDelegate &delegate_;
    bool wasRunning_ = false;
    bool startAskedFor_ = false;
    QElapsedTimer sinceLastNotification_;
};
