// policies.h - how the queue is filled from the catalogue.
//
// Each policy compares the two and adds rows; what is there already is found again, so a pass that failed half way is
// simply repeated by the next. Main thread of the daemon only.
#pragma once

// Values of QueueScheme; any other fills nothing.
inline constexpr int QUEUE_SCHEME_RETENTION = 1;  // every waiting backup, oldest first
inline constexpr int QUEUE_SCHEME_RECENCY = 2;    // and then only what the newest of each instance needs

// One pass of the configured policy.
void updateQueue();

// Queues the waiting backups in ascending order. Returns the number looked at, or -1.
[[nodiscard]] int fifoEnqueue();

// Queues the newest waiting backup of each instance and drops older ones that it makes needless. 0 or -1.
[[nodiscard]] int lifoEnqueue();
