// thread_record.h - records of which each thread has one of its own.
#pragma once

#include <pthread.h>

// Binds `record` to the calling thread under `key`, whose destructor frees it. Returns 0, or -1 with the reason logged;
// the record is then still the caller's.
[[nodiscard]] int keepThreadRecord(pthread_key_t key, const void* record);
