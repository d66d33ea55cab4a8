// signal_catch.h - holds SIGHUP, SIGINT and SIGTERM back while hash data is being changed.
//
// An operation opens with catchSignals and ends with uncatchSignals; the pairs nest. In between a signal only sets a
// mark that loops look at between two units of work. When the last pair of the process ends, the former actions are
// back and each signal that came is raised again, so its effect is late but not lost.
//
// Two layers count on their own: the hash layer and the metadata store below it. The handlers are installed when the
// first layer becomes active and removed when the last one is idle; a layer that ends before the other hands its
// signals over. Separate installers would save each other's handler as "the former action" whenever two threads
// overlap.
//
// Threads: all functions, from any thread. None of them may be called in a signal handler.
// Errors:  0, or -1 with the reason logged.
#pragma once

#include <csignal>

enum class SignalLayer { hashes, metadata };

[[nodiscard]] int catchSignals(SignalLayer layer);
int uncatchSignals(SignalLayer layer);

// 1 if a signal came for the layer; each one is logged. 0 if the operation may go on.
[[nodiscard]] int checkForSignal(SignalLayer layer);

// The same question without a word on the log, for waits that look often.
[[nodiscard]] bool signalWaiting(SignalLayer layer);

// For a thread that takes signals with sigwaitinfo: does what the handler would have done. Returns 1 if some layer is
// active: the signal is noted and comes back to the process when that layer ends. Returns 0 if none is: act on it now.
[[nodiscard]] int noteSignal(int signal);

// One pair as an owner. A failure is logged in the name of the operation, which must then return before it touches
// anything.
class CaughtSignals {
public:
    CaughtSignals(SignalLayer layer, const char* operation);
    CaughtSignals(const CaughtSignals&) = delete;
    CaughtSignals& operator=(const CaughtSignals&) = delete;
    ~CaughtSignals();

    [[nodiscard]] bool failed() const { return failed_; }

private:
    SignalLayer layer_;
    bool failed_;
};
