#include "base/file_descriptor.h"

#include <unistd.h>

#include <cerrno>

void FileDescriptor::reset(int fd) noexcept {
    if (fd_ != -1 && fd_ != fd) {
        const int savedErrno = errno;
        // Linux frees the descriptor even when close fails, so there is nothing to try again.
        (void)close(fd_);
        errno = savedErrno;
    }
    fd_ = fd;
}
