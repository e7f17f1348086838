// The command line: a plain launch (with --launched-at-login or not), the informational options,
// and the commands that reach the running program. Decided before any application object exists.
#pragma once

#include <QString>
#include <QStringList>

// Exit codes of the commands, after the usual service conventions.
namespace ExitCode {
constexpr int done = 0;            // done; for --status: the agent runs
constexpr int failed = 1;          // the control script failed or could not be run
constexpr int badUsage = 2;        // unknown option, missing or unknown page, two commands at once
constexpr int notRunning = 3;      // --status: the agent does not run; --quit: the program does not run
constexpr int noAnswer = 4;        // the running program did not answer, or its channel is not trusted or broke
constexpr int notAvailableNow = 5; // the menu item is not available now (a start while one runs, ...)
constexpr int problemFound = 6;    // --diagnose found something that stops the product working
} // namespace ExitCode

struct CommandLine {
    enum class Kind { launch, help, version, status, diagnose, startAgent, stopAgent, open, quit, badUsage };
    Kind kind = Kind::launch;
    bool json = false;
    bool watch = false;
    QString page;
    // badUsage: what is wrong. launch: the first argument not understood (the launch goes on).
    QString problem;
};

// An option as the parser takes it, the help lists it and the shell completions offer it.
struct CommandLineOption {
    QStringList names; // a single letter first where there is one
    QString valueName; // empty when it takes no value
    QString description;
};
// Every option the program understands, in the order the help lists them.
const QList<CommandLineOption> &commandLineOptions();

// arguments: the program name first, then its arguments as given.
CommandLine parseCommandLine(const QStringList &arguments);
// The page names --open takes, in menu order.
const QStringList &pageNames();
QString usageText();
QString versionText();
