// query_buffer.h - room for long statements: an anonymous mapping that stays with its handle and only grows.
#pragma once

#include <cstddef>

class QueryBuffer {
public:
    QueryBuffer() = default;
    QueryBuffer(const QueryBuffer&) = delete;
    QueryBuffer& operator=(const QueryBuffer&) = delete;
    ~QueryBuffer();

    // Makes room for `size` bytes, or for what there is: the size is halved down to one page. Empties the text.
    // Returns 0, or -1 without any room.
    [[nodiscard]] int reserve(std::size_t size);

    void clear();

    // Adds to the text. Returns 0, or -1 if it doesn't fit; the text is then as before.
    [[nodiscard, gnu::format(printf, 2, 3)]] int append(const char* format, ...);

    [[nodiscard]] const char* text() const { return text_; }
    [[nodiscard]] std::size_t room() const { return size_ - length_; }  // with the NUL

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::size_t length_ = 0;
};
