#include "block/signal_catch.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/job_gate.h"
#include "log/logger.h"

namespace {

// In the order in which the former actions come back.
constexpr std::array CAUGHT = {SIGTERM, SIGINT, SIGHUP};
constexpr int HIGHEST_SIGNAL = 63;
constexpr std::uint64_t ACTIVE = 1;  // no signal has number 0

struct Layer {
    int depth = 0;  // guarded by the mutex
    // ACTIVE, and bit n: signal n came. One word, so that a signal is either noted before the layer ends, and raised
    // again by it, or finds the layer ended. Begun and ended under the mutex, added to by the handler.
    std::atomic<std::uint64_t> state = 0;

    [[nodiscard]] bool isActive() const { return (state.load() & ACTIVE) != 0; }
    [[nodiscard]] std::uint64_t received() const { return state.load() & ~ACTIVE; }

    // False if the layer isn't active.
    bool add(std::uint64_t signals) {
        std::uint64_t known = state.load();
        while ((known & ACTIVE) != 0)
            if (state.compare_exchange_weak(known, known | signals))
                return true;
        return false;
    }
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<Layer, 2> g_layers;
std::array<struct sigaction, CAUGHT.size()> g_formerActions;  // valid while a layer is active

Layer& stateOf(SignalLayer layer) {
    return g_layers[static_cast<std::size_t>(layer)];
}
Layer& otherThan(SignalLayer layer) {
    return g_layers[1 - static_cast<std::size_t>(layer)];
}

constexpr std::uint64_t bitOf(int signal) {
    return std::uint64_t{1} << signal;
}

std::string nameOf(int signal) {
    const char* name = sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

// Whether there was one.
bool addToActiveLayers(int signal) {
    bool added = false;
    for (Layer& layer : g_layers)
        added = layer.add(bitOf(signal)) || added;
    return added;
}

// A thread can be held up on its way in until the last layer has ended. The former actions are back by then, so the
// signal is given to the process again.
extern "C" void noteCaughtSignal(int signal) {
    const int reason = errno;
    if (!addToActiveLayers(signal))
        (void)kill(getpid(), signal);
    errno = reason;
}

bool lockState(const char* function) {
    const int error = pthread_mutex_lock(&g_mutex);
    if (error != 0)
        log_message(0, "%s():  Can't acquire mutex: %s\n", function, std::strerror(error));
    return error == 0;
}

void unlockState(const char* function) {
    const int error = pthread_mutex_unlock(&g_mutex);
    if (error != 0)
        log_message(0, "%s():  Can't release mutex: %s\n", function, std::strerror(error));
}

int restoreActions(std::size_t count) {
    int result = 0;
    for (std::size_t i = 0; i < count; ++i)
        if (sigaction(CAUGHT[i], &g_formerActions[i], nullptr) == -1) {
            log_message(0, "%s():  Can't set sigaction for %s\n", "uncatchSignals", nameOf(CAUGHT[i]).c_str());
            result = -1;
        }
    return result;
}

// No SA_RESTART: a wait for a record lock must end when a signal comes.
int installHandlers() {
    struct sigaction action {};
    action.sa_handler = noteCaughtSignal;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < CAUGHT.size(); ++i)
        if (sigaction(CAUGHT[i], &action, &g_formerActions[i]) == -1) {
            log_message(0, "%s():  Can't set sigaction for %s\n", "catchSignals", nameOf(CAUGHT[i]).c_str());
            (void)restoreActions(i);
            return -1;
        }
    return 0;
}

int raiseSignal(int signal) {
    if (kill(getpid(), signal) == 0)
        return 0;
    log_message(0, "%s():  Can't signal caller with %s: %s\n", "uncatchSignals", nameOf(signal).c_str(),
                std::strerror(errno));
    return -1;
}

// The three caught signals first, in the order of restoring, then what a stop thread noted besides.
int raiseAgain(std::uint64_t signals) {
    int result = 0;
    for (const int signal : CAUGHT)
        if ((signals & bitOf(signal)) != 0 && raiseSignal(signal) == -1)
            result = -1;
    for (const int signal : CAUGHT)
        signals &= ~bitOf(signal);
    for (int signal = 1; signal <= HIGHEST_SIGNAL; ++signal)
        if ((signals & bitOf(signal)) != 0 && raiseSignal(signal) == -1)
            result = -1;
    return result;
}

// The layer's last pair has ended. Returns the signals to raise again.
std::uint64_t endLayer(SignalLayer layer, int* result) {
    Layer& ending = stateOf(layer);
    if (otherThan(layer).isActive()) {
        const std::uint64_t received = ending.state.exchange(0) & ~ACTIVE;
        (void)otherThan(layer).add(received);  // stays active: the mutex is held
        return 0;
    }
    // The handler goes first: a signal that arrives from here on takes its former way.
    *result = restoreActions(CAUGHT.size());
    return ending.state.exchange(0) & ~ACTIVE;
}

}  // namespace

int catchSignals(SignalLayer layer) {
    passJobGate();
    if (!lockState(__func__))
        return -1;
    Layer& state = stateOf(layer);
    int result = 0;
    if (state.depth == 0) {
        // Active before the handlers stand, or a signal in between would be lost.
        state.state.store(ACTIVE);
        if (!otherThan(layer).isActive())
            result = installHandlers();
    }
    if (result == 0)
        ++state.depth;
    const std::uint64_t early = result == -1 ? state.state.exchange(0) & ~ACTIVE : 0;
    unlockState(__func__);
    (void)raiseAgain(early);
    // Whoever closed the gate and then finds no layer active ends the process, so nothing of an operation may have
    // begun by then; who finds one active opens the gate again.
    passJobGate();
    return result;
}

int uncatchSignals(SignalLayer layer) {
    if (!lockState(__func__))
        return -1;
    int result = stateOf(layer).depth > 0 ? 0 : -1;
    std::uint64_t again = 0;
    if (result == 0 && --stateOf(layer).depth == 0)
        again = endLayer(layer, &result);
    unlockState(__func__);
    // Outside the mutex: the former action may be a handler that takes part in this very count.
    return raiseAgain(again) == -1 ? -1 : result;
}

int checkForSignal(SignalLayer layer) {
    const std::uint64_t received = stateOf(layer).received();
    if (received == 0)
        return 0;
    for (int signal = 1; signal <= HIGHEST_SIGNAL; ++signal)
        if ((received & bitOf(signal)) != 0)
            log_message(0, "Signal %s received\n", nameOf(signal).c_str());
    return 1;
}

bool signalWaiting(SignalLayer layer) {
    return stateOf(layer).received() != 0;
}

int noteSignal(int signal) {
    if (signal < 1 || signal > HIGHEST_SIGNAL || !lockState(__func__))
        return 0;
    const bool noted = addToActiveLayers(signal);
    unlockState(__func__);
    return noted ? 1 : 0;
}

CaughtSignals::CaughtSignals(SignalLayer layer, const char* operation)
    : layer_(layer), failed_(catchSignals(layer) == -1) {
    if (failed_)
        log_message(0, "%s():  Can't catch signals\n", operation);
}

CaughtSignals::~CaughtSignals() {
    if (!failed_)
        (void)uncatchSignals(layer_);  // its failures are logged; the operation itself is done
}
