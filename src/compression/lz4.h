// compression_lz4.h - the LZ4 frame format, as both directions see it.
//
// Magic, FLG, BD, optional content size (8), header checksum; then blocks: length (4, top bit: stored), bytes, XXH32;
// a length of 0 ends the frame, and the XXH32 of its clean bytes follows.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t LZ4_MAGIC = 0x184D2204;
inline constexpr unsigned LZ4_SEED = 0;
inline constexpr std::size_t LZ4_HEADER_SIZE = 7;
inline constexpr std::size_t LZ4_CONTENT_SIZE_FIELD = 8;
inline constexpr std::size_t LZ4_LENGTH_SIZE = 4;
inline constexpr std::size_t LZ4_BLOCK_OVERHEAD = 8;  // length and checksum
inline constexpr std::uint32_t LZ4_STORED = 0x80000000;
inline constexpr std::size_t LZ4_UNIT = 65536;  // clean bytes in one block of ours

// FLG
inline constexpr unsigned LZ4_VERSION_MASK = 0xC0;
inline constexpr unsigned LZ4_VERSION_1 = 0x40;
inline constexpr unsigned LZ4_INDEPENDENT = 0x20;
inline constexpr unsigned LZ4_BLOCK_CHECKSUM = 0x10;
inline constexpr unsigned LZ4_CONTENT_SIZE = 0x08;
inline constexpr unsigned LZ4_CONTENT_CHECKSUM = 0x04;
inline constexpr unsigned LZ4_DICTIONARY = 0x01;

// BD: the largest clean size of a block is 256 << 2 * code bytes, 64 KB for code 4 to 4 MB for code 7.
inline constexpr unsigned LZ4_RESERVED_MASK = 0x8F;
inline constexpr unsigned LZ4_CODE_SHIFT = 4;
inline constexpr unsigned LZ4_CODE_64K = 4;
inline constexpr unsigned LZ4_CODE_MASK = 7;

[[nodiscard]] constexpr std::size_t lz4BlockMaximum(unsigned code) {
    return std::size_t{256} << 2 * code;
}

// The second byte of the XXH32 of a frame's descriptor: FLG, BD and the content size if there is one.
[[nodiscard]] std::byte lz4HeaderChecksum(const std::byte* descriptor, std::size_t size);
