#include "hash/store_access.h"

#include "foundation/logger.h"

std::int64_t readStoredSubfile(const hashValue& record, std::int64_t, std::span<std::byte>) {
    LOG_HERE(3, "Can't open the single instance store for hash ID 0x%lX at 0x%lX\n", record.hashID, record.SISoffset);
    return STORE_UNAVAILABLE;
}
