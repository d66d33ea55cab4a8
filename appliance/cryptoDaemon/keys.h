// keys.h - the archive key, the keys of sessions, and the tokens that carry them.
//
// Every session that writes gets a key of its own, so that no two files share one. A file's token holds that key
// wrapped (AES-256-GCM) by a key that is derived from the archive key; all 1536 bytes of it are authenticated. Losing
// the archive key loses every file that was ever encrypted under it: it is made once and never replaced.
//
// Errors: std::runtime_error for what ends the service, Refused for what a client gets told.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>

#include "base/file_descriptor.h"

namespace keyservice {

struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// 32 bytes of key, wiped at the end.
struct Key {
    std::array<unsigned char, 32> bytes{};
    Key() = default;
    Key(const Key&) = default;
    Key& operator=(const Key&) = default;
    ~Key();
};

inline constexpr std::size_t TOKEN_PAYLOAD = 1024;
inline constexpr std::size_t TOKEN_SIZE = 512 + TOKEN_PAYLOAD;
using Token = std::array<std::byte, TOKEN_SIZE>;

[[nodiscard]] Key randomKey();

class KeyStore {
public:
    // Reads the archive key's file, or makes one with a random key; only its owner may be able to read it. The file
    // stays locked, so that a root has one service.
    explicit KeyStore(const std::filesystem::path& file);

    // The same key for the same value, always.
    [[nodiscard]] Key keyForValue(std::uint64_t value) const;

    [[nodiscard]] Token wrap(const Key& key) const;
    // Refuses a token that was made under another archive key or was changed anywhere.
    [[nodiscard]] Key unwrap(std::span<const std::byte, TOKEN_SIZE> token) const;

private:
    [[nodiscard]] Key derive(std::span<const unsigned char> label) const;

    FileDescriptor file_;
    Key archiveKey_;
};

}  // namespace keyservice
