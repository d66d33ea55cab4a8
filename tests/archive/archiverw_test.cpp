// Plain files: what stays in memory, what is refused, and what callers can ask for.

#include "archive_support.h"
#include "support/bytes.h"
#include "support/catalogue.h"

namespace {

using namespace testsupport;

class Archive : public ArchiveFile {
protected:
    ArchiveFilterPtr openWith(const std::string& bytes, std::uint64_t properties) {
        writeFile(path, bytes);
        return archive_open(path.c_str(), "r", properties);
    }
};

// No magic by accident.
std::string randomBytes(std::size_t size) {
    return "x" + noise(size - 1, size);
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
    for (const std::uint64_t properties : {std::uint64_t{0}, ARCHIVE_MAYBE_COMPRESSED, ARCHIVE_DIRECT_IO,
                                           ARCHIVE_DIRECT_IO | ARCHIVE_MAYBE_COMPRESSED}) {
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
    const std::tuple<const char*, const char*, std::uint64_t, int, std::string> cases[] = {
        {"abcdef", "a", 0, EINVAL, ""},  // no such mode
        {"abcdef", "w", 0, EEXIST, ""},
        {"abcdef", "r", ARCHIVE_ENCRYPTED, 0, BAD},
        {"abcdef", "r", ARCHIVE_DEDUPLICATED, ENOTSUP, ""},
        {"\x1f\x8b\x08\x01zzzz", "r", ARCHIVE_MAYBE_COMPRESSED, 0, BAD},
        {"\x04\x22\x4d\x18zzzz", "r", ARCHIVE_COMPRESSED_TOO, 0, BAD},
        {"\x1f\x8b\x08\x01zzzz", "r", 0, 0, ""},  // the magic without the property
        {"\x04\x22\x4dxzzzz", "r", ARCHIVE_MAYBE_COMPRESSED, 0, ""}};
    for (const auto& [bytes, mode, properties, error, failure] : cases) {
        SCOPED_TRACE(bytes);
        writeFile(path, bytes);
        errno = 0;
        const ArchiveFilterPtr filter = archive_open(path.c_str(), mode, properties);
        EXPECT_EQ(filter ? 0 : errno, error);
        if (!filter)
            continue;
        EXPECT_EQ(readUpTo(filter.get(), 100), failure.empty() ? bytes : failure);
        EXPECT_EQ(readUpTo(filter.get(), 100), failure);
        EXPECT_EQ(archive_seek(filter.get(), 3, SEEK_SET), failure.empty() ? 3 : -1);
    }
    EXPECT_TRUE(!archive_open((path + "x").c_str(), "r", 0) && errno == ENOENT);
    const ArchiveFilterPtr tooShort = openWith("abc", ARCHIVE_MAYBE_COMPRESSED);
    EXPECT_EQ(readUpTo(tooShort.get(), 10), "") << "nobody can tell whether it is compressed";
    EXPECT_EQ(archive_seek(tooShort.get(), 5, SEEK_SET), 0);
}

TEST_F(Archive, RequestsShapeTheReading) {
    const std::string bytes = randomBytes(5u << 20);
    const ArchiveFilterPtr filter = openWith(bytes, 0);
    archive_filter* f = filter.get();
    EXPECT_TRUE(archive_fcntl(nullptr, ARCHIVE_SET_CLOEXEC) == -1 && errno == EBADF);
    EXPECT_TRUE(archive_fcntl(f, 14) == -1 && errno == ENOSYS);
    EXPECT_EQ(put(f, "a") + archive_read(nullptr, nullptr, 1), -2);
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_DISCARD, 1000), 0);
    EXPECT_EQ(readUpTo(f, 500), bytes.substr(1000, 500)) << "physical bytes were dropped";
    for (const auto& [offset, whence] :
         {std::pair{off_t{0}, SEEK_END}, {-1, SEEK_SET}, {-501, SEEK_CUR}, {LONG_MAX, SEEK_CUR}, {5, 77}}) {
        errno = 0;
        EXPECT_TRUE(archive_seek(f, offset, whence) == -1 && errno == EINVAL) << "and the position stays";
    }
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_SET_BLOCK_SIZE, 100000) + archive_fcntl(f, ARCHIVE_GROW_DEVICE_BUFFER, 3 << 20),
              0);
    EXPECT_EQ(readUpTo(f, 100), bytes.substr(1500, 100)) << "a grown buffer keeps its bytes";
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_SET_STREAM_MODE, 1), 0);
    EXPECT_EQ(archive_seek(f, 150000, SEEK_SET), 150000) << "forward by reading";
    EXPECT_EQ(readUpTo(f, 100), bytes.substr(151000, 100));
    EXPECT_EQ(archive_seek(f, 10, SEEK_SET), -1) << "not backward";
    EXPECT_EQ(archive_fcntl(f, ARCHIVE_CLOSE_DESCRIPTOR) + archive_fcntl(f, ARCHIVE_CLOSE_DESCRIPTOR), 0);
    EXPECT_FALSE(readUpTo(f, bytes.size()) == bytes.substr(151100));
    EXPECT_EQ(errno, EBADF);
    for (const ArchiveRequest request : {ARCHIVE_REOPEN, ARCHIVE_REOPEN_DIRECT}) {
        EXPECT_EQ(archive_fcntl(f, request, path), 0);
        EXPECT_TRUE(readUpTo(f, bytes.size() + 1) == bytes) << "goes on with the file from its start";
    }
    EXPECT_TRUE(archive_fcntl(f, ARCHIVE_REOPEN, path + "x") == -1 && errno == ENOENT);
}

// Stands in for what finds the content of a deduplicated backup: gives the file's own bytes.
struct PlainRedup : RedupReader {
    ArchiveFilterPtr file;
    static inline int seeks = 0;
    ssize_t read(void* buffer, std::size_t count) override { return archive_read(file.get(), buffer, count); }
    off_t seek(off_t offset, int whence) override { return ++seeks, archive_seek(file.get(), offset, whence); }
    [[nodiscard]] off_t offset() const override { return archive_seek(file.get(), 0, SEEK_CUR); }
    archive_filter* inner() override { return file.get(); }
};

TEST_F(Archive, ADeduplicatedBackupIsReadByWhatIsRegistered) {
    archive_register_redup([](const char* name, const char* mode, std::uint64_t properties) {
        auto redup = std::make_unique<PlainRedup>();
        redup->file = archive_open(name, mode, properties & ~ARCHIVE_DEDUPLICATED);
        archive_never_defer_seek(redup->inner());
        return std::unique_ptr<RedupReader>(std::move(redup));
    });
    const std::string bytes = randomBytes(20000);
    ArchiveFilterPtr filter = openWith(bytes, ARCHIVE_DEDUPLICATED);
    archive_register_redup(nullptr);
    ASSERT_TRUE(filter);
    EXPECT_EQ(readUpTo(filter.get(), 100), bytes.substr(0, 100));
    EXPECT_EQ(archive_physical_offset(filter.get()), 100) << "the virtual one";
    EXPECT_EQ(archive_seek(filter.get(), 0, SEEK_SET) + PlainRedup::seeks, 0) << "waits for the read";
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(0, 10));
    EXPECT_EQ(archive_seek(filter.get(), 5, SEEK_CUR), 15);
    EXPECT_EQ(readUpTo(filter.get(), 10), bytes.substr(15, 10));
    EXPECT_EQ(archive_fcntl(filter.get(), ARCHIVE_GROW_DEVICE_BUFFER, 3 << 20), 0);
    EXPECT_TRUE(archive_fcntl(filter.get(), ARCHIVE_SET_STREAM_MODE, 1) == -1 && errno == ENOSYS);
    EXPECT_EQ(put(filter.get(), "a"), -1);
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
    EXPECT_TRUE(!archive_open_backup(1, 0) && errno == ENOTSUP) << "deduplicated";
    const ArchiveFilterPtr plain = archive_open_backup(1, ARCHIVE_DEDUPLICATED);
    ASSERT_TRUE(plain);
    EXPECT_TRUE(readUpTo(plain.get(), 20000) == bytes);
    writeFile(path + ".gz", "first");
    const ArchiveFilterPtr preferred = archive_open_backup(1, ARCHIVE_DEDUPLICATED);
    EXPECT_EQ(readUpTo(preferred.get(), 100), "first");
    std::uint64_t size = 0;
    struct stat st {};
    ASSERT_EQ(stat((path + ".gz").c_str(), &st), 0);
    EXPECT_EQ(archive_get_actual_size(1, &size), 0);
    EXPECT_EQ(size, static_cast<std::uint64_t>(st.st_blocks) * 512);
    EXPECT_TRUE(!archive_open_backup(2, 0) && errno == ENOENT) << "no file";
    EXPECT_TRUE(!archive_open_backup(3, 0) && errno == EBADMSG) << "no row";
}

}  // namespace
