// daemon.h - the process of the daemon: its options, its loop, its stop.
#pragma once

#include <string>

// Runs the daemon; the exit status of the process.
[[nodiscard]] int runDaemon(int argc, char** argv);

// The one-minute load from a file like /proc/loadavg, -1 if it can't be read.
[[nodiscard]] float getLoadAverage(const std::string& path);

// Acts on rows that an operator marked for termination: interrupts the worker, tells the target, removes the final
// metadata file, and marks the row.
void handleTerminatedOperations();
