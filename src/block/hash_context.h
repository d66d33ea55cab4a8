// hash_context.h - the running hash of a block: initialize, add bytes, take the digest, and again for the next block.
//
// Threads: a context belongs to one thread at a time.
// Errors:  0, or -1 with the reason logged.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "block/hash_value.h"
#include "crypto/usha.h"

struct hashContext {
    std::int32_t digestLength = 0;
    char hashType[HASH_TYPE_SIZE] = "";
    std::array<std::uint8_t, HASH_VALUE_SIZE> digest{};  // filled by hashFromHashContext
    int whichSha = 0;
    USHAContext sha;
};
using HashContextPtr = std::unique_ptr<hashContext>;

// Makes the context on first use, and starts a new SHA-512 digest each time.
[[nodiscard]] int initializeHashContext(HashContextPtr* context);

[[nodiscard]] int addToHashContext(hashContext* context, const void* bytes, std::size_t length);

// Ends the digest, which then stands in the context.
[[nodiscard]] int hashFromHashContext(hashContext* context);

// Zeroes the digest and frees the context.
void freeHashContext(HashContextPtr* context);
