// crypto_internal.h - the cipher with its key schedule, for users that cipher many pieces with one key.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <memory>

#include "base/releaser.h"

inline constexpr std::size_t CIPHER_UNIT = 32;  // two blocks of AES

enum class CipherDirection { Encrypt, Decrypt };

// AES-256-ECB in one direction. Making the key schedule costs more than ciphering a small piece: open once, run often.
// Errors: -1, logged. A cipher that failed is closed.
class ChunkCipher {
public:
    [[nodiscard]] int open(CipherDirection direction, const void* key, int keyLength);
    [[nodiscard]] bool isOpen() const { return context_ != nullptr; }

    // `length` is a multiple of CIPHER_UNIT. `in` and `out` may be equal, and must not overlap otherwise.
    [[nodiscard]] int run(void* out, const void* in, std::size_t length);

private:
    struct Names;
    [[nodiscard]] const Names& names() const;
    [[nodiscard]] int fail(const char* step);

    CipherDirection direction_ = CipherDirection::Encrypt;
    bool used_ = false;
    std::unique_ptr<EVP_CIPHER_CTX, Releaser<&EVP_CIPHER_CTX_free>> context_;
};

// Makes the library ready, once per process. `verb`: "encrypt" or "decrypt", for the log.
void prepareOpenssl(const char* verb);

// The engine that does AES in hardware, asked for once per process; null (the usual case) means to go on without.
[[nodiscard]] ENGINE* cipherEngine(const char* function, const char* verb);
