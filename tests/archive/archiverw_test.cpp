#include "archive/archiverw.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/catalogue.h"
#include "support/root.h"

namespace {

using testsupport::TestRoot;
using testsupport::writeFile;

std::string randomBytes(std::size_t size) {
    std::mt19937_64 random(size + 1);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    if (size > 0)
        bytes[0] = 'x';  // no magic by accident
    return bytes;
}

// Direct I/O needs a real file system; the temporary directory may be memory.
class Archive : public ::testing::Test {
protected:
    Archive() {
        std::string pattern = "/var/tmp/ferryd-archive-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            path = pattern + "/backup_1";
    }
    ~Archive() override { std::filesystem::remove_all(std::filesystem::path(path).parent_path()); }

    ArchiveFilterPtr openWith(const std::string& bytes, std::uint64_t properties) {
        writeFile(path, bytes);
        return archive_open(path.c_str(), "r", properties);
    }

    TestRoot root;
    std::string path;
};

// Compared as a whole: a difference of megabytes must not flood the report.
bool reads(archive_filter* filter, std::size_t count, const std::string& expected) {
    std::string bytes(count, '?');
    const ssize_t got = archive_read(filter, bytes.data(), count);
    return got != -1 && bytes.substr(0, static_cast<std::size_t>(got)) == expected;
}

std::string readUpTo(archive_filter* filter, std::size_t count) {
    std::string bytes(count, '?');
    const ssize_t got = archive_read(filter, bytes.data(), count);
    if (got == -1)
        return "failed";
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
}

const std::uint64_t PROPERTIES[] = {0, ARCHIVE_MAYBE_COMPRESSED, ARCHIVE_DIRECT_IO,
                                    ARCHIVE_DIRECT_IO | ARCHIVE_MAYBE_COMPRESSED};

TEST_F(Archive, RandomReadsSeeksAndSkipsGiveTheBytesOfThePlainFile) {
    for (const std::size_t size : {0u, 1u, 511u, 512u, 513u, 4096u, 70001u, 5u * 1048576u + 777u})
        for (const std::uint64_t properties : PROPERTIES) {
            SCOPED_TRACE(std::to_string(size) + " bytes, properties " + std::to_string(properties));
            const std::string bytes = randomBytes(size);
            // Too short to tell whether it is compressed: nothing of it is handed out.
            const bool tooShort = size < 4 && (properties & ARCHIVE_MAYBE_COMPRESSED) != 0;
            const ArchiveFilterPtr filter = openWith(bytes, properties);
            ASSERT_TRUE(filter);
            std::mt19937_64 random(size);
            std::size_t position = 0;
            for (int step = 0; step < 400; ++step) {
                if (tooShort) {
                    ASSERT_EQ(readUpTo(filter.get(), 10), "");
                    ASSERT_EQ(archive_seek(filter.get(), 5, SEEK_SET), 0);
                    continue;
                }
                const std::size_t span = random() % 3 == 0 ? size + 100 : 3000;
                const std::size_t count = random() % (span + 1);
                if (random() % 3 == 0) {
                    const auto target =
                        static_cast<off_t>(random() % 2 == 0 ? count : position - std::min(position, count));
                    ASSERT_EQ(archive_seek(filter.get(), target, SEEK_SET), target);
                    position = static_cast<std::size_t>(target);
                    ASSERT_EQ(archive_seek(filter.get(), 0, SEEK_CUR), target);
                }
                const std::string expected = position < size ? bytes.substr(position, count) : "";
                if (random() % 5 == 0)
                    ASSERT_EQ(archive_read(filter.get(), nullptr, count), static_cast<ssize_t>(expected.size()));
                else
                    ASSERT_TRUE(reads(filter.get(), count, expected)) << "at " << position << " for " << count;
                position += expected.size();
            }
        }
}

TEST_F(Archive, StepsWithinTheBufferLeaveTheDescriptorAlone) {
    const std::string bytes = randomBytes(1 << 20);
    const ArchiveFilterPtr filter = openWith(bytes, ARCHIVE_DIRECT_IO);
    ASSERT_EQ(archive_seek(filter.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(archive_physical_offset(filter.get()), 0) << "a rewind of a fresh file reads nothing";
    ASSERT_EQ(readUpTo(filter.get(), 200), bytes.substr(0, 200));
    const off_t physical = lseek(archive_fd(filter.get()), 0, SEEK_CUR);
    EXPECT_EQ(physical, 8192) << "the first reads are short";
    EXPECT_EQ(archive_seek(filter.get(), -100, SEEK_CUR), 100);
    EXPECT_EQ(readUpTo(filter.get(), 50), bytes.substr(100, 50));
    EXPECT_EQ(archive_seek(filter.get(), 8192, SEEK_SET), 8192);
    EXPECT_EQ(archive_seek(filter.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(archive_seek(filter.get(), 0, SEEK_CUR), 0) << "the rewind still waits";
    EXPECT_EQ(archive_seek(filter.get(), 20, SEEK_CUR), 20) << "counted from the waiting rewind";
    EXPECT_EQ(lseek(archive_fd(filter.get()), 0, SEEK_CUR), physical);
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(20, 10));
}

TEST_F(Archive, ReadsAheadOnlyAfterSomeReadsInOnePlace) {
    const std::string bytes = randomBytes(6u << 20);
    const ArchiveFilterPtr filter = openWith(bytes, 0);
    const auto physicalAfter = [&](std::size_t count) {
        EXPECT_EQ(archive_read(filter.get(), std::string(count, '?').data(), count), static_cast<ssize_t>(count));
        return archive_physical_offset(filter.get());
    };
    EXPECT_EQ(physicalAfter(8192), 8192);
    EXPECT_EQ(physicalAfter(10000), 8192 + 10240) << "rounded up to 512";
    EXPECT_EQ(physicalAfter(240), 8192 + 10240);
    EXPECT_EQ(physicalAfter(1), 8192 + 10240 + 1048576) << "the fourth read takes a whole buffer";
    ASSERT_EQ(archive_seek(filter.get(), 5 << 20, SEEK_SET), 5 << 20);
    EXPECT_EQ(physicalAfter(1), (5 << 20) + 8192) << "a far seek starts anew";
}

TEST_F(Archive, AFileThatIsCutOffWhileItIsReadEndsAndNeverRepeatsBytes) {
    for (const std::uint64_t properties : PROPERTIES) {
        SCOPED_TRACE(properties);
        const std::string bytes = randomBytes(3u << 20);
        const ArchiveFilterPtr filter = openWith(bytes, properties);
        ASSERT_EQ(readUpTo(filter.get(), 9000), bytes.substr(0, 9000));
        const off_t physical = archive_physical_offset(filter.get());
        ASSERT_EQ(truncate(path.c_str(), 5000), 0);
        const std::string rest = readUpTo(filter.get(), 1 << 20);
        EXPECT_EQ(rest, bytes.substr(9000, static_cast<std::size_t>(physical) - 9000)) << "what was in memory";
        EXPECT_EQ(readUpTo(filter.get(), 100), "");
        writeFile(path, bytes);
        EXPECT_EQ(readUpTo(filter.get(), 100), bytes.substr(9000 + rest.size(), 100)) << "the end is not final";
    }
}

TEST_F(Archive, RefusesWhatItCannotReadAndNeverHandsOutWrongBytes) {
    const struct {
        const char* what;
        std::string bytes;
        const char* mode;
        std::uint64_t properties;
        int openError;
        int readError;
    } cases[] = {
        {"bad mode", "abcdef", "a", 0, EINVAL, 0},
        {"writing over a file", "abcdef", "w", 0, EEXIST, 0},
        {"encrypted", "abcdef", "r", ARCHIVE_ENCRYPTED, 0, EBADMSG},
        {"deduplicated", "abcdef", "r", ARCHIVE_DEDUPLICATED, ENOTSUP, 0},
        {"gzip", "\x1f\x8b\x08\x01zzzz", "r", ARCHIVE_MAYBE_COMPRESSED, 0, EBADMSG},
        {"LZ4", "\x04\x22\x4d\x18zzzz", "r", ARCHIVE_COMPRESSED_TOO, 0, EBADMSG},
        {"gzip magic without the property", "\x1f\x8b\x08\x01zzzz", "r", 0, 0, 0},
        {"half an LZ4 magic", "\x04\x22\x4dxzzzz", "r", ARCHIVE_MAYBE_COMPRESSED, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeFile(path, c.bytes);
        errno = 0;
        const ArchiveFilterPtr filter = archive_open(path.c_str(), c.mode, c.properties);
        EXPECT_EQ(filter ? 0 : errno, c.openError);
        if (!filter)
            continue;
        for (int attempt = 0; attempt < 2; ++attempt) {
            errno = 0;
            EXPECT_EQ(readUpTo(filter.get(), 100), c.readError != 0 ? "failed" : attempt == 0 ? c.bytes : "");
            EXPECT_EQ(errno, c.readError);
        }
        EXPECT_EQ(archive_seek(filter.get(), 3, SEEK_SET), c.readError != 0 ? -1 : 3);
    }
    EXPECT_FALSE(archive_open((path + "x").c_str(), "r", 0));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Archive, WrongSeeksFailAndLeaveThePosition) {
    const std::string bytes = randomBytes(100000);
    const ArchiveFilterPtr filter = openWith(bytes, ARCHIVE_MAYBE_COMPRESSED);
    ASSERT_EQ(readUpTo(filter.get(), 10), bytes.substr(0, 10));
    const struct {
        off_t offset;
        int whence;
    } cases[] = {{0, SEEK_END}, {-1, SEEK_SET}, {-11, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {5, 77}};
    for (const auto& c : cases) {
        errno = 0;
        EXPECT_EQ(archive_seek(filter.get(), c.offset, c.whence), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(10, 10));
    EXPECT_EQ(archive_write(filter.get(), "a", 1), -1);
    EXPECT_EQ(archive_read(nullptr, nullptr, 1), -1);
}

TEST_F(Archive, RequestsShapeTheReading) {
    const std::string bytes = randomBytes(5u << 20);
    const ArchiveFilterPtr filter = openWith(bytes, 0);
    archive_filter* f = filter.get();
    EXPECT_EQ(archive_fcntl(nullptr, ARCHIVE_SET_CLOEXEC), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(archive_fcntl(f, 14), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_DISCARD, 1000), 0);
    EXPECT_EQ(readUpTo(f, 500), bytes.substr(1000, 500)) << "physical bytes were dropped";
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_SET_BLOCK_SIZE, 100000), 0);
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_GROW_DEVICE_BUFFER, 3 << 20), 0);
    EXPECT_EQ(readUpTo(f, 100), bytes.substr(1500, 100)) << "a grown buffer keeps its bytes";
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_SET_STREAM_MODE, 1), 0);
    EXPECT_EQ(archive_seek(f, 150000, SEEK_SET), 150000) << "forward by reading";
    EXPECT_EQ(readUpTo(f, 100), bytes.substr(151000, 100));
    EXPECT_EQ(archive_seek(f, 10, SEEK_SET), -1) << "not backward";
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_CLOSE_DESCRIPTOR), 0);
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_CLOSE_DESCRIPTOR), 0);
    EXPECT_FALSE(reads(f, bytes.size(), bytes.substr(151100)));
    EXPECT_EQ(errno, EBADF);
    for (const ArchiveRequest request : {ARCHIVE_REOPEN, ARCHIVE_REOPEN_DIRECT}) {
        EXPECT_EQ(archive_fcntl(f, request, path), 0);
        EXPECT_TRUE(reads(f, bytes.size() + 1, bytes)) << "goes on with the file from its start";
    }
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_REOPEN, path + "x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

// Stands in for what finds the content of a deduplicated backup: gives the file's own bytes.
class PlainRedup : public RedupReader {
public:
    explicit PlainRedup(ArchiveFilterPtr inner) : inner_(std::move(inner)) {}
    ssize_t read(void* buffer, std::size_t count) override { return archive_read(inner_.get(), buffer, count); }
    off_t seek(off_t offset, int whence) override {
        ++seeks;
        return archive_seek(inner_.get(), offset, whence);
    }
    [[nodiscard]] off_t offset() const override { return archive_seek(inner_.get(), 0, SEEK_CUR); }
    archive_filter* inner() override { return inner_.get(); }
    static inline int seeks = 0;

private:
    ArchiveFilterPtr inner_;
};

TEST_F(Archive, ADeduplicatedBackupIsReadByWhatIsRegistered) {
    archive_register_redup([](const char* file, const char* mode, std::uint64_t properties) {
        ArchiveFilterPtr inner = archive_open(file, mode, properties & ~ARCHIVE_DEDUPLICATED);
        archive_never_defer_seek(inner.get());
        return std::unique_ptr<RedupReader>(new PlainRedup(std::move(inner)));
    });
    const std::string bytes = randomBytes(20000);
    ArchiveFilterPtr filter = openWith(bytes, ARCHIVE_DEDUPLICATED);
    archive_register_redup(nullptr);
    ASSERT_TRUE(filter);
    EXPECT_EQ(readUpTo(filter.get(), 100), bytes.substr(0, 100));
    EXPECT_EQ(archive_physical_offset(filter.get()), 100) << "the virtual one";
    EXPECT_EQ(archive_seek(filter.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(PlainRedup::seeks, 0) << "waits for the read";
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(0, 10));
    EXPECT_EQ(archive_seek(filter.get(), 5, SEEK_CUR), 15);
    EXPECT_EQ(PlainRedup::seeks, 2);
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(15, 10));
    EXPECT_EQ(archive_fcntl(filter.get(), ARCHIVE_GROW_DEVICE_BUFFER, 3 << 20), 0);
    EXPECT_EQ(archive_fcntl(filter.get(), ARCHIVE_SET_STREAM_MODE, 1), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(archive_write(filter.get(), "a", 1), -1);
    EXPECT_NE(archive_fd(filter.get()), -1);
    EXPECT_EQ(archive_close(&filter), 0);
}

TEST_F(Archive, FindsABackupByItsNumber) {
    auto& catalogue = testsupport::Catalogue::instance();
    catalogue.reset();
    const std::string disk = std::filesystem::path(path).parent_path();
    catalogue.sql("INSERT INTO dq.devices (device_no, dev_name, dev_rw_name, tape_no) VALUES (5, 'd', '" + disk +
                  "', 9)");
    catalogue.sql("INSERT INTO dq.backups (backup_no, tape_no, properties) VALUES (1, 9, 1024), (2, 9, 0)");
    const std::string bytes = randomBytes(10000);
    writeFile(path, bytes);
    EXPECT_FALSE(archive_open_backup(1, 0)) << "deduplicated";
    EXPECT_EQ(errno, ENOTSUP);
    const ArchiveFilterPtr plain = archive_open_backup(1, ARCHIVE_DEDUPLICATED);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(reads(plain.get(), 20000, bytes));
    writeFile(path + ".gz", "first");
    const ArchiveFilterPtr preferred = archive_open_backup(1, ARCHIVE_DEDUPLICATED);
    EXPECT_EQ(readUpTo(preferred.get(), 100), "first");
    std::uint64_t size = 0;
    struct stat st {};
    ASSERT_EQ(stat((path + ".gz").c_str(), &st), 0);
    EXPECT_EQ(archive_get_actual_size(1, &size), 0);
    EXPECT_EQ(size, static_cast<std::uint64_t>(st.st_blocks) * 512);
    EXPECT_FALSE(archive_open_backup(2, 0)) << "no file";
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(archive_open_backup(3, 0)) << "no row";
    EXPECT_EQ(errno, EBADMSG);
}

}  // namespace
