// hactar.h - the final metadata file of a backup, as these tools make and read it: the recipe by which a vault puts the
// backup's stream together again.
//
// Bytes: "FHACTAR1", backup number (u64), then records, each one kind byte and its content, integers little-endian:
//   'L'  literal bytes:  u64 length (at most HACTAR_LITERAL_LIMIT), the bytes
//   'B'  one block:      u64 length, 64 bytes SHA-512
//   'E'  the end:        u64 length of the whole stream, 64 bytes SHA-512 of all bytes of this file before this digest
// A file without its 'E' is torn; what follows the 'E' is padding. That of an encrypted backup is encrypted like the
// backup itself, and padded to whole cipher units; it is decrypted on its way to a vault.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "archive/archiverw.h"
#include "common/digest.h"

namespace hactar {

inline constexpr std::uint64_t LITERAL_LIMIT = 1u << 20;  // bytes

// Writes a file beside `path` and puts it in place when finished. All failures throw std::runtime_error.
class Writer {
public:
    Writer(const std::filesystem::path& path, std::uint64_t backupNo, bool isEncrypted);
    ~Writer();
    void literal(std::span<const std::byte> bytes);
    void block(std::uint64_t length, const Sha512& digest);
    void finish();

private:
    void append(const void* bytes, std::size_t count);
    void put(const void* bytes, std::size_t count);
    void close();

    std::filesystem::path path_;
    std::filesystem::path temporary_;
    ArchiveFilterPtr file_;
    Sha512Stream digest_;
    std::uint64_t fileSize_ = 0;
    std::uint64_t total_ = 0;
    bool finished_ = false;
};

struct Visitor {
    std::function<void(std::span<const std::byte>)> literal;
    std::function<void(std::uint64_t length, const Sha512& digest)> block;
};

// Reads a whole file, calling the visitor record by record; throws std::runtime_error for a file that isn't one, or is
// torn. Returns the length of the stream.
std::uint64_t read(const std::filesystem::path& path, const Visitor& visitor);

}  // namespace hactar
