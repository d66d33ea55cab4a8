// mapping.h - owner of a shared mapping of a file.
#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <utility>

class Mapping {
public:
    Mapping() = default;
    Mapping(Mapping&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    Mapping& operator=(Mapping&& other) noexcept {
        reset();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        return *this;
    }
    ~Mapping() { reset(); }

    // Maps part of a file for reading and writing, without setting memory aside for it. 0, or -1 with errno.
    [[nodiscard]] int map(int fd, off_t position, std::size_t size) {
        void* const data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, position);
        if (data == MAP_FAILED)
            return -1;
        reset();
        data_ = static_cast<std::byte*>(data);
        size_ = size;
        return 0;
    }

    // Gives the mapping another size; its address may change. 0, or -1 with errno and the old mapping.
    [[nodiscard]] int resize(std::size_t size) {
        void* const data = mremap(data_, size_, size, MREMAP_MAYMOVE);
        if (data == MAP_FAILED)
            return -1;
        data_ = static_cast<std::byte*>(data);
        size_ = size;
        return 0;
    }

    void reset() noexcept {
        const int savedErrno = errno;
        if (data_ != nullptr)
            (void)munmap(data_, size_);
        errno = savedErrno;
        data_ = nullptr;
        size_ = 0;
    }

    [[nodiscard]] std::byte* data() const { return data_; }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    std::byte* data_ = nullptr;
    std::size_t size_ = 0;
};
