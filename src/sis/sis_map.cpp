// Device list and ring: which device holds which store file.
//
// A file goes to the device whose ring point follows the hash of the file's first offset; a device has as many points
// as its weight. A new device takes over only what lies before its own points, so most files stay where they are.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <numeric>
#include <tuple>

#include "log/logger.h"
#include "sis/SIS_internal.h"
#include "sis/lookup3.h"

namespace {

constexpr std::int64_t CAPACITY_PER_POINT = 0x8000000;
constexpr std::int64_t MOST_POINTS = 256;
constexpr char STORE_DIRECTORY[] = "SIS/";
constexpr std::size_t PATH_AT = 5;  // in a device entry

std::uint32_t ringHash(std::uint64_t fileOffset) {
    const std::uint32_t words[] = {static_cast<std::uint32_t>(fileOffset),
                                   static_cast<std::uint32_t>(fileOffset >> 32)};
    return hashword(words, 0);
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::uint32_t weightOf(const CatalogueDisk& disk) {
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(disk.capacity / CAPACITY_PER_POINT, 1, MOST_POINTS));
}

std::uint64_t weightOf(const std::vector<Device>& devices) {
    return std::accumulate(devices.begin(), devices.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const Device& device) { return sum + device.weight; });
}

// Takes one row of the catalogue into the list. Returns whether the list has a new entry.
bool addDisk(const CatalogueDisk& disk, std::vector<Device>* devices) {
    if (disk.name.empty() || !isDirectory(disk.name)) {
        log_message(0, "%s is not a directory\n", disk.name.c_str());
        return false;
    }
    const bool isDeleted = disk.isDeleted || disk.capacity < CAPACITY_PER_POINT;
    const std::string directory = disk.name + (disk.name.back() == '/' ? "" : "/") + STORE_DIRECTORY;
    for (Device& device : *devices)
        if (device.directory == directory) {
            if (!isDeleted)
                device.flags &= static_cast<std::uint8_t>(~DEVICE_CANDIDATE);
            device.weight = weightOf(disk);
            return false;
        }
    struct stat st;
    if (isDeleted && stat(directory.c_str(), &st) == -1)
        return false;  // nothing in it, and nothing will be
    const auto shorter = std::find_if(devices->begin(), devices->end(),
                                      [&](const Device& device) { return device.directory.size() < directory.size(); });
    devices->insert(shorter, Device{directory, weightOf(disk), isDeleted ? DEVICE_CANDIDATE : std::uint8_t{0}, 0});
    return true;
}

// What is a candidate for deletion is deleted now, and leaves the list when its directory has gone. Returns how many
// left.
std::size_t settleDeleted(std::vector<Device>* devices) {
    return std::erase_if(*devices, [](Device& device) {
        const bool isCandidate = (device.flags & DEVICE_CANDIDATE) != 0;
        device.flags =
            static_cast<std::uint8_t>(isCandidate ? device.flags | DEVICE_DELETED : device.flags & ~DEVICE_DELETED);
        struct stat st;
        if (!isCandidate || stat(device.directory.c_str(), &st) == 0 || errno != ENOENT)
            return false;
        log_message(0, "Removing %s from our device list\n", device.directory.c_str());
        return true;
    });
}

std::vector<std::byte> listImage(std::uint64_t start, std::vector<Device>* devices) {
    std::vector<std::byte> image;
    for (Device& device : *devices) {
        const std::size_t at = image.size();
        device.entry = start + at;
        image.resize(at + deviceEntrySize(device.directory.size()));
        std::memcpy(&image[at], &device.weight, sizeof device.weight);
        std::memcpy(&image[at + sizeof device.weight], &device.flags, sizeof device.flags);
        std::memcpy(&image[at + PATH_AT], device.directory.c_str(), device.directory.size() + 1);
    }
    image.resize(image.size() + DEVICE_LIST_END);
    return image;
}

std::vector<RingEntry> ringOf(const std::vector<Device>& devices) {
    struct Point {
        RingEntry entry;
        std::uint32_t number;
    };
    std::vector<Point> points;
    for (const Device& device : devices) {
        const std::uint32_t seed = hashlittle(device.directory, 0);
        for (std::uint32_t r = device.weight; r > 0; --r)
            points.push_back({{device.entry, hashword({&r, 1}, seed), 0}, r});
    }
    // Equal hashes need an order too, or two processes would build different rings.
    std::sort(points.begin(), points.end(), [](const Point& a, const Point& b) {
        return std::tuple(a.entry.hash, a.entry.device, a.number) < std::tuple(b.entry.hash, b.entry.device, b.number);
    });
    std::vector<RingEntry> ring(points.size());
    std::transform(points.begin(), points.end(), ring.begin(), [](const Point& point) { return point.entry; });
    return ring;
}

// Puts list and ring into the file if they differ from what is there. While they are being written the ring is empty: a
// death in the middle leaves a store that finds no devices until the next opening builds it anew.
int storeMap(SIS* handle, std::vector<Device>* devices, std::uint64_t changes) {
    const std::uint64_t start = SISword(handle->header().deviceList);
    const std::vector<std::byte> list = listImage(start, devices);
    const std::uint64_t oldRing = SISword(handle->header().ring);
    const std::uint64_t ringStart = std::max(oldRing, roundUp(start + list.size(), 8));
    const std::uint64_t ringBytes = weightOf(*devices) * sizeof(RingEntry);
    if (ringStart > MOST_INFO_LENGTH || ringBytes > MOST_INFO_LENGTH - ringStart) {
        LOG_HERE(0, "%s is damaged: a ring of %lu bytes at %lX\n", handle->infoPath.c_str(), ringBytes, ringStart);
        return -1;
    }
    if (growInfo(handle, ringStart + ringBytes) == -1)
        return SISword(handle->header().ringEntries) != 0 ? 0 : -1;  // a full device must not keep readers out
    const std::vector<RingEntry> ring = ringOf(*devices);
    std::vector<std::byte> image(handle->map.size() - start);
    std::memcpy(image.data(), list.data(), list.size());
    std::memcpy(image.data() + (ringStart - start), ring.data(), ringBytes);
    SISheader& header = handle->header();
    const auto count = static_cast<std::uint32_t>(ring.size());
    std::byte* const place = handle->map.data() + start;
    if (oldRing == ringStart && SISword(header.ringEntries) == count &&
        std::memcmp(place, image.data(), image.size()) == 0)
        return 0;
    SISword(header.ringEntries).store(0, std::memory_order_release);
    std::memcpy(place, image.data(), image.size());
    SISword(header.ring) = ringStart;
    SISword(header.ringEntries).store(count, std::memory_order_release);
    SISword(header.generation) += std::max<std::uint64_t>(changes, 1);
    return 0;
}

}  // namespace

bool readDevices(const SIS& handle, std::vector<Device>* devices) {
    devices->clear();
    const std::byte* const base = handle.map.data();
    const std::size_t size = handle.map.size();
    std::size_t at = SISword(handle.header().deviceList);
    if (at != sizeof(SISheader))
        return false;
    while (at + DEVICE_LIST_END <= size) {
        const auto* const path = reinterpret_cast<const char*>(base + at + PATH_AT);
        const std::size_t room = size - at - PATH_AT;
        const std::size_t length = strnlen(path, room);
        if (length == 0)
            return true;
        Device device{std::string(path, length), 0, 0, at};
        if (length == room || !device.directory.ends_with(STORE_DIRECTORY))
            return false;
        std::memcpy(&device.weight, base + at, sizeof device.weight);
        device.weight = std::clamp<std::uint32_t>(device.weight, 1, MOST_POINTS);  // others are damage
        std::memcpy(&device.flags, base + at + sizeof device.weight, sizeof device.flags);
        devices->push_back(std::move(device));
        at += deviceEntrySize(length);
    }
    return false;
}

int updateSISmap(SIS* handle, std::span<const CatalogueDisk> disks) {
    if (disks.empty())
        log_message(0, "No D2D devices in database\n");
    std::vector<Device> devices;
    if (!readDevices(*handle, &devices)) {
        if (SISword(handle->header().deviceList) != sizeof(SISheader)) {
            LOG_HERE(0, "%s is damaged: its device list isn't in its place\n", handle->infoPath.c_str());
            return -1;
        }
        LOG_HERE(0, "%s is damaged: %zd devices of its list are kept\n", handle->infoPath.c_str(), devices.size());
    }
    for (Device& device : devices)
        device.flags =
            static_cast<std::uint8_t>((device.flags | DEVICE_CANDIDATE) & ~(DEVICE_PUNCH_TESTED | DEVICE_PUNCH_WORKS));
    std::uint64_t changes = 0;
    for (auto disk = disks.rbegin(); disk != disks.rend(); ++disk)
        changes += addDisk(*disk, &devices) ? 1 : 0;
    changes += settleDeleted(&devices);
    if (weightOf(devices) < 1) {
        log_message(0, "No devices\n");
        return -1;
    }
    if (storeMap(handle, &devices, changes) == -1)
        return -1;
    SISword(handle->header().updateTime) = static_cast<std::uint64_t>(time(nullptr));
    return 0;
}

std::size_t lookUpRing(const SIS& handle, std::uint64_t fileOffset) {
    const auto found = std::lower_bound(handle.ring.begin(), handle.ring.end(), ringHash(fileOffset),
                                        [](const RingEntry& entry, std::uint32_t key) { return entry.hash < key; });
    return found == handle.ring.end() ? 0 : static_cast<std::size_t>(found - handle.ring.begin());
}

const Device* deviceOfEntry(const SIS& handle, const RingEntry& entry) {
    const auto found = std::find_if(handle.devices.begin(), handle.devices.end(),
                                    [&](const Device& device) { return device.entry == entry.device; });
    return found == handle.devices.end() ? nullptr : &*found;
}

int placeOfSISoffset(SIS* handle, std::uint64_t offset, SISdevice* device) {
    const SharedMap shared(handle);
    if (shared.failed())
        return -1;
    if (handle->ring.empty()) {
        log_message(0, "No devices available\n");
        return -1;
    }
    const Device* const found = deviceOfEntry(*handle, handle->ring[lookUpRing(*handle, handle->fileOf(offset))]);
    if (found == nullptr) {
        log_message(0, "NULL hash entry pointer\n");
        return -1;
    }
    *device = {found->directory, found->weight, found->isDeleted()};
    return 0;
}
