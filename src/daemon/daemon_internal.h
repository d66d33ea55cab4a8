// daemon_internal.h - what the sources of the loop share.
#pragma once

#include <csignal>

#include "daemon/daemon.h"

[[nodiscard]] bool childEnded();
void clearChildEnded();

// The signals that the loop answers to. They are blocked wherever one that arrived unseen would be lost.
[[nodiscard]] sigset_t parentSignals();
