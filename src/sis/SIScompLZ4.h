// SIScompLZ4.h - one compressed block of the store: 4 bytes magic and 4 bytes size, little-endian, then LZ4 block data.
// The magic is that of lz4's legacy frame, so `lz4 -d` unpacks a block that was cut out of a store file.
//
// Threads: no state.
// Units:   bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::uint32_t SIS_COMPRESSED_MAGIC = 0x184C2102;
inline constexpr std::size_t SIS_COMPRESSED_HEADER = 8;
inline constexpr std::uint32_t SIS_LARGEST_COMPRESSED = 0x808090;

// Compresses all of `source`. The destination has room for it and the header. Returns the block's size, 0 if it
// wouldn't become smaller, below 0 on failure.
[[nodiscard]] int SIScompressBlock(std::span<const std::byte> source, std::span<std::byte> destination);

// Unpacks the block at the start of `source` into at most destination.size() bytes. Returns how many, 0 for an empty
// block, -1 for what is no block.
[[nodiscard]] int SISdecompressBlock(std::span<const std::byte> source, std::span<std::byte> destination);

// Bytes that the block at the start of `source` takes, by its header.
[[nodiscard]] std::size_t SIScompressedSize(std::span<const std::byte> source);
