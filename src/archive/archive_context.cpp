#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr std::uint64_t COMPRESSION_BITS = ARCHIVE_MAYBE_COMPRESSED | ARCHIVE_COMPRESSED_TOO;

// The first bytes decide, and they alone. 0 with the type, or 1: too few of them.
int learnCompression(archive_filter* filter, int* type) {
    const ArchiveBuffer& device = filter->device;
    *type = COMPRESSION_UNKNOWN;
    if ((filter->properties & COMPRESSION_BITS) == 0)
        return 0;
    if (device.bytes < COMPRESSION_MAGIC_SIZE) {
        LOG_HERE(5, "Not enough data is available to initialize context\n");
        LOG_HERE(5, "Only %zd bytes are present\n", static_cast<ssize_t>(device.bytes));
        return 1;
    }
    *type = compression_type_of(device.begin(), device.bytes);
    if (*type == COMPRESSION_UNKNOWN) {
        LOG_HERE(5, "File is not compressed\n");
        filter->properties &= ~COMPRESSION_BITS;
    }
    return 0;
}

int prepare(archive_filter* filter, unsigned flags, int type) {
    if (transform_prepare(&filter->transform, flags, type) == 0)
        return 0;
    const KeepErrno keep;
    LOG_HERE(0, "Failed transformation setup\n");
    filter->transform.flags = 0;
    return -1;
}

int prepareForReading(archive_filter* filter) {
    int type = COMPRESSION_UNKNOWN;
    if (learnCompression(filter, &type) != 0)
        return 1;
    unsigned flags = 0;
    if (type != COMPRESSION_UNKNOWN)
        flags |= TRANSFORM_DECOMPRESS;
    if ((filter->properties & ARCHIVE_ENCRYPTED) != 0)
        flags |= TRANSFORM_DECRYPT;
    return prepare(filter, flags, type);
}

unsigned writingFlags(const archive_filter& filter) {
    unsigned flags = 0;
    if ((filter.properties & COMPRESSION_BITS) != 0)
        flags |= TRANSFORM_COMPRESS;
    if ((filter.properties & ARCHIVE_ENCRYPTED) != 0)
        flags |= TRANSFORM_ENCRYPT;
    return flags;
}

}  // namespace

int archive_context_init(archive_filter* filter) {
    Transform& transform = filter->transform;
    if (transform.flags == 0) {
        const int result = filter->mode == 'w' ? prepare(filter, writingFlags(*filter), COMPRESSION_UNKNOWN)
                                               : prepareForReading(filter);
        if (result != 0)
            return result;
    }
    // The token comes first, and nothing can be read before all of it is there.
    while ((transform.flags & TRANSFORM_AWAIT_TOKEN) != 0) {
        const int result = archive_transform_some(filter, 0);
        if (result != 0)
            return result;
        if (filter->end.stream && (transform.flags & TRANSFORM_AWAIT_TOKEN) != 0)
            return 0;  // there is nothing to read
    }
    filter->set(ARCH_CONTEXT_READY);
    return 0;
}
