#include "hash/store_access.h"

#include "hash/hash_operation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

std::int64_t readStoredSubfile(SISPtr* store, const hashValue& record, std::int64_t offset,
                               std::span<std::byte> bytes) {
    if (!*store)
        *store = openSIS();
    if (!*store) {
        LOG_HERE(3, "Can't open the single instance store for hash ID 0x%lX at 0x%lX\n", record.hashID,
                 record.SISoffset);
        return STORE_UNAVAILABLE;
    }
    const std::uint64_t start = record.SISoffset + static_cast<std::uint64_t>(offset);
    std::size_t came = 0;
    while (came < bytes.size()) {
        const ssize_t got = readSISsubfile(store->get(), bytes.subspan(came), start + came, record);
        if (got < 1) {
            log_message(3, "Error or premature end-of-file reading single instance store\n");
            break;
        }
        came += static_cast<std::size_t>(got);
    }
    return came == 0 ? -1 : static_cast<std::int64_t>(came);
}

SISPtr openStoreForWriting(HashValuesPtr* handle) {
    const HashOperation operation(__func__);
    if (operation.connect(handle) == -1)
        return nullptr;
    const int hasLength = hasCompressedLength(&(*handle)->connection);
    if (hasLength == -1)
        return nullptr;
    tellCompressedLengthColumn(hasLength == 1);
    return openSIS();
}
