// crypto.h - AES-256 in ECB mode without padding, in this process.
//
// Threads: any. Errors: -1, logged here. Units: bytes.
#pragma once

#include <cstddef>
#include <cstdint>

// Ciphers the lesser of input and output, rounded down to 32 bytes, and says in both lengths how much that was.
// `in` and `out` may be equal, and must not overlap otherwise. A key has at least 32 bytes, of which the first 32
// count.
[[nodiscard]] int softwareEncryptChunk(void* out, std::size_t* outLength, const void* in, std::size_t* inLength,
                                       const void* key, int keyLength);
[[nodiscard]] int softwareDecryptChunk(void* out, std::size_t* outLength, const void* in, std::size_t* inLength,
                                       const void* key, int keyLength);
