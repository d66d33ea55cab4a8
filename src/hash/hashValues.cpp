#include "hash/hashValues.h"

#include <cerrno>
#include <cstring>

#include "base/text.h"
#include "block/signal_catch.h"
#include "hash/hash_generation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

int prepareHashValuesPrivatePSQL(HashValuesPtr* handle) {
    if (!*handle)
        handle->reset(new hashValuesPrivate);
    HashConnection& connection = (*handle)->connection;
    return connection.connect() == -1 || hashColumnTypes(&connection, __func__) == nullptr ? -1 : 0;
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

int refuseArguments(const char* function, const void* handle, std::size_t count) {
    log_message(0, "%s(%p, %d): %s\n", function, handle, static_cast<int>(count), std::strerror(EINVAL));
    return -1;
}

namespace {

int getRecords(HashValuesPtr* handle, const std::vector<hashValue*>& records, const char* function) {
    const CaughtSignals caught(SignalLayer::hashes, function);
    if (caught.failed() || !generationIsServed() || prepareHashValuesPrivatePSQL(handle) == -1)
        return -1;
    return lookUpRecords(handle->get(), records);
}

template <typename Record>
int getFrom(HashValuesPtr* handle, std::span<Record> records, const char* function) {
    if (handle == nullptr)
        return refuseArguments(function, handle, records.size());
    std::vector<hashValue*> pointers;
    pointers.reserve(records.size());
    for (Record& record : records)
        pointers.push_back(&record);
    return getRecords(handle, pointers, function);
}

}  // namespace

int getHashValues(HashValuesPtr* handle, std::span<hashValue> records) {
    return getFrom(handle, records, __func__);
}

int getHashValues_hri(HashValuesPtr* handle, std::span<hashReferenceInfo> records) {
    return getFrom(handle, records, __func__);
}

int updateSISoffsets(HashValuesPtr* handle, std::span<hashValue> records) {
    if (handle == nullptr)
        return refuseArguments(__func__, handle, records.size());
    const CaughtSignals caught(SignalLayer::hashes, __func__);
    if (caught.failed() || !generationIsServed() || prepareHashValuesPrivatePSQL(handle) == -1)
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
