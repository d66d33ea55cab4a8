// What comes out of a file of every kind: random access, sequences of streams, tokens, and damage.

#include "archive_support.h"
#include "log/logger.h"

namespace {

using namespace testsupport;

constexpr std::size_t MARK = 512;

using ArchiveKinds = ArchiveFile;
using ArchiveToken = ArchiveFile;

// Random reads, skips and seeks over one open file; every answer is compared with the plain bytes.
class Wanderer {
public:
    Wanderer(archive_filter* filter, const std::string& bytes, unsigned seed)
        : filter_(filter), bytes_(bytes), random_(seed) {}

    void step() {
        const std::size_t span = random_() % 4 == 0 ? bytes_.size() : random_() % 2 == 0 ? 700 : 140000;
        const std::size_t count = std::min<std::size_t>(random_() % (span + 100), bytes_.size());
        switch (random_() % 6) {
            case 0:
                return seek(random_() % 8 == 0 ? 0 : count);
            case 1:
                return seek(position_ - std::min(position_, count));
            case 2:
                return seek(random_() % 2 == 0 ? std::min(position_ + count, bytes_.size()) : bytes_.size() - count);
            default:
                return read(count + random_() % 2, random_() % 4 == 0);
        }
    }

private:
    void seek(std::size_t to) {
        if (random_() % 16 == 0) {
            ASSERT_EQ(archive_seek(filter_, -1 - static_cast<off_t>(position_), SEEK_CUR), -1) << "before the start";
        }
        const auto target = static_cast<off_t>(to);
        const bool isRelative = random_() % 2 == 0;
        ASSERT_EQ(isRelative ? archive_seek(filter_, target - static_cast<off_t>(position_), SEEK_CUR)
                             : archive_seek(filter_, target, SEEK_SET),
                  target)
            << "from " << position_;
        position_ = to;
    }

    void read(std::size_t count, bool isSkip) {
        std::string got(count, '?');
        const ssize_t result = archive_read(filter_, isSkip ? nullptr : got.data(), count);
        got.resize(std::min(count, bytes_.size() - position_));
        ASSERT_EQ(result, static_cast<ssize_t>(got.size())) << "at " << position_ << " for " << count;
        ASSERT_TRUE(isSkip || bytes_.compare(position_, count, got) == 0) << "at " << position_ << " for " << count;
        position_ += got.size();
    }

    archive_filter* filter_;
    const std::string& bytes_;
    std::mt19937_64 random_;
    std::size_t position_ = 0;
};

TEST_F(ArchiveKinds, RandomReadsSkipsAndSeeksGiveThePlainBytes) {
    needKeyService();
    log_level = 2;  // else thousands of states are dumped
    const char* const buffers[] = {"",
                                   "devbufsize_archiverw=4096\ndecompressBlockSize_archiverw=1000\n"
                                   "decryptBlockSize_archiverw=1000\nreadAheadLowWaterMark_archiverw=-1\n"
                                   "inlineCryption=false\n"};
    for (const Kind& kind : KINDS)
        for (const std::size_t size : {0u, 1u, 513u, 32u, 131072u, 1500000u / 32 * 32})
            for (const char* buffer : buffers) {
                if (size % 32 != 0 && (kind.properties & LOCKED) != 0)
                    continue;
                configure(kind.engine, std::string(size < 200000 ? "CompressionSegmentKB=1\n" : "") + buffer);
                const std::string bytes = contentOf(Content::mixed, size);
                makeBackup(bytes, kind.properties);
                for (const std::uint64_t direct : {std::uint64_t{0}, ARCHIVE_DIRECT_IO}) {
                    SCOPED_TRACE(kind.name() + ", " + std::to_string(size) + " bytes, direct " +
                                 std::to_string(direct) + ", " + buffer);
                    const ArchiveFilterPtr filter = reopen(kind.properties | direct);
                    ASSERT_TRUE(filter);
                    Wanderer wanderer(filter.get(), bytes, static_cast<unsigned>(size));
                    for (int step = 0; step < 250 && !HasFatalFailure(); ++step)
                        wanderer.step();
                    if (HasFatalFailure())
                        return;
                }
            }
}

// Chains of streams by other people's tools, none of which has an index.
TEST_F(ArchiveKinds, StreamsOfAnyToolInAnyOrderAreOneStream) {
    const std::string a = contentOf(Content::text, 300001);
    const std::string b = contentOf(Content::noise, 200777);
    const std::string gz = through(root, a, "gzip -c in");
    const std::string pz = through(root, b, "pigz -b 128 -c in");
    const std::string lz = through(root, a, "lz4 -c -BX -BI -B4 in");
    const std::string big = through(root, b, "lz4 -c -BX -B7 --content-size in");
    const std::string index = "ae9b77131072  111";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"gzip", gz, a},
        {"gzip twice", gz + pz, a + b},
        {"LZ4 behind gzip", gz + lz + pz, a + a + b},
        {"gzip behind LZ4", lz + gz + big + lz, a + a + b + a},
        {"blocks of 4 MB, longer than a piece", big, b},
        {"other sizes of blocks", through(root, a, "lz4 -c -BX -9 -B5 in") + through(root, b, "lz4 -c -BX -B6 in"),
         a + b},
        {"the index of another writer", gz + index, a},
        {"part of an index", lz + "ae9b", a},
        {"a few bytes behind LZ4", lz + "xyz", a},
        {"a byte behind gzip", gz + "\n", a},
        {"not compressed at all", a, a}};
    for (const auto& [what, file, clean] : cases) {
        writeFile(path, file);
        EXPECT_TRUE(readAll(ZIPPED) == clean && readAll(ZIPPED, 1000) == clean) << what;
    }
    EXPECT_TRUE(root.logged("New decompresion type found: 2 -> 3"));
    writeFile(path, gz + lz);
    const ArchiveFilterPtr filter = reopen(ZIPPED);
    ASSERT_EQ(archive_read(filter.get(), nullptr, 400000), 400000);
    ASSERT_EQ(archive_seek(filter.get(), 0, SEEK_SET), 0);
    EXPECT_TRUE(restOf(filter.get()) == a + a) << "a rewind needs no index";
    EXPECT_EQ(archive_seek(filter.get(), 5, SEEK_SET), -1);
    EXPECT_EQ(errno, EBADMSG) << "any other seek does";
}

// A file that was cut, and one with a bit that isn't as it was written: never wrong bytes, never a shorter backup that
// looks good.
TEST_F(ArchiveKinds, DamageIsToldOrDoesNoHarm) {
    needKeyService();
    log_level = 2;  // else thousands of states are dumped
    const std::string bytes = contentOf(Content::text, 64 * 1024);
    for (const Kind& kind : KINDS) {
        configure(kind.engine);
        makeBackup(bytes, kind.properties);
        const std::string file = readFile(path);
        const bool isZipped = (kind.properties & ZIPPED) != 0;
        const std::size_t dataEnd = isZipped ? file.find("ae9b77") : file.size();
        for (std::size_t size = 0; size < dataEnd; size += MARK) {
            SCOPED_TRACE(kind.name() + " cut at " + std::to_string(size));
            writeFile(path, file.substr(0, size));
            const ArchiveFilterPtr filter = reopen(kind.properties);
            const std::string first = readUpTo(filter.get(), bytes.size());
            ASSERT_TRUE(first == BAD || (first.size() < bytes.size() && bytes.starts_with(first)));
            const std::string second = first == BAD ? BAD : readUpTo(filter.get(), bytes.size());
            // Only a stream without blocks can't tell that it was cut, and up to six bytes behind an LZ4 frame are no
            // data.
            const bool isBetweenBlocks =
                file.compare(size, 2, "\x1f\x8b") == 0 || size - file.rfind("\x04\x22\x4d\x18", size) < 7;
            ASSERT_TRUE(!isZipped || size == 0 || second.starts_with("failed") || isBetweenBlocks);
            if (archive_seek(filter.get(), 50000, SEEK_SET) == 50000) {
                const std::string third = readUpTo(filter.get(), 1000);
                ASSERT_TRUE(third.starts_with("failed") || bytes.substr(50000).starts_with(third));
            }
        }
        std::mt19937_64 random(7);
        for (int i = 0; isZipped && i < 120; ++i) {
            const std::size_t at = 4 + random() % (dataEnd - 4);
            std::string changed = file;
            changed[at] = static_cast<char>(changed[at] ^ (1 << random() % 8));
            writeFile(path, changed);
            const std::string got = readAll(kind.properties);
            ASSERT_TRUE(got == bytes || got == BAD) << kind.name() << " changed at " << at;
        }
    }
}

TEST_F(ArchiveKinds, ABadIndexFailsTheSeekAndNotTheReading) {
    const std::string bytes = contentOf(Content::text, 300000);
    makeBackup(bytes, ZIPPED);
    const std::string file = readFile(path);
    const std::size_t index = file.find("ae9b77");
    const std::size_t second = file.size() - 64 - 65536;
    const std::pair<const char*, std::string> cases[] = {
        {"none", file.substr(0, index)},
        {"an entry", std::string(file).replace(index + 32 + 40, 1, "\xff")},
        {"short", file.substr(0, file.size() - 1)},
        {"chunks of no bytes", std::string(file).replace(index + 6, 8, "0       ").replace(second + 6, 8, "0       ")}};
    for (const auto& [what, changed] : cases) {
        writeFile(path, changed);
        const ArchiveFilterPtr filter = reopen(ZIPPED | ARCHIVE_DIRECT_IO);
        const std::string head = readUpTo(filter.get(), 1000);
        EXPECT_TRUE(archive_seek(filter.get(), 290000, SEEK_SET) == -1 && errno == EBADMSG) << what;
        EXPECT_TRUE(head + restOf(filter.get()) == bytes) << "goes on where it was: " << what;
    }
}

// Seeks in what is in memory cost no read and move no descriptor.
TEST_F(ArchiveKinds, ShortStepsStayInMemory) {
    needKeyService();
    const std::string bytes = contentOf(Content::mixed, 6 << 20);
    for (const Kind& kind : KINDS) {
        SCOPED_TRACE(kind.name());
        makeBackup(kind, bytes);
        const ArchiveFilterPtr filter = reopen(kind.properties);
        const auto seek = [&](off_t offset, int whence = SEEK_CUR) {
            return archive_seek(filter.get(), offset, whence);
        };
        EXPECT_EQ(seek(0, SEEK_SET), 0);
        EXPECT_EQ(archive_physical_offset(filter.get()), 0) << "a rewind of a fresh file reads nothing";
        EXPECT_EQ(readUpTo(filter.get(), 200), bytes.substr(0, 200));
        const off_t physical = lseek(archive_fd(filter.get()), 0, SEEK_CUR);
        EXPECT_TRUE(kind.properties != 0 || physical == 8192) << "the first reads are short";
        EXPECT_TRUE(seek(-100) == 100 && seek(0, SEEK_SET) == 0);
        EXPECT_EQ(seek(0), 0) << "the rewind waits";
        EXPECT_EQ(seek(100), 100) << "counted from there";
        EXPECT_EQ(readUpTo(filter.get(), 50), bytes.substr(100, 50));
        EXPECT_EQ(lseek(archive_fd(filter.get()), 0, SEEK_CUR), physical);
        // After one step back the bytes behind the position stay, over reads that change the buffer.
        ASSERT_EQ(seek(100000, SEEK_SET), 100000);
        ASSERT_EQ(archive_read(filter.get(), std::string(60000, '?').data(), 60000), 60000);
        ASSERT_EQ(seek(-60000), 100000);
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(archive_read(filter.get(), std::string(600000, '?').data(), 600000), 600000);
            const off_t at = archive_physical_offset(filter.get());
            ASSERT_EQ(seek(-50000), 100000 + 550000 * (i + 1));
            EXPECT_EQ(archive_physical_offset(filter.get()), at) << i;
        }
        EXPECT_EQ(readUpTo(filter.get(), 1000), bytes.substr(100000 + 550000 * 5, 1000));
    }
}

std::string octal(std::size_t number, int digits = 11) {
    char text[16];
    (void)std::snprintf(text, sizeof text, "%0*zo", digits, number);
    return text;
}

// A header that passes for a token's, with this text as its size, in front of `behind`.
std::string token(const std::string& size, std::size_t behind) {
    std::string header(512, '\0');
    for (const auto& [at, text] : {std::pair<std::size_t, std::string>{0, "kestrelix ENCRYPTED tar v1"},
                                   {116, "0000000"},
                                   {124, size},
                                   {148, "        "},
                                   {156, "E"}})
        header.replace(at, text.size(), text);
    const int sum = std::accumulate(header.begin(), header.end(), 0);
    return header.replace(148, 7, octal(static_cast<unsigned>(sum) & 0xffff, 7)).replace(155, 1, 1, '\0') +
           std::string(behind, 'x');
}

TEST_F(ArchiveToken, RefusesWhatIsNoTokenAndTakesUpToOneMegabyte) {
    const char* const noToken = "Should have seen encrypted token header but didn't";
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"one byte too long", token(octal((1 << 20) - 511), 1 << 21), "Limit of 1MB token size"},
        {"the longest", token(octal((1 << 20) - 512), 1 << 21), "Failed to initialize with token: "},
        {"far too long", token("77777777777", 4096), "Limit of 1MB token size"},
        {"a size that overflows", token("#zzzzzzzzzzz", 4096), "Bad encrypted header"},
        {"no whole blocks", token(octal(1000), 4096), "Bad encrypted header"},
        {"another entry", token(octal(1024), 4096).replace(156, 1, "0"), noToken},
        {"a wrong checksum", token(octal(1024), 4096).replace(130, 1, "1"), noToken},
        {"zeros", std::string(4096, '\0'), noToken},
        {"cut in the token", token(octal(1024), 100), "The data ends in the middle of a token"},
        {"cut in the header", token(octal(1024), 0).substr(0, 100), "The data ends in the middle of a token"}};
    for (const auto& [what, file, text] : cases)
        for (const std::uint64_t properties : {LOCKED, LOCKED | ARCHIVE_DIRECT_IO}) {
            root.clearLog();
            writeFile(path, file);
            EXPECT_EQ(readAll(properties), BAD) << what;
            EXPECT_TRUE(root.logged(text)) << what;
            EXPECT_EQ(archive_seek(reopen(properties).get(), 10, SEEK_SET), -1);
        }
    writeFile(path, "");
    EXPECT_EQ(readAll(LOCKED), "") << "a backup that nothing was written to";
}

TEST_F(ArchiveToken, ACutCipherUnitIsDamage) {
    needKeyService();
    const std::string bytes = contentOf(Content::text, 100000 / 32 * 32);
    for (const std::uint64_t properties : {LOCKED, LOCKED | ARCHIVE_DIRECT_IO}) {
        makeBackup(bytes, properties);
        std::filesystem::resize_file(path, std::filesystem::file_size(path) - 7);
        const ArchiveFilterPtr filter = reopen(properties);
        EXPECT_TRUE(readUpTo(filter.get(), bytes.size()) == bytes.substr(0, bytes.size() - 32));
        EXPECT_EQ(readUpTo(filter.get(), bytes.size()), BAD);
    }
    keyService.reset();
    EXPECT_EQ(readAll(LOCKED), BAD) << "no key service, no reading";
    ArchiveFilterPtr filter = create(LOCKED);
    EXPECT_EQ(archive_write(filter.get(), bytes.data(), 1000), 1000);
    EXPECT_EQ(archive_close(&filter), -1);
    EXPECT_FALSE(filter);
}

}  // namespace
