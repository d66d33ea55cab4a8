// Reserving, writing and reading, by one process and by several, and what a death or a full disk leaves.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <thread>

#include "base/file_descriptor.h"
#include "sis_fixture.h"

namespace {

namespace fs = std::filesystem;
using testsupport::noise;
using testsupport::readAt;
using testsupport::SMALL_FILE;
using testsupport::STORE_BLOCK;
using testsupport::writeAt;
using testsupport::writeFile;

class SISstore : public testsupport::Store {
protected:
    SISstore() {
        presetSizes();
        addDisk(1, "one");
        addDisk(2, "two");
    }

    std::int64_t reserve(SIS* sis, std::int64_t length) {
        std::uint64_t offset = 0;
        return reserveSIS(sis, &offset, length) == 0 ? static_cast<std::int64_t>(offset) : -1;
    }
    std::string pathOf(std::uint64_t offset) const {
        const std::string first = fileOn("one", offset);
        return fs::exists(first) ? first : fileOn("two", offset);
    }
};

TEST_F(SISstore, AReservationNeverSpansTwoFiles) {
    const SISPtr sis = openSIS();
    ASSERT_TRUE(sis);
    constexpr std::int64_t FILE = SMALL_FILE;
    const struct {
        const char* what;
        std::int64_t length;
        std::int64_t start;
        std::int64_t next;
    } cases[] = {
        {"one byte takes a block", 1, 0, 8192},
        {"a block and a byte take two", 8193, 8192, 3 * 8192},
        {"the exact rest of the file", FILE - 3 * 8192, 3 * 8192, FILE},
        {"all but one block", FILE - 8192, FILE, 2 * FILE - 8192},
        {"what doesn't fit goes to the next file", 8193, 2 * FILE, 2 * FILE + 2 * 8192},
        {"a whole file", FILE, 3 * FILE, 4 * FILE},
        {"more than a file", FILE + 1, -1, 4 * FILE},
        {"less than nothing", -1, -1, 4 * FILE},
        {"nothing tells the pointer", 0, 4 * FILE, 4 * FILE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(reserve(sis.get(), c.length), c.start);
        EXPECT_EQ(inInfo<std::int64_t>(40), c.next);
    }
    EXPECT_EQ(fs::file_size(pathOf(SMALL_FILE)), SMALL_FILE);
    EXPECT_EQ(reserve(nullptr, 1), -1);
    EXPECT_TRUE(root.logged("reserveSIS(NULL,)"));
    EXPECT_TRUE(root.logged("reserveSIS(, 0xFFFFFFFFFFFFFFFF)"));
    EXPECT_TRUE(root.logged("Length > SIS file size:  0x1002000 > 0x1000000"));
}

TEST_F(SISstore, OnlyTheOwnReservationCanBeWrittenAndOnlyWhatIsReservedRead) {
    const SISPtr sis = openSIS();
    const std::string block(8192, 'x');
    ASSERT_EQ(reserve(sis.get(), 8192), 0);
    ASSERT_EQ(reserve(sis.get(), 8192), 8192);
    EXPECT_FALSE(writeAt(sis.get(), block, 0)) << "given back by the second reservation";
    EXPECT_TRUE(root.logged("writeSIS(): 0x4000 > offset 0x0 >= 0x2000"));
    EXPECT_EQ(writeSIS(sis.get(), testsupport::bytesOf(noise(10000, 1)), 8192 + 100), 8092) << "cut at its end";
    EXPECT_EQ(readAt(sis.get(), 100, 8192), std::string(100, '\0')) << "reserved, and nothing in it";
    std::string room(8192, '\0');
    EXPECT_EQ(readSIS(sis.get(), testsupport::roomOf(room), 2 * 8192 - 10), 10) << "cut at the pointer";
    EXPECT_EQ(readSIS(sis.get(), testsupport::roomOf(room), 2 * 8192), -1);
    EXPECT_TRUE(root.logged("readSIS(): offset 0x4000 >= 0x4000"));
    EXPECT_EQ(readSIS(sis.get(), {}, 0), 0);
}

TEST_F(SISstore, WhatFailsLeavesThePointerWhereItWas) {
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), SMALL_FILE), 0);
    // No disk can take a new file: where its directory should be, there is something else.
    for (const char* name : {"one", "two"}) {
        fs::remove_all(disk(name) + "/SIS");
        writeFile(disk(name) + "/SIS", "");
    }
    EXPECT_EQ(reserve(sis.get(), 8192), -1);
    EXPECT_TRUE(root.logged("There's no room to put another single instance store file!"));
    EXPECT_EQ(reserve(sis.get(), 0), static_cast<std::int64_t>(SMALL_FILE));
    // A file that was never made keeps later ranges in it from being used; the logs at that moment are kept once.
    root.masterIni("[fileDedup]\n  sis_log_err=true\n");
    for (const char* name : {"one", "two"})
        fs::remove(disk(name) + "/SIS");
    setInInfo<std::uint64_t>(40, SMALL_FILE + 8192);
    EXPECT_EQ(reserve(sis.get(), 8192), -1);
    EXPECT_TRUE(root.logged("Can't find existing single instance store file for offset 0x1002000, canCreate(1)"));
    EXPECT_EQ(reserve(sis.get(), 8192), -1);
    const fs::path kept = root / "usr/dq/logs.dir/errorSnapshots/SIS_CREATE_ERR_0000000001000000";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (fs::exists(kept / "test.log") && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string list = "tar -tzf " + (kept / "LOGS.DIR.TGZ").string() + " | grep -q '^./test.log$'";
    EXPECT_EQ(system(list.c_str()), 0);
    EXPECT_TRUE(fs::exists(root / "usr/dq/logs.dir/test.log")) << "the log itself stays";
}

TEST_F(SISstore, AFileOnAnotherDiskIsUsedAndAnUnfinishedOneIsFinishedByTheNextWriter) {
    const SISPtr sis = openSIS();
    const std::string data = noise(30000, 5);
    const std::uint64_t offset = put(sis.get(), data);
    const bool isOnOne = fs::exists(fileOn("one", 0));
    fs::create_directories(disk(isOnOne ? "two" : "one") + "/SIS");
    fs::rename(pathOf(0), fileOn(isOnOne ? "two" : "one", 0));
    const SISPtr reader = openSIS();
    EXPECT_EQ(readAt(reader.get(), data.size(), offset), data);
    EXPECT_TRUE(root.logged("Found single instance store file 0 in\n"));
    // Its maker died before it had its length.
    writeFile(fileOn("one", SMALL_FILE), "");
    setInInfo<std::uint64_t>(40, SMALL_FILE + 8192);
    EXPECT_EQ(readAt(reader.get(), 10, SMALL_FILE), "failed");
    EXPECT_TRUE(root.logged("ERROR:  LOCK_EX is not held and device not fully setup."));
    EXPECT_EQ(put(reader.get(), data), SMALL_FILE + 8192);
    fs::resize_file(fileOn("one", SMALL_FILE), SMALL_FILE - 1);
    EXPECT_EQ(readAt(openSIS().get(), 10, SMALL_FILE + 8192), "failed") << "a short file isn't set up";
}

TEST_F(SISstore, AnInfoFileThatWasLostGivesNothingOutThatIsInUse) {
    const std::string data = noise(50000, 1);
    SISPtr sis = openSIS();
    (void)put(sis.get(), noise(SMALL_FILE, 2));
    ASSERT_EQ(put(sis.get(), data), SMALL_FILE);
    sis.reset();
    presetSizes();
    sis = openSIS();
    EXPECT_EQ(put(sis.get(), noise(50000, 3)), 2 * SMALL_FILE);
    EXPECT_EQ(readAt(sis.get(), data.size(), SMALL_FILE), data);
}

class SIScontent : public SISstore, public ::testing::WithParamInterface<bool> {};

TEST_P(SIScontent, EveryPartOfWhatWasWrittenReadsBackEqual) {
    if (GetParam())
        needKeyService();
    std::string written;
    {
        const SISPtr sis = openSIS();
        for (std::uint64_t i = 0; i < 3; ++i) {
            // In pieces that begin and end anywhere, the last file only in part.
            const std::string data = noise(i < 2 ? SMALL_FILE : 3000001, i);
            std::uint64_t offset = 0;
            ASSERT_EQ(reserveSIS(sis.get(), &offset, static_cast<std::int64_t>(data.size())), 0);
            std::mt19937 random(7);
            std::vector<std::size_t> cuts{0, data.size()};
            for (int n = 0; n < 40; ++n)
                cuts.push_back(random() % data.size());
            std::sort(cuts.begin(), cuts.end());
            std::vector<std::size_t> order(cuts.size() - 1);
            std::iota(order.begin(), order.end(), 0);
            std::shuffle(order.begin(), order.end(), random);
            for (const std::size_t n : order)
                ASSERT_TRUE(writeAt(sis.get(), data.substr(cuts[n], cuts[n + 1] - cuts[n]), offset + cuts[n]));
            written += data;
        }
    }
    EXPECT_EQ(fs::file_size(pathOf(0)) > SMALL_FILE, GetParam());
    EXPECT_EQ(testsupport::readFile(pathOf(0)).find(written.substr(4096, 64)) == std::string::npos, GetParam());
    root.masterIni("[fileDedup]\n  encryptSIS=false\n");  // a file stays what it is
    const SISPtr sis = openSIS();
    std::mt19937_64 random(11);
    for (int i = 0; i < 300; ++i) {
        const std::size_t offset = random() % written.size();
        const std::size_t count =
            std::min<std::size_t>(random() % (i < 200 ? 100 : 900000) + 1, written.size() - offset);
        ASSERT_TRUE(readAt(sis.get(), count, offset) == written.substr(offset, count)) << offset << "+" << count;
    }
}

INSTANTIATE_TEST_SUITE_P(Plain, SIScontent, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Encrypted, SIScontent, ::testing::Values(true));

TEST_F(SISstore, ADamagedTokenOrAMissingServiceFailsTheReadAndNothingElse) {
    needKeyService();
    const std::string data = noise(20000, 3);
    SISPtr sis = openSIS();
    const std::uint64_t offset = put(sis.get(), data);
    const std::string path = pathOf(0);
    const auto withByte = [&](std::size_t at, char value) {
        const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(pwrite(file.get(), &value, 1, static_cast<off_t>(SMALL_FILE + at)), 1);
    };
    const struct {
        const char* what;
        std::size_t at;
        char value;
        std::string said;
    } cases[] = {
        {"name", 0, 'X', "Bad encryption token at 0x1000000 in " + path},
        {"kind", 156, '0', "Bad encryption token at 0x1000000 in " + path},
        {"size", 124 + 10, '7', "Bad encryption token at 0x1000000 in " + path},
        {"sealed key", 512 + 100, '\x55', "CDlibInitCryptWithToken(" + path + ") failed"},
    };
    std::string token = testsupport::readFile(path).substr(SMALL_FILE);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        root.clearLog();
        withByte(c.at, c.value);
        EXPECT_EQ(readAt(openSIS().get(), 10, offset), "failed");
        EXPECT_TRUE(root.logged(c.said));
        withByte(c.at, token[c.at]);
    }
    EXPECT_EQ(readAt(openSIS().get(), data.size(), offset), data);
    keyService.reset();
    EXPECT_EQ(readAt(openSIS().get(), 10, offset), "failed");
    EXPECT_EQ(readAt(sis.get(), data.size(), offset), data) << "a key that is there is enough";
    EXPECT_EQ(put(sis.get(), noise(SMALL_FILE, 1)), SMALL_FILE);
    EXPECT_EQ(fs::file_size(pathOf(SMALL_FILE)), SMALL_FILE) << "without the service new files are plain";
    EXPECT_TRUE(root.logged("Not encrypting: CDgetStatusBitmask() failed"));
}

TEST_F(SISstore, AFileThatIsCutWhileItIsMappedFailsTheReadAlsoInSeveralThreads) {
    const std::string data = noise(4 << 20, 1);
    {
        const SISPtr sis = openSIS();
        ASSERT_EQ(put(sis.get(), data), 0u);
    }
    std::atomic<bool> isCut = false;
    std::atomic<int> wrong = 0;
    std::atomic<int> failures = 0;
    std::atomic<int> mapped = 0;
    const auto readOnAndOn = [&] {
        const SISPtr sis = openSIS();
        bool isMapped = false;
        for (int after = 0; sis && after < 20; after += isCut ? 1 : 0) {
            const std::string got = readAt(sis.get(), 100000, 3 << 20);
            if (got == "failed")
                ++failures;
            else if (got != data.substr(3 << 20, 100000))
                ++wrong;
            mapped += isMapped ? 0 : 1;
            isMapped = true;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(readOnAndOn);
    while (mapped < 3)
        std::this_thread::yield();
    fs::resize_file(pathOf(0), 1 << 20);
    isCut = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(failures, 20);
    EXPECT_TRUE(root.logged("readSIS(, 0x300000, 100000) faulted"));
    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGBUS, nullptr, &action), 0);
    const auto installed = action.sa_handler;
    (void)readAt(openSIS().get(), 100, 0);
    ASSERT_EQ(sigaction(SIGBUS, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, installed) << "the former action is back";
}

TEST_F(SISstore, AFullDeviceFailsTheWriteAndTheStoreGoesOn) {
    if (mount("tmpfs", disk("one").c_str(), "tmpfs", 0, "size=2m") != 0)
        GTEST_SKIP() << "needs the right to mount a small device: " << strerror(errno);
    const struct Unmount {
        std::string path;
        ~Unmount() { (void)umount2(path.c_str(), MNT_DETACH); }
    } unmount{disk("one")};
    catalogue.sql("UPDATE dq.devices SET is_deleted = (device_no = 2)");
    const SISPtr sis = openSIS();
    ASSERT_TRUE(sis);
    ASSERT_EQ(reserve(sis.get(), 4 << 20), 0);
    const std::string small = noise(1 << 20, 1);
    EXPECT_TRUE(writeAt(sis.get(), small, 0));
    EXPECT_FALSE(writeAt(sis.get(), noise(3 << 20, 2), 1 << 20));
    EXPECT_TRUE(root.logged("writeSIS(, 0x100000, 3145728) faulted"));
    EXPECT_EQ(readAt(sis.get(), small.size(), 0), small);
}

TEST_F(SISstore, WhoFillsAFileKeepsReclaimersOutOfIt) {
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), 8192), 0);
    const auto freeForReclaiming = [&](std::uint64_t offset) {
        const pid_t child = fork();
        if (child == 0) {
            const SISPtr other = openSIS();
            _exit(other && lockSISoffset(other.get(), offset, F_SETLK, F_WRLCK) == 0 ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status == 0;
    };
    EXPECT_FALSE(freeForReclaiming(SMALL_FILE - 1));
    EXPECT_TRUE(freeForReclaiming(SMALL_FILE));
    const SISPtr second = openSIS();
    ASSERT_EQ(reserve(second.get(), 8192), 8192);
    ASSERT_EQ(reserve(second.get(), 0), 2 * 8192);
    EXPECT_FALSE(freeForReclaiming(0)) << "one handle doesn't drop the other's lock";
    ASSERT_EQ(reserve(sis.get(), 0), 2 * 8192);
    EXPECT_TRUE(freeForReclaiming(0));
}

// What writers tell of what they have done; a range is told when it is complete.
struct Done {
    std::uint64_t offset;
    std::uint64_t length;
    std::uint64_t seed;
};
struct Diary {
    std::atomic<std::uint32_t> count;
    std::atomic<std::uint32_t> failures;
    Done done[4000];
};

class SISwriters : public SISstore {
protected:
    SISwriters() {
        presetSizes(0x80000);  // many files
        void* const room = mmap(nullptr, sizeof(Diary), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        diary = new (room) Diary{};
    }
    ~SISwriters() override { munmap(diary, sizeof(Diary)); }

    pid_t startWriter(std::uint64_t seed, int rounds) {
        const pid_t child = fork();
        if (child == 0)
            _exit(write(seed, rounds));
        return child;
    }

    int write(std::uint64_t seed, int rounds) const {
        const SISPtr sis = openSIS();
        std::mt19937_64 random(seed);
        for (int i = 0; sis && i < rounds; ++i) {
            Done done{0, random() % 120000 + 1, random()};
            if (reserveSIS(sis.get(), &done.offset, static_cast<std::int64_t>(done.length)) != 0 ||
                !writeAt(sis.get(), noise(done.length, done.seed), done.offset)) {
                ++diary->failures;
                continue;
            }
            diary->done[diary->count.fetch_add(1)] = done;
        }
        return sis ? 0 : 1;
    }

    // All that was told lies apart and reads back equal.
    void verify() {
        std::vector<Done> all(diary->done, diary->done + diary->count);
        std::erase_if(all, [](const Done& done) { return done.length == 0; });  // died between counting and telling
        std::sort(all.begin(), all.end(), [](const Done& a, const Done& b) { return a.offset < b.offset; });
        const SISPtr sis = openSIS();
        ASSERT_TRUE(sis);
        std::uint64_t end = 0;
        for (const Done& done : all) {
            ASSERT_GE(done.offset, end) << "two writers had the same space";
            end = done.offset + (done.length + STORE_BLOCK - 1) / STORE_BLOCK * STORE_BLOCK;
            ASSERT_EQ(done.offset / 0x80000, (end - 1) / 0x80000) << "over the end of a file";
            ASSERT_TRUE(readAt(sis.get(), done.length, done.offset) == noise(done.length, done.seed));
        }
        EXPECT_GE(inInfo<std::uint64_t>(40), end);
    }

    Diary* diary;
};

TEST_F(SISwriters, SeveralProcessesNeverGetTheSameSpaceAndNoneIsTurnedAway) {
    std::vector<pid_t> writers;
    for (std::uint64_t i = 0; i < 4; ++i)
        writers.push_back(startWriter(i, 60));
    for (const pid_t writer : writers) {
        int status = -1;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(diary->failures, 0u);
    EXPECT_EQ(diary->count, 240u);
    verify();
    EXPECT_FALSE(fs::is_empty(disk("one") + "/SIS"));
    EXPECT_FALSE(fs::is_empty(disk("two") + "/SIS"));
}

TEST_F(SISwriters, WhatAWriterToldBeforeItWasKilledStays) {
    std::mt19937 random(3);
    for (int round = 0; round < 25; ++round) {
        const pid_t first = startWriter(1000u + static_cast<unsigned>(round), 1000);
        const pid_t second = startWriter(2000u + static_cast<unsigned>(round), 5);
        const std::uint32_t goal = diary->count + random() % 4;
        while (diary->count < goal)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));  // any point will do
        ASSERT_EQ(kill(first, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(first, &status, 0), first);
        ASSERT_EQ(waitpid(second, &status, 0), second);
        ASSERT_EQ(status, 0) << "the store opens for the next";
    }
    verify();
}

}  // namespace
