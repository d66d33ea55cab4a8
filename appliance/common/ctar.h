// ctar.h - headers of the tar-like stream that a backup consists of: entries on 512-byte boundaries, a header, then
// content padded with zeros. Numbers are octal text; the checksum sums signed bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace ctar {

inline constexpr std::size_t BLOCK = 512;
using Header = std::array<char, BLOCK>;

struct Entry {
    std::string name;
    std::string linkName;  // of a symbolic link
    char kind = '0';       // '0' file, '2' symbolic link, '5' directory
    std::uint64_t size = 0;
    std::uint64_t mode = 0;
    std::uint64_t uid = 0;
    std::uint64_t gid = 0;
    std::uint64_t mtime = 0;
};

// Makes the header of an entry. False for what this writer doesn't do: names over 170 characters (links) or 400
// (others), link names over 100, files of 8 GiB and more.
[[nodiscard]] bool makeHeader(const Entry& entry, Header* header);

// The block that ends the entries.
[[nodiscard]] Header sentinel();

}  // namespace ctar
