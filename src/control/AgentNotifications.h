// Telling the user, outside the menu, what they would otherwise miss: the agent stopping without
// this program having stopped it, and a start the user did not ask for (the one at launch)
// failing. Never for what the user asked for, never on one slow answer or the first ones after the
// machine wakes, and at most one a minute while the agent flaps.
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

// The wall clock ran on while the monotonic clock stood still: the machine slept in between. A
// second of slack covers a loaded machine and small clock corrections.
constexpr bool sleptBetween(qint64 wallClockMs, qint64 monotonicMs)
{
    return wallClockMs - monotonicMs > 1000;
}

class AgentNotifications : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 minimumIntervalMs = 60000;
    // After a wake the network, the disks and the agent itself take a while to answer again.
    static constexpr qint64 quietAfterWakeMs = 30000;

    explicit AgentNotifications(AppDelegate &delegate, QObject *parent = nullptr);

private:
    void stateShown();
    void healthAnswered(bool running);
    void commandFinished(const QString &argument, int exitCode);
    void notify(const QString &title, const QString &body, bool withOpenLog);
    void noteWakeFromClocks();
    bool quietAfterWake() const;

    AppDelegate &delegate_;
    bool wasRunning_ = false;
    // Shown stopped unasked; told only if the next answer still says so.
    bool stopUnconfirmed_ = false;
    bool startAskedFor_ = false;
    QElapsedTimer sinceLastNotification_;
    QElapsedTimer monotonic_; // stands still while the machine sleeps
    qint64 lastWallClockMs_ = -1;
    qint64 lastMonotonicMs_ = -1;
    qint64 wokeAtMs_ = -1; // on monotonic_
};
