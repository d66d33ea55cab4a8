#include "base/job_gate.h"

#include <atomic>

namespace {

std::atomic<bool> g_closed = false;

}  // namespace

void passJobGate() {
    while (g_closed.load())
        g_closed.wait(true);
}

void closeJobGate() {
    g_closed.store(true);
}

void openJobGate() {
    g_closed.store(false);
    g_closed.notify_all();
}

bool jobGateIsClosed() {
    return g_closed.load();
}
