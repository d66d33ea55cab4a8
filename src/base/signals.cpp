#include "base/signals.h"

sigset_t signalSet(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals)
        sigaddset(&set, number);
    return set;
}

BlockedSignals::BlockedSignals(const sigset_t& signals) {
    sigemptyset(&previous_);
    failed_ = pthread_sigmask(SIG_BLOCK, &signals, &previous_) != 0;
}

BlockedSignals::~BlockedSignals() {
    if (!failed_)
        (void)pthread_sigmask(SIG_SETMASK, &previous_, nullptr);  // fails only for a bad `how`
}
