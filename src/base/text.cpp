#include "base/text.h"

#include <cstdio>

int formatText(char* buffer, std::size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vformatText(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

int vformatText(char* buffer, std::size_t size, const char* format, va_list arguments) {
    const int length = std::vsnprintf(buffer, size, format, arguments);
    if (length > 0 && static_cast<std::size_t>(length) < size)
        return length;
    if (size > 0)
        buffer[0] = '\0';
    return -1;
}

int vappendFormat(std::string* text, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    if (length > 0) {
        const std::size_t before = text->size();
        // The terminating NUL lands on the string's own.
        text->resize(before + static_cast<std::size_t>(length));
        (void)std::vsnprintf(text->data() + before, static_cast<std::size_t>(length) + 1, format, again);
    }
    va_end(again);
    return length < 0 ? -1 : length;
}

std::string formatString(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = vformatString(format, arguments);
    va_end(arguments);
    return text;
}

std::string vformatString(const char* format, va_list arguments) {
    std::string text;
    if (vappendFormat(&text, format, arguments) == -1)
        text.clear();
    return text;
}
