// What a written file is: for other people's tools, on the disk, and when the disk is full.

#include "archive_support.h"
#include "base/file_descriptor.h"
#include "log/logger.h"
#include "support/bytes.h"

namespace {

using namespace testsupport;

constexpr std::uint64_t PACKED = ARCHIVE_COMPRESSED_TOO;
constexpr std::size_t TOKEN = 1536;
constexpr off_t SIZE_STEP = 10485760;

class ArchiveWriting : public ArchiveFile {
protected:
    [[nodiscard]] off_t fileSize() const { return static_cast<off_t>(std::filesystem::file_size(path)); }
    [[nodiscard]] off_t blocks() const {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0);
        return st.st_blocks * 512;
    }

    // By a tool that knows nothing of tokens, with the key of the file's session.
    std::string decryptedByTool(const std::string& file) {
        CryptContext context;
        CDlibResult result{};
        EXPECT_EQ(CDlibInitCryptWithToken(file.data(), TOKEN, &context, &result), 0);
        const std::string hex = hexOf(std::span(context.session->key).first(32));
        return through(root, file.substr(TOKEN), "openssl enc -d -aes-256-ecb -nopad -K " + hex + " -in in");
    }

    // Lets the process write files of up to `size` bytes while it lives.
    struct Quota {
        rlimit before{};
        explicit Quota(rlim_t size) {
            (void)std::signal(SIGXFSZ, SIG_IGN);
            getrlimit(RLIMIT_FSIZE, &before);
            const rlimit limit{size, before.rlim_max};
            EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        }
        ~Quota() { setrlimit(RLIMIT_FSIZE, &before); }
    };
};

TEST_F(ArchiveWriting, OtherToolsReadTheDataOfAllSizes) {
    needKeyService();
    constexpr unsigned long UNIT = 524288;
    for (const char* engine : {"zlib", "lz4"})
        for (const std::size_t size : {1ul, 32ul, 511ul, 65536ul, 131073ul, UNIT - 1, UNIT, UNIT + 1, 3 * UNIT + 4096})
            for (const std::uint64_t properties : {PACKED, std::uint64_t{0}, LOCKED, LOCKED | PACKED}) {
                if ((properties & LOCKED) != 0 && size % 32 != 0)
                    continue;
                for (const std::uint64_t direct : {std::uint64_t{0}, ARCHIVE_DIRECT_IO}) {
                    SCOPED_TRACE(std::string(engine) + " " + std::to_string(size) + " " + std::to_string(properties));
                    configure(engine, "CompressionLevel=" + std::to_string(size % 10) + "\n");
                    const std::string bytes = contentOf(Content::mixed, size);
                    ArchiveFilterPtr filter = create(properties | direct);
                    std::mt19937_64 random(size);
                    for (std::size_t at = 0, count; at < size; at += count) {  // in pieces small and large
                        count = std::min<std::size_t>(1 + random() % (at % 3 == 0 ? 700000 : 3000), size - at);
                        ASSERT_EQ(archive_write(filter.get(), bytes.data() + at, count), static_cast<ssize_t>(count));
                    }
                    ASSERT_TRUE(archive_close(&filter) == 0 && !filter);
                    std::string data = readFile(path);
                    data.resize(std::min(data.size(), data.find("ae9b77")));  // in front of the index
                    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
                    std::string error;
                    if ((properties & PACKED) != 0) {
                        const auto index = LoadCompressionIndex(file.get(), &error);
                        ASSERT_TRUE(index) << error;
                        for (const std::int64_t entry : index->entries)
                            EXPECT_TRUE(data.substr(static_cast<std::size_t>(entry)).starts_with(data.substr(0, 3)));
                        data = through(root, data, engine[0] == 'z' ? "zcat in" : "lz4 -dc in");
                    }
                    if ((properties & LOCKED) != 0)
                        data = decryptedByTool(data);
                    EXPECT_TRUE(data == bytes) << data.size();
                    EXPECT_TRUE(readAll(properties | direct) == bytes);
                }
            }
    EXPECT_FALSE(create(PACKED) && archive_open(path.c_str(), "w", 0)) << "a backup is never overwritten";
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(ArchiveWriting, NothingWrittenIsAnEmptyFile) {
    needKeyService();
    ArchiveFilterPtr filter = create(LOCKED | PACKED);
    EXPECT_EQ(archive_write(filter.get(), "", 0), 0);
    EXPECT_EQ(archive_seek(filter.get(), 100000, SEEK_CUR), 100000) << "dropped: no write follows";
    EXPECT_EQ(archive_close(&filter), 0);
    EXPECT_EQ(fileSize(), 0);
    makeBackup(std::string(32, 'x'), LOCKED | PACKED);
    EXPECT_TRUE(readFile(path).find("ae9b77") != std::string::npos) << "a few bytes bring token and index";
    ArchiveFilterPtr none;
    EXPECT_EQ(archive_close(&none), 0);
}

TEST_F(ArchiveWriting, SeeksLeaveHolesOrZeros) {
    needKeyService();
    // Bytes in front of the seek, bytes it goes on, whether it leaves a hole.
    const std::tuple<const char*, std::uint64_t, std::size_t, off_t, bool> cases[] = {
        {"a block", 0, 100, 4096, false},
        {"over a block", 0, 100, 5 << 20, true},
        {"from the start", 0, 0, (5 << 20) + 77, true},
        {"on a boundary", ARCHIVE_DIRECT_IO, 8192, 5 << 20, true},
        {"far", ARCHIVE_DIRECT_IO, 600001, 40 << 20, true},
        {"encrypted", LOCKED, 96, 5 << 20, true},
        {"encrypted, from the start", LOCKED, 0, 5 << 20, true},
        {"compressed", PACKED, 100, 5 << 20, false}};
    for (const auto& [what, properties, before, skip, isHole] : cases) {
        SCOPED_TRACE(what);
        const std::string head = contentOf(Content::noise, before);
        const std::string tail = contentOf(Content::noise, 64 * 1024);
        const bool isLocked = (properties & LOCKED) != 0, isPacked = (properties & PACKED) != 0;
        ArchiveFilterPtr filter = create(properties);
        const auto start = static_cast<off_t>(before), target = start + skip;
        ASSERT_EQ(put(filter.get(), head), start);
        ASSERT_EQ(archive_seek(filter.get(), 10, SEEK_CUR), start + 10);
        ASSERT_EQ(archive_seek(filter.get(), skip - 10, SEEK_CUR), target) << "seeks add up";
        ASSERT_EQ(put(filter.get(), tail), 64 * 1024);
        EXPECT_TRUE(!isHole || archive_physical_offset(filter.get()) >= target / 4096 * 4096);
        EXPECT_TRUE(!isHole || fileSize() >= SIZE_STEP);
        ASSERT_EQ(archive_close(&filter), 0);
        const ArchiveFilterPtr back = reopen(properties);
        EXPECT_TRUE(isLocked || restOf(back.get()) == head + std::string(static_cast<std::size_t>(skip), '\0') + tail);
        ASSERT_EQ(archive_seek(back.get(), target, SEEK_SET), target);
        EXPECT_TRUE(readUpTo(back.get(), tail.size()) == tail);
        EXPECT_TRUE(isPacked || fileSize() == target + 64 * 1024 + static_cast<off_t>(isLocked ? TOKEN : 0));
        EXPECT_EQ(blocks() < skip, isHole || isPacked);
    }
}

TEST_F(ArchiveWriting, TheFileGrowsInStepsAndIsTrimmedAtTheEnd) {
    const std::string bytes = contentOf(Content::noise, 11 << 20);
    ArchiveFilterPtr filter = create(0);
    archive_adjust_size(filter.get(), 0);
    EXPECT_EQ(fileSize(), SIZE_STEP);
    for (std::size_t at = 0; at < bytes.size(); at += 1 << 20)
        ASSERT_EQ(archive_write(filter.get(), &bytes[at], 1 << 20), 1 << 20);
    EXPECT_EQ(fileSize(), SIZE_STEP + 524288 + SIZE_STEP);
    archive_adjust_size(filter.get(), 30 << 20);
    EXPECT_EQ(fileSize(), (11 << 20) + (30 << 20) + SIZE_STEP);
    // A volume that is left ends where it was written.
    ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_REOPEN, path + ".2"), 0);
    EXPECT_EQ(fileSize(), 11 << 20);
    archive_adjust_size(filter.get(), 0);
    ASSERT_EQ(archive_write(filter.get(), bytes.data(), 1000), 1000);
    ASSERT_EQ(archive_close(&filter), 0);
    EXPECT_TRUE(readFile(path) + readFile(path + ".2") == bytes + bytes.substr(0, 1000));
    archive_adjust_size(reopen(0).get(), 0);
    EXPECT_EQ(fileSize(), 11 << 20) << "a reader changes nothing";
}

TEST_F(ArchiveWriting, PhysicalBlocksAreFilledUpOnlyOnRequest) {
    for (const bool isPadded : {false, true})
        for (const std::uint64_t direct : {std::uint64_t{0}, ARCHIVE_DIRECT_IO}) {
            ArchiveFilterPtr filter = create(direct);
            ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_SET_BLOCK_SIZE, 60000), 0);
            ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_SET_BLOCK_PADDING, isPadded ? 1 : 0), 0);
            const std::string bytes = contentOf(Content::noise, 700001);
            ASSERT_EQ(put(filter.get(), bytes), 700001);
            ASSERT_EQ(archive_close(&filter), 0);
            EXPECT_EQ(fileSize(), isPadded ? 12 * 61440 : 700001);
            EXPECT_TRUE(readFile(path).substr(0, 700001) == bytes);
        }
}

TEST_F(ArchiveWriting, AFullDeviceCanBeRepairedAndTheWritingGoesOn) {
    needKeyService();
    log_level = 2;  // else thousands of states are dumped
    for (const std::uint64_t properties : {std::uint64_t{0}, ARCHIVE_DIRECT_IO, LOCKED, PACKED, LOCKED | PACKED})
        for (const rlim_t limit : {rlim_t{1}, rlim_t{300000}, rlim_t{1100000}, rlim_t{1 << 20}}) {
            SCOPED_TRACE(std::to_string(properties) + " " + std::to_string(limit));
            std::string bytes = contentOf(Content::noise, 1500000 / 32 * 32);
            ArchiveFilterPtr filter = create(properties);
            ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_CONTINUE_ON_ERROR, 1), 0);
            const auto writeAndRepair = [&](const std::string& part) {
                std::optional<Quota> quota(limit);
                if (put(filter.get(), part) == static_cast<ssize_t>(part.size()))
                    return;
                EXPECT_EQ(errno, EFBIG);
                EXPECT_EQ(archive_rewrite(filter.get()), -1) << "still full";
                quota.reset();
                EXPECT_GE(archive_rewrite(filter.get()), 0);
            };
            const std::size_t half = 700000 / 32 * 32;
            writeAndRepair(bytes.substr(0, half));
            const std::string hole((properties & LOCKED) == 0 ? 1 << 20 : 0, '\0');
            const auto behind = static_cast<off_t>(half + hole.size());
            ASSERT_EQ(archive_seek(filter.get(), static_cast<off_t>(hole.size()), SEEK_CUR), behind);
            writeAndRepair(bytes.substr(half));
            {
                const Quota quota(limit);
                const int closed = archive_close(&filter);
                EXPECT_EQ(closed == 0, !filter) << "a close that can be repaired leaves the filter";
            }
            if (filter) {
                EXPECT_GE(archive_rewrite(filter.get()), 0);
                EXPECT_EQ(archive_close(&filter), 0);
            }
            EXPECT_FALSE(filter);
            EXPECT_TRUE(readAll(properties) == bytes.insert(half, hole));
        }
}

TEST_F(ArchiveWriting, WithoutContinuingAFullDeviceEndsTheFilter) {
    ArchiveFilterPtr full = archive_open("/dev/full", "w", ARCHIVE_DIRECT_IO);
    EXPECT_TRUE(put(full.get(), contentOf(Content::noise, 600000)) == -1 && errno == ENOSPC);
    EXPECT_TRUE(archive_rewrite(full.get()) == -1 && errno == EINVAL) << "not without ARCHIVE_CONTINUE_ON_ERROR";
    EXPECT_TRUE(archive_close(&full) == -1 && errno == ENOSPC);
    EXPECT_FALSE(full);
}

TEST_F(ArchiveWriting, WrongUseIsRefused) {
    needKeyService();
    ArchiveFilterPtr filter = create(0);
    EXPECT_EQ(put(filter.get(), "abcdef"), 6);
    EXPECT_THAT(readUpTo(filter.get(), 1), ::testing::StartsWith("failed"));
    for (const auto& [offset, whence] :
         {std::pair{off_t{3}, SEEK_SET}, {0, SEEK_END}, {LONG_MAX, SEEK_CUR}, {-7, SEEK_CUR}}) {
        errno = 0;
        EXPECT_TRUE(archive_seek(filter.get(), offset, whence) == -1 && errno == EINVAL) << offset;
    }
    EXPECT_EQ(archive_rewrite(filter.get()), -1) << "nothing failed";
    EXPECT_EQ(archive_seek(filter.get(), -1, SEEK_CUR), 5);
    EXPECT_TRUE(put(filter.get(), "x") == -1 && errno == EINVAL) << "backward";
    EXPECT_EQ(archive_seek(filter.get(), 1, SEEK_CUR), 7) << "counted from the end again";
    EXPECT_EQ(put(filter.get(), "x"), 1);
    EXPECT_EQ(archive_close(&filter), 0);
    EXPECT_EQ(readFile(path), std::string("abcdef\0x", 8));
    filter = create(LOCKED);
    EXPECT_EQ(put(filter.get(), "abc"), 3);
    EXPECT_TRUE(archive_close(&filter) == -1 && !filter) << "no whole cipher unit";
    EXPECT_TRUE(root.logged("3 bytes remain in encryption input buffer"));
    for (const char* segment : {"3", "20480"}) {
        configure("zlib", std::string("CompressionSegmentKB=") + segment + "\n");
        filter = create(PACKED);
        EXPECT_EQ(put(filter.get(), "abc") + archive_close(&filter), -2) << "no factor of 10 MB";
    }
}

}  // namespace
