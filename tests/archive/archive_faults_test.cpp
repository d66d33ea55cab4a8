// What the file's side does to a reader: calls that fail, are interrupted or come short, blocks, and several volumes.
#include <sys/sysmacros.h>

#include "archive_support.h"
#include "lab/process.h"
#include "log/logger.h"

namespace {

// What becomes of read() on one descriptor.
struct Reads {
    int fd = -1, failsAt = 0;  // the call that fails with EIO; 0 none
    bool isRough = false;      // calls are interrupted, or give less than was asked for
    int calls = 0;
    std::size_t bytes = 0;
    std::vector<std::size_t> asked;
} g_reads;

}  // namespace

extern "C" ssize_t __real_read(int fd, void* to, std::size_t count);
extern "C" ssize_t __wrap_read(int fd, void* to, std::size_t count) {  // NOLINT(bugprone-reserved-identifier)
    if (fd != g_reads.fd)
        return __real_read(fd, to, count);
    ++g_reads.calls;
    g_reads.asked.push_back(count);
    if (g_reads.calls == g_reads.failsAt || (g_reads.isRough && g_reads.calls % 3 == 0)) {
        errno = g_reads.isRough ? EINTR : EIO;
        return -1;
    }
    const ssize_t got = __real_read(fd, to, g_reads.isRough ? std::min<std::size_t>(count, 5000) : count);
    g_reads.bytes += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    return got;
}

namespace {

using namespace testsupport;

constexpr std::size_t SIZE = 1500000 / 32 * 32;

class ArchiveFaults : public ArchiveFile {
protected:
    ArchiveFaults() { needKeyService(); }
    ~ArchiveFaults() override { g_reads = {}; }

    ArchiveFilterPtr openWatched(std::uint64_t properties, int failsAt = 0, bool isRough = false) const {
        ArchiveFilterPtr filter = reopen(properties);
        g_reads = {archive_fd(filter.get()), failsAt, isRough, 0, 0, {}};
        return filter;
    }

    // Reads, rewinds, steps; each read must give what lies at the position that the filter tells. Whether one call
    // failed.
    static bool walk(archive_filter* filter, const std::string& bytes) {
        constexpr struct {
            off_t seek;  // -1 none
            std::size_t count;
        } STEPS[] = {{-1, 700000}, {0, 1000}, {100, 5000}, {1200000, 3000}, {1140000, 3000}, {64, 100}, {0, 200000}};
        bool hasFailed = false;
        for (const auto& [target, count] : STEPS) {
            if (target != -1 && archive_seek(filter, target, SEEK_SET) == -1)
                hasFailed = true;
            for (std::size_t done = 0; done < count;) {
                const off_t position = archive_seek(filter, 0, SEEK_CUR);
                EXPECT_GE(position, 0);
                std::string got(count - done, '?');
                const ssize_t result = archive_read(filter, got.data(), got.size());
                if (result == -1 && std::exchange(hasFailed, true))
                    ADD_FAILURE() << "one failure is told once";
                if (result == -1)
                    continue;
                EXPECT_GT(result, 0);
                got.resize(static_cast<std::size_t>(result));
                EXPECT_TRUE(got == bytes.substr(static_cast<std::size_t>(position), got.size())) << "at " << position;
                done += got.size();
            }
            if (::testing::Test::HasFailure())
                return false;
        }
        return hasFailed;
    }
};

TEST_F(ArchiveFaults, WhatFollowsAFailedReadBelongsToThePosition) {
    log_level = 0;
    const std::string bytes = contentOf(Content::mixed, SIZE);
    for (const Kind& kind : KINDS) {
        makeBackup(kind, bytes, "devbufsize_archiverw=131072\n");
        for (const std::uint64_t direct : {std::uint64_t{0}, ARCHIVE_DIRECT_IO}) {
            for (int n = 1; n == 1 || (g_reads.calls >= n - 1 && !HasFailure()); ++n) {
                SCOPED_TRACE(kind.name() + (direct != 0 ? " direct, read " : " read ") + std::to_string(n));
                (void)walk(openWatched(kind.properties | direct, n).get(), bytes);
            }
            EXPECT_FALSE(walk(openWatched(kind.properties | direct, 0, true).get(), bytes)) << "rough reads";
        }
    }
}

TEST_F(ArchiveFaults, ARewindThatCannotBeDoneKeepsFailing) {
    makeBackup(contentOf(Content::noise, 3 << 20), 0);
    const ArchiveFilterPtr filter = reopen(0);
    ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_SET_STREAM_MODE, 1), 0);
    ASSERT_EQ(archive_read(filter.get(), nullptr, 2 << 20), 2 << 20);
    ASSERT_EQ(archive_seek(filter.get(), 0, SEEK_SET), 0) << "it waits";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(restOf(filter.get()), "failed " + std::to_string(EINVAL));
}

// Of a tape a read that isn't a whole block loses the rest of it.
TEST_F(ArchiveFaults, WithABlockSizeEveryReadIsOneBlock) {
    const std::string bytes = contentOf(Content::noise, 5 << 20);
    for (const Kind& kind : KINDS)
        for (const std::int64_t block : {65536, 1048576, 3 << 20}) {
            SCOPED_TRACE(kind.name() + " " + std::to_string(block));
            makeBackup(kind, bytes);
            const ArchiveFilterPtr filter = openWatched(kind.properties);
            ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_SET_BLOCK_SIZE, block), 0);
            EXPECT_TRUE(restOf(filter.get()) == bytes);
            EXPECT_EQ(std::ranges::count(g_reads.asked, static_cast<std::size_t>(block)), g_reads.calls);
        }
}

TEST_F(ArchiveFaults, AHopThroughTheFileReadsLittle) {
    const std::string bytes = contentOf(Content::noise, 24 << 20);
    constexpr int HOPS = 60;
    for (const Kind& kind : {Kind{"lz4", ZIPPED}, Kind{"zlib", ZIPPED}, Kind{"zlib", 0}})
        for (const std::uint64_t direct : {std::uint64_t{0}, ARCHIVE_DIRECT_IO}) {
            SCOPED_TRACE(kind.name() + (direct != 0 ? " direct" : ""));
            makeBackup(kind, bytes);
            const ArchiveFilterPtr filter = openWatched(kind.properties | direct);
            std::mt19937 random(1);
            for (int i = 0; i < HOPS; ++i) {
                const std::size_t at = random() % (bytes.size() - 4096) / 65536 * 65536;
                ASSERT_EQ(archive_seek(filter.get(), static_cast<off_t>(at), SEEK_SET), static_cast<off_t>(at));
                ASSERT_TRUE(readUpTo(filter.get(), 4096) == bytes.substr(at, 4096));
            }
            EXPECT_LE(g_reads.bytes / HOPS, 200000u);  // a unit of LZ4 takes 65536, and two may be needed
            EXPECT_LE(g_reads.calls, 6 * HOPS);
        }
}

TEST_F(ArchiveFaults, SeveralVolumesAreOneStream) {
    const std::string bytes = contentOf(Content::mixed, SIZE);
    for (const Kind& kind : KINDS)
        for (const std::size_t cut : {std::size_t{301000}, std::size_t{500017}, std::size_t{600064}})
            for (const std::size_t head : {0, 4096})
                for (const ArchiveRequest request : {ARCHIVE_REOPEN, ARCHIVE_REOPEN_DIRECT}) {
                    SCOPED_TRACE(kind.name() + " cut " + std::to_string(cut) + " head " + std::to_string(head) + " " +
                                 std::to_string(request));
                    makeBackup(kind, bytes);
                    const std::string file = readFile(path);
                    writeFile(path, file.substr(0, cut));
                    writeFile(path + ".2", std::string(head, 'H') + file.substr(cut));
                    const ArchiveFilterPtr filter = reopen(kind.properties);
                    std::string got, piece;
                    while (!(piece = readUpTo(filter.get(), 100000)).empty() && !piece.starts_with("failed "))
                        got += piece;
                    ASSERT_EQ(archive_fcntl(filter.get(), request, path + ".2"), 0);
                    ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_DISCARD, -1), -1);
                    ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_DISCARD, static_cast<std::int64_t>(head)), 0);
                    EXPECT_TRUE(got + restOf(filter.get()) == bytes);
                }
    // A seek behind the index says nothing of the next file.
    makeBackup(bytes, ZIPPED);
    const ArchiveFilterPtr filter = reopen(ZIPPED);
    ASSERT_NE(archive_seek(filter.get(), SIZE + (2 << 20), SEEK_SET), -1);
    EXPECT_EQ(restOf(filter.get()), "");
    ASSERT_EQ(archive_fcntl(filter.get(), ARCHIVE_REOPEN, path), 0);
    EXPECT_TRUE(restOf(filter.get()) == bytes);
}

TEST_F(ArchiveFaults, TheToolLeavesDevicesAloneAndSavesWhatLiesInFrontOfDamage) {
    const auto run = [&](const std::string& arguments, const std::string& input = "") {
        writeFile(root / "tmp/in", input);
        return tool(root, "FERRYD_ROOT='" + root.path().string() + "' '" +
                              (lab::programDirectory() / "archiveTool").string() + "' " + arguments +
                              " < in > out 2> err");
    };
    configure("zlib", "");
    const std::string bytes = contentOf(Content::text, 1000000);
    EXPECT_EQ(run("write " + path + " --properties 0x2", bytes), 0) << readFile(root / "tmp/err");
    EXPECT_EQ(run("write " + path, bytes), 1) << "it is there";
    EXPECT_EQ(run("read " + path + " --properties 2 --offset 1000 --length 70000"), 0);
    EXPECT_TRUE(readFile(root / "tmp/out") == bytes.substr(1000, 70000));
    EXPECT_EQ(run("index " + path), 0);
    EXPECT_TRUE(readFile(root / "tmp/out").starts_with("primary: chunk 131072, 8 entries\n0 0\n1 "));
    EXPECT_TRUE(readFile(root / "tmp/out").find("secondary: chunk 10485760, 1 entries\n0 0\n") != std::string::npos);
    std::string damaged = readFile(path);
    const std::size_t last = damaged.rfind("\x1f\x8b\x08");
    damaged[last + 2000] = static_cast<char>(damaged[last + 2000] ^ 1);
    writeFile(path, damaged);
    EXPECT_EQ(run("read " + path + " --properties 2"), 3);
    const std::string saved = readFile(root / "tmp/out");
    EXPECT_TRUE(saved.size() >= 15 * 65536 && bytes.starts_with(saved)) << saved.size();
    const std::string device = root / "tmp/full";
    if (mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 7)) != 0)
        GTEST_SKIP() << "needs the right to make a device";
    EXPECT_EQ(run("write " + device, bytes), 1);
    EXPECT_TRUE(std::filesystem::exists(device));
    EXPECT_EQ(run("write " + path + ".3 --properties 0x100", bytes + "x"), 3) << "no whole cipher unit";
    EXPECT_FALSE(std::filesystem::exists(path + ".3"));
}

}  // namespace
