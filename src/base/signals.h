// signals.h - owners of signal masks.
#pragma once

#include <csignal>
#include <initializer_list>

// The set of the given signals.
[[nodiscard]] sigset_t signalSet(std::initializer_list<int> signals);

// Blocks signals in this thread until the end of the scope, then restores the previous mask. A failure is logged by
// the caller through `failed()`; the scope then changes nothing.
class BlockedSignals {
public:
    explicit BlockedSignals(const sigset_t& signals);
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals();

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] const sigset_t& previous() const { return previous_; }

private:
    sigset_t previous_;
    bool failed_;
};
