// The info file: its bytes, its devices, and what is refused.

#include "sis/lookup3.h"
#include "sis_fixture.h"

namespace {

using namespace testsupport;

namespace fs = std::filesystem;

using SISmap = Store;

TEST(Lookup3, GivesThePublishedValues) {
    EXPECT_EQ(hashlittle("", 0xdeadbeef), 0xbd5b7ddeu);
    EXPECT_EQ(hashlittle("Four score and seven years ago", 1), 0xcd628161u);
    const std::uint32_t one[] = {1}, last[] = {0xC0000000, 7};
    EXPECT_EQ(hashword(one, 0), 0x72a82a9bu);
    EXPECT_EQ(hashword(last, 0), 0x231dd121u);
}

TEST_F(SISmap, ANewStoreHasItsHeaderItsDevicesAndItsRingInPlace) {
    addDisk(1, "a", 3 * CAPACITY_UNIT + 5);
    addDisk(2, "longer", 1000 * CAPACITY_UNIT);
    addDisk(3, "small", CAPACITY_UNIT - 1);
    addDisk(4, "away", 2 * CAPACITY_UNIT, true);
    fs::create_directories(disk("away") + "/SIS");
    EXPECT_EQ(getDeduplicationBlockSize(openSIS().get()), 8192);
    const std::string file = readFile(info());
    EXPECT_TRUE(file.size() % 4096 == 0 && inInfo<std::uint32_t>(64) == file.size() && inInfo<std::uint32_t>(0) == 0);
    const std::uint64_t words[] = {8192, 0x800000000, 0, 72};  // block size, limit, pointer, list
    EXPECT_EQ(std::memcmp(&file[24], words, sizeof words), 0);
    // The list: longest directory first; a disk too small and without files isn't in it, a deleted one with files is.
    std::size_t at = 72;
    for (const auto& [name, weight, flags] :
         {std::tuple{"longer", 256u, 0u}, std::tuple{"away", 2u, 3u}, std::tuple{"a", 3u, 0u}}) {
        const std::string directory = disk(name) + "/SIS/";
        EXPECT_TRUE(inInfo<std::uint32_t>(at) == weight && inInfo<std::uint8_t>(at + 4) == flags) << name;
        EXPECT_STREQ(&file[at + 5], directory.c_str());
        at += (directory.size() + 15) / 8 * 8;
    }
    EXPECT_EQ(inInfo<std::uint64_t>(at), 0u) << "the end of the list";
    const std::size_t ring = at + 8;
    EXPECT_EQ(inInfo<std::uint64_t>(56), ring);
    ASSERT_EQ(inInfo<std::uint32_t>(68), 256u + 2 + 3) << "deleted devices stay on the ring";
    for (std::size_t i = 1; i < 261; ++i)
        EXPECT_LE(inInfo<std::uint32_t>(ring + 16 * i - 8), inInfo<std::uint32_t>(ring + 16 * i + 8));
    EXPECT_EQ(file.find_first_not_of('\0', ring + 261 * 16), std::string::npos);
}

TEST_F(SISmap, AFileGoesToTheDeviceOfTheNextPointAndFewMoveWhenADiskIsAdded) {
    presetSizes();
    addDisk(1, "one", 20 * CAPACITY_UNIT);
    addDisk(2, "other", 30 * CAPACITY_UNIT);
    SISPtr sis = openSIS();
    ASSERT_TRUE(sis);
    const auto placeOf = [&](std::uint64_t file) {
        SISdevice device;
        EXPECT_EQ(placeOfSISoffset(sis.get(), file * SMALL_FILE + 4711, &device), 0);
        return device.directory;
    };
    // The same by looking at every point there is.
    std::vector<std::string> before;
    for (std::uint64_t file = 0; file < 500; ++file) {
        before.push_back(placeOf(file));
        const std::uint64_t first = file * SMALL_FILE;
        const std::uint32_t words[] = {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(first >> 32)};
        std::pair<std::uint32_t, std::string> nearest{0xffffffff, ""};
        for (const auto& [name, weight] : {std::pair{"one", 20u}, std::pair{"other", 30u}})
            for (std::uint32_t r = 1; r <= weight; ++r) {
                const std::string directory = disk(name) + "/SIS/";
                const std::uint32_t point = hashword({&r, 1}, hashlittle(directory, 0));
                nearest = std::min(nearest, {point - hashword(words, 0), directory});
            }
        EXPECT_EQ(before.back(), nearest.second);
    }
    addDisk(3, "third", 10 * CAPACITY_UNIT);
    const SISPtr updater = openSIS();  // the first handle follows at its next use
    int moved = 0;
    for (std::uint64_t file = 0; file < before.size(); ++file)
        if (const std::string after = placeOf(file); after != before[file]) {
            ++moved;
            EXPECT_EQ(after, disk("third") + "/SIS/");
        }
    EXPECT_TRUE(moved > 20 && moved < 200) << moved;
}

TEST_F(SISmap, ADiskThatLeavesTheCatalogueIsReadUntilItsDirectoryGoes) {
    presetSizes();
    addDisk(1, "one");
    SISPtr sis = openSIS();
    ASSERT_TRUE(sis);
    const std::string data = noise(50000, 1);
    const std::uint64_t offset = put(sis.get(), data);
    EXPECT_TRUE(root.logged("New single instance store file: " + fileOn("one", 0)));
    catalogue.sql("DELETE FROM dq.devices");
    addDisk(2, "two");
    sis = openSIS();
    EXPECT_EQ(readAt(sis.get(), data.size(), offset), data);
    EXPECT_EQ(reserve(sis.get(), SMALL_FILE), SMALL_FILE);
    EXPECT_TRUE(fs::exists(fileOn("two", SMALL_FILE))) << "new files avoid it";
    sis.reset();
    fs::remove_all(disk("one"));
    sis = openSIS();
    EXPECT_TRUE(root.logged("Removing " + disk("one") + "/SIS/ from our device list"));
    EXPECT_EQ(readAt(sis.get(), 10, offset), "failed");
    EXPECT_TRUE(root.logged("Can't find existing single instance store file for offset 0x0, canCreate(0)"));
    // A file that someone moved is found all the same.
    std::uint64_t at = 0;
    std::string device;
    EXPECT_EQ(pathToSISoffset(&at, &device, sis.get(), fileOn("two", SMALL_FILE)), 0);
    EXPECT_TRUE(at == SMALL_FILE && device == disk("two") + "/SIS/");
    for (const std::string& none : {fileOn("two", 4096), fileOn("one", 0)})
        EXPECT_EQ(pathToSISoffset(&at, &device, sis.get(), none), -1);
    catalogue.sql("DELETE FROM dq.devices");
    fs::remove_all(disk("two"));
    sis.reset();
    EXPECT_FALSE(openSIS()) << "no devices at all";
    EXPECT_TRUE(root.logged("No devices"));
}

TEST_F(SISmap, WhoComesBeforeItIsSetUpIsToldSo) {
    addDisk(1, "one");
    const auto openBeside = [&] { return beside().isOpen() && openSIS(); };
    for (const char* missing : {"empty info file.", "block size = 0.", "file size limit = 0."}) {
        if (*missing != 'e')
            presetSizes(*missing == 'f' ? 0 : SMALL_FILE, *missing == 'b' ? 0 : STORE_BLOCK);
        EXPECT_FALSE(openBeside());
        EXPECT_TRUE(root.logged(std::string("The single instance store isn't ready -- ") + missing));
    }
    EXPECT_TRUE(openSIS());
    EXPECT_TRUE(openBeside());
}

TEST_F(SISmap, DamageIsRefusedOrMended) {
    addDisk(1, "one");
    // At, value, whether that is mended.
    const std::tuple<const char*, std::size_t, std::uint64_t, bool> cases[] = {
        {"another version", 0, 1, false},
        {"a limit that isn't whole pages", 32, 12345, false},
        {"a block size that divides nothing", 24, 8192 + 512, false},
        {"a list in another place", 48, 80, false},
        {"a list beyond the file", 48, 1ull << 40, false},
        {"a ring beyond the file", 56, 1ull << 40, false},
        {"a ring that ends beyond all numbers", 56, ~0ull - 15, false},
        {"a length beyond the file", 64, 1u << 20, false},
        {"a length that isn't whole pages", 64, 5000, false},
        {"a directory that is none", 77, 0x2f2f2f2f2f2f2f2f, true},
        {"a ring entry without a device", 56, 200, true}};
    const std::string sane = [&] {
        presetSizes();
        const SISPtr sis = openSIS();
        EXPECT_TRUE(sis);
        return readFile(info());
    }();
    for (const auto& [what, at, value, mends] : cases) {
        writeFile(info(), sane);
        setInInfo(at, value);
        for (FileDescriptor other = beside(); other.isOpen(); other.reset())
            (void)openSIS();  // as a reader beside others: whatever it says, it lives
        EXPECT_EQ(openSIS() != nullptr, mends) << what;
    }
    // The weight of a device that the catalogue doesn't set right again.
    writeFile(info(), sane);
    addDisk(2, "longer");
    fs::create_directories(disk("longer") + "/SIS");
    EXPECT_TRUE(openSIS());
    catalogue.sql("DELETE FROM dq.devices WHERE device_no = 2");
    setInInfo<std::uint32_t>(72, 200000);
    EXPECT_TRUE(openSIS());
    EXPECT_EQ(inInfo<std::uint32_t>(68), 256u + 1);
}

TEST_F(SISmap, DevicesAndKeysOfStoreFilesAreFoundByTheirPaths) {
    presetSizes(0x800000000);
    int number = 0;
    for (const char* name : {"d", "d/deeper_%", "dd"})
        addDisk(++number, name);
    for (const char* name : {"dd", "d/deeper_%", "d"})
        EXPECT_EQ(findDeviceNumber(fileOn(name, 0)), number--);
    EXPECT_EQ(findDeviceNumber(fileOn("e", 0)), -1);
    EXPECT_EQ(findDeviceNumber(disk("d") + "/backup_1"), -1);
    EXPECT_TRUE(root.logged("Malformed SIS file path - can't find '/SIS/': " + disk("d") + "/backup_1"));
    EXPECT_EQ(generateSISoffset_smgrKey(openSIS().get(), 0x1234500000000), 0x73000000u ^ 0x12340u);
}

}  // namespace
