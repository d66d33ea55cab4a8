// The LZ4 reader. Whatever it is fed, in pieces or as a whole, gives the same bytes and the same answer; and what both
// it and the LZ4 library's own frame reader accept, they read alike. Checksums in the input are mended on request, or
// nothing would ever come behind them.

#include <lz4.h>
#include <lz4frame.h>
#include <xxhash.h>

#include <cstring>
#include <memory>

#include "base/releaser.h"
#include "compression/compression.h"
#include "compression/lz4.h"
#include "fuzz_support.h"

namespace {

struct Answer {
    std::string bytes;
    bool isComplete = false;  // no error, and not inside a frame
    DqCompressionErr error = DQ_SUCCESS;
};

// Does the caller's part for one call. False if nothing moves any more.
bool oneCall(DqCompressionState* state, std::string_view* rest, std::size_t piece, Answer* answer) {
    DqCompressionBuffer& in = state->inpput.buf;
    const std::size_t count = std::min({rest->size(), in.room(), piece});
    std::memcpy(in.p, rest->data(), count);
    in.p += count;
    rest->remove_prefix(count);
    const off_t before = state->inpput.offset;
    answer->error = DqCompressionBlock(state);
    const std::size_t got = state->output.buf.bytes();
    answer->bytes.append(reinterpret_cast<const char*>(state->output.buf.low), got);
    DqCompressionConsume(&state->output, got);
    return answer->error == DQ_SUCCESS && (count != 0 || got != 0 || before != state->inpput.offset);
}

Answer readAll(std::string_view file, std::size_t piece) {
    DqCompressionState state = CreateDqCompressionState(DQ_DECOMPRESS, DQ_ENGINE_LZ4, {});
    FUZZ_CHECK(state._error == DQ_SUCCESS);
    Answer answer;
    while (oneCall(&state, &file, piece, &answer)) {
    }
    FUZZ_CHECK(answer.error == DQ_SUCCESS || answer.error == DQ_BAD_DATA || answer.error == DQ_NOT_COMPRESSED);
    answer.isComplete = answer.error == DQ_SUCCESS && !DqCompressionInFrame(state) && state.inpput.buf.bytes() == 0;
    return answer;
}

// As the library reads it; false if it doesn't like it.
bool readByLibrary(std::string_view file, std::string* bytes) {
    LZ4F_dctx* raw = nullptr;
    FUZZ_CHECK(LZ4F_isError(LZ4F_createDecompressionContext(&raw, LZ4F_VERSION)) == 0);
    const std::unique_ptr<LZ4F_dctx, Releaser<&LZ4F_freeDecompressionContext>> context(raw);
    std::string room(1 << 20, '\0');
    std::size_t hint = 1;
    while (!file.empty()) {
        std::size_t produced = room.size();
        std::size_t consumed = file.size();
        hint = LZ4F_decompress(context.get(), room.data(), &produced, file.data(), &consumed, nullptr);
        if (LZ4F_isError(hint) != 0)
            return false;
        bytes->append(room.data(), produced);
        file.remove_prefix(consumed);
        if (produced == 0 && consumed == 0)
            break;
    }
    return hint == 0;
}

void put32(std::string* file, std::size_t at, std::uint32_t value) {
    if (at + sizeof value <= file->size())
        std::memcpy(file->data() + at, &value, sizeof value);
}

// Sets the right checksums along the first frame.
void mend(std::string* file) {
    if (file->size() < LZ4_HEADER_SIZE)
        return;
    put32(file, 0, LZ4_MAGIC);
    const auto flags = static_cast<unsigned char>((*file)[4]);
    std::size_t at = (flags & LZ4_CONTENT_SIZE) != 0 ? LZ4_HEADER_SIZE + LZ4_CONTENT_SIZE_FIELD : LZ4_HEADER_SIZE;
    if (at > file->size())
        return;
    (*file)[at - 1] = static_cast<char>(XXH32(file->data() + 4, at - 5, 0) >> 8);
    std::string bytes;
    while (at + sizeof(std::uint32_t) <= file->size()) {
        std::uint32_t length = 0;
        std::memcpy(&length, file->data() + at, sizeof length);
        const std::size_t size = length & ~LZ4_STORED;
        const char* const block = file->data() + at + sizeof length;
        if (size == 0) {
            put32(file, at + sizeof length, XXH32(bytes.data(), bytes.size(), 0));
            return;
        }
        if (size > file->size() - at - sizeof length)
            return;
        put32(file, at + sizeof length + size, XXH32(block, size, 0));
        std::string room(LZ4_UNIT, '\0');
        if ((length & LZ4_STORED) != 0)
            bytes.append(block, size);
        else if (const int got = LZ4_decompress_safe(block, room.data(), static_cast<int>(size), LZ4_UNIT); got > 0)
            bytes.append(room.data(), static_cast<std::size_t>(got));
        at += size + LZ4_BLOCK_OVERHEAD;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const std::uint8_t how = input.byte();
    std::string file(input.rest());
    if ((how & 1) != 0)
        mend(&file);
    const Answer whole = readAll(file, SIZE_MAX);
    const Answer pieces = readAll(file, 1 + (how >> 1));
    FUZZ_CHECK(whole.bytes == pieces.bytes);
    FUZZ_CHECK(whole.isComplete == pieces.isComplete && whole.error == pieces.error);
    std::string expected;
    if (whole.isComplete && readByLibrary(file, &expected))
        FUZZ_CHECK(whole.bytes == expected);
    return 0;
}
