// bytes.h - bytes without a pattern, text as bytes, and waiting for a condition.
#pragma once

#include <span>

#include "support/test.h"

namespace testsupport {

// The same for the same seed.
inline std::string noise(std::size_t size, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size + 8, '\0');
    for (std::size_t at = 0; at < size; at += 8)
        std::memcpy(&bytes[at], std::array{random()}.data(), 8);
    bytes.resize(size);
    return bytes;
}

inline std::span<const std::byte> bytesOf(const std::string& text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}
inline std::span<std::byte> roomOf(std::string& text) {
    return std::as_writable_bytes(std::span(text.data(), text.size()));
}

// Lower-case hex digits.
inline std::string hexOf(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes)
        for (const auto digit : {byte >> 4, byte & std::byte{15}})
            text += "0123456789abcdef"[std::to_integer<unsigned>(digit)];
    return text;
}

// Whether the condition comes true before a deadline that only a fault reaches.
template <typename Condition>
[[nodiscard]] bool comesTrue(Condition condition) {
    return eventually(condition, std::chrono::seconds(30));
}

}  // namespace testsupport
