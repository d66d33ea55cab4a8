// The only place that uses the library's engines, which it calls deprecated and still has.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/engine.h>
#include <openssl/err.h>
#include <unistd.h>

#include "crypto/crypto_internal.h"
#include "log/logger.h"

namespace {

// The functional reference is kept for the life of the process.
ENGINE* findEngine(const char* function, const char* verb) {
    ENGINE* const engine = ENGINE_by_id("aesni");
    if (engine == nullptr) {
        ERR_clear_error();
        return nullptr;
    }
    const bool works = ENGINE_init(engine) == 1;
    if (!works) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        LOG_HERE(2, "%s: %s engine init failed: %s.", function, verb, text);
        ERR_clear_error();
    }
    ENGINE_free(engine);  // the structural reference
    return works ? engine : nullptr;
}

}  // namespace

ENGINE* cipherEngine(const char* function, const char* verb) {
    static ENGINE* const engine = findEngine(function, verb);
    return engine;
}

void prepareOpenssl(const char* verb) {
    [[maybe_unused]] static const bool isReady = [verb] {
        // A text for an error of the ciphers means that some other code has loaded all of this.
        if (ERR_reason_error_string(ERR_PACK(ERR_LIB_EVP, 0, EVP_R_BAD_DECRYPT)) == nullptr) {
            LOG_HERE(3, "CD pid %d %s initializing openssl.", static_cast<int>(getpid()), verb);
            (void)OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS |
                                          OPENSSL_INIT_ADD_ALL_DIGESTS | OPENSSL_INIT_ENGINE_ALL_BUILTIN,
                                      nullptr);  // what is missing afterwards fails at its use
        }
        return true;
    }();
}
