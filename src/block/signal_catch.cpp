#include "block/signal_catch.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "log/logger.h"

namespace {

// In the order in which the former actions come back.
constexpr std::array CAUGHT = {SIGTERM, SIGINT, SIGHUP};
constexpr int HIGHEST_SIGNAL = 64;

struct Layer {
    int depth = 0;                            // guarded by the mutex
    std::atomic<bool> active = false;         // written under the mutex, read by the handler
    std::atomic<std::uint64_t> received = 0;  // bit n-1: signal n came
};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<std::uint64_t>::is_always_lock_free);

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
    return std::uint64_t{1} << (signal - 1);
}

std::string nameOf(int signal) {
    const char* name = sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

void addToActiveLayers(int signal) {
    for (Layer& layer : g_layers)
        if (layer.active.load())
            layer.received.fetch_or(bitOf(signal));
}

extern "C" void noteCaughtSignal(int signal) {
    addToActiveLayers(signal);
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
    if (otherThan(layer).active.load()) {
        ending.active.store(false);
        otherThan(layer).received.fetch_or(ending.received.exchange(0));
        return 0;
    }
    // The handler goes first: a signal that arrives from here on takes its former way.
    *result = restoreActions(CAUGHT.size());
    ending.active.store(false);
    return ending.received.exchange(0);
}

}  // namespace

int catchSignals(SignalLayer layer) {
    if (!lockState(__func__))
        return -1;
    Layer& state = stateOf(layer);
    int result = 0;
    if (state.depth == 0) {
        // Active before the handlers stand, or a signal in between would be lost.
        state.active.store(true);
        if (!otherThan(layer).active.load())
            result = installHandlers();
        if (result == -1)
            state.active.store(false);
    }
    if (result == 0)
        ++state.depth;
    const std::uint64_t early = result == -1 ? state.received.exchange(0) : 0;
    unlockState(__func__);
    (void)raiseAgain(early);
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
    const std::uint64_t received = stateOf(layer).received.load();
    if (received == 0)
        return 0;
    for (int signal = 1; signal <= HIGHEST_SIGNAL; ++signal)
        if ((received & bitOf(signal)) != 0)
            log_message(0, "Signal %s received\n", nameOf(signal).c_str());
    return 1;
}

bool signalWaiting(SignalLayer layer) {
    return stateOf(layer).received.load() != 0;
}

int noteSignal(int signal) {
    if (signal < 1 || signal > HIGHEST_SIGNAL || !lockState(__func__))
        return 0;
    const bool active = stateOf(SignalLayer::hashes).active.load() || stateOf(SignalLayer::metadata).active.load();
    if (active)
        addToActiveLayers(signal);
    unlockState(__func__);
    return active ? 1 : 0;
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
