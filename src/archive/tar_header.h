// tar_header.h - the 512-byte headers of a backup's stream: numbers as text, checksum, and what counts as a header.
//
// Threads: is_tar counts its refusals for the log in atomics; the rest has no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t TAR_BLOCK = 512;
using TarHeader = std::span<const std::byte, TAR_BLOCK>;

// Offsets of the fields that are read here and by those who walk a stream.
inline constexpr std::size_t TAR_NAME = 0;
inline constexpr std::size_t TAR_SIZE = 124;
inline constexpr std::size_t TAR_SIZE_WIDTH = 12;
inline constexpr std::size_t TAR_CHECKSUM = 148;
inline constexpr std::size_t TAR_LINK_FLAG = 156;
inline constexpr std::size_t TAR_ORIGINAL_SIZE = 265;
inline constexpr std::size_t TAR_FLAGS = 293;

inline constexpr char TAR_ENCRYPTION_TOKEN = 'E';  // link flag of the record at the head of an encrypted file

// Octal after blanks and tabs, up to the first other character; nothing to read gives 0.
[[nodiscard]] std::uint64_t tar_octal(TarHeader header, std::size_t offset, std::size_t width);

// A size field of 12 bytes, in its octal or its long form ('#' and 11 characters of 6 bits, least significant first).
[[nodiscard]] std::uint64_t tar_size(TarHeader header, std::size_t offset);

// The sum of all bytes, signed, with the checksum's own counted as blanks, modulo 65536. 256 is an all-zero block.
[[nodiscard]] int tar_checksum(TarHeader header);

// Whether this is a valid header; says why not on the log.
[[nodiscard]] bool is_tar(TarHeader header);

// Whether the name stands in blocks behind the header, and how many of them there are (0 for a normal header).
[[nodiscard]] bool ctar_is_extended(TarHeader header);
[[nodiscard]] std::uint64_t ctar_extended_blocks(TarHeader header);

// Whether the header is that of an encryption token (link flag and name; the checksum is is_tar's matter).
[[nodiscard]] bool is_encryption_token(TarHeader header);
