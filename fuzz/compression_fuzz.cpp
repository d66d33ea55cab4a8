// There and back: data of any kind, in pieces of any size, through a compressor; then each chunk by the index that was
// written behind it, with zlib's and our own readers.

#include <zlib.h>

#include <cstring>

#include "compression/compression.h"
#include "fuzz_support.h"

namespace {

constexpr std::size_t SEGMENT = 1024;

struct Way {
    DqCompressionEngineType engine;
    DqCompressionOptions options;
    std::size_t piece;
};

Way wayOf(FuzzInput* input) {
    Way way{};
    const std::uint8_t how = input->byte();
    way.engine = (how & 1) != 0 ? DQ_ENGINE_LZ4 : DQ_ENGINE_ZLIB;
    way.options.level = how >> 1 & 7;
    way.options.segmentOctets = SEGMENT << (how >> 6 & 1);
    way.options.blockOctets = std::size_t{input->byte()} * 16;
    way.options.inputOctets = 4096;
    way.piece = 1 + std::size_t{input->byte()} * 8;
    return way;
}

void takeOutput(DqCompressionState* state, std::size_t most, std::string* file) {
    const std::size_t count = std::min(state->output.buf.bytes(), most);
    file->append(reinterpret_cast<const char*>(state->output.buf.low), count);
    DqCompressionConsume(&state->output, count);
}

std::string compressed(const Way& way, std::string_view data) {
    DqCompressionState state = CreateDqCompressionState(DQ_COMPRESS, way.engine, way.options);
    FUZZ_CHECK(state._error == DQ_SUCCESS);
    std::string file;
    while (!data.empty()) {
        const std::size_t count = std::min({data.size(), state.inpput.buf.room(), way.piece});
        FUZZ_CHECK(count != 0);
        std::memcpy(state.inpput.buf.p, data.data(), count);
        state.inpput.buf.p += count;
        data.remove_prefix(count);
        FUZZ_CHECK(DqCompressionFlush(&state) == DQ_SUCCESS);
        takeOutput(&state, way.piece, &file);
    }
    DqCompressionErr error = DQ_OUTPUT_PENDING;
    while ((error = DqCompressionClose(&state)) == DQ_OUTPUT_PENDING)
        takeOutput(&state, way.piece + 65536, &file);
    FUZZ_CHECK(error == DQ_SUCCESS);
    return file;
}

std::string inflated(std::string_view from, std::size_t size) {
    std::string bytes(size, '\0');
    z_stream z{};
    FUZZ_CHECK(inflateInit2(&z, 47) == Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(from.data()));
    z.avail_in = static_cast<uInt>(from.size());
    z.next_out = reinterpret_cast<Bytef*>(bytes.data());
    z.avail_out = static_cast<uInt>(size);
    while (z.avail_out > 0 && inflate(&z, Z_SYNC_FLUSH) == Z_STREAM_END)
        (void)inflateReset(&z);
    (void)inflateEnd(&z);
    bytes.resize(size - z.avail_out);
    return bytes;
}

std::string unpacked(std::string_view from, std::size_t size) {
    DqCompressionState state = CreateDqCompressionState(DQ_DECOMPRESS, DQ_ENGINE_LZ4, {});
    const std::size_t count = std::min(from.size(), state.inpput.buf.room());
    std::memcpy(state.inpput.buf.p, from.data(), count);
    state.inpput.buf.p += count;
    (void)DqCompressionFlush(&state);
    std::string bytes;
    takeOutput(&state, size, &bytes);
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const Way way = wayOf(&input);
    const std::string_view clean = input.rest().substr(0, 100000);
    const std::string file = compressed(way, clean);
    const MemoryFile memory(file);
    std::string error;
    const auto index = LoadCompressionIndex(memory.fd(), &error);
    FUZZ_CHECK((index != nullptr) == !clean.empty());
    if (!index)
        return 0;
    FUZZ_CHECK(index->count() == (clean.size() + index->chunkSize - 1) / index->chunkSize);
    for (std::size_t i = 0; i < index->count(); i++) {
        const std::string_view from = std::string_view(file).substr(static_cast<std::size_t>(index->entries[i]));
        const std::string_view chunk = clean.substr(i * index->chunkSize, index->chunkSize);
        FUZZ_CHECK((way.engine == DQ_ENGINE_LZ4 ? unpacked(from, chunk.size()) : inflated(from, chunk.size())) ==
                   chunk);
    }
    return 0;
}
