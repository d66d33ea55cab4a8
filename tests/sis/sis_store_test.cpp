// Reserving, writing and reading, by one process and by several, and what a death or a full disk leaves.

#include <sys/mount.h>

#include "base/file_descriptor.h"
#include "sis_fixture.h"

namespace {

using namespace testsupport;

namespace fs = std::filesystem;

constexpr std::int64_t FILE_SIZE = SMALL_FILE;

class SISstore : public Store {
protected:
    SISstore() {
        presetSizes();
        addDisk(1, "one");
        addDisk(2, "two");
    }

    // The path of an offset's file on the device where it belongs, and on the other one.
    std::pair<fs::path, fs::path> placesOf(std::uint64_t offset) const {
        SISdevice device;
        EXPECT_EQ(placeOfSISoffset(openSIS().get(), offset, &device), 0);
        const bool isOne = device.directory == disk("one") + "/SIS/";
        return {fileOn(isOne ? "one" : "two", offset), fileOn(isOne ? "two" : "one", offset)};
    }

    // What one process does; 0 if it went well.
    template <typename Work>
    static pid_t inChild(Work work) {
        const pid_t child = fork();
        if (child == 0)
            _exit(work() ? 0 : 1);
        return child;
    }
    static int statusOf(pid_t child) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
};

TEST_F(SISstore, AReservationNeverSpansTwoFiles) {
    const SISPtr sis = openSIS();
    ASSERT_TRUE(sis);
    // Length, start, next start.
    const std::tuple<const char*, std::int64_t, std::int64_t, std::int64_t> cases[] = {
        {"one byte takes a block", 1, 0, 8192},
        {"a block and a byte take two", 8193, 8192, 3 * 8192},
        {"the exact rest of the file", FILE_SIZE - 3 * 8192, 3 * 8192, FILE_SIZE},
        {"all but one block", FILE_SIZE - 8192, FILE_SIZE, 2 * FILE_SIZE - 8192},
        {"what doesn't fit goes to the next file", 8193, 2 * FILE_SIZE, 2 * FILE_SIZE + 2 * 8192},
        {"a whole file", FILE_SIZE, 3 * FILE_SIZE, 4 * FILE_SIZE},
        {"more than a file", FILE_SIZE + 1, -1, 4 * FILE_SIZE},
        {"less than nothing", -1, -1, 4 * FILE_SIZE},
        {"nothing tells the pointer", 0, 4 * FILE_SIZE, 4 * FILE_SIZE}};
    for (const auto& [what, length, start, next] : cases)
        EXPECT_TRUE(reserve(sis.get(), length) == start && inInfo<std::int64_t>(40) == next) << what;
    EXPECT_EQ(fs::file_size(placesOf(SMALL_FILE).first), SMALL_FILE);
    EXPECT_EQ(reserve(nullptr, 1), -1);
    EXPECT_TRUE(root.logged("Length > SIS file size:  0x1002000 > 0x1000000"));
    setInInfo<std::uint64_t>(40, 3 * FILE_SIZE + 4097);
    EXPECT_EQ(reserve(sis.get(), 1), -1) << "a pointer that was never given out";
}

TEST_F(SISstore, OnlyTheOwnReservationCanBeWrittenAndOnlyWhatIsReservedRead) {
    const SISPtr sis = openSIS();
    ASSERT_TRUE(reserve(sis.get(), 8192) == 0 && reserve(sis.get(), 8192) == 8192);
    EXPECT_FALSE(writeAt(sis.get(), noise(8192, 1), 0)) << "given back by the second reservation";
    EXPECT_TRUE(root.logged("writeSIS(): 0x4000 > offset 0x0 >= 0x2000"));
    EXPECT_EQ(writeSIS(sis.get(), bytesOf(noise(10000, 1)), 8192 + 100), 8092) << "cut at its end";
    EXPECT_EQ(readAt(sis.get(), 100, 8192), std::string(100, '\0')) << "reserved, and nothing in it";
    std::string room(8192, '\0');
    EXPECT_EQ(readSIS(sis.get(), roomOf(room), 2 * 8192 - 10), 10) << "cut at the pointer";
    EXPECT_EQ(readSIS(sis.get(), roomOf(room), 2 * 8192), -1);
    EXPECT_TRUE(root.logged("readSIS(): offset 0x4000 >= 0x4000"));
    EXPECT_EQ(readSIS(sis.get(), {}, 0), 0);
}

TEST_F(SISstore, WhatFailsLeavesThePointerWhereItWas) {
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), FILE_SIZE), 0);
    // No disk can take a new file: where its directory should be, there is something else.
    for (const std::string& directory : {disk("one") + "/SIS", disk("two") + "/SIS"}) {
        fs::remove_all(directory);
        writeFile(directory, "");
    }
    EXPECT_EQ(reserve(sis.get(), 8192), -1);
    EXPECT_TRUE(root.logged("There's no room to put another single instance store file!"));
    EXPECT_EQ(reserve(sis.get(), 0), FILE_SIZE);
    // A file that was never made keeps later ranges in it from being used; the logs at that moment are kept once.
    root.masterIni("[fileDedup]\n  sis_log_err=true\n");
    fs::remove(disk("one") + "/SIS");
    fs::remove(disk("two") + "/SIS");
    setInInfo<std::uint64_t>(40, SMALL_FILE + 8192);
    EXPECT_EQ(reserve(sis.get(), 8192) + reserve(sis.get(), 8192), -2);
    EXPECT_TRUE(root.logged("Can't find existing single instance store file for offset 0x1002000, canCreate(1)"));
    const fs::path kept = root / "usr/dq/logs.dir/errorSnapshots/SIS_CREATE_ERR_0000000001000000";
    EXPECT_TRUE(comesTrue([&] { return !fs::exists(kept / "test.log"); }));
    EXPECT_EQ(system(("tar -tzf " + (kept / "LOGS.DIR.TGZ").string() + " | grep -q '^./test.log$'").c_str()), 0);
    EXPECT_TRUE(fs::exists(root / "usr/dq/logs.dir/test.log")) << "the log itself stays";
}

TEST_F(SISstore, WhatLiesOnTheFirstDeviceHidesNothingOnAnother) {
    const SISPtr sis = openSIS();
    const std::string data = noise(30000, 5);
    const std::uint64_t offset = put(sis.get(), data);
    const auto [first, other] = placesOf(0);
    fs::create_directories(other.parent_path());
    fs::rename(first, other);
    const std::pair<const char*, void (*)(const fs::path&)> cases[] = {
        {"nothing", [](const fs::path&) {}},
        {"an empty file, whose maker died", [](const fs::path& path) { writeFile(path, ""); }},
        {"a short file", [](const fs::path& path) { writeFile(path, "short"); }},
        {"what can't be opened", [](const fs::path& path) { fs::create_symlink(path, path); }},
    };
    for (const auto& [what, make] : cases) {
        fs::remove(first);
        make(first);
        const SISPtr fresh = openSIS();
        EXPECT_TRUE(readAt(fresh.get(), data.size(), offset) == data) << what;
        const std::uint64_t more = put(fresh.get(), data);
        EXPECT_TRUE(readAt(openSIS().get(), data.size(), more) == data) << what;
        EXPECT_TRUE(fs::is_symlink(first) || !fs::exists(first) || fs::file_size(first) < 6) << "finished " << what;
    }
    EXPECT_TRUE(root.logged("Found single instance store file 0 in\n"));
    // As long as a device may have it, no other one gets it.
    const auto [next, unused] = placesOf(SMALL_FILE);
    fs::create_symlink(next, next);
    EXPECT_TRUE(reserve(sis.get(), FILE_SIZE) == -1 && !fs::exists(unused));
    // What a dead maker left is finished by a range that begins it, and by no other.
    fs::remove(next);
    writeFile(next, "");
    setInInfo<std::uint64_t>(40, SMALL_FILE + 8192);
    EXPECT_EQ(reserve(sis.get(), 8192), -1);
    EXPECT_TRUE(root.logged("ERROR:  LOCK_EX is not held and device not fully setup."));
    setInInfo<std::uint64_t>(40, SMALL_FILE);
    EXPECT_TRUE(put(sis.get(), data) == SMALL_FILE && fs::file_size(next) == SMALL_FILE);
    // An info file that was lost gives nothing out that is in use.
    presetSizes();
    const SISPtr fresh = openSIS();
    EXPECT_EQ(put(fresh.get(), noise(50000, 3)), 2 * SMALL_FILE);
    EXPECT_EQ(readAt(fresh.get(), data.size(), SMALL_FILE), data);
}

// The maker's first device fails for a moment, and it waits for the key service with an empty file on the second one.
// Meanwhile another process wants the same file, and the first device is back.
TEST_F(SISstore, AFileIsMadeOnOneDeviceWhateverBecomesOfItsMaker) {
    needKeyService();
    for (const bool makerDies : {false, true}) {
        SCOPED_TRACE(makerDies);
        const auto next = static_cast<std::uint64_t>(reserve(openSIS().get(), 0));
        const auto [first, other] = placesOf(next);
        const auto fillAFile = [&](std::uint64_t seed) {
            return inChild([&] { return put(openSIS().get(), noise(SMALL_FILE, seed)) % SMALL_FILE == 0; });
        };
        const std::string directory = first.parent_path();
        fs::create_directories(directory);
        keyService->signal(SIGSTOP);
        fs::rename(directory, directory + ".away");
        writeFile(directory, "");
        const pid_t maker = fillAFile(1);
        ASSERT_TRUE(comesTrue([&] { return fs::exists(other); }));
        fs::remove(directory);
        fs::rename(directory + ".away", directory);
        const pid_t second = fillAFile(2);
        struct stat st {};
        ASSERT_EQ(stat(info().c_str(), &st), 0);
        const std::string waiter = ":" + std::to_string(st.st_ino) + " 0 0";
        EXPECT_TRUE(comesTrue([&] {
            const std::string locks = readFile("/proc/locks");
            const std::size_t at = locks.find("-> OFDLCK");
            return fs::exists(first) || (at != std::string::npos && locks.find(waiter, at) != std::string::npos);
        }));
        if (makerDies)
            kill(maker, SIGKILL);
        keyService->signal(SIGCONT);
        EXPECT_EQ(statusOf(maker), makerDies ? SIGKILL : 0);
        EXPECT_EQ(statusOf(second), 0) << "a death next door is no failure";
        EXPECT_TRUE(fs::exists(first) == makerDies && (fs::file_size(other) == 0) == makerDies);
        const SISPtr reader = openSIS();
        std::set found{readAt(reader.get(), SMALL_FILE, next)};
        if (!makerDies)
            found.insert(readAt(reader.get(), SMALL_FILE, next + SMALL_FILE));
        EXPECT_TRUE(found.contains(noise(SMALL_FILE, 2)) && found.contains(noise(SMALL_FILE, 1)) == !makerDies);
    }
}

TEST_F(SISstore, NobodyWaitsForACatalogueThatHangsAndReadersNeedNone) {
    SISPtr sis = openSIS();
    const std::string data = noise(8192, 1);
    const std::uint64_t offset = put(sis.get(), data);
    catalogue.sql("BEGIN; LOCK TABLE dq.devices IN ACCESS EXCLUSIVE MODE");
    auto opening = std::async(std::launch::async, [] { return openSIS() != nullptr; });
    ASSERT_TRUE(comesTrue([&] { return catalogue.value("SELECT count(*) FROM pg_locks WHERE NOT granted") != "0"; }));
    EXPECT_EQ(readAt(sis.get(), data.size(), offset), data);
    EXPECT_EQ(opening.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "it asks without the lock";
    EXPECT_FALSE(opening.get()) << "and not for ever";
    catalogue.sql("ROLLBACK");
    const std::string service = getenv("PGSERVICEFILE");
    setenv("PGSERVICEFILE", "/nonexistent", 1);
    EXPECT_EQ(reserve(sis.get(), FILE_SIZE), FILE_SIZE) << "a new file goes where the known devices are";
    EXPECT_FALSE(openSIS());
    const FileDescriptor other = beside();
    EXPECT_EQ(readAt(openSIS().get(), data.size(), offset), data);
    setenv("PGSERVICEFILE", service.c_str(), 1);
}

struct SIScontent : SISstore, ::testing::WithParamInterface<bool> {
    SIScontent() { GetParam() ? needKeyService() : void(); }
};

TEST_P(SIScontent, EveryPartOfWhatWasWrittenReadsBackEqual) {
    std::mt19937_64 random(7);
    std::string written;
    for (std::uint64_t i = 0; i < 3; ++i) {
        // In pieces that begin and end anywhere, the last ones first; the last file only in part.
        const std::string data = noise(i < 2 ? SMALL_FILE : 3000001, i);
        const SISPtr sis = openSIS();
        std::uint64_t offset = 0;
        ASSERT_EQ(reserveSIS(sis.get(), &offset, static_cast<std::int64_t>(data.size())), 0);
        for (std::size_t end = data.size(), count = 0; end > 0; end -= count) {
            count = std::min(end, random() % 800000 + 1);
            ASSERT_TRUE(writeAt(sis.get(), data.substr(end - count, count), offset + end - count));
        }
        written += data;
    }
    const fs::path file = placesOf(0).first;
    EXPECT_EQ(fs::file_size(file) > SMALL_FILE, GetParam());
    EXPECT_EQ(readFile(file).find(written.substr(4096, 64)) == std::string::npos, GetParam());
    root.masterIni("[fileDedup]\n  encryptSIS=false\n");  // a file stays what it is
    const SISPtr sis = openSIS();
    for (int i = 0; i < 300; ++i) {
        const std::size_t offset = random() % written.size();
        const std::size_t count = random() % (i < 200 ? 100 : 900000) + 1;
        ASSERT_TRUE(readAt(sis.get(), std::min(count, written.size() - offset), offset) ==
                    written.substr(offset, count));
    }
}

TEST_P(SIScontent, AFileLongerThanAWindowIsWrittenAndReadAcrossWindows) {
    constexpr std::uint64_t GIGABYTE = std::uint64_t{1} << 30;
    root.masterIni("[fileDedup]\n  SISmmapRatio=0\n");
    forgetSISwindow();
    presetSizes(4 * GIGABYTE);
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), 4 * GIGABYTE), 0);
    std::mt19937_64 random(3);
    for (std::uint64_t i = 0; i < 30; ++i) {
        const std::string data = noise(random() % 200000 + 1, i);
        const std::uint64_t at = GIGABYTE * (1 + i % 3) - random() % 100000;
        ASSERT_TRUE(writeAt(sis.get(), data, at) && readAt(sis.get(), data.size(), at) == data) << at;
        ASSERT_TRUE(i % 10 != 0 || readAt(openSIS().get(), data.size(), at) == data) << at;
    }
    std::string room(100, '\0');
    EXPECT_EQ(readSIS(sis.get(), roomOf(room), GIGABYTE - 10), 10) << "windows of a gigabyte";
    forgetSISwindow();
}

INSTANTIATE_TEST_SUITE_P(PlainAndEncrypted, SIScontent, ::testing::Bool());

TEST_F(SISstore, ADamagedTokenOrAMissingServiceFailsTheReadAndNothingElse) {
    needKeyService();
    const std::string data = noise(20000, 3);
    const SISPtr sis = openSIS();
    const std::uint64_t offset = put(sis.get(), data);
    const std::string path = placesOf(0).first;
    const std::string bad = "Bad encryption token at 0x1000000 in " + path;
    const std::string whole = readFile(path);
    for (const auto& [at, said] : {std::pair{0, bad},
                                   {156, bad},
                                   {124 + 10, bad},
                                   {512 + 100, "CDlibInitCryptWithToken(" + path + ") failed"}}) {
        std::string changed = whole;
        changed[SMALL_FILE + static_cast<std::size_t>(at)] ^= 0x55;
        writeFile(path, changed);
        root.clearLog();
        EXPECT_EQ(readAt(openSIS().get(), 10, offset), "failed") << at;
        EXPECT_TRUE(root.logged(said)) << at;
    }
    writeFile(path, whole);
    EXPECT_EQ(readAt(openSIS().get(), data.size(), offset), data);
    keyService.reset();
    EXPECT_EQ(readAt(openSIS().get(), 10, offset), "failed");
    EXPECT_EQ(readAt(sis.get(), data.size(), offset), data) << "a key that is there is enough";
    EXPECT_EQ(put(sis.get(), noise(SMALL_FILE, 1)), SMALL_FILE);
    EXPECT_EQ(fs::file_size(placesOf(SMALL_FILE).first), SMALL_FILE) << "without the service new files are plain";
    EXPECT_TRUE(root.logged("Not encrypting: CDgetStatusBitmask() failed"));
}

TEST_F(SISstore, ALostSessionIsReplacedAtTheNextTry) {
    needKeyService();
    root.masterIni("[Configuration Options]\n  inlineCryption=false\n");
    const SISPtr sis = openSIS();
    const std::string data = noise(8192, 1);
    const std::uint64_t offset = put(sis.get(), data);
    for (const bool writes : {false, true}) {
        keyService.reset();
        needKeyService();
        for (const bool works : {false, true})
            EXPECT_EQ(writes ? writeAt(sis.get(), data, offset) : readAt(sis.get(), 8192, offset) == data, works);
    }
    EXPECT_FALSE(root.logged("faulted")) << "nothing did";
}

TEST_F(SISstore, AFileThatIsCutWhileItIsMappedFailsTheReadAlsoInSeveralThreads) {
    const std::string data = noise(4 << 20, 1);
    struct sigaction before {};
    EXPECT_EQ(sigaction(SIGBUS, nullptr, &before), 0);
    ASSERT_EQ(put(openSIS().get(), data), 0u);
    std::atomic<bool> isCut = false;
    std::atomic<int> wrong = 0, failures = 0, mapped = 0;
    std::vector<std::jthread> threads(3);
    for (std::jthread& thread : threads)
        thread = std::jthread([&] {
            const SISPtr sis = openSIS();
            for (int reads = 0, after = 0; sis && after < 20; after += isCut ? 1 : 0) {
                const std::string got = readAt(sis.get(), 100000, 3 << 20);
                failures += got == "failed" ? 1 : 0;
                wrong += got != "failed" && got != data.substr(3 << 20, 100000) ? 1 : 0;
                mapped += reads++ == 0 ? 1 : 0;
            }
        });
    while (mapped < 3)
        std::this_thread::yield();
    fs::resize_file(placesOf(0).first, 1 << 20);
    isCut = true;
    threads.clear();  // joins
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(failures, 20);
    EXPECT_TRUE(root.logged("readSIS(, 0x300000, 100000) faulted"));
    struct sigaction after {};
    EXPECT_EQ(sigaction(SIGBUS, nullptr, &after), 0);
    EXPECT_EQ(before.sa_handler, after.sa_handler) << "the former action is back";
}

// A device of a few pages over a directory; none without the right to mount.
struct SmallDevice {
    const std::string path;
    const bool isMounted;
    SmallDevice(const std::string& directory, const char* size)
        : path(directory), isMounted(mount("tmpfs", path.c_str(), "tmpfs", 0, size) == 0) {}
    SmallDevice(const SmallDevice&) = delete;
    SmallDevice& operator=(const SmallDevice&) = delete;
    ~SmallDevice() { (void)umount2(path.c_str(), MNT_DETACH); }
};
const std::string FILLING(1 << 16, 'f');

TEST_F(SISstore, AFullDeviceFailsTheWriteAndTheStoreGoesOn) {
    const SmallDevice device(disk("one"), "size=2m");
    if (!device.isMounted)
        GTEST_SKIP() << "needs the right to mount a small device: " << strerror(errno);
    catalogue.sql("UPDATE dq.devices SET is_deleted = (device_no = 2)");
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), 4 << 20), 0);
    const std::string small = noise(1 << 20, 1);
    EXPECT_TRUE(writeAt(sis.get(), small, 0) && !writeAt(sis.get(), noise(3 << 20, 2), 1 << 20));
    EXPECT_TRUE(root.logged("writeSIS(, 0x100000, 3145728) faulted"));
    EXPECT_EQ(readAt(sis.get(), small.size(), 0), small);
}

TEST_F(SISstore, AnInfoFileWithoutRoomIsNotMadeAndNotGrownAndReadersGoOn) {
    const SmallDevice device(root / "backups", "size=16k");
    if (!device.isMounted)
        GTEST_SKIP() << "needs the right to mount a small device: " << strerror(errno);
    const fs::path filler = root / "backups/filler";
    std::ofstream(filler) << FILLING;
    EXPECT_FALSE(openSIS());
    EXPECT_TRUE(root.logged("posix_fallocate(" + info().string()));
    fs::remove(filler);
    fs::remove(info());
    presetSizes();
    const std::string data = noise(8192, 1);
    const std::uint64_t offset = put(openSIS().get(), data);
    addDisk(3, "three", 256 * CAPACITY_UNIT);
    std::ofstream(filler) << FILLING;
    const auto ring = [&] { return readAt(openSIS().get(), 8192, offset) == data ? inInfo<std::uint32_t>(68) : 0; };
    EXPECT_EQ(ring(), 2u) << "the old one";
    fs::remove(filler);
    EXPECT_EQ(ring(), 258u);
}

TEST_F(SISstore, WhoFillsAFileKeepsReclaimersOutOfIt) {
    const SISPtr sis = openSIS();
    ASSERT_EQ(reserve(sis.get(), 8192), 0);
    const auto freeForReclaiming = [&](std::uint64_t offset) {
        return inOwnProcess([&] { lockSISoffset(openSIS().get(), offset, F_SETLK, F_WRLCK) == 0 ? void() : _exit(1); });
    };
    EXPECT_FALSE(freeForReclaiming(SMALL_FILE - 1));
    EXPECT_TRUE(freeForReclaiming(SMALL_FILE));
    const SISPtr second = openSIS();
    ASSERT_TRUE(reserve(second.get(), 8192) == 8192 && reserve(second.get(), 0) == 2 * 8192);
    EXPECT_FALSE(freeForReclaiming(0)) << "one handle doesn't drop the other's lock";
    ASSERT_EQ(reserve(sis.get(), 0), 2 * 8192);
    EXPECT_TRUE(freeForReclaiming(0));
}

// What writers tell of what they have done; a range is told when it is complete.
struct Done {
    std::uint64_t offset, length, seed;
};
struct Diary {
    std::atomic<std::uint32_t> count, failures;
    Done done[4000];
};

class SISwriters : public SISstore {
protected:
    SISwriters() {
        presetSizes(0x80000);  // many files
        addDisk(3, "three");
        catalogue.sql("UPDATE dq.devices SET capacity = capacity * 20");  // so that each gets its share
        needKeyService();
        void* const room = mmap(nullptr, sizeof(Diary), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        diary = new (room) Diary{};
    }
    ~SISwriters() override { munmap(diary, sizeof(Diary)); }

    pid_t startWriter(std::uint64_t seed, int rounds) const {
        return inChild([&] {
            const SISPtr sis = openSIS();
            std::mt19937_64 random(seed);
            for (int i = 0; sis && i < rounds; ++i) {
                Done done{0, random() % 120000 + 1, random()};
                if (reserveSIS(sis.get(), &done.offset, static_cast<std::int64_t>(done.length)) != 0 ||
                    !writeAt(sis.get(), noise(done.length, done.seed), done.offset))
                    ++diary->failures;
                else
                    diary->done[diary->count.fetch_add(1)] = done;
            }
            return sis != nullptr;
        });
    }

    // All that was told lies apart, in one file each, and reads back equal; and nobody failed for another's sake.
    void verify() {
        EXPECT_EQ(diary->failures, 0u);
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
        for (const char* name : {"one", "two", "three"})
            EXPECT_FALSE(fs::is_empty(disk(name) + "/SIS"));
    }

    Diary* diary;
};

TEST_F(SISwriters, NoneIsTurnedAwayAndWhatOneToldBeforeItWasKilledStays) {
    std::mt19937 random(3);
    for (unsigned round = 0; round < 25; ++round) {
        const pid_t killed[] = {startWriter(1000 + round, 1000), startWriter(2000 + round, 1000)};
        const pid_t other = startWriter(3000 + round, 20);
        const std::uint32_t goal = diary->count + random() % 4;
        while (diary->count < goal)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));  // any point will do
        for (const pid_t writer : killed) {
            ASSERT_EQ(kill(writer, SIGKILL), 0);
            (void)statusOf(writer);
        }
        ASSERT_EQ(statusOf(other), 0) << "the store opens for the next";
    }
    verify();
}

}  // namespace
