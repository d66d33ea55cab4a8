// usha.h - one interface over the SHA family, by algorithm number.
//
// Threads: a context belongs to one thread at a time.
// Errors:  0, or 1 for a null context or a failure of the library (logged). A context that failed, or that gave its
//          digest, takes no more input until the next reset.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/releaser.h"

inline constexpr int USHA_SHA1 = 0;
inline constexpr int USHA_SHA224 = 1;
inline constexpr int USHA_SHA256 = 2;
inline constexpr int USHA_SHA384 = 3;
inline constexpr int USHA_SHA512 = 4;
inline constexpr std::size_t USHA_MAX_DIGEST_SIZE = 64;

using EvpDigestContextPtr = std::unique_ptr<EVP_MD_CTX, Releaser<&EVP_MD_CTX_free>>;

// The digest context is made by the first reset and used again by every later one: hashing a backup resets once a
// block.
struct USHAContext {
    int which = USHA_SHA512;
    bool takesInput = false;
    EvpDigestContextPtr digest;
};

// Starts a new digest. A `which` above USHA_SHA512 counts as USHA_SHA512.
[[nodiscard]] int USHAReset(USHAContext* context, int which);

[[nodiscard]] int USHAInput(USHAContext* context, const void* data, std::size_t length);

// Writes the digest, of the algorithm's length (20, 28, 32, 48 or 64 bytes).
[[nodiscard]] int USHAResult(USHAContext* context, std::uint8_t* digest);
