// --status --watch: the agent's state now and again on every change, pushed by the running
// program or, with none running, found by probing the agent as the menu does.
#pragma once

#include <QJsonObject>
#include <QString>

// Returns the exit code: 0 once the program quits or the user interrupts, 4 when the running
// program's channel breaks or it is not trusted.
int runStatusWatch(int argc, char *argv[], bool json);
// One line of the watch for a status with the keys of --status --json.
QString watchLine(const QJsonObject &status, bool json);
