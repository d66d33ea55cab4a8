#include "compression/compression.h"

#include "base/file_descriptor.h"
#include "base/releaser.h"
#include "log/logger.h"
#include "support/compressed.h"

// Options name only what is other than usual.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace testsupport;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Compression : ::testing::Test {
    TestRoot root;
};

TEST_F(Compression, PiecesOfInputAndOutputDontChangeTheFile) {
    for (const DqCompressionEngineType engine : {DQ_ENGINE_ZLIB, DQ_ENGINE_LZ4})
        for (const std::size_t block : {65536u, 100000u, 131072u}) {
            const std::string data = contentOf(Content::mixed, 900000);
            const DqCompressionOptions options{.blockOctets = block};
            const std::string whole = compressed(data, engine, options);
            for (const std::size_t piece : {5000u, 70000u, 300000u})
                EXPECT_TRUE(compressed(data, engine, options, piece) == whole) << engine << block << " " << piece;
        }
}

TEST_F(Compression, BlocksHaveExactlyTheStatedHeads) {
    for (const DqCompressionEngineType engine : {DQ_ENGINE_ZLIB, DQ_ENGINE_LZ4}) {
        const std::string empty = compressed("", engine);
        ASSERT_EQ(empty.size(), indexSize(0)) << "no blocks, and two tables without entries";
        EXPECT_THAT(empty, StartsWith("ae9b77131072  111"));
        EXPECT_STREQ(empty.c_str() + empty.size() - 32, "ae9b77 64 0 ");
    }
    const std::string gzip = compressed("abc", DQ_ENGINE_ZLIB);
    EXPECT_EQ(gzip.substr(0, 10), std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03", 10));
    // One byte can't shrink: length with the top bit, the byte, XXH32 of it, end mark, XXH32 of the stream.
    const std::string lz4 = compressed("a", DQ_ENGINE_LZ4);
    const std::string hash("\x56\x74\x0d\x55", 4);
    const std::string head("\x04\x22\x4d\x18\x74\x40\xbd\x01\0\0\x80", 11);
    EXPECT_EQ(lz4.substr(0, 24), head + "a" + hash + std::string(4, '\0') + hash);
}

TEST_F(Compression, FilesPathsAndDescriptorsServeAsChannels) {
    const std::string data = contentOf(Content::mixed, 700001);
    const std::string in = root / "tmp/data";
    const std::string out = root / "tmp/packed";
    writeFile(in, data);
    for (const char* how : {"paths", "files", "descriptors", "paths, and nothing is done"}) {
        SCOPED_TRACE(how);
        using File = std::unique_ptr<FILE, Releaser<&std::fclose>>;
        const bool isPath = *how == 'p';
        const FileDescriptor inFd(*how == 'd' ? open(in.c_str(), O_RDONLY | O_CLOEXEC) : -1);
        const FileDescriptor outFd(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const File inFile(*how == 'f' ? std::fopen(in.c_str(), "rbe") : nullptr);
        const File outFile(*how == 'f' ? std::fopen(out.c_str(), "wbe") : nullptr);
        const DqCompressionOptions options{.inputPath = isPath ? in.c_str() : nullptr,
                                           .outputPath = isPath ? out.c_str() : nullptr,
                                           .inputFile = inFile.get(),
                                           .outputFile = outFile.get(),
                                           .inputFd = inFd.get(),
                                           .outputFd = *how == 'd' ? outFd.get() : -1};
        const bool isCopy = std::strchr(how, ',') != nullptr;
        DqCompressionState state =
            CreateDqCompressionState(isCopy ? DQ_PASS : DQ_COMPRESS, isCopy ? DQ_ENGINE_NONE : DQ_ENGINE_LZ4, options);
        EXPECT_EQ(DqCompressionClose(&state), DQ_SUCCESS) << state._errorDetails;
        EXPECT_TRUE(readFile(out) == (isCopy ? data : compressed(data, DQ_ENGINE_LZ4)));
    }
}

TEST_F(Compression, CreationRefuses) {
    std::vector<std::byte> buffer(DQ_MIN_OUTPUT_BUFFER);
    const std::span<std::byte> all(buffer);
    using Options = DqCompressionOptions;
    const std::tuple<DqCompressionOp, DqCompressionEngineType, Options, DqCompressionErr, const char*> cases[] = {
        {DQ_COMPRESS, DQ_ENGINE_ZLIB, Options{.segmentOctets = 3 << 20}, DQ_INVALID_STATE,
         "CreateDqCompressionState Index segment size must be a factor of 10MB"},
        {DQ_COMPRESS, DQ_ENGINE_LZ4, Options{.outputBuffer = all.first(9999991)}, DQ_BAD_ARGUMENT, "outoctets=9999991"},
        {DQ_COMPRESS, DQ_ENGINE_LZ4, Options{.outputOctets = 9999991}, DQ_BAD_ARGUMENT, "outoctets="},
        {DQ_COMPRESS, DQ_ENGINE_LZ4, Options{.inputBuffer = all.first(0)}, DQ_BAD_ARGUMENT, "inpoctets=0"},
        {DQ_DECOMPRESS, DQ_ENGINE_LZ4, Options{.inputBuffer = all.first(200000), .outputBuffer = all.subspan(199999)},
         DQ_BAD_ARGUMENT, "overlap"},
        {DQ_COMPRESS, DQ_ENGINE_ZLIB, Options{.inputOctets = 65536}, DQ_INVALID_STATE, "less than 131072"},
        {DQ_COMPRESS, DQ_ENGINE_ZLIB, Options{.segmentOctets = DQ_SECONDARY_CHUNK, .outputBuffer = all},
         DQ_INVALID_STATE, "a buffer of 9999992 bytes"},
        {DQ_COMPRESS, DQ_ENGINE_RX9, {}, DQ_FILE_ERROR, "/dev/rx9"},
        {DQ_COMPRESS, DQ_ENGINE_NONE, {}, DQ_BAD_ARGUMENT, "engine=0"},
        {static_cast<DqCompressionOp>(4), DQ_ENGINE_LZ4, {}, DQ_BAD_ARGUMENT, "op=4"},
        {DQ_COMPRESS, DQ_ENGINE_LZ4, Options{.inputPath = "/nowhere/at/all"}, DQ_FILE_ERROR, "/nowhere"}};
    for (const auto& [op, engine, options, error, text] : cases) {
        root.clearLog();
        DqCompressionState state = CreateDqCompressionState(op, engine, options);
        EXPECT_TRUE(state._error == error && DqCompressionBlock(&state) == error) << text;
        EXPECT_TRUE(root.logged(text) && root.logged("_errorDetails=")) << text << "\n" << root.log();
        EXPECT_EQ(DqCompressionClose(&state), DQ_SUCCESS);
        EXPECT_EQ(DqCompressionFlush(&state), DQ_BAD_ARGUMENT) << "a destroyed state";
    }
    DqCompressionState never;
    EXPECT_EQ(DqCompressionBlock(&never), DQ_BAD_DATA);
    EXPECT_EQ(DqCompressionBlock(nullptr), DQ_BAD_ARGUMENT);
}

TEST_F(Compression, FullDeviceIsAFileErrorAndStays) {
    const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    DqCompressionState state = CreateDqCompressionState(DQ_COMPRESS, DQ_ENGINE_ZLIB, {.outputFd = full.get()});
    std::string_view rest = "some data";
    feed(&state, &rest, SIZE_MAX);
    EXPECT_EQ(DqCompressionClose(&state), DQ_FILE_ERROR);
    EXPECT_THAT(state._errorDetails, HasSubstr(std::strerror(ENOSPC)));
    EXPECT_EQ(DqCompressionBlock(&state), DQ_FILE_ERROR);
}

TEST_F(Compression, EngineNames) {
    const std::pair<const char*, DqCompressionEngineType> names[] = {
        {nullptr, DQ_ENGINE_ZLIB}, {"AUTO", DQ_ENGINE_ZLIB}, {"uGz", DQ_ENGINE_ZLIB}, {"LZ4", DQ_ENGINE_LZ4},
        {"rx9", DQ_ENGINE_RX9},    {"none", DQ_ENGINE_NONE}, {"lz4x", DQ_ENGINE_NONE}};
    for (const auto& [name, type] : names)
        EXPECT_EQ(engine_type_of(name), type);
    EXPECT_TRUE(root.logged("unknown CompressEngine value: lz4x"));
}

// --- the LZ4 reader ---

TEST_F(Compression, UpToSixBytesBehindAFrameEndTheDataQuietly) {
    const std::string frame = through(root, "data", "lz4 -c -BX in");
    for (std::size_t extra = 1; extra <= 6; extra++) {
        const Unpacked all = unpacked(frame + std::string(extra, 'x'));
        EXPECT_TRUE(all.error == DQ_SUCCESS && !all.inFrame && all.data == "data") << extra;
    }
    EXPECT_EQ(unpacked(frame + "xxxxxxx").error, DQ_NOT_COMPRESSED);
    EXPECT_TRUE(root.logged("Not a LZ4 magic number: 78787878"));
}

// A frame of text and noise, small enough to be broken at each byte.
std::string smallFrame(const TestRoot& root) {
    return through(root, contentOf(Content::text, 300) + contentOf(Content::noise, 40), "lz4 -c -BX --content-size in");
}

TEST_F(Compression, FlippedBitsAreDamage) {
    const std::string frame = smallFrame(root);
    const std::string data = unpacked(frame).data;
    constexpr std::size_t STORED_MARK = (15 + 3) * 8 + 7;
    log_level = 0;
    for (std::size_t bit = 0; bit < frame.size() * 8; bit++) {
        std::string bad = frame;
        bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
        const Unpacked got = unpacked(bad);
        // One bit means nothing: an end mark with a stored block's mark still has the length 0.
        ASSERT_TRUE(got.error != DQ_SUCCESS || got.inFrame || got.data == data) << "bit " << bit;
        // The mark of a stored block is no part of its checksum; the frame's own tells, behind the block.
        ASSERT_TRUE(bit == STORED_MARK || data.starts_with(got.data)) << "bit " << bit;
    }
}

TEST_F(Compression, CutFilesAreNoticed) {
    const std::string frame = smallFrame(root);
    const std::string data = unpacked(frame).data;
    log_level = 0;
    for (std::size_t size = 7; size < frame.size(); size++) {
        const Unpacked got = unpacked(std::string_view(frame).substr(0, size));
        ASSERT_TRUE(got.error == DQ_SUCCESS && (got.inFrame || size < 15) && data.starts_with(got.data)) << size;
    }
}

TEST_F(Compression, RefusedFrames) {
    const std::string magic("\x04\x22\x4d\x18", 4);
    const std::string head = magic + "\x74\x40\xbd";
    const auto word = [](std::uint32_t n) { return std::string(reinterpret_cast<const char*>(&n), 4); };
    const std::pair<std::string, const char*> cases[] = {
        {magic + "\x75\x40\xbd", "Invalid LZ4 stream FLG version: 40 != 0x40"},
        {magic + "\xb4\x40\xbd", "Invalid LZ4 stream FLG version: 80 != 0x40"},
        {magic + "\x54\x40\xbd", "Invalid LZ4 stream FLG version: 40 != 0x40"},
        {magic + "\x74\x41\xbd", "Invalid LZ4 stream BD reserved bits: 1"},
        {magic + "\x74\x30\xbd", "Invalid LZ4 stream BD reserved bits: 0"},
        {magic + "\x74\x40\xbe", "LZ4 header checksum error"},
        {head + word(65537), "LZ4 block of 65537 bytes, the frame allows 65536"},
        {head + word(0xFFFFFFFF), "LZ4 block of 2147483647 bytes"},
        {head + word(1) + "a" + word(0), "LZ4 block hash failed"},
        {head + word(1) + "a" + word(0x550d7456), "can't be decompressed"},
        {head + word(0) + word(0), "LZ4 stream hash failed"},
        {through(root, "data", "lz4 -c -BX --no-frame-crc in") + "more", "LZ4 stream checksum is NULL"}};
    for (const auto& [file, text] : cases) {
        root.clearLog();
        EXPECT_EQ(unpacked(file).error, DQ_BAD_DATA) << text;
        EXPECT_TRUE(root.logged(text)) << text << "\n" << root.log();
    }
}

TEST_F(Compression, RestartReadsFromAnyBlockAndForgivesDamage) {
    const std::string data = contentOf(Content::mixed, 400000);
    const std::string file = compressed(data, DQ_ENGINE_LZ4, {.blockOctets = 65536});
    DqCompressionState state = CreateDqCompressionState(DQ_DECOMPRESS, DQ_ENGINE_LZ4, {});
    std::string_view rest = "neither this nor that";
    feed(&state, &rest, SIZE_MAX);
    EXPECT_EQ(DqCompressionBlock(&state), DQ_NOT_COMPRESSED);
    EXPECT_EQ(DqCompressionBlock(&state), DQ_NOT_COMPRESSED) << "stays";
    DqCompressionRestart(&state);
    rest = file;
    feed(&state, &rest, SIZE_MAX);
    EXPECT_EQ(DqCompressionBlock(&state), DQ_SUCCESS);
    EXPECT_FALSE(DqCompressionInFrame(state)) << "a call stops at the end of a frame";
    std::string first;
    take(&state, &first, SIZE_MAX);
    EXPECT_TRUE(first == data.substr(0, 65536));
}

}  // namespace
