#include "database/smartbuffer.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/text.h"
#include "log/logger.h"

namespace {

// Both forms take no more text once the error is set: what they would hold then is not the caller's statement.
template <typename Buffer>
int failed(Buffer* buffer) {
    buffer->error = 1;
    return -1;
}

// Gives the block a new capacity. A failure drops the block, so that a half-built text can't be used by mistake.
template <typename Buffer>
int resize(Buffer* buffer, std::int64_t capacity) {
    char* const grown = capacity > INT_MAX
                            ? nullptr
                            : static_cast<char*>(std::realloc(buffer->text.get(), static_cast<std::size_t>(capacity)));
    if (grown == nullptr) {
        buffer->text.reset();
        buffer->capacity = 0;
        buffer->length = 0;
        LOG_HERE(0, "Could not grow heap-based query buffer to %d bytes\n",
                 static_cast<int>(capacity > INT_MAX ? INT_MAX : capacity));
        return failed(buffer);
    }
    (void)buffer->text.release();  // realloc has taken the old block
    buffer->text.reset(grown);
    buffer->capacity = static_cast<int>(capacity);
    return 0;
}

int makeRoom(smartbuffer* buffer, std::int64_t newLength) {
    if (newLength < buffer->capacity)
        return 0;
    return resize(buffer, (newLength + SMARTBUFFER_STEP) / SMARTBUFFER_STEP * SMARTBUFFER_STEP * 2);
}

int makeRoom(smartbuffer_stack* buffer, std::int64_t newLength) {
    if (newLength < (buffer->text ? buffer->capacity : SMARTBUFFER_STEP))
        return 0;
    const bool isFirst = !buffer->text;
    const std::int64_t steps = (newLength + SMARTBUFFER_STEP) / SMARTBUFFER_STEP;
    if (resize(buffer, steps * SMARTBUFFER_STEP + SMARTBUFFER_STEP) == -1) {
        buffer->inlineText[0] = '\0';
        return -1;
    }
    if (isFirst)
        std::memcpy(buffer->text.get(), buffer->inlineText, static_cast<std::size_t>(buffer->length) + 1);
    return 0;
}

char* textOf(smartbuffer* buffer) {
    return buffer->text.get();
}

char* textOf(smartbuffer_stack* buffer) {
    return buffer->text ? buffer->text.get() : buffer->inlineText;
}

template <typename Buffer>
int append(Buffer* buffer, const char* text, int length) {
    if (text == nullptr) {
        log_message(0, "%s:%d Invalid null source string parameter\n", __FILE__, __LINE__);
        return failed(buffer);
    }
    if (buffer->error != 0)
        return -1;
    const std::size_t added = length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
    const std::int64_t newLength = buffer->length + static_cast<std::int64_t>(added);
    if (makeRoom(buffer, newLength) == -1)
        return -1;
    char* const end = textOf(buffer) + buffer->length;
    std::memcpy(end, text, added);
    end[added] = '\0';
    buffer->length = static_cast<int>(newLength);
    return 0;
}

template <typename Buffer>
int appendFormatted(Buffer* buffer, const char* format, va_list arguments) {
    std::string text;
    const int length = vappendFormat(&text, format, arguments);
    if (length == -1)
        return failed(buffer);
    return append(buffer, text.c_str(), length);
}

}  // namespace

int smartbuffer_init(smartbuffer* buffer) {
    buffer->text.reset(static_cast<char*>(std::malloc(SMARTBUFFER_STEP)));
    buffer->length = 0;
    buffer->error = 0;
    buffer->capacity = buffer->text ? SMARTBUFFER_STEP : 0;
    if (!buffer->text) {
        LOG_HERE(0, "Could not create heap-based query buffer with %d bytes\n", SMARTBUFFER_STEP);
        return failed(buffer);
    }
    buffer->text.get()[0] = '\0';
    return 0;
}

int smartbuffer_append(smartbuffer* buffer, const char* text, int length) {
    return append(buffer, text, length);
}

int smartbuffer_printf(smartbuffer* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = appendFormatted(buffer, format, arguments);
    va_end(arguments);
    return result;
}

int smartbuffer_stack_init(smartbuffer_stack* buffer) {
    buffer->text.reset();
    buffer->inlineText[0] = '\0';
    buffer->capacity = 0;
    buffer->length = 0;
    buffer->error = 0;
    return 0;
}

int smartbuffer_stack_append(smartbuffer_stack* buffer, const char* text, int length) {
    return append(buffer, text, length);
}

int smartbuffer_stack_printf(smartbuffer_stack* buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = appendFormatted(buffer, format, arguments);
    va_end(arguments);
    return result;
}
