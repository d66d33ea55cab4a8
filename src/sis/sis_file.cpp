// Store files: finding, making and mapping them.
//
// A file is empty while it is being made, which its maker does under an exclusive flock on it; the step from empty to
// complete is one system call, so that a maker's death leaves nothing in between. Whoever finds an empty file waits for
// that flock; a writer who gets it for himself finishes the work.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

constexpr int FOUND = 1;
constexpr int NOT_THERE = 0;
constexpr std::size_t NAME_DIGITS = 16;

std::string pathOf(const Device& device, std::uint64_t fileOffset) {
    return device.directory + formatString("%016lX", fileOffset);
}

int logCall(const char* call, const std::string& path) {
    LOG_HERE(0, "%s(%s): %s\n", call, path.c_str(), std::strerror(errno));
    return -1;
}

FileDescriptor openFile(const std::string& path, bool create) {
    const int flags = O_RDWR | O_SYNC | O_CLOEXEC | (create ? O_CREAT : 0);
    FileDescriptor file(open(path.c_str(), flags | O_NOATIME, 0600));
    if (!file.isOpen() && errno == EPERM)
        file.reset(open(path.c_str(), flags, 0600));
    return file;
}

int flockFile(int fd, int operation) {
    int result;
    do
        result = flock(fd, operation);
    while (result == -1 && errno == EINTR);
    return result;
}

int syncDirectoryOf(const std::string& path) {
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const FileDescriptor fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.isOpen() && fsync(fd.get()) == 0 ? 0 : logCall("fsync", directory);
}

// Makes an empty file, whose flock we hold, a store file. One that can't be made is removed.
int setUp(StoreFile* file, std::uint64_t limit) {
    int result = setUpSIScrypt(file, limit);
    if (result == 0 && ftruncate(file->file.get(), static_cast<off_t>(limit)) == -1) {
        log_message(0, "ftruncate64(%s, 0x%lX): %s\n", file->path.c_str(), limit, std::strerror(errno));
        result = -1;
    }
    if (result != -1 && fsync(file->file.get()) == -1)
        result = logCall("fsync", file->path);
    if (result != -1)
        result = syncDirectoryOf(file->path);
    if (result == -1 && unlink(file->path.c_str()) == -1)
        (void)logCall("unlink", file->path);
    return result == -1 ? -1 : 0;
}

// An empty file: sets it up if we may and nobody else does, or waits for whoever does. 0 once it has content.
int completeFile(StoreFile* file, std::uint64_t limit, bool maySetUp) {
    const int fd = file->file.get();
    const bool isOurs = flockFile(fd, LOCK_EX | LOCK_NB) == 0;
    if (!isOurs && flockFile(fd, LOCK_SH) == -1)
        return logCall("flock", file->path);
    struct stat st;
    int result = fstat(fd, &st);
    if (result == -1)
        (void)logCall("fstat64", file->path);
    else if (st.st_size == 0 && isOurs && maySetUp && st.st_nlink > 0)
        result = setUp(file, limit);
    else if (st.st_size == 0) {
        log_message(0, "ERROR:  LOCK_EX is not held and device not fully setup.\n");
        result = -1;
    }
    (void)flockFile(fd, LOCK_UN);
    return result;
}

int readCrypt(StoreFile* file, std::uint64_t limit) {
    struct stat st;
    if (fstat(file->file.get(), &st) == -1)
        return logCall("fstat64", file->path);
    const auto length = static_cast<std::uint64_t>(st.st_size);
    if (!S_ISREG(st.st_mode) || length < limit) {
        LOG_HERE(0, "%s is no store file, or not set up: %lu bytes\n", file->path.c_str(), length);
        return -1;
    }
    return openSIScrypt(file, limit, length);
}

// Opens a file in place of the one that is open. FOUND, NOT_THERE or -1.
int openSISfile(SIS* handle, const Device& device, std::uint64_t fileOffset, bool create, bool maySetUp) {
    StoreFile next;
    next.path = pathOf(device, fileOffset);
    next.first = fileOffset;
    next.smgrKey = generateSISoffset_smgrKey(handle, fileOffset);
    if (create && mkdir(device.directory.c_str(), 0700) == -1 && errno != EEXIST)
        return logCall("mkdir", device.directory);
    next.file = openFile(next.path, create);
    if (!next.file.isOpen())
        return errno == ENOENT || errno == ENOTDIR ? NOT_THERE : logCall("open64", next.path);
    struct stat st;
    if (fstat(next.file.get(), &st) == -1)
        return logCall("fstat64", next.path);
    if (st.st_size == 0 && completeFile(&next, handle->limit, maySetUp) == -1)
        return -1;
    if (!next.crypt && readCrypt(&next, handle->limit) == -1)
        return -1;
    const int flags = fcntl(next.file.get(), F_GETFL);
    if (flags == -1 || fcntl(next.file.get(), F_SETFL, flags | O_DIRECT) == -1)
        log_message(5, "Can't set O_DIRECT on %s: %s\n", next.path.c_str(), std::strerror(errno));
    handle->open = std::move(next);
    return FOUND;
}

// Placement is only a first guess: the devices may have changed since the file was made.
int searchElsewhere(SIS* handle, const Device& expected, std::uint64_t fileOffset, bool maySetUp) {
    for (const Device& device : handle->devices) {
        if (&device == &expected)
            continue;
        const int found = openSISfile(handle, device, fileOffset, false, maySetUp);
        if (found == FOUND)
            log_message(3, "Found single instance store file %lX in\n  %s instead of in\n  %s\n", fileOffset,
                        device.directory.c_str(), expected.directory.c_str());
        if (found != NOT_THERE)
            return found;
    }
    return NOT_THERE;
}

int createFile(SIS* handle, std::size_t firstEntry, const Device& expected, std::uint64_t fileOffset) {
    std::vector<const Device*> tried;
    for (std::size_t i = 0; i < handle->ring.size(); ++i) {
        const Device* device = deviceOfEntry(*handle, handle->ring[(firstEntry + i) % handle->ring.size()]);
        if (device == nullptr || device->isDeleted() || std::count(tried.begin(), tried.end(), device) != 0)
            continue;
        tried.push_back(device);
        if (openSISfile(handle, *device, fileOffset, true, true) != FOUND)
            continue;
        log_message(2, "New single instance store file: %s\n", handle->open.path.c_str());
        if (device != &expected)
            log_message(2, "Single instance store file %016lX should be in\n  %s\n", fileOffset,
                        expected.directory.c_str());
        return 0;
    }
    log_message(0, "There's no room to put another single instance store file!\n");
    return -1;
}

int reportMissing(std::uint64_t offset, std::uint64_t fileOffset, bool canCreate) {
    log_message(0, "Can't find existing single instance store file for offset 0x%lX, canCreate(%d)\n", offset,
                canCreate ? 1 : 0);
    unsigned char wanted = 0;
    (void)ini_get_bool("fileDedup", "sis_log_err", 0, &wanted, g_master_ini);  // the default is in place
    if (wanted != 0)
        captureSISerror(formatString("SIS_CREATE_ERR_%016lX", fileOffset));
    return -1;
}

// How much of a file to map at a time: as much as there is memory, since an unused part costs nothing.
std::uint64_t preferredWindow() {
    static constexpr std::uint64_t GIGABYTE = std::uint64_t{1} << 30;
    static constexpr std::uint64_t MOST = 0x800000000;
    static constexpr std::uint64_t RAM_IF_UNKNOWN = 0x100000000;
    static const std::uint64_t length = [] {
        struct sysinfo system {};
        std::uint64_t ram = RAM_IF_UNKNOWN;
        if (sysinfo(&system) == 0)
            ram = static_cast<std::uint64_t>(system.totalram) * system.mem_unit;
        else
            log_message(0, "sysinfo(): %s\n", std::strerror(errno));
        const int ratio = std::max(0, ini_get_int("fileDedup", "SISmmapRatio", 100, g_master_ini));
        const std::uint64_t wanted = ram / 100 * static_cast<std::uint64_t>(ratio);
        return std::clamp(roundUp(std::min(wanted, MOST), GIGABYTE), GIGABYTE, MOST);
    }();
    return length;
}

}  // namespace

std::uint32_t generateSISoffset_smgrKey(const SIS* handle, std::uint64_t offset) {
    constexpr std::uint32_t STORE_KEYS = 0x73000000;
    return static_cast<std::uint32_t>(handle->fileOf(offset) >> 32) ^ STORE_KEYS;
}

off_t lockByteOf(const SIS* handle, std::uint64_t offset) {
    return static_cast<off_t>(offset / handle->limit);
}

int findSISfile(SIS* handle, std::uint64_t offset, bool canCreate) {
    const std::uint64_t fileOffset = handle->fileOf(offset);
    if (handle->open.file.isOpen() && handle->open.first == fileOffset)
        return 0;
    if (handle->ring.empty()) {
        log_message(0, "No devices available\n");
        return -1;
    }
    const std::size_t entry = lookUpRing(*handle, fileOffset);
    const Device* const expected = deviceOfEntry(*handle, handle->ring[entry]);
    if (expected == nullptr) {
        log_message(0, "NULL hash entry pointer\n");
        return -1;
    }
    int found = openSISfile(handle, *expected, fileOffset, false, canCreate);
    if (found == NOT_THERE)
        found = searchElsewhere(handle, *expected, fileOffset, canCreate);
    if (found != NOT_THERE)
        return found == FOUND ? 0 : -1;
    if (canCreate && offset == fileOffset)
        return createFile(handle, entry, *expected, fileOffset);
    return reportMissing(offset, fileOffset, canCreate);
}

int mapSIS(SIS* handle, std::uint64_t offset) {
    StoreFile& file = handle->open;
    if (file.window.data() != nullptr && offset >= file.windowStart && offset - file.windowStart < file.window.size())
        return 0;
    const std::uint64_t position = offset - file.first;
    for (std::uint64_t length = preferredWindow(); length >= PAGE; length = length / 2 / PAGE * PAGE) {
        // Windows begin at multiples of their length, so that reads here and there come back to the same one.
        const std::uint64_t start = position - position % length;
        const std::uint64_t size = std::min(length, handle->limit - start);
        if (file.window.map(file.file.get(), static_cast<off_t>(start), size) == 0) {
            file.windowStart = file.first + start;
            return 0;
        }
    }
    return logCall("mmap", file.path);
}

int pathToSISoffset(std::uint64_t* offset, std::string* device, SIS* handle, const std::string& path) {
    const SharedMap shared(handle);
    if (shared.failed())
        return -1;
    for (const Device& candidate : handle->devices) {
        const std::string& directory = candidate.directory;
        if (!path.starts_with(directory) || path.size() != directory.size() + NAME_DIGITS)
            continue;
        const std::string name = path.substr(directory.size());
        const std::uint64_t value = std::strtoull(name.c_str(), nullptr, 16);
        if (formatString("%016lX", value) != name || value % handle->limit != 0)
            continue;
        *offset = value;
        *device = directory;
        return 0;
    }
    LOG_HERE(0, "%s is no store file's path\n", path.c_str());
    return -1;
}
