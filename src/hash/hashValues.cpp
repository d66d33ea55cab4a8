#include "hash/hashValues.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/text.h"
#include "hash/hash_operation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

int prepareHashValuesPrivatePSQL(HashValuesPtr* handle, const char* operation) {
    if (!*handle)
        handle->reset(new hashValuesPrivate);
    HashConnection& connection = (*handle)->connection;
    if (connection.connect() == -1)
        return -1;
    (*handle)->types = hashColumnTypes(&connection, operation);
    return (*handle)->types == nullptr ? -1 : 0;
}

void freeHashValuesPrivate(hashValuesPrivate* handle) {
    const std::unique_ptr<hashValuesPrivate> owner(handle);
    freeSIShashTable(&owner->table);
}

bool typeIsKnown(const hashValue& value, std::size_t entry) {
    if (hashLength(value) != 0)
        return true;
    log_message(0, "Unknown hash type in entry %d: '%.*s'\n", static_cast<int>(entry), static_cast<int>(HASH_TYPE_SIZE),
                value.hashType);
    return false;
}

std::size_t beginArms(QueryBuffer* query) {
    constexpr std::size_t FRAME_ARMS = 2;  // what stands around the arms takes no more than two of them
    std::size_t arms = 0;
    if (query->reserve((ARMS_PER_STATEMENT + FRAME_ARMS) * BYTES_PER_ARM) == 0)
        arms = std::min(query->room() / BYTES_PER_ARM - FRAME_ARMS, ARMS_PER_STATEMENT);
    if (arms == 0)
        log_message(0, "Not enough buffer for a single query!\n");
    return arms;
}

int refuseArguments(const char* function, const void* handle, std::size_t count) {
    log_message(0, "%s(%p, %d): %s\n", function, handle, static_cast<int>(count), std::strerror(EINVAL));
    return -1;
}

namespace {

template <typename Record>
int getFrom(HashValuesPtr* handle, std::span<Record> records, const char* function) {
    const HashOperation operation(function);
    if (operation.connect(handle, records.size()) == -1)
        return -1;
    std::vector<hashValue*> pointers;
    pointers.reserve(records.size());
    for (Record& record : records)
        pointers.push_back(&record);
    return lookUpRecords(handle->get(), pointers);
}

}  // namespace

int getHashValues(HashValuesPtr* handle, std::span<hashValue> records) {
    return getFrom(handle, records, __func__);
}

int getHashValues_hri(HashValuesPtr* handle, std::span<hashReferenceInfo> records) {
    return getFrom(handle, records, __func__);
}

int updateSISoffsets(HashValuesPtr* handle, std::span<hashValue> records) {
    const HashOperation operation(__func__);
    if (operation.connect(handle, records.size()) == -1)
        return -1;
    {
        HashTransaction transaction(&(*handle)->connection);
        if (transaction.begin("dq.hash_values") == -1 || writeSISoffsets(handle->get(), records) == -1 ||
            transaction.commit() == -1)
            return -1;
    }
    return lookUpRecords(handle->get(), records);
}

int writeSISoffsets(hashValuesPrivate* handle, std::span<const hashValue> records) {
    constexpr std::uint32_t NEEDED = hashValue_in | SISoffset_in;
    const int hasLength = hasCompressedLength(&handle->connection);
    if (hasLength == -1 || handle->query.reserve(BYTES_PER_ARM) == -1)
        return -1;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const hashValue& record = records[i];
        if ((record.flags & NEEDED) != NEEDED)
            continue;
        if (!typeIsKnown(record, i) || checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        const std::string length =
            hasLength == 1 ? formatString(", compressed_length = %lu", record.compressedLength) : std::string();
        handle->query.clear();
        if (handle->query.append("UPDATE dq.hash_values SET sis_offset = %lu %s WHERE (hash_type = '%s') AND "
                                 "(hashed_length = %lu) AND (hash_value = $1)",
                                 record.SISoffset, length.c_str(), record.hashType, record.hashedLength) == -1)
            return -1;
        const std::span<const std::uint8_t> digest(record.digest, static_cast<std::size_t>(hashLength(record)));
        const PgRowsPtr result = handle->connection.runBinary(handle->query.text(), {&digest, 1});
        if (!succeeded(result.get())) {
            log_message(0, "UPDATE hash_values failed for hash of %lu bytes\n  %s", record.hashedLength,
                        handle->connection.error());
            return -1;
        }
    }
    return 0;
}
