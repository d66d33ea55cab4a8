// SIS_internal.h - the handle of the store, and what the files of this room share.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "base/file_descriptor.h"
#include "block/byte_lock.h"
#include "crypto/libCryptoDaemon.h"
#include "sis/SIS.h"
#include "sis/mapping.h"

inline constexpr std::size_t PAGE = 4096;
inline constexpr int DISK_DEVICE_TYPE = 128;                 // of dq.devices
inline constexpr std::uint64_t MOST_INFO_LENGTH = 64 << 20;  // thousands of devices; more is damage

[[nodiscard]] constexpr std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) {
    return value / unit * unit + (value % unit != 0 ? unit : 0);
}

// Head of the info file. Every word is read and written through SISword: other processes have the same page mapped.
struct SISheader {
    std::uint32_t version;
    std::uint32_t reserved;
    std::uint64_t updateTime;  // seconds
    std::uint64_t generation;  // of device list, ring and file length
    std::uint64_t blockSize;
    std::uint64_t fileSizeLimit;
    std::uint64_t nextFree;  // the allocation pointer; changed by compare-and-swap alone
    std::uint64_t deviceList;
    std::uint64_t ring;
    std::uint32_t mappedLength;
    std::uint32_t ringEntries;
};
static_assert(sizeof(SISheader) == 72 && offsetof(SISheader, nextFree) == 40 && offsetof(SISheader, ringEntries) == 68);

template <typename T>
[[nodiscard]] std::atomic_ref<T> SISword(T& word) {
    return std::atomic_ref<T>(word);
}

// An entry of the device list: 4 bytes weight, 1 byte flags, the directory with its NUL, padded to 8. The list ends
// with 8 zero bytes.
inline constexpr std::uint8_t DEVICE_DELETED = 1;
inline constexpr std::uint8_t DEVICE_CANDIDATE = 2;     // not seen in the catalogue
inline constexpr std::uint8_t DEVICE_PUNCH_TESTED = 4;  // holes are the business of those who reclaim space
inline constexpr std::uint8_t DEVICE_PUNCH_WORKS = 8;
inline constexpr std::size_t DEVICE_LIST_END = 8;
[[nodiscard]] constexpr std::size_t deviceEntrySize(std::size_t pathLength) {
    return (pathLength + 15) / 8 * 8;
}

struct Device {
    std::string directory;  // ends in "SIS/"
    std::uint32_t weight = 0;
    std::uint8_t flags = 0;
    std::uint64_t entry = 0;  // offset in the info file, by which the ring names it

    [[nodiscard]] bool isDeleted() const { return (flags & DEVICE_DELETED) != 0; }
};

struct RingEntry {
    std::uint64_t device;
    std::uint32_t hash;
    std::uint32_t reserved;
};
static_assert(sizeof(RingEntry) == 16);

// Bytes from malloc that only grow.
struct GrowingBuffer {
    MallocPtr<std::byte> bytes;
    std::size_t capacity = 0;

    // False without memory; the old content stays in both cases.
    [[nodiscard]] bool grow(std::size_t size);
};

// The store file that is open, with the part of it that is mapped.
struct StoreFile {
    FileDescriptor file;
    std::string path;
    std::uint64_t first = 0;  // SIS offset of its first byte
    std::uint32_t smgrKey = 0;
    Mapping window;
    std::uint64_t windowStart = 0;  // SIS offset
    std::optional<CryptContext> crypt;
};

struct SISreservation {
    std::uint64_t start = 0;
    std::uint64_t length = 0;  // 0 none
};

struct SIS {
    SIS();

    FileDescriptor info;
    std::string infoPath;
    Mapping map;
    std::optional<std::uint64_t> generation;  // for which the copies below were made
    std::uint64_t limit = 0;                  // file size limit; never changes
    std::uint64_t blockSize = 0;
    std::vector<Device> devices;  // by falling length of the directory, as in the file
    std::vector<RingEntry> ring;
    std::vector<SISdevice> shown;  // what describeSIS handed out
    SISreservation reservation;
    ByteLocks offsetLocks;
    StoreFile open;
    GrowingBuffer assembly;  // pieces of a block on its way to the store
    std::size_t assembled = 0;
    GrowingBuffer compressed;
    GrowingBuffer subfile;  // one block as it was before it was compressed
    std::size_t subfileLength = 0;
    hashValue subfileOf{};
    GrowingBuffer cipherRoom;

    [[nodiscard]] SISheader& header() const { return *reinterpret_cast<SISheader*>(map.data()); }
    [[nodiscard]] std::uint64_t nextFree() const { return SISword(header().nextFree).load(std::memory_order_acquire); }
    [[nodiscard]] std::uint64_t fileOf(std::uint64_t offset) const { return offset - offset % limit; }
};

// Shared flock on the info file for one operation: nobody rewrites the map meanwhile. The copies of the map are brought
// up to date.
class SharedMap {
public:
    explicit SharedMap(SIS* handle);
    SharedMap(const SharedMap&) = delete;
    SharedMap& operator=(const SharedMap&) = delete;
    ~SharedMap();
    [[nodiscard]] bool failed() const { return failed_; }

private:
    SIS* handle_;
    bool failed_ = false;
};

// flock with EINTR; 0, or -1 with errno.
[[nodiscard]] int lockInfo(const SIS* handle, int operation);

// Copies device list and ring from the mapping if the generation moved. 0, or -1: the file is damaged.
[[nodiscard]] int refreshMap(SIS* handle);

// Makes the info file, which is locked exclusively, at least `length` bytes long, in whole pages.
[[nodiscard]] int growInfo(SIS* handle, std::uint64_t length);

// Reads the device list; what can't be a list ends it, with false.
[[nodiscard]] bool readDevices(const SIS& handle, std::vector<Device>* devices);

// Index of the first ring entry for a store file's first offset. The ring isn't empty.
[[nodiscard]] std::size_t lookUpRing(const SIS& handle, std::uint64_t fileOffset);
[[nodiscard]] const Device* deviceOfEntry(const SIS& handle, const RingEntry& entry);

// Brings the offset's file into handle->open. Only a range that begins the file may create it. 0 or -1.
[[nodiscard]] int findSISfile(SIS* handle, std::uint64_t offset, bool canCreate);
[[nodiscard]] off_t lockByteOf(const SIS* handle, std::uint64_t offset);

// Makes sure that the offset, which lies in the open file, is in its window.
[[nodiscard]] int mapSIS(SIS* handle, std::uint64_t offset);

// Encryption of store files. A new file gets its token, and with it its length, if it is to be encrypted: 1, 0 if it
// stays plain, -1 on failure. One that exists is told by its length: 0 or -1.
[[nodiscard]] int setUpSIScrypt(StoreFile* file, std::uint64_t limit);
[[nodiscard]] int openSIScrypt(StoreFile* file, std::uint64_t limit, std::uint64_t length);

// Ciphers whole units in place, which begin at a SIS offset. 0 or -1.
[[nodiscard]] int cipherSIS(StoreFile* file, int operation, std::span<std::byte> data, std::uint64_t offset);

// Between memory and the open file's window, in clear or not as the file says. A cipher that failed is logged, and
// closes the file: it has to be found again.
enum class CopyResult { Done, Faulted, NotCiphered };
[[nodiscard]] CopyResult readWindow(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset);
[[nodiscard]] CopyResult writeWindow(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset);

// memcpy that survives a fault in a mapped file: false if there was one. Then some of the bytes may have been copied.
[[nodiscard]] bool guardedCopy(void* to, const void* from, std::size_t count);

// Asks the storage manager for room for a write into the open file, and tells that it was written. 0 or -1.
[[nodiscard]] int claimSpace(SIS* handle, std::size_t length);
[[nodiscard]] int confirmSpace(SIS* handle, std::size_t length);

// What the catalogue says of disks, the shortest name first. A connection of its own: a store may be opened by any
// thread, the process-wide connection belongs to one. Connecting and asking each end after CATALOGUE_LIMIT. 0 or -1.
struct CatalogueDisk {
    std::string name;
    bool isDeleted = false;
    std::int64_t capacity = 0;
};
[[nodiscard]] int listDedupDisks(std::vector<CatalogueDisk>* disks);

// Brings device list and ring in line with the catalogue's disks, and sets the time of the update. Only with an
// exclusive flock on the info file. When the device has no room for a longer map the store goes on with the one it has.
[[nodiscard]] int updateSISmap(SIS* handle, std::span<const CatalogueDisk> disks);

// Keeps the logs as they are now, once for each suffix.
void captureSISerror(const std::string& suffix);
