// util.h - the operator's command line: ferryd util <command> [args].
#pragma once

// Runs a command; its result is the exit status of the process. An unknown command does nothing and gives 0.
[[nodiscard]] int runUtility(int argc, char** argv);
