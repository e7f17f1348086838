// A command given on the command line: it asks the program running in this session and prints
// the answer, or, with none running, does the job itself through a controller that shows nothing.
#pragma once

#include "control/CommandLine.h"

// Returns the exit code. Never shows a tray icon, takes the instance lock or starts the agent
// unless asked to.
int runControlCommand(int argc, char *argv[], const CommandLine &command);
