#include "crypto/crypto.h"

#include <openssl/err.h>

#include <algorithm>

#include "crypto/crypto_internal.h"
#include "log/logger.h"

// What a direction is called on the log.
struct ChunkCipher::Names {
    const char* function;
    const char* call;  // of the library
    const char* verb;
    const char* engineVerb;
};

namespace {

constexpr int KEY_SIZE = 32;
constexpr std::size_t LONGEST_UPDATE = std::size_t{1} << 30;  // the library counts in int

// Fetched once: looking the cipher up by name costs more than ciphering a small piece.
const EVP_CIPHER* fetchedCipher() {
    static const EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-ECB", nullptr);
    return cipher;
}

int cipherChunk(CipherDirection direction, void* out, std::size_t* outLength, const void* in, std::size_t* inLength,
                const void* key, int keyLength) {
    const std::size_t length = std::min(*outLength, *inLength) / CIPHER_UNIT * CIPHER_UNIT;
    ChunkCipher cipher;
    if (cipher.open(direction, key, keyLength) == -1 || cipher.run(out, in, length) == -1)
        return -1;
    *outLength = *inLength = length;
    return 0;
}

}  // namespace

const ChunkCipher::Names& ChunkCipher::names() const {
    static constexpr Names ENCRYPT = {"softwareEncryptChunk", "EVP_Encrypt", "encrypt", "Encrypt"};
    static constexpr Names DECRYPT = {"softwareDecryptChunk", "EVP_Decrypt", "decrypt", "Decrypt"};
    return direction_ == CipherDirection::Encrypt ? ENCRYPT : DECRYPT;
}

int ChunkCipher::fail(const char* step) {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    LOG_HERE(0, "%s: %s%s: %s", names().function, names().call, step, text);
    ERR_clear_error();
    context_.reset();
    return -1;
}

int ChunkCipher::open(CipherDirection direction, const void* key, int keyLength) {
    direction_ = direction;
    used_ = false;
    context_.reset();
    if (keyLength < KEY_SIZE) {
        LOG_HERE(0, "%s: bad key length %d\n", names().function, keyLength);
        return -1;
    }
    prepareOpenssl(names().verb);
    ENGINE* const engine = cipherEngine(names().function, names().engineVerb);
    // An engine works on the library's own table of ciphers, not on fetched ones.
    const EVP_CIPHER* const cipher = engine == nullptr ? fetchedCipher() : EVP_aes_256_ecb();
    context_.reset(EVP_CIPHER_CTX_new());
    if (!context_ || cipher == nullptr ||
        EVP_CipherInit_ex(context_.get(), cipher, engine, static_cast<const unsigned char*>(key), nullptr,
                          direction == CipherDirection::Encrypt ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(context_.get(), 0) != 1)
        return fail("Init_ex");
    return 0;
}

int ChunkCipher::run(void* out, const void* in, std::size_t length) {
    // The final call has ended the stream before; the key schedule stays.
    if (used_ && (EVP_CipherInit_ex(context_.get(), nullptr, nullptr, nullptr, nullptr, -1) != 1 ||
                  EVP_CIPHER_CTX_set_padding(context_.get(), 0) != 1))
        return fail("Init_ex");
    used_ = true;
    auto* to = static_cast<unsigned char*>(out);
    const auto* from = static_cast<const unsigned char*>(in);
    int done = 0;
    for (std::size_t n = 0; length != 0; length -= n, to += n, from += n) {
        n = std::min(length, LONGEST_UPDATE);
        if (EVP_CipherUpdate(context_.get(), to, &done, from, static_cast<int>(n)) != 1)
            return fail("Update");
    }
    // Whole blocks and no padding: nothing is left for the end to write.
    unsigned char rest[EVP_MAX_BLOCK_LENGTH];
    if (EVP_CipherFinal_ex(context_.get(), rest, &done) != 1)
        return fail("Final_ex");
    return 0;
}

int softwareEncryptChunk(void* out, std::size_t* outLength, const void* in, std::size_t* inLength, const void* key,
                         int keyLength) {
    return cipherChunk(CipherDirection::Encrypt, out, outLength, in, inLength, key, keyLength);
}

int softwareDecryptChunk(void* out, std::size_t* outLength, const void* in, std::size_t* inLength, const void* key,
                         int keyLength) {
    return cipherChunk(CipherDirection::Decrypt, out, outLength, in, inLength, key, keyLength);
}
