// The info file: opening it, setting it up, and following its changes.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <new>

#include "base/paths.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

constexpr std::uint64_t DEFAULT_FILE_SIZE_LIMIT = 0x800000000;
constexpr std::uint64_t MOST_BLOCK_SIZE = 0x7fffffffffffffff;
constexpr std::uint64_t NO_BLOCK_SIZE = ~std::uint64_t{0};
constexpr std::uint64_t DEVICE_SECTOR = 512;

// Never destroyed: handles may be released while the process ends.
ByteLockFile* offsetLockFile() {
    static auto* file = new ByteLockFile(paths::SIS_LOCK_FILE, "openSIS", "lockSISoffset");
    return file;
}

int openInfo(SIS* handle) {
    constexpr int FLAGS = O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC;
    handle->infoPath = systemPath(paths::SIS_INFO);
    const char* const path = handle->infoPath.c_str();
    handle->info.reset(open(path, FLAGS | O_NOATIME, 0600));
    if (!handle->info.isOpen() && errno == EPERM)
        handle->info.reset(open(path, FLAGS, 0600));
    if (!handle->info.isOpen()) {
        LOG_HERE(0, "open(%s): %s\n", path, std::strerror(errno));
        return -1;
    }
    const int flags = fcntl(handle->info.get(), F_GETFL);
    if (flags == -1)
        log_message(0, "Can't get %s file status flags: %s\n", path, std::strerror(errno));
    else if (fcntl(handle->info.get(), F_SETFL, flags | O_DIRECT) == -1)
        log_message(0, "Can't set O_DIRECT on %s: %s\n", path, std::strerror(errno));
    return 0;
}

int logFlock(const SIS* handle) {
    LOG_HERE(0, "flock(%s): %s\n", handle->infoPath.c_str(), std::strerror(errno));
    return -1;
}

int infoLength(const SIS* handle, struct stat* st) {
    if (fstat(handle->info.get(), st) == 0)
        return 0;
    LOG_HERE(0, "fstat(%s): %s\n", handle->infoPath.c_str(), std::strerror(errno));
    return -1;
}

// Gives the file's pages their place on the device now: a touch of a mapped page that finds none is SIGBUS, for whoever
// touches it. 0, or -1 with the file at least as long as before.
int allocateInfo(const SIS* handle, std::uint64_t length) {
    const int error = posix_fallocate(handle->info.get(), 0, static_cast<off_t>(length));
    if (error == 0)
        return 0;
    LOG_HERE(0, "posix_fallocate(%s, %lu): %s\n", handle->infoPath.c_str(), length, std::strerror(error));
    return -1;
}

int mapHeader(SIS* handle) {
    struct stat st;
    if (infoLength(handle, &st) == -1)
        return -1;
    if (st.st_size < static_cast<off_t>(PAGE)) {
        LOG_HERE(0, "%s is damaged: %ld bytes\n", handle->infoPath.c_str(), st.st_size);
        return -1;
    }
    if (handle->map.map(handle->info.get(), 0, PAGE) == -1) {
        LOG_HERE(0, "mmap(%s): %s\n", handle->infoPath.c_str(), std::strerror(errno));
        return -1;
    }
    const std::uint32_t version = SISword(handle->header().version);
    if (version != 0)
        log_message(0, "Can't handle single instance store version 0x%08X\n", version);
    return version == 0 ? 0 : -1;
}

// Those who come too early are told what is missing.
int checkReady(SIS* handle) {
    SISheader& header = handle->header();
    const std::uint64_t blockSize = SISword(header.blockSize);
    const std::uint64_t limit = SISword(header.fileSizeLimit);
    if (blockSize == 0)
        log_message(0, "The single instance store isn't ready -- block size = %lX.\n", blockSize);
    else if (limit == 0)
        log_message(0, "The single instance store isn't ready -- file size limit = %lX.\n", limit);
    else if (SISword(header.mappedLength) == 0 || SISword(header.deviceList) == 0)
        log_message(0, "The single instance store isn't ready -- empty info file.\n");
    else
        return 0;
    return -1;
}

// With the exclusive lock: puts in what the header lacks. The sizes are settled with that for ever.
void completeHeader(SIS* handle) {
    SISheader& header = handle->header();
    const auto blockSize = SISword(header.blockSize);
    if (blockSize == 0)
        blockSize = 2 * PAGE;
    else if (blockSize == NO_BLOCK_SIZE)
        blockSize = MOST_BLOCK_SIZE;
    if (SISword(header.fileSizeLimit) == 0)
        SISword(header.fileSizeLimit) = DEFAULT_FILE_SIZE_LIMIT;
    if (SISword(header.mappedLength) == 0)
        SISword(header.mappedLength) = static_cast<std::uint32_t>(PAGE);
    if (SISword(header.deviceList) == 0)
        SISword(header.deviceList) = sizeof(SISheader);
}

int takeSizes(SIS* handle) {
    handle->blockSize = std::min(SISword(handle->header().blockSize).load(), MOST_BLOCK_SIZE);
    handle->limit = SISword(handle->header().fileSizeLimit);
    // Ciphered units and direct writes must not straddle what two writers reserved, nor the end of a file.
    const bool unusable = handle->limit % PAGE != 0 || handle->limit > MOST_BLOCK_SIZE ||
                          (handle->blockSize <= handle->limit &&
                           (handle->limit % handle->blockSize != 0 || handle->blockSize % DEVICE_SECTOR != 0));
    if (unusable)
        LOG_HERE(0, "%s is damaged: block size %lX, file size limit %lX\n", handle->infoPath.c_str(), handle->blockSize,
                 handle->limit);
    return unusable ? -1 : 0;
}

// Follows the length that the header tells.
int followLength(SIS* handle) {
    const std::uint64_t length = SISword(handle->header().mappedLength);
    const std::uint64_t mapped = handle->map.size();
    if (length == mapped)
        return 0;
    struct stat st;
    if (infoLength(handle, &st) == -1)
        return -1;
    if (length % PAGE != 0 || length < PAGE || length > MOST_INFO_LENGTH ||
        length > static_cast<std::uint64_t>(st.st_size)) {
        LOG_HERE(0, "%s is damaged: length %lX\n", handle->infoPath.c_str(), length);
        return -1;
    }
    log_message(4, "Adjusting single instance store info: %zd -> %zd\n", mapped, length);
    if (handle->map.resize(length) == -1) {
        log_message(0, "mremap(, %zd, %zd, MREMAP_MAYMOVE): %s\n", mapped, length, std::strerror(errno));
        return -1;
    }
    return 0;
}

// An info file that was lost and made anew must not give out what store files already hold: the pointer starts behind
// them. Only a pointer that has never moved is touched.
void passExistingFiles(SIS* handle) {
    constexpr std::size_t NAME_DIGITS = 16;
    std::uint64_t behind = 0;
    for (const Device& device : handle->devices) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(device.directory, error)) {
            const std::string name = entry.path().filename();
            char* end = nullptr;
            const std::uint64_t first = std::strtoull(name.c_str(), &end, 16);
            if (name.size() == NAME_DIGITS && *end == '\0' && first <= MOST_BLOCK_SIZE)
                behind = std::max(behind, roundUp(first + 1, handle->limit));
        }
    }
    std::uint64_t expected = 0;
    if (behind != 0 && SISword(handle->header().nextFree).compare_exchange_strong(expected, behind))
        LOG_HERE(0, "%s is new, but there are store files: new blocks go behind them, to 0x%lX\n",
                 handle->infoPath.c_str(), behind);
}

// With the exclusive lock: takes the catalogue's devices in.
int bringUpToDate(SIS* handle, std::span<const CatalogueDisk> disks) {
    if (followLength(handle) == -1 || allocateInfo(handle, handle->map.size()) == -1)
        return -1;
    if (updateSISmap(handle, disks) == -1) {
        log_message(0, "Failed to update single instance store mapping\n");
        return -1;
    }
    handle->generation.reset();
    if (refreshMap(handle) == -1)
        return -1;
    if (handle->nextFree() == 0)
        passExistingFiles(handle);
    if (msync(handle->map.data(), handle->map.size(), MS_SYNC | MS_INVALIDATE) == -1) {
        LOG_HERE(0, "msync(%s): %s\n", handle->infoPath.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

int openBesideOthers(SIS* handle) {
    struct stat st;
    if (infoLength(handle, &st) == -1)
        return -1;
    if (st.st_size == 0 || st.st_blocks == 0) {
        log_message(0, "The single instance store isn't ready -- empty info file.\n");
        return -1;
    }
    if (mapHeader(handle) == -1 || checkReady(handle) == -1 || takeSizes(handle) == -1)
        return -1;
    return refreshMap(handle);
}

// With the exclusive lock, which becomes a shared one.
int openAlone(SIS* handle, std::span<const CatalogueDisk> disks) {
    struct stat st;
    if (infoLength(handle, &st) == -1)
        return -1;
    const bool isPart = st.st_size > 0 && st.st_size < static_cast<off_t>(PAGE);  // mapHeader tells
    if ((!isPart && allocateInfo(handle, PAGE) == -1) || mapHeader(handle) == -1)
        return -1;
    completeHeader(handle);
    if (takeSizes(handle) == -1 || bringUpToDate(handle, disks) == -1)
        return -1;
    // Going down from the exclusive lock isn't one step: someone else may have changed the map in between.
    return lockInfo(handle, LOCK_SH) == -1 ? logFlock(handle) : refreshMap(handle);
}

bool isSetUp(SIS* handle) {
    struct stat st;
    return fstat(handle->info.get(), &st) == 0 && st.st_size >= static_cast<off_t>(PAGE) &&
           handle->map.map(handle->info.get(), 0, PAGE) == 0 && SISword(handle->header().blockSize) != 0 &&
           SISword(handle->header().fileSizeLimit) != 0 && SISword(handle->header().deviceList) != 0;
}

// All that read wait for the exclusive lock: with it nothing is asked of the catalogue. But a store that isn't set up
// stays locked: who came in between would be told that it isn't ready. Returns whether the lock is held, or -1.
int fetchDisks(SIS* handle, std::vector<CatalogueDisk>* disks) {
    const bool isStore = isSetUp(handle);
    if (isStore)
        (void)lockInfo(handle, LOCK_UN);
    if (listDedupDisks(disks) == -1) {
        log_message(0, "Failed to update single instance store mapping\n");
        return -1;
    }
    return !isStore || lockInfo(handle, LOCK_EX | LOCK_NB) == 0 ? 1 : 0;
}

int openLocked(SIS* handle) {
    std::vector<CatalogueDisk> disks;
    int isAlone = lockInfo(handle, LOCK_EX | LOCK_NB) == 0 ? 1 : 0;
    if (isAlone == 1)
        isAlone = fetchDisks(handle, &disks);
    else if (errno != EAGAIN)
        return logFlock(handle);
    if (isAlone == -1)
        return -1;
    if (isAlone == 1)
        return openAlone(handle, disks);
    return lockInfo(handle, LOCK_SH) == -1 ? logFlock(handle) : openBesideOthers(handle);
}

}  // namespace

SIS::SIS() : offsetLocks(offsetLockFile()) {}

bool GrowingBuffer::grow(std::size_t size) {
    if (size <= capacity)
        return true;
    void* const more = std::realloc(bytes.get(), size);
    if (more == nullptr)
        return false;
    (void)bytes.release();
    bytes.reset(static_cast<std::byte*>(more));
    capacity = size;
    return true;
}

int lockInfo(const SIS* handle, int operation) {
    int result;
    do
        result = flock(handle->info.get(), operation);
    while (result == -1 && errno == EINTR);
    return result;
}

int refreshMap(SIS* handle) {
    const std::uint64_t generation = SISword(handle->header().generation).load(std::memory_order_acquire);
    if (generation == handle->generation)
        return 0;
    log_message(4, "Remapping single instance store info: %zd -> %zd\n", handle->map.size(),
                static_cast<std::size_t>(SISword(handle->header().mappedLength)));
    if (followLength(handle) == -1)
        return -1;
    const std::uint64_t entries = SISword(handle->header().ringEntries);
    const std::uint64_t ring = SISword(handle->header().ring);
    std::vector<Device> devices;
    const bool listIsGood = readDevices(*handle, &devices);
    if (!listIsGood || ring > handle->map.size() || entries > (handle->map.size() - ring) / sizeof(RingEntry)) {
        LOG_HERE(0, "%s is damaged: ring of %lu entries at %lX\n", handle->infoPath.c_str(), entries, ring);
        return -1;
    }
    handle->devices = std::move(devices);
    handle->ring.resize(entries);
    if (entries != 0)
        std::memcpy(handle->ring.data(), handle->map.data() + ring, entries * sizeof(RingEntry));
    handle->generation = generation;
    return 0;
}

int growInfo(SIS* handle, std::uint64_t length) {
    length = roundUp(length, PAGE);
    const std::size_t before = handle->map.size();
    if (length <= before)
        return 0;
    if (length > MOST_INFO_LENGTH) {
        LOG_HERE(0, "%s would become too long: %lX\n", handle->infoPath.c_str(), length);
        return -1;
    }
    if (allocateInfo(handle, length) == -1)
        return -1;
    if (handle->map.resize(length) == -1) {
        log_message(0, "mremap(, %zd, %zd, MREMAP_MAYMOVE): %s\n", before, length, std::strerror(errno));
        return -1;
    }
    SISword(handle->header().mappedLength) = static_cast<std::uint32_t>(length);
    SISword(handle->header().generation) += 1;
    return 0;
}

SharedMap::SharedMap(SIS* handle) : handle_(handle) {
    if (lockInfo(handle, LOCK_SH) == -1) {
        log_message(0, "flock(%s, LOCK_SH): %s\n", handle->infoPath.c_str(), std::strerror(errno));
        failed_ = true;
    } else {
        failed_ = refreshMap(handle) == -1;
    }
}

SharedMap::~SharedMap() {
    (void)lockInfo(handle_, LOCK_UN);  // fails only for a descriptor that is none
}

SISPtr openSIS() {
    std::unique_ptr<SIS> handle(new (std::nothrow) SIS);
    if (!handle) {
        log_message(0, "malloc(%zd) failed\n", static_cast<ssize_t>(sizeof(SIS)));
        return nullptr;
    }
    if (openInfo(handle.get()) == -1 || openLocked(handle.get()) == -1)
        return nullptr;  // the lock goes with the descriptor
    (void)lockInfo(handle.get(), LOCK_UN);
    return SISPtr(handle.release());
}

void freeSIS(SIS* handle) {
    if (handle == nullptr) {
        log_message(0, "NULL argument to freeSIS()\n");
        return;
    }
    delete handle;
}

std::int64_t getDeduplicationBlockSize(const SIS* handle) {
    if (handle != nullptr)
        return static_cast<std::int64_t>(handle->blockSize);
    log_message(0, "NULL argument to getDeduplicationBlockSize()\n");
    return -1;
}

int describeSIS(SIS* handle, SISsummary* summary, std::span<const SISdevice>* devices) {
    const SharedMap shared(handle);
    if (shared.failed())
        return -1;
    SISheader& header = handle->header();
    *summary = {SISword(header.updateTime), *handle->generation,
                handle->blockSize,          handle->limit,
                handle->nextFree(),         static_cast<std::uint32_t>(handle->ring.size())};
    handle->shown.clear();
    for (const Device& device : handle->devices)
        handle->shown.push_back({device.directory, device.weight, device.isDeleted()});
    *devices = handle->shown;
    return 0;
}
