// daemon.h - the process of the daemon: its options, its loop, its stop.
#pragma once

#include <cstdint>
#include <string>

// Runs the daemon; the exit status of the process.
[[nodiscard]] int runDaemon(int argc, char** argv);

// What started the process, as its forked workers see it. Written once at start.
struct DaemonMode {
    bool attached = false;   // -a: one log on standard error, for workers too
    bool daemonize = true;   // -d clears it
    float loadLimit = 0.0F;  // -l, 0 none
};
extern DaemonMode g_mode;

// 1 in a worker (and in a job run inline), 0 in the parent. Written by runWorker.
extern int g_childMarker;

// Flags of the signal handlers of the parent and of `util`.
[[nodiscard]] bool stopRequested();

// Installs the handlers, ignores SIGPIPE. For the start of the process.
void installSignalHandlers();

// The one-minute load from a file like /proc/loadavg, -1 if it can't be read.
[[nodiscard]] float getLoadAverage(const std::string& path);

// Acts on rows that an operator marked for termination: interrupts the worker, tells the target, removes the final
// metadata file, and marks the row.
void handleTerminatedOperations();

// Tells a target that a backup was given up, as an operator asked: by its identity, "tempUUID" if it has none.
// Returns 0, or -1 if the target wasn't reached (logged).
int cancelOnTarget(std::uint64_t backupNo, const std::string& target);
