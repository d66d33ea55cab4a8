// text.h - the one place where a printf result is checked against its buffer.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

// Formats into `buffer` of `size` bytes. Returns the length of the text, or -1 if it is empty, can't be formatted or
// doesn't fit with its NUL; the buffer then holds the empty text.
[[nodiscard, gnu::format(printf, 3, 4)]] int formatText(char* buffer, std::size_t size, const char* format, ...);
[[nodiscard, gnu::format(printf, 3, 0)]] int vformatText(char* buffer, std::size_t size, const char* format,
                                                         va_list arguments);

// Formats into a text of any length; empty if the format can't be carried out.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string formatString(const char* format, ...);
[[nodiscard, gnu::format(printf, 1, 0)]] std::string vformatString(const char* format, va_list arguments);

// Appends formatted text. Returns its length, or -1 (and appends nothing) if the format can't be carried out.
[[nodiscard, gnu::format(printf, 2, 0)]] int vappendFormat(std::string* text, const char* format, va_list arguments);
