#include "log/thread_record.h"

#include <cerrno>

#include "log/logger.h"

int keepThreadRecord(pthread_key_t key, const void* record) {
    const int failure = pthread_setspecific(key, record);
    if (failure == 0)
        return 0;
    if (failure == ENOMEM)
        LOG_HERE(0, "Insufficient memory exists to associate the value with the key.");
    else if (failure == EINVAL)
        LOG_HERE(0, "The key value is invalid.");
    return -1;
}
