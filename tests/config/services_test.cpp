#include "config/services.h"

#include <zlib.h>

#include "base/file_descriptor.h"
#include "config/directories.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using testsupport::writeFile;

class Services : public testing::Test {
protected:
    void program(const char* name, const std::string& body) const {
        const std::string path = g_bindir + "/" + name;
        writeFile(path, "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    testsupport::TestRoot root;
};

TEST_F(Services, CapabilityIsAWordAtTheStartOfALine) {
    const std::string file = root / "var/opt/kestrelix/platform_capabilities";
    EXPECT_EQ(platformSupportsDedupNT(), 0);  // no file
    // dedupNT, inlineDedup, virtual; dedupNT anywhere
    const std::tuple<const char*, int, int, int, bool> cases[] = {
        {"", 0, 0, 0, false},
        {"dedupNT\ninlineDedup on\nvirtual_machine\n", 1, 1, 1, true},
        {"has dedupNT\n inlineDedup\n# virtual_machine\n", 0, 0, 0, true},
        {"dedupNTx\ninlineDedup_2\nvirtual_machines\n", 0, 0, 1, false}};
    for (const auto& [text, dedupNT, inlineDedup, isVirtual, isThere] : cases) {
        SCOPED_TRACE(text);
        writeFile(file, text);
        EXPECT_EQ(platformSupportsDedupNT(), dedupNT);
        EXPECT_EQ(platformSupportsInlineDedup(), inlineDedup);
        EXPECT_EQ(isARXVirtual(), isVirtual);
        EXPECT_EQ(platformHasWord("dedupNT", CapabilityPlace::anywhere), isThere);
        EXPECT_EQ(platformHasWord("dedupNT", CapabilityPlace::lineOfItsOwn), dedupNT == 1);
    }
    EXPECT_TRUE(root.logged("platformSupportsDedupNT: command is: grep -w '^dedupNT' " + file + " >/dev/null 2>&1\n"));
}

TEST_F(Services, PlatformProgramsAnswerByTheirStatus) {
    EXPECT_EQ(platformSupportsDedup(), 0);  // no such program: status 127
    EXPECT_EQ(platformSupportsiSynth(), 127);
    for (const auto& [status, dedup] : {std::pair(0, 0), std::pair(4, 4), std::pair(5, 0)}) {
        program("platformSupportsDedup", "exit " + std::to_string(status));
        EXPECT_EQ(platformSupportsDedup(), dedup);
    }
    program("platformSupportsSynth", "kill -KILL $PPID");  // the shell dies, as under the out-of-memory killer
    EXPECT_EQ(platformSupportsiSynth(), 0);
    EXPECT_TRUE(root.logged("platformSupportsSynth 2>/dev/null was signaled with Killed\n"));
    g_bindir = (root / "bin of 'x'").string();
    std::filesystem::create_directory(g_bindir);
    program("platformSupportsDedup", "exit 3");
    EXPECT_EQ(platformSupportsDedup(), 3);
}

TEST_F(Services, ChecksumAgreesWithAnotherImplementation) {
    std::vector<unsigned char> data(5000);
    std::iota(data.begin(), data.end(), static_cast<unsigned char>(3));
    for (const std::size_t length : {0u, 1u, 9u, 256u, 5000u})
        EXPECT_EQ(crc32_buffer(data.data(), length), crc32(0, data.data(), static_cast<uInt>(length))) << length;
    EXPECT_EQ(crc32_buffer(reinterpret_cast<const unsigned char*>("123456789"), 9), 0xcbf43926u);
}

volatile std::sig_atomic_t alarms = 0;

// A timer interrupts both sides again and again, and a pipe takes and gives less than is asked for.
TEST_F(Services, ReadAndWriteGoOnAfterSignalsAndShortCounts) {
    struct sigaction action = {};  // without SA_RESTART
    struct sigaction previous = {};
    action.sa_handler = [](int) { alarms = alarms + 1; };
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
    const itimerval often = {{0, 500}, {0, 500}};
    const itimerval never = {};
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const FileDescriptor reader(ends[0]);
    FileDescriptor writer(ends[1]);
    std::vector<char> sent(1'000'000);
    for (std::size_t i = 0; i < sent.size(); i++)
        sent[i] = static_cast<char>(i * 31 / 7);
    const int size = static_cast<int>(sent.size());
    std::vector<char> got(sent.size());
    int written = 0;
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    std::thread writes([&] {
        usleep(20000);  // the reader sleeps in its call meanwhile
        written = safe_write(writer.get(), sent.data(), size);
        writer.reset();
    });
    EXPECT_EQ(safe_read(reader.get(), got.data(), size - 1), size - 1);
    EXPECT_EQ(safe_read(reader.get(), got.data() + size - 1, 100), 1);  // then the end of the file
    writes.join();
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    EXPECT_EQ(written, size);
    EXPECT_TRUE(got == sent);
    EXPECT_GT(alarms, 3);
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_EQ(safe_read(-1, got.data(), 1), -1);
    EXPECT_EQ(safe_write(-1, got.data(), 1), 0);
}

TEST_F(Services, BackupTypesMapToPublicNumbers) {
    // type, properties, SQL type, restore type; the public number
    const int cases[][5] = {{1, 0, 0, 0, 1},     {1, 1, 0, 0, 0},    {4, 129, 0, 0, 15}, {9, 0, 0, 0, 27},
                            {1039, 0, 0, 0, 60}, {4101, 0, 0, 0, 0}, {1, 0, 20, 0, 49},  {1, 0, 30, 0, 0},
                            {1, 0, 1, 4, 14},    {1, 0, 1, 5, 0}};
    for (const auto& [type, properties, sql, restore, shown] : cases)
        EXPECT_EQ(public_backup_type(type, properties, sql, restore), shown) << type << ' ' << sql << ' ' << restore;
}

TEST_F(Services, ErrorsAreKeptByClassWithTheirTexts) {
    writeFile(root / "tmp/g.ini", "[General]\n5=No media\n[Network]\n1=Line down\n");
    init_gerror((root / "tmp/g.ini").c_str());
    ASSERT_EQ(register_gerror_class(1, 4, "(X) ", [](int number) { return number == 4 ? "four" : "?"; }), 0);
    const std::tuple<int, int, const char*> cases[] = {{0, 255, "(SYS) m 7 Error number is out of bounds"},
                                                       {1, 4, "(X) m 7 four"},
                                                       {1, 5, "(X) m 7 : Error 5 is out of range (Max is 4)"},
                                                       {2, 5, "(DQ) No media m 7"},
                                                       {2, 14, "(DQ) m 7 DQ Error 14"},
                                                       {3, 1, "(NET) m 7 Line down"},
                                                       {5, -1, "(NETWORK) m 7 Permission denied"}};
    for (const auto& [errorClass, number, text] : cases) {
        errno = EACCES;
        add_gerror(errorClass, number, "m %d", 7);
        EXPECT_STREQ(gerror_text(errorClass, gerror_count(errorClass) - 1), text);
    }
    add_gerror(6, 1, "nowhere");
    for (int i = 0; i < 10; i++)
        add_gerror(4, 0, "%d", i);
    add_gerror(4, 0, "%s", std::string(400, 'x').c_str());  // the eleventh of a class starts a fresh list
    EXPECT_EQ(gerror_count(4), 1);
    EXPECT_EQ(gerror_text(4, 0), std::string(255, 'x'));
    EXPECT_EQ(gerror_text(4, 1), nullptr);
}

}  // namespace
