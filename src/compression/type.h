// compression_type.h - what a file's first bytes say about its compression.
#pragma once

#include <cstddef>

inline constexpr int COMPRESSION_UNKNOWN = 0;
inline constexpr int COMPRESSION_GZIP = 2;  // 1F 8B
inline constexpr int COMPRESSION_LZ4 = 3;   // 04 22 4D 18, an LZ4 frame

inline constexpr std::size_t COMPRESSION_MAGIC_SIZE = 4;

// Needs at least COMPRESSION_MAGIC_SIZE bytes; with fewer it logs and gives COMPRESSION_UNKNOWN.
[[nodiscard]] int compression_type_of(const void* data, std::size_t length);
