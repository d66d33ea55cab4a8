#include "hash/query_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/text.h"
#include "log/logger.h"

namespace {

void unmap(char* text, std::size_t size) {
    if (text != nullptr && munmap(text, size) == -1)
        log_message(0, "munmap(, %zd): %s\n", static_cast<ssize_t>(size), std::strerror(errno));
}

}  // namespace

QueryBuffer::~QueryBuffer() {
    unmap(text_, size_);
}

int QueryBuffer::reserve(std::size_t size) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    size = (size + page - 1) / page * page;
    if (size > size_) {
        unmap(text_, size_);
        text_ = nullptr;
        size_ = 0;
        void* mapping = MAP_FAILED;
        for (; mapping == MAP_FAILED && size >= page; size = size / 2 / page * page) {
            mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (mapping != MAP_FAILED)
                size_ = size;
        }
        if (mapping == MAP_FAILED) {
            log_message(0, "mmap(, %zd): %s\n", static_cast<ssize_t>(page), std::strerror(errno));
            return -1;
        }
        text_ = static_cast<char*>(mapping);
    }
    clear();
    return 0;
}

void QueryBuffer::clear() {
    length_ = 0;
    if (text_ != nullptr)
        text_[0] = '\0';
}

int QueryBuffer::append(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int added = vformatText(text_ + length_, room(), format, arguments);
    va_end(arguments);
    if (added == -1)
        return -1;
    length_ += static_cast<std::size_t>(added);
    return 0;
}
