// The index loader. The input is a table in short: what its frames say and which entries it has; the padding and, if
// wanted, the right checksum are put in here. What is loaded must be the bytes in front of the trailer, and no more of
// them than the file holds.

#include <zlib.h>

#include <cstring>

#include "compression/compression.h"
#include "fuzz_support.h"

namespace {

constexpr std::size_t FRAME = 32;
constexpr std::size_t ENTRY = 8;

struct Shape {
    explicit Shape(std::uint8_t bits) : bits_(bits) {}
    [[nodiscard]] bool hasChecksum() const { return (bits_ & 1) != 0; }
    [[nodiscard]] bool hasOtherTable() const { return (bits_ & 2) != 0; }
    [[nodiscard]] bool isPadded() const { return (bits_ & 4) != 0; }
    [[nodiscard]] bool isSmall() const { return (bits_ & 8) != 0; }  // of the engine with the smaller tables

private:
    std::uint8_t bits_;
};

std::uint64_t checksumOf(std::string_view entries) {
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < entries.size(); at += 128 * ENTRY) {
        const std::string_view group = entries.substr(at, 128 * ENTRY);
        sum += crc32(0, reinterpret_cast<const Bytef*>(group.data()), static_cast<uInt>(group.size()));
    }
    return sum;
}

std::string frame(std::string text) {
    text.resize(FRAME, '\0');
    return text;
}

std::string tableOf(FuzzInput* input, Shape shape) {
    const std::string header = input->take(FRAME);
    std::string trailer = input->take(FRAME);
    std::string entries(input->rest().substr(0, input->rest().size() / ENTRY * ENTRY));
    if (shape.hasChecksum())
        trailer = frame((shape.isSmall() ? "ae9b76 " : "ae9b77 ") + std::to_string(2 * FRAME + entries.size()) + " " +
                        std::to_string(checksumOf(entries)) + " ")
                      .substr(0, FRAME);
    if (shape.isPadded())
        entries.resize(std::max<std::size_t>(entries.size(), shape.isSmall() ? 40960 : 65536));
    return header + entries + trailer;
}

void checkLoaded(const compression_index& index, const std::string& file) {
    FUZZ_CHECK(index.count() > 0 && index.chunkSize > 0);
    const std::size_t size = index.count() * ENTRY;
    const std::string_view magic = std::string_view(file).substr(file.size() - FRAME, 6);
    const std::size_t stored = std::max<std::size_t>(size, magic == "ae9b76" ? 40960 : 65536);
    FUZZ_CHECK(stored + 2 * FRAME <= file.size());
    FUZZ_CHECK(std::memcmp(index.entries.data(), file.data() + file.size() - FRAME - stored, size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const Shape shape(input.byte());
    const std::string file = "data" + tableOf(&input, shape);
    // A good table behind it makes the one from the input the first of two.
    const std::string other = frame("ae9b7710485760111") + std::string(65536, '\0') +
                              frame("ae9b77 72 " + std::to_string(checksumOf(std::string(ENTRY, '\0'))) + " ");
    const MemoryFile memory(shape.hasOtherTable() ? file + other : file);
    std::string error;
    const auto index = LoadCompressionIndex(memory.fd(), &error);
    FUZZ_CHECK((index == nullptr) == !error.empty());
    if (!index)
        return 0;
    if (!shape.hasOtherTable() || index->chunkSize != DQ_SECONDARY_CHUNK)
        checkLoaded(*index, file);
    const off_t beyond = static_cast<off_t>(index->count() * index->chunkSize);
    FUZZ_CHECK(SeekToCompressedOffset(memory.fd(), index.get(), beyond) == -1);
    const off_t last = SeekToCompressedOffset(memory.fd(), index.get(), beyond - 1);
    FUZZ_CHECK(last == -1 || last == index->entries.back());
    return 0;
}
