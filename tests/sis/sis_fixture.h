// sis_fixture.h - a store of small files on disks of the test's root.
#pragma once

#include "base/file_descriptor.h"
#include "sis/SIS.h"
#include "support/bytes.h"
#include "support/catalogue.h"
#include "support/key_service.h"

namespace testsupport {

inline constexpr std::uint64_t SMALL_FILE = 0x1000000;
inline constexpr std::uint64_t STORE_BLOCK = 8192;
inline constexpr std::uint64_t CAPACITY_UNIT = 0x8000000;

// Writes or reads all of it; false or "failed" at the first failure.
inline bool writeAt(SIS* sis, const std::string& data, std::uint64_t offset) {
    ssize_t n = 0;
    for (std::size_t done = 0; done < data.size(); done += static_cast<std::size_t>(n))
        if ((n = writeSIS(sis, bytesOf(data).subspan(done), offset + done)) < 1)
            return false;
    return true;
}
inline std::string readAt(SIS* sis, std::size_t count, std::uint64_t offset) {
    std::string data(count, '\0');
    ssize_t n = 0;
    for (std::size_t done = 0; done < count; done += static_cast<std::size_t>(n))
        if ((n = readSIS(sis, roomOf(data).subspan(done), offset + done)) < 1)
            return "failed";
    return data;
}

class Store : public ::testing::Test {
protected:
    Store() : catalogue(Catalogue::instance()) {
        catalogue.reset();
        std::filesystem::create_directories(root / "backups");
    }

    void addDisk(int number, const std::string& name, std::uint64_t capacity = CAPACITY_UNIT, bool isDeleted = false) {
        std::filesystem::create_directories(disk(name));
        catalogue.sql(
            "INSERT INTO dq.devices (device_no, dev_nr_name, device_type, dedup, capacity, is_deleted) VALUES (" +
            std::to_string(number) + ", '" + disk(name) + "', 128, true, " + std::to_string(capacity) +
            (isDeleted ? ", true)" : ", false)"));
    }
    std::string disk(const std::string& name) const { return root / ("disks/" + name); }
    std::string fileOn(const std::string& name, std::uint64_t offset) const {
        char text[32];
        (void)snprintf(text, sizeof text, "%016lX", offset);
        return disk(name) + "/SIS/" + text;
    }

    // The info file of a store with small files, as its maker would leave it before the first opening.
    void presetSizes(std::uint64_t limit = SMALL_FILE, std::uint64_t blockSize = STORE_BLOCK) {
        std::string page(4096, '\0');
        std::memcpy(&page[24], &blockSize, sizeof blockSize);
        std::memcpy(&page[32], &limit, sizeof limit);
        writeFile(info(), page);
    }
    std::filesystem::path info() const { return root / "backups/SISinfo"; }
    // Another process that has the store open, to openers' eyes.
    FileDescriptor beside() const {
        FileDescriptor other(open(info().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(flock(other.get(), LOCK_SH), 0);
        return other;
    }

    template <typename T>
    T inInfo(std::size_t at) const {
        T value{};
        const std::string file = readFile(info());
        std::memcpy(&value, &file.at(at), sizeof value);
        return value;
    }
    template <typename T>
    void setInInfo(std::size_t at, T value) const {
        std::string file = readFile(info());
        std::memcpy(&file.at(at), &value, sizeof value);
        writeFile(info(), file);
    }

    // -1, or where a range was reserved; the same with data in it.
    static std::int64_t reserve(SIS* sis, std::int64_t length) {
        std::uint64_t offset = 0;
        return reserveSIS(sis, &offset, length) == 0 ? static_cast<std::int64_t>(offset) : -1;
    }
    static std::uint64_t put(SIS* sis, const std::string& data) {
        const std::int64_t offset = reserve(sis, static_cast<std::int64_t>(data.size()));
        EXPECT_TRUE(offset != -1 && writeAt(sis, data, static_cast<std::uint64_t>(offset)));
        return static_cast<std::uint64_t>(offset);
    }

    void needKeyService() {
        writeFile(root / "var/opt/kestrelix/platform_capabilities", "encryption\n");
        keyService = std::make_unique<lab::Process>(startKeyService(root));
    }

    TestRoot root;
    Catalogue& catalogue;
    std::unique_ptr<lab::Process> keyService;
};

}  // namespace testsupport
