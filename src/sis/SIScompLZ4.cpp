#include "sis/SIScompLZ4.h"

#include <endian.h>
#include <lz4.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "log/logger.h"

namespace {

constexpr std::size_t SIZE_AT = 4;

std::uint32_t wordAt(std::span<const std::byte> bytes, std::size_t at) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    return le32toh(word);
}

void putWord(std::span<std::byte> bytes, std::size_t at, std::uint32_t word) {
    const std::uint32_t stored = htole32(word);
    std::memcpy(bytes.data() + at, &stored, sizeof stored);
}

}  // namespace

int SIScompressBlock(std::span<const std::byte> source, std::span<std::byte> destination) {
    if (source.size() > LZ4_MAX_INPUT_SIZE || destination.size() < source.size() + SIS_COMPRESSED_HEADER)
        return -1;
    const int length = static_cast<int>(source.size());
    const int size =
        LZ4_compress_default(reinterpret_cast<const char*>(source.data()),
                             reinterpret_cast<char*>(destination.data() + SIS_COMPRESSED_HEADER), length, length);
    if (size <= 0) {
        log_message(5, "SIScompressBlock, %d not compressed\n", length);
        return 0;
    }
    putWord(destination, 0, SIS_COMPRESSED_MAGIC);
    putWord(destination, SIZE_AT, static_cast<std::uint32_t>(size));
    return size + static_cast<int>(SIS_COMPRESSED_HEADER);
}

int SISdecompressBlock(std::span<const std::byte> source, std::span<std::byte> destination) {
    if (source.size() < SIS_COMPRESSED_HEADER) {
        log_message(0, "SISdecompressBlock, %zu bytes are no block\n", source.size());
        return -1;
    }
    const std::uint32_t magic = wordAt(source, 0);
    if (magic != SIS_COMPRESSED_MAGIC) {
        log_message(0, "SISdecompressBlock, not legacy magic number 0x%08x\n", magic);
        return -1;
    }
    const std::uint32_t stored = wordAt(source, SIZE_AT);
    if (stored == 0) {
        log_message(0, "SISdecompressBlock, nothing to read\n");
        return 0;
    }
    if (stored > SIS_LARGEST_COMPRESSED) {
        log_message(0, "SISdecompressBlock, cannot read block, size too large\n");
        return -1;
    }
    const std::span<const std::byte> data = source.subspan(SIS_COMPRESSED_HEADER);
    const int size =
        LZ4_decompress_safe(reinterpret_cast<const char*>(data.data()), reinterpret_cast<char*>(destination.data()),
                            static_cast<int>(std::min<std::size_t>(stored, data.size())),
                            static_cast<int>(std::min<std::size_t>(destination.size(), INT_MAX)));
    if (size >= 0)
        return size;
    log_message(0, "SISdecompressBlock, decoding failed\n");
    return -1;
}

std::size_t SIScompressedSize(std::span<const std::byte> source) {
    return source.size() < SIS_COMPRESSED_HEADER ? 0 : SIS_COMPRESSED_HEADER + wordAt(source, SIZE_AT);
}
