// Carrying out a command against the controller exactly as its menu item would (the same item,
// so the same availability, log lines and titles), and what the command then tells its user.
#pragma once

#include "control/CommandLine.h"
#include "control/ControlProtocol.h"

#include <QJsonObject>
#include <QString>
#include <functional>

class AppDelegate;
class QObject;

// Replies: "status", "unavailable" (message), "done", "error" (message), and for a start or stop
// "accepted" followed by "finished" (argument, exitCode; exitCode absent when no script ran).
// A quit is answered "accepted", and the channel closes when the program has exited.
using ControlReply = std::function<void(const QJsonObject &reply)>;
// context: replies stop when it is destroyed (the connection went away).
void performControlRequest(AppDelegate &delegate, const ControlRequest &request, QObject *context, ControlReply reply);
// The controller's view, as --status shows it. programRunning: it comes from the running program.
QJsonObject controlStatus(const AppDelegate &delegate, bool programRunning);

struct CommandOutcome {
    QString standardOutput;
    QString standardError;
    int exitCode = ExitCode::done;

    friend bool operator==(const CommandOutcome &, const CommandOutcome &) = default;
};
// What a command prints and exits with, given the last reply it received.
CommandOutcome describeReply(const CommandLine &command, const QJsonObject &reply, const QString &logFile);
