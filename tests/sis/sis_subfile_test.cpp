// Blocks in the store: which are compressed, how they come back, and what damage does.

#include "sis/SIScompLZ4.h"
#include "sis_fixture.h"
#include "support/compressed.h"

namespace {

using namespace testsupport;

class SISsubfile : public Store {
protected:
    SISsubfile() {
        presetSizes();
        addDisk(1, "one");
        root.masterIni("[fileDedup]\n  useSIScompression=true\n");
        tellCompressedLengthColumn(false);
        tellCompressedLengthColumn(true);
        sis = openSIS();
    }
    ~SISsubfile() override { tellCompressedLengthColumn(false); }

    hashValue recordAt(std::uint64_t offset, std::size_t length) {
        hashValue record{};
        record.hashID = ++lastID;
        record.hashedLength = length;
        record.SISoffset = offset;
        return record;
    }

    hashValue store(const std::string& data) {
        const auto offset = static_cast<std::uint64_t>(reserve(sis.get(), static_cast<std::int64_t>(data.size())));
        hashValue record = recordAt(offset, data.size());
        EXPECT_EQ(writeSISsubfile(sis.get(), bytesOf(data), offset, &record), static_cast<ssize_t>(data.size()));
        return record;
    }

    std::string read(const hashValue& record, std::size_t at = 0, std::size_t count = std::string::npos) {
        std::string data(std::min<std::size_t>(count, record.hashedLength - at), '\0');
        ssize_t n = 0;
        for (std::size_t done = 0; done < data.size(); done += static_cast<std::size_t>(n))
            if ((n = readSISsubfile(sis.get(), roomOf(data).subspan(done), record.SISoffset + at + done, record)) < 1)
                return "failed";
        return data;
    }

    SISPtr sis;
    std::uint64_t lastID = 0;
};

// Data of which `random` bytes don't compress, and the rest does.
std::string mixed(std::size_t size, std::size_t random, std::uint64_t seed = 1) {
    return noise(random, seed) + std::string(size - random, 'm');
}

// Data whose compressed form takes exactly `wanted` bytes.
std::string compressingTo(std::size_t size, std::size_t wanted) {
    std::string packed(size + SIS_COMPRESSED_HEADER, '\0');
    const auto compressed = [&](const std::string& data) {
        const int length = SIScompressBlock(bytesOf(data), roomOf(packed));
        return length == 0 ? data.size() + 1 : static_cast<std::size_t>(length);
    };
    std::size_t random = 0;
    for (std::size_t step = size / 2; step > 0; step /= 2)
        if (random + step < size && compressed(mixed(size, random + step)) < wanted)
            random += step;
    for (std::uint64_t seed = 1; seed < 20; ++seed)
        for (std::size_t more = 0; more < 8 && random + more <= size; ++more)
            if (std::string data = mixed(size, random + more, seed); compressed(data) == wanted)
                return data;
    ADD_FAILURE() << "no such data";
    return std::string(size, '\0');
}

TEST_F(SISsubfile, ABlockIsCompressedIfThatSavesAPage) {
    const std::tuple<const char*, std::string, std::uint64_t> cases[] = {
        {"too small", std::string(4096, 'a'), 0},
        {"just large enough", compressingTo(4097, 4000), 4000},
        {"two pages to one", compressingTo(8192, 4096), 4096},
        {"two pages, one byte too many", compressingTo(8192, 4097), 0},
        {"a partial page is saved", compressingTo(8193, 8192), 8192},
        {"a partial page isn't", compressingTo(9000, 8193), 0},
        {"nothing to save", noise(300000, 1), 0},
        {"the largest", compressingTo(0x100000, 0x80000), 0x80000},
        {"too large", std::string(0x100001, 'a'), 0}};
    for (const auto& [what, data, length] : cases) {
        const hashValue record = store(data);
        EXPECT_EQ(record.compressedLength, length) << what;
        EXPECT_TRUE(read(record) == data && read(record, 4095, 2) == data.substr(4095, 2)) << what;
    }
    const std::string data = mixed(100000, 30000);
    const hashValue record = store(data);
    ASSERT_GT(record.compressedLength, 30000u);
    std::mt19937 random(1);
    for (int i = 0; i < 100; ++i) {
        const std::size_t at = random() % 100000;
        const std::size_t count = std::min<std::size_t>(random() % 5000 + 1, 100000 - at);
        ASSERT_EQ(read(record, at, count), data.substr(at, count));
    }
    EXPECT_TRUE(through(root, readAt(sis.get(), record.compressedLength, record.SISoffset), "lz4 -dcq in") == data);
}

TEST_F(SISsubfile, PiecesAreWrittenWhenAllAreThereAndMisplacedOnesAreRefused) {
    const std::string data = mixed(200000, 50000);
    std::uint64_t offset = 0;
    ASSERT_EQ(reserveSIS(sis.get(), &offset, 400000), 0);
    hashValue record = recordAt(offset, data.size());
    const auto write = [&](std::size_t at, std::size_t count) {
        return writeSISsubfile(sis.get(), bytesOf(data).subspan(at, count), offset + at, &record);
    };
    EXPECT_EQ(write(0, 100), 100);
    EXPECT_EQ(write(0, 150000), 150000) << "the first piece begins anew";
    EXPECT_EQ(record.compressedLength, 0u);
    EXPECT_EQ(write(160000, 10), -1) << "a gap";
    EXPECT_EQ(writeSISsubfile(sis.get(), bytesOf(data).first(60000), offset + 150000, &record), -1) << "too much";
    EXPECT_EQ(writeSISsubfile(sis.get(), bytesOf(data).first(10), offset + 200001, &record), -1);
    EXPECT_EQ(write(150000, 50000), 50000);
    EXPECT_TRUE(record.compressedLength != 0 && read(record) == data);
}

TEST_F(SISsubfile, SeveralBlocksArePackedBehindEachOther) {
    for (const bool compressed : {true, false}) {
        tellCompressedLengthColumn(compressed);
        std::string buffer;
        std::vector<std::string> blocks;
        std::vector<hashValue> records;
        for (std::size_t i = 0; i < 20; ++i) {
            blocks.push_back(i % 3 == 0 ? noise(5000 + i, i) : mixed(20000 + 777 * i, 3000));
            buffer += blocks.back();
            records.push_back(recordAt(0, blocks.back().size()));
        }
        const std::size_t size = buffer.size();
        std::uint64_t offset = 0;
        ASSERT_EQ(reserveSIS(sis.get(), &offset, static_cast<std::int64_t>(size)), 0);
        const ssize_t written = writeSISmultiBlock(sis.get(), roomOf(buffer), offset, records);
        EXPECT_EQ(written < static_cast<ssize_t>(size), compressed);
        for (std::size_t i = 0; i < blocks.size(); ++i)
            EXPECT_TRUE(read(records[i]) == blocks[i]) << i;
        records[0].hashedLength = size + 1;
        EXPECT_EQ(writeSISmultiBlock(sis.get(), roomOf(buffer), offset, records), -1);
    }
    EXPECT_TRUE(root.logged("writeSISmultiBlock, not enough room in buffer"));
    EXPECT_TRUE(root.logged("SIS compression not supported by database, setting useSIScompression 0"));
}

TEST_F(SISsubfile, ABlockWithTheSameIDIsNotServedFromAnother) {
    hashValue first = store(std::string(50000, 'f'));
    first.flags = hashValue_out;
    EXPECT_EQ(read(first, 10, 2), "ff");
    hashValue second = first;
    second.digest[0] = 1;
    const std::string other(50000, 's');
    ASSERT_EQ(writeSISsubfile(sis.get(), bytesOf(other), second.SISoffset, &second), 50000);
    EXPECT_EQ(read(first, 10, 2), "ff") << "what was unpacked is kept";
    EXPECT_EQ(read(second, 10, 2), "ss");
}

TEST_F(SISsubfile, DamagedBlocksAndRecordsThatLieFail) {
    const std::string data = mixed(100000, 40000);
    const hashValue good = store(data);
    const std::string packed = readAt(sis.get(), good.compressedLength, good.SISoffset);
    const std::tuple<std::size_t, std::string, std::string> cases[] = {
        {0, std::string("\x04\x22\x4d\x18", 4), "not legacy magic number 0x184d2204"},
        {4, std::string(4, '\0'), "SISdecompressBlock, nothing to read"},
        {4, std::string("\x91\x80\x80\0", 4), "cannot read block, size too large"},
        {4, std::string("\0\x10\0\0", 4), "SISdecompressBlock"},
        {8, std::string(5000, '\xff'), "SISdecompressBlock(SIS @ 0x0) failed"}};
    for (const auto& [at, bytes, said] : cases) {
        root.clearLog();
        ASSERT_TRUE(writeAt(sis.get(), bytes, at));
        EXPECT_EQ(read(good), "failed") << said;
        EXPECT_TRUE(root.logged(said)) << root.log();
        ASSERT_TRUE(writeAt(sis.get(), packed, 0));
    }
    EXPECT_TRUE(read(good) == data);
    (void)store(noise(300000, 1));  // so that a length beyond the block is one that could be read
    const std::uint64_t right = good.compressedLength;
    using Lie = std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>;
    const Lie lies[] = {Lie{99999, right, 0},      Lie{100001, right, 0},        Lie{100000, right - 1, 0},
                        Lie{100000, 7, 0},         Lie{100000, ~0ull, 0},        Lie{100000, 200000, 0},
                        Lie{1ull << 62, right, 0}, Lie{100000, 5000, 1ull << 60}};
    for (const auto& [hashed, length, offset] : lies) {
        hashValue record = recordAt(offset, hashed);
        record.hashID = good.hashID;
        record.compressedLength = length;
        EXPECT_EQ(read(record, 0, 1000), "failed") << hashed << " " << length;
    }
}

}  // namespace
