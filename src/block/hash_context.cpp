#include "block/hash_context.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "log/logger.h"

int initializeHashContext(HashContextPtr* context) {
    if (context == nullptr) {
        log_message(0, "initializeHashContext(NULL): %s\n", std::strerror(EINVAL));
        return -1;
    }
    if (!*context)
        context->reset(new (std::nothrow) hashContext);
    if (!*context) {
        log_message(0, "initializeHashContext: malloc(%zd) failed\n", static_cast<ssize_t>(sizeof(hashContext)));
        return -1;
    }
    hashContext& started = **context;
    started.whichSha = USHA_SHA512;
    started.digestLength = HASH_VALUE_SIZE;
    std::strncpy(started.hashType, "sha512", sizeof started.hashType);
    const int failed = USHAReset(&started.sha, started.whichSha);
    if (failed != 0) {
        log_message(0, "initializeHashContext: USHAReset(, %d): %d\n", started.whichSha, failed);
        return -1;
    }
    return 0;
}

int addToHashContext(hashContext* context, const void* bytes, std::size_t length) {
    if (context == nullptr) {
        log_message(0, "addToHashContext(NULL): %s\n", std::strerror(EINVAL));
        return -1;
    }
    const int failed = USHAInput(&context->sha, bytes, length);
    if (failed != 0) {
        log_message(0, "addToHashContext: USHAInput(): %d\n", failed);
        return -1;
    }
    return 0;
}

int hashFromHashContext(hashContext* context) {
    if (context == nullptr) {
        log_message(0, "hashFromHashContext(NULL): %s\n", std::strerror(EINVAL));
        return -1;
    }
    const int failed = USHAResult(&context->sha, context->digest.data());
    if (failed != 0) {
        log_message(0, "hashFromHashContext: USHAResult(): %d\n", failed);
        return -1;
    }
    return 0;
}

void freeHashContext(HashContextPtr* context) {
    if (context == nullptr || !*context) {
        log_message(0, "freeHashContext(NULL): %s\n", std::strerror(EINVAL));
        return;
    }
    **context = {};  // nothing of the digest stays in freed memory
    context->reset();
}
