// store_access.h - the way from the hash layer into the single instance store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "block/hash_value.h"
#include "hash/hashValues.h"
#include "sis/SIS.h"

inline constexpr std::int64_t STORE_UNAVAILABLE = -2;

// Reads from the record's place in the store, `offset` bytes into the block, until the bytes are all there. Returns how
// many came, -1 if none did, or STORE_UNAVAILABLE if the store can't be opened: the data may then still lie in a
// backup's file. The store is opened by the first read that needs it.
[[nodiscard]] std::int64_t readStoredSubfile(SISPtr* store, const hashValue& record, std::int64_t offset,
                                             std::span<std::byte> bytes);

// Opens the store for those who write blocks: it is told whether the catalogue can keep the length of compressed ones.
// Null on failure, logged.
[[nodiscard]] SISPtr openStoreForWriting(HashValuesPtr* handle);
