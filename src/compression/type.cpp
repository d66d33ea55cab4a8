#include "compression/type.h"

#include <cstring>

#include "log/logger.h"

int compression_type_of(const void* data, std::size_t length) {
    if (length < COMPRESSION_MAGIC_SIZE) {
        LOG_HERE(0, "Invalid argument: not enough data (%d < %d).\n", static_cast<int>(length),
                 static_cast<int>(COMPRESSION_MAGIC_SIZE));
        return COMPRESSION_UNKNOWN;
    }
    if (std::memcmp(data, "\x1f\x8b", 2) == 0)
        return COMPRESSION_GZIP;
    return std::memcmp(data, "\x04\x22\x4d\x18", COMPRESSION_MAGIC_SIZE) == 0 ? COMPRESSION_LZ4 : COMPRESSION_UNKNOWN;
}
