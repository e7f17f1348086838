// The two informational options, answered before anything else starts.
#pragma once

#include <optional>

// For --help or --version anywhere on the command line: prints the usage or the version to
// standard output and returns the exit code; the caller exits without opening the log, taking the
// instance lock or reaching the agent. Any other command line gives nothing.
std::optional<int> answerInformationalOption(int argc, const char *const argv[]);
