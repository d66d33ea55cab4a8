// store_access.h - the one way from the hash layer's reading into the single instance store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "hash/hash_value.h"

inline constexpr std::int64_t STORE_UNAVAILABLE = -2;

// Reads from the record's place in the store, `offset` bytes into the block, until the bytes are all there. Returns how
// many came, or STORE_UNAVAILABLE if the store can't be opened: the data may then still lie in a backup's file.
// This appliance's store isn't served yet, so the answer is always STORE_UNAVAILABLE.
[[nodiscard]] std::int64_t readStoredSubfile(const hashValue& record, std::int64_t offset, std::span<std::byte> bytes);
