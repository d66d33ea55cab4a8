#include "archive/archiverw.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "archive/archive_internal.h"
#include "archive/compression_type.h"
#include "foundation/directories.h"
#include "foundation/ini.h"
#include "foundation/logger.h"

namespace {

constexpr char CONFIG_SECTION[] = "Configuration Options";
constexpr int DEVICE_BUFFER_SIZE = 1048576;
constexpr int USER_BUFFER_SIZE = 524288;
constexpr int DECOMPRESSED_BLOCK_SIZE = 262144;
constexpr int LOW_WATER_MARK = 3;
constexpr off_t CONTEXT_READ = 512;  // read in front of a first seek, to learn what the file holds

std::size_t configuredSize(const char* key, int defaultSize) {
    const int size = ini_get_int(CONFIG_SECTION, key, defaultSize, g_master_ini);
    return static_cast<std::size_t>(size < 1 ? defaultSize : size);
}

// What this room can't open yet. Refusing is the only answer that never gives wrong bytes.
const char* unsupported(char mode, std::uint64_t properties) {
    if ((properties & ARCHIVE_DEDUPLICATED) != 0)
        return "a deduplicated backup";
    if ((properties & ARCHIVE_ENCRYPTED) != 0)
        return "an encrypted backup";
    return mode == 'w' ? "a file for writing" : nullptr;
}

int prepareForReading(archive_filter* filter) {
    struct stat st {};
    const bool known = fstat(filter->file.get(), &st) == 0;
    if (known && S_ISCHR(st.st_mode))
        filter->properties &= ~ARCHIVE_DIRECT_IO;
    if (known && st.st_blksize > 0)
        filter->fsBlockSize = static_cast<std::size_t>(st.st_blksize);
    filter->readAheadLowWaterMark =
        ini_get_int(CONFIG_SECTION, "readAheadLowWaterMark_archiverw", LOW_WATER_MARK, g_master_ini);
    filter->decompressedBlockSize = configuredSize("decompressedBlockSize_archiverw", DECOMPRESSED_BLOCK_SIZE);
    filter->userBufferSize = roundUp(configuredSize("userbufsize_archiverw", USER_BUFFER_SIZE), USER_BUFFER_SIZE);
    archive_enable_direct(filter);
    return archive_grow_device(filter, configuredSize("devbufsize_archiverw", DEVICE_BUFFER_SIZE));
}

// Learns what the file holds from its first bytes. 0 done, 1 more bytes are needed, -1 failed.
int archive_context_init(archive_filter* filter) {
    constexpr std::uint64_t COMPRESSION_BITS = ARCHIVE_MAYBE_COMPRESSED | ARCHIVE_COMPRESSED_TOO;
    if ((filter->properties & COMPRESSION_BITS) != 0) {
        const DeviceBuffer& device = filter->device;
        if (device.bytes < COMPRESSION_MAGIC_SIZE) {
            LOG_HERE(5, "Not enough data is available to initialize context\n");
            LOG_HERE(5, "Only %zd bytes are present\n", static_cast<ssize_t>(device.bytes));
            return 1;
        }
        if (compression_type_of(device.data.get() + device.start, device.bytes) != COMPRESSION_UNKNOWN) {
            LOG_HERE(0, "Can't read a compressed file: not supported\n");
            errno = ENOTSUP;
            return -1;
        }
        LOG_HERE(5, "File is not compressed\n");
        filter->properties &= ~COMPRESSION_BITS;
    }
    filter->contextReady = true;
    return 0;
}

// Makes sure that the device buffer holds something, or that endOfStream is set. 0 or -1.
int provideData(archive_filter* filter, std::size_t missing, bool forBuffer) {
    const DeviceBuffer& device = filter->device;
    while (!filter->endOfStream && (device.bytes == 0 || !filter->contextReady)) {
        if (!filter->contextReady && (device.bytes > 0 || filter->physicalEof) && archive_context_init(filter) == -1)
            return -1;
        if (filter->contextReady && device.bytes > 0)
            break;
        // With the end seen there is nothing to wait for: no data is left, or too little of it to tell its kind.
        if (filter->physicalEof)
            filter->endOfStream = true;
        else if (archive_fill_device(filter, missing, forBuffer) == -1)
            return -1;
    }
    return 0;
}

void moveInBuffer(archive_filter* filter, off_t skip) {
    DeviceBuffer& device = filter->device;
    device.start = static_cast<std::size_t>(static_cast<off_t>(device.start) + skip);
    device.bytes = static_cast<std::size_t>(static_cast<off_t>(device.bytes) - skip);
    filter->virt_offset += skip;
}

bool isInBuffer(const archive_filter& filter, off_t skip) {
    const DeviceBuffer& device = filter.device;
    return skip < 0 ? -skip <= static_cast<off_t>(device.start - device.oldest)
                    : skip <= static_cast<off_t>(device.bytes);
}

void clearEnd(archive_filter* filter) {
    filter->endOfStream = filter->physicalEof = false;
}

off_t seekDescriptor(archive_filter* filter, off_t target, off_t skip) {
    if (lseek(filter->file.get(), target, SEEK_SET) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to seek to offset %lld: %s\n", static_cast<long long>(target), std::strerror(errno));
        return -1;
    }
    filter->fd_offset = filter->virt_offset = target;
    filter->device.empty();
    clearEnd(filter);
    if (std::abs(skip) > static_cast<off_t>(filter->device.size))
        filter->lastSeekOutOfBuffer = true;
    return target;
}

off_t seekByReading(archive_filter* filter, off_t skip) {
    if (archive_read(filter, nullptr, static_cast<std::size_t>(skip)) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to read to requested seek offset\n");
        return -1;
    }
    return filter->virt_offset;
}

off_t failSeek(int error) {
    errno = error;
    return -1;
}

// The first seek reads the start of the file: its kind decides how positions are found. 0 or -1.
int learnContext(archive_filter* filter, off_t skip) {
    const ssize_t got = archive_read(filter, nullptr, static_cast<std::size_t>(std::min(skip, CONTEXT_READ)));
    if (got == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to read to requested seek offset, %d\n", static_cast<int>(got));
        return -1;
    }
    if (!filter->contextReady)
        LOG_HERE(2, "Partial seek: more data needed to initialize context\n");
    return 0;
}

off_t seekTo(archive_filter* filter, off_t target) {
    if (target < 0) {
        LOG_HERE(0, "Failed seeking: cannot seek before start of file (offset %lld)\n", static_cast<long long>(target));
        return failSeek(EINVAL);
    }
    if (target == filter->virt_offset) {
        LOG_HERE(0, "archive_seek() INTERNAL ERROR: skip_bytes==0, offset=%lld.\n", static_cast<long long>(target));
        return failSeek(EINVAL);
    }
    if (!filter->contextReady) {
        if (learnContext(filter, target - filter->virt_offset) == -1)
            return -1;
        if (!filter->contextReady)
            return 0;
    }
    const off_t skip = target - filter->virt_offset;
    if (isInBuffer(*filter, skip)) {
        clearEnd(filter);
        moveInBuffer(filter, skip);
        return target;
    }
    if (!filter->streamMode)
        return seekDescriptor(filter, target, skip);
    if (skip > 0)
        return seekByReading(filter, skip);
    LOG_HERE(0, "Cannot seek backward in archive on non-seeking device\n");
    return failSeek(EINVAL);
}

}  // namespace

ArchiveFilterPtr archive_open(const char* path, const char* mode, std::uint64_t properties) {
    if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w')) {
        LOG_HERE(0, "Invalid mode '%s' passed to archive_open for %s\n", mode != nullptr ? mode : "(null)", path);
        errno = EINVAL;
        return nullptr;
    }
    if (const char* what = unsupported(mode[0], properties)) {
        LOG_HERE(0, "Can't open %s, %s: not supported\n", path, what);
        errno = ENOTSUP;
        return nullptr;
    }
    FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        return nullptr;
    ArchiveFilterPtr filter(new (std::nothrow) archive_filter);
    if (!filter) {
        errno = ENOMEM;
        return nullptr;
    }
    filter->file = std::move(file);
    filter->properties = properties;
    if (prepareForReading(filter.get()) == -1) {
        const KeepErrno keep;
        filter.reset();
    }
    return filter;
}

ssize_t archive_read(archive_filter* filter, void* buffer, std::size_t count) {
    if (filter == nullptr || count > SSIZE_MAX) {
        errno = EINVAL;
        return -1;
    }
    if (count == 0)
        return 0;
    if (filter->cheatSeek0 == 1) {
        filter->cheatSeek0 = 0;
        if (filter->virt_offset != 0 && seekTo(filter, 0) == -1)
            return -1;
    }
    if (buffer != nullptr && filter->readCounter != UINT_MAX)
        ++filter->readCounter;
    std::size_t taken = 0;
    while (taken < count) {
        if (provideData(filter, count - taken, buffer != nullptr) == -1)
            return -1;
        if (filter->endOfStream)
            break;
        const std::size_t piece = std::min(count - taken, filter->device.bytes);
        if (buffer != nullptr)
            std::memcpy(static_cast<std::byte*>(buffer) + taken, filter->device.data.get() + filter->device.start,
                        piece);
        moveInBuffer(filter, static_cast<off_t>(piece));
        taken += piece;
    }
    if (taken == 0) {
        // Not final: a caller may seek, or the file may have grown by the next call.
        clearEnd(filter);
    } else if (taken < count) {
        LOG_HERE(5, "EOF at virtual offset %lld (%lld physical) indicated by transform state\n",
                 static_cast<long long>(filter->virt_offset), static_cast<long long>(filter->fd_offset));
    }
    return static_cast<ssize_t>(taken);
}

off_t archive_seek(archive_filter* filter, off_t offset, int whence) {
    if (filter != nullptr && whence == SEEK_END)
        LOG_HERE(0, "archive_seek(,%lld,SEEK_END) is unsupported\n", static_cast<long long>(offset));
    if (filter == nullptr || (whence != SEEK_SET && whence != SEEK_CUR))
        return failSeek(EINVAL);
    const off_t present = filter->cheatSeek0 == 1 ? 0 : filter->virt_offset;
    off_t target = offset;
    if (whence == SEEK_CUR && __builtin_add_overflow(present, offset, &target))
        return failSeek(EINVAL);
    if (whence == SEEK_CUR && offset == 0)
        return present;
    if (target == 0 && filter->virt_offset != 0 && filter->cheatSeek0 != -1) {
        filter->cheatSeek0 = 1;
        return 0;
    }
    if (filter->cheatSeek0 == 1)
        filter->cheatSeek0 = 0;
    return target == filter->virt_offset ? target : seekTo(filter, target);
}

ssize_t archive_write(archive_filter* filter, const void*, std::size_t) {
    if (filter != nullptr)
        LOG_HERE(0, "File open only for reading, can't write\n");
    errno = EINVAL;
    return -1;
}

ssize_t archive_rewrite(archive_filter*) {
    errno = EINVAL;
    return -1;
}

void archive_adjust_size(archive_filter*, long) {
    LOG_HERE(0, "File open only for reading, can't adjust size.\n");
}

int archive_close(archive_filter* filter) {
    const std::unique_ptr<archive_filter> owner(filter);
    if (filter == nullptr || !filter->file.isOpen())
        return 0;
    return close(filter->file.release()) == -1 && errno != EINTR ? -1 : 0;
}

off_t archive_physical_offset(const archive_filter* filter) {
    return filter == nullptr ? 9 : filter->fd_offset;
}

int archive_fd(const archive_filter* filter) {
    return filter == nullptr ? -1 : filter->file.get();
}
