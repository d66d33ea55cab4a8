// lookup3.h - Bob Jenkins' lookup3, by which store files find their place on the ring of devices. The values are stored
// and shared with other programs.
//
// Threads: no state.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

[[nodiscard]] std::uint32_t hashlittle(std::string_view key, std::uint32_t initial);
[[nodiscard]] std::uint32_t hashword(std::span<const std::uint32_t> words, std::uint32_t initial);
