// --diagnose: one report of the set-up for whoever supports a user, read without changing
// anything (no start or stop, no lock, no socket, no log line, no settings written).
#pragma once

#include <QJsonObject>
#include <QString>

struct Configuration;

// Gathers the report, waiting on the agent and the running program at most their own time-outs.
// Its keys are the manual page's; problems lists {item, problem, hint}.
QJsonObject diagnose(const Configuration &configuration);
// The report for a person: section by section, each problem marked with its hint.
QString describeDiagnosis(const QJsonObject &report);

// Returns the exit code: 0 when nothing stops the product working, 6 when something does.
int runDiagnosis(int argc, char *argv[], bool json);
