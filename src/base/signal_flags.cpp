#include "base/signal_flags.h"

#include "base/signals.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
volatile std::sig_atomic_t g_childEnded = 0;

void noteStop(int) {
    g_stop = 1;
}
void noteChild(int) {
    g_childEnded = 1;
}

void install(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    (void)sigaction(number, &action, nullptr);  // fails only for a bad number
}

}  // namespace

bool stopRequested() {
    return g_stop != 0;
}
bool childEnded() {
    return g_childEnded != 0;
}
void clearChildEnded() {
    g_childEnded = 0;
}

sigset_t parentSignals() {
    return signalSet({SIGCHLD, SIGTERM, SIGINT, SIGQUIT});
}

void installSignalHandlers() {
    install(SIGCHLD, noteChild);
    for (const int number : {SIGTERM, SIGINT, SIGQUIT})
        install(number, noteStop);
    install(SIGPIPE, SIG_IGN);
    // A starter that blocks them would leave a daemon that can't be stopped and never reaps.
    const sigset_t wanted = signalSet({SIGCHLD, SIGTERM, SIGINT, SIGQUIT, SIGALRM});
    (void)pthread_sigmask(SIG_UNBLOCK, &wanted, nullptr);  // fails only for a bad `how`
}
