#include "archive/archiverw.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "archive/archive_internal.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr char CONFIG_SECTION[] = "Configuration Options";
constexpr int DEVICE_BUFFER_SIZE = 1048576;
constexpr int USER_BUFFER_SIZE = 524288;
constexpr int DECRYPT_BLOCK_SIZE = 131072;
constexpr int DECOMPRESS_BLOCK_SIZE = 65536;
constexpr int DECOMPRESSED_BLOCK_SIZE = 262144;
constexpr int LOW_WATER_MARK = 3;
constexpr std::size_t RETAINED_BYTES = 8192;

RedupOpener redupOpener = nullptr;  // written by archive_register_redup, before threads

std::size_t configuredSize(const char* key, int defaultSize) {
    const int size = ini_get_int(CONFIG_SECTION, key, defaultSize, g_master_ini);
    return static_cast<std::size_t>(size < 1 ? defaultSize : size);
}

bool isCharacterDevice(const char* path) {
    struct stat st {};
    return stat(path, &st) == 0 && S_ISCHR(st.st_mode);
}

int openForReading(archive_filter* filter, const char* path) {
    filter->fd.reset(open(path, O_RDONLY | O_CLOEXEC));
    if (!filter->fd.isOpen())
        return -1;
    filter->readAheadLowWaterMark =
        ini_get_int(CONFIG_SECTION, "readAheadLowWaterMark_archiverw", LOW_WATER_MARK, g_master_ini);
    filter->decryptBlockSize =
        roundUp(configuredSize("decryptBlockSize_archiverw", DECRYPT_BLOCK_SIZE), CDLIB_BLOCK_SIZE);
    filter->decompressBlockSize = configuredSize("decompressBlockSize_archiverw", DECOMPRESS_BLOCK_SIZE);
    filter->decompressedBlockSize = configuredSize("decompressedBlockSize_archiverw", DECOMPRESSED_BLOCK_SIZE);
    LOG_HERE(5, "read_odirect_archiverw: %d\n", static_cast<int>(filter->direct()));
    return 0;
}

// A backup is never overwritten.
int openForWriting(archive_filter* filter, const char* path, bool isDevice) {
    filter->set(ARCH_STREAM_MODE, isDevice);
    const int flags = O_WRONLY | O_CLOEXEC | (isDevice ? 0 : O_CREAT | O_EXCL);
    filter->fd.reset(open(path, flags, ARCHIVE_FILE_MODE));
    if (!filter->fd.isOpen()) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to open %s, flags 0x%x for writing: %s\n", path, static_cast<unsigned>(flags),
                 std::strerror(errno));
        return -1;
    }
    LOG_HERE(5, "write_odirect_archiverw: %d\n", static_cast<int>(filter->direct()));
    return 0;
}

int openFile(archive_filter* filter, const char* path) {
    const bool isDevice = isCharacterDevice(path);
    if (isDevice)
        filter->properties &= ~ARCHIVE_DIRECT_IO;
    const int opened = filter->mode == 'w' ? openForWriting(filter, path, isDevice) : openForReading(filter, path);
    if (opened == -1)
        return -1;
    archive_enable_direct(filter);
    struct stat st {};
    if (fstat(filter->fd.get(), &st) == 0 && st.st_blksize > 0)
        filter->fsBlockSize = static_cast<std::size_t>(st.st_blksize);
    filter->userBufferSize = roundUp(configuredSize("userbufsize_archiverw", USER_BUFFER_SIZE), USER_BUFFER_SIZE);
    filter->retainedBytes = RETAINED_BYTES;
    return archive_grow_device(filter, configuredSize("devbufsize_archiverw", DEVICE_BUFFER_SIZE));
}

int openRedup(archive_filter* filter, const char* path, const char* mode) {
    if (redupOpener == nullptr) {
        LOG_HERE(0, "Can't open %s, a deduplicated backup: not supported\n", path);
        return archive_fail(ENOTSUP);
    }
    filter->redup = redupOpener(path, mode, filter->properties);
    return filter->redup ? 0 : -1;
}

}  // namespace

void archive_register_redup(RedupOpener opener) {
    redupOpener = opener;
}

ArchiveFilterPtr archive_open(const char* path, const char* mode, std::uint64_t properties) {
    if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w')) {
        LOG_HERE(0, "Invalid mode '%s' passed to archive_open for %s\n", mode != nullptr ? mode : "(null)", path);
        errno = EINVAL;
        return nullptr;
    }
    ArchiveFilterPtr filter(new (std::nothrow) archive_filter);
    if (!filter) {
        errno = ENOMEM;
        return nullptr;
    }
    filter->mode = mode[0];
    filter->properties = properties;
    const bool isDeduplicated = (properties & ARCHIVE_DEDUPLICATED) != 0;
    if ((isDeduplicated ? openRedup(filter.get(), path, mode) : openFile(filter.get(), path)) == -1) {
        const KeepErrno keep;
        filter.reset();
    }
    return filter;
}

void ArchiveFilterDeleter::operator()(archive_filter* filter) const noexcept {
    transform_close(&filter->transform, false);
    delete filter;
}

int archive_close(ArchiveFilterPtr* filter) {
    archive_filter* const f = filter->get();
    if (f == nullptr)
        return 0;
    int error = 0;
    if (f->mode == 'w' && !f->redup && archive_finish_writing(f) == -1) {
        error = errno;
        if (archive_is_recoverable(*f)) {
            LOG_HERE(0, "Failed to close archive filter, error is recoverable\n");
            return archive_fail(error);
        }
        if (!f->continue_on_error)
            LOG_HERE(0, "Clearing filter as continue_on_error was set to NOT continue");
    }
    transform_close(&f->transform, f->mode == 'w' && error == 0);
    const int descriptor = f->fd.release();
    if (descriptor != -1 && close(descriptor) == -1 && errno != EINTR && error == 0)
        error = errno;
    filter->reset();
    return error == 0 ? 0 : archive_fail(error);
}

off_t archive_physical_offset(const archive_filter* filter) {
    if (filter == nullptr)
        return 9;
    return filter->redup ? filter->redup->offset() : filter->fd_offset;
}

void archive_never_defer_seek(archive_filter* filter) {
    filter->cheatSeek0 = -1;
}

int archive_fd(const archive_filter* filter) {
    if (filter == nullptr)
        return -1;
    return filter->redup ? archive_fd(filter->redup->inner()) : filter->fd.get();
}
