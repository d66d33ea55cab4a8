#include "crypto/usha.h"

#include <array>

#include "log/logger.h"

namespace {

// Fetched once: looking an algorithm up by name costs more than hashing a small block.
const EVP_MD* digestOf(int which) {
    static const std::array<const EVP_MD*, USHA_SHA512 + 1> digests = {
        EVP_MD_fetch(nullptr, "SHA1", nullptr), EVP_MD_fetch(nullptr, "SHA2-224", nullptr),
        EVP_MD_fetch(nullptr, "SHA2-256", nullptr), EVP_MD_fetch(nullptr, "SHA2-384", nullptr),
        EVP_MD_fetch(nullptr, "SHA2-512", nullptr)};
    return which < 0 ? nullptr : digests[static_cast<std::size_t>(which)];
}

}  // namespace

int USHAReset(USHAContext* context, int which) {
    if (context == nullptr)
        return 1;
    context->which = which > USHA_SHA512 ? USHA_SHA512 : which;
    context->takesInput = false;
    if (!context->digest)
        context->digest.reset(EVP_MD_CTX_new());
    const EVP_MD* digest = digestOf(context->which);
    if (!context->digest || digest == nullptr || EVP_DigestInit_ex(context->digest.get(), digest, nullptr) != 1) {
        LOG_HERE(0, "USHAReset: EVP_DigestInit_ex call returned an error.");
        return 1;
    }
    context->takesInput = true;
    return 0;
}

int USHAInput(USHAContext* context, const void* data, std::size_t length) {
    if (context == nullptr)
        return 1;
    // The library itself accepts input behind the final call and loses it.
    if (!context->takesInput || EVP_DigestUpdate(context->digest.get(), data, length) != 1) {
        LOG_HERE(0, "USHAInput: EVP_DigestUpdate call returned an error.");
        context->takesInput = false;
        return 1;
    }
    return 0;
}

int USHAResult(USHAContext* context, std::uint8_t* digest) {
    if (context == nullptr)
        return 1;
    if (!context->takesInput || EVP_DigestFinal_ex(context->digest.get(), digest, nullptr) != 1) {
        LOG_HERE(0, "USHAResult: EVP_DigestFinal_ex call returned an error.");
        context->takesInput = false;
        return 1;
    }
    context->takesInput = false;
    return 0;
}
