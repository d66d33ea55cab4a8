// file_descriptor.h - owner of one file descriptor.
#pragma once

#include <utility>

// Owns one descriptor and closes it; -1 owns none. Closing keeps errno, so that cleaning up never hides the failure
// that led to it.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool isOpen() const noexcept { return fd_ != -1; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept;

private:
    int fd_;
};
