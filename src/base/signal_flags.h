// signal_flags.h - the signals that the daemon's loop and the operator's commands answer to: handlers that only store
// flags.
//
// Threads: the handlers are installed once, at the start of the process; the flags are looked at by its main thread.
#pragma once

#include <csignal>

// Installs the handlers of SIGTERM, SIGINT, SIGQUIT and SIGCHLD, lets them in, and ignores SIGPIPE.
void installSignalHandlers();

// SIGTERM, SIGINT or SIGQUIT came.
[[nodiscard]] bool stopRequested();

// SIGCHLD came since it was last cleared.
[[nodiscard]] bool childEnded();
void clearChildEnded();

// The signals that the loop answers to. They are blocked wherever one that arrived unseen would be lost.
[[nodiscard]] sigset_t parentSignals();
