// ini_internal.h - what the readers and the writers of ini files share.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::string_view INI_SPACE = " \t\n\v\f\r";

// Cut what is unwanted off the front, or the end.
[[nodiscard]] constexpr std::string_view skip(std::string_view text, std::string_view unwanted) {
    const std::size_t start = text.find_first_not_of(unwanted);
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}
[[nodiscard]] constexpr std::string_view trimEnd(std::string_view text, std::string_view unwanted = INI_SPACE) {
    const std::size_t last = text.find_last_not_of(unwanted);
    return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

// Section and key names are compared without case.
[[nodiscard]] bool sameName(std::string_view a, std::string_view b);

// The whole file at once, so that a reader sees no mixture of two states. 0 or -1 with errno.
[[nodiscard]] int readWholeFile(const std::string& path, std::string* text);
[[nodiscard]] int readWholeFd(int fd, std::string* text);

// flock that waits for at most so many milliseconds, since whoever can read an ini file can lock it for good. A holder
// that let the whole wait pass without a change of the file isn't waited for again for some seconds: a start reads
// dozens of keys. 0, or -1 with errno.
[[nodiscard]] int lockWithin(int fd, int operation, int timeoutMs);
