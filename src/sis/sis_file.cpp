// Store files: finding, making and mapping them.
//
// A file is made under one lock that all processes share, whatever the device: whoever gets it looks at every device
// again, so that no file is made twice. It is empty while it is being made, and the step from empty to complete is one
// system call. Its maker tells nobody of it before, so an empty file is one whose maker died: it counts as absent, and
// the next maker fills it.

#include <fcntl.h>
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

// What opening a file on one device, or on all of them, has come to. The greater one tells more.
enum class Opening {
    Absent,
    Unfinished,  // empty: its maker died
    Unreadable,  // it may be the file
    Found
};

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

int syncDirectory(const std::string& directory) {
    const FileDescriptor fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.isOpen() && fsync(fd.get()) == 0 ? 0 : logCall("fsync", directory);
}

// Keeps everybody else from making a file. It belongs to the handle's open file, not to the process: threads of one
// process keep each other out too, and a death gives it back.
class MakingLock {
public:
    explicit MakingLock(const SIS* handle) : fd_(handle->info.get()) {
        if (set(F_WRLCK) == -1) {
            LOG_HERE(0, "fcntl(%s, F_OFD_SETLKW): %s\n", handle->infoPath.c_str(), std::strerror(errno));
            failed_ = true;
        }
    }
    MakingLock(const MakingLock&) = delete;
    MakingLock& operator=(const MakingLock&) = delete;
    ~MakingLock() { (void)set(F_UNLCK); }  // fails only for a descriptor that is none
    [[nodiscard]] bool failed() const { return failed_; }

private:
    [[nodiscard]] int set(short type) const {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_len = 1;
        int result;
        do
            result = fcntl(fd_, F_OFD_SETLKW, &lock);
        while (result == -1 && errno == EINTR);
        return result;
    }
    int fd_;
    bool failed_ = false;
};

int readCrypt(StoreFile* file, std::uint64_t limit, const struct stat& st) {
    const auto length = static_cast<std::uint64_t>(st.st_size);
    if (!S_ISREG(st.st_mode) || length < limit) {
        LOG_HERE(0, "%s is no store file, or not set up: %lu bytes\n", file->path.c_str(), length);
        return -1;
    }
    return openSIScrypt(file, limit, length);
}

// Names a store file, and opens it, or makes an empty one.
StoreFile openOnDevice(const SIS* handle, const Device& device, std::uint64_t fileOffset, bool create) {
    StoreFile file;
    file.path = pathOf(device, fileOffset);
    file.first = fileOffset;
    file.smgrKey = generateSISoffset_smgrKey(handle, fileOffset);
    file.file = openFile(file.path, create);
    return file;
}

void use(SIS* handle, StoreFile file) {
    const int flags = fcntl(file.file.get(), F_GETFL);
    if (flags == -1 || fcntl(file.file.get(), F_SETFL, flags | O_DIRECT) == -1)
        log_message(5, "Can't set O_DIRECT on %s: %s\n", file.path.c_str(), std::strerror(errno));
    handle->open = std::move(file);
}

// Opens a complete file in place of the one that is open.
Opening openSISfile(SIS* handle, const Device& device, std::uint64_t fileOffset) {
    StoreFile next = openOnDevice(handle, device, fileOffset, false);
    struct stat st;
    if (!next.file.isOpen()) {
        if (errno == ENOENT || errno == ENOTDIR)
            return Opening::Absent;
        (void)logCall("open64", next.path);
        return Opening::Unreadable;
    }
    if (fstat(next.file.get(), &st) == -1) {
        (void)logCall("fstat64", next.path);
        return Opening::Unreadable;
    }
    if (S_ISREG(st.st_mode) && st.st_size == 0)
        return Opening::Unfinished;
    if (readCrypt(&next, handle->limit, st) == -1)
        return Opening::Unreadable;
    use(handle, std::move(next));
    return Opening::Found;
}

// Looks on the expected device and then on every other one: the devices may have changed since the file was made, and
// one that fails must not hide what is sound on another.
Opening searchDevices(SIS* handle, const Device& expected, std::uint64_t fileOffset) {
    Opening best = openSISfile(handle, expected, fileOffset);
    for (const Device& device : handle->devices) {
        if (best == Opening::Found || &device == &expected)
            continue;
        best = std::max(best, openSISfile(handle, device, fileOffset));
        if (best == Opening::Found)
            log_message(3, "Found single instance store file %lX in\n  %s instead of in\n  %s\n", fileOffset,
                        device.directory.c_str(), expected.directory.c_str());
    }
    return best;
}

// Makes an empty file a store file; one step completes it.
int setUp(StoreFile* file, std::uint64_t limit) {
    const int encrypted = setUpSIScrypt(file, limit);
    if (encrypted == -1)
        return -1;
    if (encrypted == 0 && ftruncate(file->file.get(), static_cast<off_t>(limit)) == -1) {
        log_message(0, "ftruncate64(%s, 0x%lX): %s\n", file->path.c_str(), limit, std::strerror(errno));
        return -1;
    }
    return 0;
}

// A complete file outlasts the power before anything is told to lie in it. Its directory may be as new as it is.
int settle(const StoreFile& file) {
    const std::string directory = file.path.substr(0, file.path.rfind('/') + 1);
    if (fsync(file.file.get()) == -1)
        return logCall("fsync", file.path);
    return syncDirectory(directory) == 0 && syncDirectory(directory + "../") == 0 ? 0 : -1;
}

// A file that couldn't be made must be known to be gone before another device gets one of its name.
Opening removeRemains(const std::string& path, const std::string& directory) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT)
        return syncDirectory(directory) == 0 ? Opening::Absent : Opening::Unreadable;
    (void)logCall("unlink", path);
    return Opening::Unreadable;
}

// Makes the file on one device. Found, Absent if the next device may be tried, Unreadable if none may.
Opening makeOnDevice(SIS* handle, const Device& device, std::uint64_t fileOffset) {
    if (mkdir(device.directory.c_str(), 0700) == -1 && errno != EEXIST) {
        (void)logCall("mkdir", device.directory);
        return Opening::Absent;
    }
    StoreFile file = openOnDevice(handle, device, fileOffset, true);
    if (!file.file.isOpen()) {
        (void)logCall("open64", file.path);
        return Opening::Absent;
    }
    if (setUp(&file, handle->limit) == -1 || settle(file) == -1)
        return removeRemains(file.path, device.directory);
    use(handle, std::move(file));
    return Opening::Found;
}

// The one place where files are made and finished. 0 or -1.
int makeStoreFile(SIS* handle, std::size_t firstEntry, const Device& expected, std::uint64_t fileOffset) {
    const MakingLock lock(handle);
    if (lock.failed())
        return -1;
    Opening opening = searchDevices(handle, expected, fileOffset);
    if (opening == Opening::Found)
        return settle(handle->open);  // its maker may have died before he did it
    std::vector<const Device*> tried;
    for (std::size_t i = 0; i < handle->ring.size() && opening != Opening::Unreadable; ++i) {
        const Device* device = deviceOfEntry(*handle, handle->ring[(firstEntry + i) % handle->ring.size()]);
        if (device == nullptr || device->isDeleted() || std::count(tried.begin(), tried.end(), device) != 0)
            continue;
        tried.push_back(device);
        opening = makeOnDevice(handle, *device, fileOffset);
        if (opening != Opening::Found)
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

std::atomic<std::uint64_t> g_preferredWindow = 0;  // 0: not asked yet

// How much of a file to map at a time: as much as there is memory, since an unused part costs nothing.
std::uint64_t preferredWindow() {
    constexpr std::uint64_t GIGABYTE = std::uint64_t{1} << 30;
    constexpr std::uint64_t MOST = 0x800000000;
    constexpr std::uint64_t RAM_IF_UNKNOWN = 0x100000000;
    if (g_preferredWindow == 0) {
        struct sysinfo system {};
        std::uint64_t ram = RAM_IF_UNKNOWN;
        if (sysinfo(&system) == 0)
            ram = static_cast<std::uint64_t>(system.totalram) * system.mem_unit;
        else
            log_message(0, "sysinfo(): %s\n", std::strerror(errno));
        const int ratio = std::max(0, ini_get_int("fileDedup", "SISmmapRatio", 100, g_master_ini));
        const std::uint64_t wanted = ram / 100 * static_cast<std::uint64_t>(ratio);
        g_preferredWindow = std::clamp(roundUp(std::min(wanted, MOST), GIGABYTE), GIGABYTE, MOST);
    }
    return g_preferredWindow;
}

}  // namespace

void forgetSISwindow() {
    g_preferredWindow = 0;
}

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
    if (canCreate && offset == fileOffset)
        return makeStoreFile(handle, entry, *expected, fileOffset);
    const Opening opening = searchDevices(handle, *expected, fileOffset);
    if (opening == Opening::Found)
        return 0;
    if (opening == Opening::Unfinished)
        log_message(0, "ERROR:  LOCK_EX is not held and device not fully setup.\n");
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
