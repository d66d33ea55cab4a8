// job_gate.h - how everything that a job does for others to see comes to a halt at once.
//
// Each act that others can see (a statement, a request to the target and each piece of its body, a tool, a file that is
// removed) passes the gate first. The thread that ends the process closes it: from then on no such act begins in any
// other thread, while memory, locks and connections stay as they are, so that the closing thread can clean up in peace.
// In a process that isn't being stopped the gate is open.
// Threads: all functions, from any thread. Nobody may pass the gate while holding a lock that the closing thread takes.
#pragma once

// Returns at once while the gate is open. While it is closed the caller waits: until it is opened again, or for ever.
void passJobGate();

void closeJobGate();
void openJobGate();
[[nodiscard]] bool jobGateIsClosed();
