

#include "base/file_descriptor.h"
#include "compression/compression.h"
#include "log/logger.h"
#include "support/compressed.h"

// Options name only what is other than usual.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace testsupport;
using ::testing::HasSubstr;

constexpr std::size_t FRAME = 32;
constexpr std::size_t PADDED = std::size_t{8192} * 8;
constexpr std::size_t TABLE = FRAME + PADDED + FRAME;

class CompressionIndex : public ::testing::Test {
protected:
    std::unique_ptr<compression_index> load(const std::string& file, int flags = 0) {
        writeFile(path, file);
        const FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
        error.clear();
        auto index = LoadCompressionIndex(fd.get(), &error);
        EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_DIRECT, flags & O_DIRECT);
        return index;
    }

    TestRoot root;
    std::string path = root / "tmp/file";
    std::string error;
};

std::string padded(std::string text, std::size_t size) {
    text.resize(size, '\0');
    return text;
}

// Replaces the text of the frame that begins at `offset`.
std::string withFrame(std::string file, std::size_t offset, const std::string& text) {
    return file.replace(offset, FRAME, padded(text, FRAME));
}

// Each step-th entry is the start of a block that holds just what stands at its chunk.
void expectEntriesLead(const compression_index& index, const std::string& file, const std::string& data,
                       DqCompressionEngineType engine, std::size_t step = 1) {
    ASSERT_EQ(index.count(), (data.size() + index.chunkSize - 1) / index.chunkSize);
    for (std::size_t i = 0; i < index.count(); i += step) {
        const std::string_view from = std::string_view(file).substr(static_cast<std::size_t>(index.entries[i]));
        std::string got(std::min<std::size_t>(1000, data.size() - i * index.chunkSize), '?');
        if (engine == DQ_ENGINE_LZ4) {
            got = unpacked(from.substr(0, 140000)).data.substr(0, got.size());
        } else {
            z_stream z{};
            ASSERT_EQ(inflateInit2(&z, 47), Z_OK);
            z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(from.data()));
            z.avail_in = static_cast<uInt>(from.size());
            z.next_out = reinterpret_cast<Bytef*>(got.data());
            z.avail_out = static_cast<uInt>(got.size());
            EXPECT_GE(inflate(&z, Z_SYNC_FLUSH), Z_OK);
            inflateEnd(&z);
        }
        ASSERT_TRUE(got == data.substr(i * index.chunkSize, got.size())) << "entry " << i;
    }
}

TEST_F(CompressionIndex, EntriesAreTheStartsOfTheirChunks) {
    log_level = 5;
    // Size, block, segment; the last has more entries than the padding.
    const std::tuple<std::size_t, std::size_t, std::size_t> cases[] = {{1, 0, 0},
                                                                       {131072, 0, 0},
                                                                       {131073, 65536, 0},
                                                                       {12000000, 65536, 0},
                                                                       {700000, 100000, 262144},
                                                                       {300000, 1024, 1024},
                                                                       {20000 * 1024 + 5, 1024, 1024}};
    for (const DqCompressionEngineType engine : {DQ_ENGINE_ZLIB, DQ_ENGINE_LZ4})
        for (const auto& [size, block, segment] : cases) {
            SCOPED_TRACE(std::to_string(engine) + " size " + std::to_string(size) + " block " + std::to_string(block));
            const std::string data = contentOf(Content::mixed, size);
            const std::string file = compressed(data, engine, {.blockOctets = block, .segmentOctets = segment});
            const auto index = load(file);
            ASSERT_TRUE(index) << error;
            EXPECT_EQ(index->chunkSize, segment == 0 ? DQ_DEFAULT_SEGMENT : segment);
            expectEntriesLead(*index, file, data, engine, size > 20000000 ? 41 : 1);
        }
}

TEST_F(CompressionIndex, TablesStandAsTheFormatSays) {
    const std::string data = contentOf(Content::text, 2 * DQ_SECONDARY_CHUNK + 1);
    const std::string file = compressed(data, DQ_ENGINE_LZ4);
    const std::size_t primary = file.size() - 2 * TABLE;
    const std::size_t secondary = primary + TABLE;
    EXPECT_EQ(file.substr(primary, FRAME), padded("ae9b77131072  111", FRAME));
    EXPECT_EQ(file.substr(secondary, FRAME), padded("ae9b7710485760111", FRAME));
    EXPECT_THAT(file.substr(secondary - FRAME, FRAME), HasSubstr("ae9b77 1352 "));  // 161 entries
    EXPECT_THAT(file.substr(file.size() - FRAME), HasSubstr("ae9b77 88 "));         // 3 entries
    for (std::size_t i = 0; i < 8192; i++) {
        const std::string entry = file.substr(secondary + FRAME + i * 8, 8);
        EXPECT_EQ(entry, i < 3 ? file.substr(primary + FRAME + i * 80 * 8, 8) : std::string(8, '\0'));
    }
    // The sum of the CRCs of 128 entries, and of the 33 left over.
    const auto* const entries = reinterpret_cast<const Bytef*>(file.data() + primary + FRAME);
    const std::uint64_t sum = crc32(0, entries, 128 * 8) + crc32(0, entries + std::size_t{128} * 8, 33 * 8);
    EXPECT_EQ(file.substr(secondary - FRAME, FRAME), padded("ae9b77 1352 " + std::to_string(sum) + " ", FRAME));
}

TEST_F(CompressionIndex, CloseGoesOnWhereTheRoomEnded) {
    // Noise fills the output to just under its end before the close, so that the tables come in several rounds.
    const std::string data = contentOf(Content::noise, 9900000);
    const std::string expected = compressed(data, DQ_ENGINE_LZ4);
    DqCompressionState state = CreateDqCompressionState(DQ_COMPRESS, DQ_ENGINE_LZ4, {});
    std::string_view rest = data;
    while (!rest.empty()) {
        feed(&state, &rest, SIZE_MAX);
        ASSERT_EQ(DqCompressionFlush(&state), DQ_SUCCESS);
    }
    std::string file;
    int rounds = 0;
    for (; DqCompressionClose(&state) == DQ_OUTPUT_PENDING; rounds++)
        take(&state, &file, rounds == 0 ? 50000 : 4000000);
    EXPECT_GT(rounds, 3);
    EXPECT_TRUE(file == expected);
}

TEST_F(CompressionIndex, LoadsWithDirectIoAndFromOlderWriters) {
    const std::string file = compressed(contentOf(Content::noise, 12000000), DQ_ENGINE_ZLIB);
    ASSERT_TRUE(load(file, O_DIRECT)) << error;
    // One table alone, then one of an engine with smaller tables.
    const auto coarse = load(file.substr(0, file.size() - 2 * TABLE) + file.substr(file.size() - TABLE));
    ASSERT_TRUE(coarse) << error;
    EXPECT_EQ(coarse->chunkSize, DQ_SECONDARY_CHUNK);
    EXPECT_EQ(coarse->count(), 2u);
    EXPECT_TRUE(root.logged("No secondary index found: bad magic"));
    std::string small = file.substr(file.size() - TABLE);
    small.erase(FRAME + 40960, PADDED - 40960);
    small.replace(0, 6, "ae9b76").replace(small.size() - FRAME, 6, "ae9b76");
    const auto other = load("data" + small);
    ASSERT_TRUE(other) << error;
    EXPECT_EQ(other->entries, coarse->entries);
}

TEST_F(CompressionIndex, LostDigitsOfTheChecksumAreForgiven) {
    const std::string file = compressed(contentOf(Content::text, 500000), DQ_ENGINE_LZ4);
    const std::size_t trailer = file.size() - TABLE - FRAME;
    std::string text = file.substr(trailer, FRAME).c_str();
    text.pop_back();  // the blank at the end
    for (int cut = 0; cut <= 4; cut++, text.pop_back()) {
        EXPECT_EQ(load(withFrame(file, trailer, text)) != nullptr, cut <= 3) << cut;
        EXPECT_EQ(error, cut <= 3 ? "" : "bad index checksum");
    }
}

TEST_F(CompressionIndex, DamagedIndexesAreRefused) {
    const std::string good = compressed(contentOf(Content::text, 500000), DQ_ENGINE_LZ4);
    const std::size_t header = good.size() - 2 * TABLE;
    const std::size_t trailer = good.size() - TABLE - FRAME;
    const std::size_t last = good.size() - FRAME;
    // The loader takes the first table if its trailer is right, so what is wrong with it shows only with one table.
    const std::string one = good.substr(0, good.size() - TABLE);
    std::string flipped = good;
    flipped[header + FRAME + 8] ^= 1;
    const std::pair<std::string, const char*> cases[] = {
        {"", "lseek64(, -32, SEEK_CUR): Invalid argument"},
        {std::string(31, 'x'), "lseek64(, -32, SEEK_CUR)"},
        {std::string(32, 'x'), "bad magic\n"},
        {good.substr(0, good.size() - 1), "bad magic\n"},
        {withFrame(good, last, "ae9b77 64 0 "), "bad index file size"},
        {withFrame(good, last, "ae9b77 -80 0 "), "bad index file size"},
        {withFrame(good, last, "ae9b77  "), "bad index file size"},
        {withFrame(good, last, "ae9b77 99999999999999999999 0 "), "bad index file size"},
        {withFrame(good, last, "ae9b77 18446744073709551608 0"), "seek to start of index failed: lseek64(, "},
        {withFrame(good, last, "ae9b77 9223372036854775800 0"), "seek to start of index failed: lseek64(, "},
        {withFrame(good, last, "ae9b77 1000000000 0 "), "seek to start of index failed: lseek64(, "},
        {withFrame(good, last, "ae9b77 96 x"), "bad index checksum"},
        {withFrame(one, trailer, "ae9b77 72 99999"), "bad index checksum"},
        {withFrame(good, last, "ae9b76 88 0 "), "bad index header magic"},
        {withFrame(one, header, "ae9b76131072  111"), "bad index header magic"},
        {withFrame(one, header, "ae9b77131072  112"), "bad index version"},
        {withFrame(one, header, "ae9b770       111"), "bad index chunk size"},
        {withFrame(one, header, "ae9b77        111"), "bad index chunk size"},
        {flipped, "bad index checksum"}};
    for (const auto& [file, said] : cases) {
        root.clearLog();
        EXPECT_FALSE(load(file)) << said;
        EXPECT_THAT(error, HasSubstr(said));
        EXPECT_TRUE(root.logged("failed to read index: " + error.substr(0, error.find('\n')))) << root.log();
    }
    EXPECT_FALSE(load(compressed("", DQ_ENGINE_LZ4))) << "a table without entries";
    error.clear();
    EXPECT_FALSE(LoadCompressionIndex(-1, &error));
    EXPECT_EQ(error, "failed to seek to end of backup file");
}

TEST_F(CompressionIndex, SeeksToTheChunkOfAnOffset) {
    writeFile(path, std::string(1000, 'x'));
    const FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const compression_index index{{0, 77, 500}, 100};
    for (const auto& [offset, place] : {std::pair{off_t{0}, off_t{0}}, {199, 77}, {299, 500}, {300, -1}, {-1, -1}}) {
        errno = 0;
        EXPECT_EQ(SeekToCompressedOffset(fd.get(), &index, offset), place);
        EXPECT_EQ(place == -1 ? errno : ERANGE, ERANGE);
    }
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 500);
    EXPECT_TRUE(root.logged("Requested seek offset 300 out of range (3 index entries of size 100 each)"));
    EXPECT_EQ(SeekToCompressedOffset(fd.get(), nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
