#include <algorithm>
#include <cstring>

#include "compression/compression_internal.h"
#include "compression/lz4.h"
#include "log/logger.h"

namespace {

enum class Step { WENT_ON, MUST_WAIT, FRAME_ENDED, FAILED };

std::uint32_t number32(const std::byte* bytes) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

Step failed(DqCompressionErr /*error*/) {
    return Step::FAILED;
}
#define DAMAGED(format, ...) failed(DQ_FAIL(state, DQ_BAD_DATA, format __VA_OPT__(, ) __VA_ARGS__))
#define TOO_SMALL(format, ...) failed(DQ_FAIL(state, DQ_INVALID_STATE, format __VA_OPT__(, ) __VA_ARGS__))

// Not a failure: the compressed data has ended, and what follows is for others to read.
Step notCompressed(DqCompressionState* state) {
    const auto* const b = reinterpret_cast<const unsigned char*>(state->inpput.buf.low);
    LOG_HERE(0, "Not a LZ4 magic number: %x%x%x%x\n", b[0], b[1], b[2], b[3]);
    state->inpput._eof = true;
    state->_error = DQ_NOT_COMPRESSED;
    return Step::FAILED;
}

Step checkDescriptor(DqCompressionState* state, unsigned flags, unsigned sizes) {
    const bool isVersion1 = (flags & LZ4_VERSION_MASK) == LZ4_VERSION_1;
    if ((flags & LZ4_DICTIONARY) != 0 || !isVersion1 || (flags & LZ4_INDEPENDENT) == 0)
        return DAMAGED("Invalid LZ4 stream FLG version: %x != 0x40\n", flags & LZ4_VERSION_MASK);
    if ((sizes & LZ4_RESERVED_MASK) != 0 || sizes >> LZ4_CODE_SHIFT < LZ4_CODE_64K)
        return DAMAGED("Invalid LZ4 stream BD reserved bits: %x\n", sizes & LZ4_RESERVED_MASK);
    return Step::WENT_ON;
}

Step readHeader(DqCompressionState* state) {
    DqLz4State& lz4 = state->_impl->_engine.lz4;
    const DqCompressionBuffer& in = state->inpput.buf;
    if (in.bytes() < LZ4_HEADER_SIZE)
        return Step::MUST_WAIT;
    if (number32(in.low) != LZ4_MAGIC)
        return notCompressed(state);
    const std::byte* const descriptor = in.low + sizeof LZ4_MAGIC;
    const auto flags = static_cast<unsigned>(descriptor[0]);
    const auto sizes = static_cast<unsigned>(descriptor[1]);
    if (const Step step = checkDescriptor(state, flags, sizes); step != Step::WENT_ON)
        return step;
    const std::size_t size = LZ4_HEADER_SIZE + ((flags & LZ4_CONTENT_SIZE) != 0 ? LZ4_CONTENT_SIZE_FIELD : 0);
    if (in.bytes() < size)
        return Step::MUST_WAIT;
    if (lz4HeaderChecksum(descriptor, size - sizeof LZ4_MAGIC - 1) != in.low[size - 1])
        return DAMAGED("LZ4 header checksum error\n");
    lz4.inFrame = true;
    lz4.dependent = false;
    lz4.blockChecksum = (flags & LZ4_BLOCK_CHECKSUM) != 0;
    lz4.hashing = (flags & LZ4_CONTENT_CHECKSUM) != 0;
    lz4.blockSizeCode = sizes >> LZ4_CODE_SHIFT & LZ4_CODE_MASK;
    (void)XXH32_reset(lz4.streamHash.get(), LZ4_SEED);
    DqCompressionConsume(&state->inpput, size);
    return Step::WENT_ON;
}

Step endFrame(DqCompressionState* state) {
    DqLz4State& lz4 = state->_impl->_engine.lz4;
    std::uint32_t digest = 0;
    if (lz4.hashing)
        digest = XXH32_digest(lz4.streamHash.get());
    else
        LOG_HERE(0, "LZ4 stream checksum is NULL.\n");
    if (digest != number32(state->inpput.buf.low + LZ4_LENGTH_SIZE))
        return DAMAGED("LZ4 stream hash failed.\n");
    DqCompressionConsume(&state->inpput, LZ4_BLOCK_OVERHEAD);
    lz4.inFrame = false;
    return Step::FRAME_ENDED;
}

// Behind `p`: the clean bytes of a block whose checksum is right. Nothing is moved yet.
Step unpack(DqCompressionState* state, const std::byte* block, std::size_t length, bool isStored, std::size_t* clean) {
    DqLz4State& lz4 = state->_impl->_engine.lz4;
    DqCompressionBuffer& out = state->output.buf;
    const std::size_t most = lz4BlockMaximum(lz4.blockSizeCode);
    const std::size_t wanted = isStored ? length : most;
    // With less room than a block can need, decompressing might be for nothing; the caller takes what is there first.
    if (!dqMakeRoom(&out, wanted) && out.bytes() > 0)
        return Step::MUST_WAIT;
    if (out.room() < wanted && !dqGrow(&out, wanted) && isStored)
        return TOO_SMALL("The output buffer of %zu bytes can't take an LZ4 block of %zu.\n", out.capacity(), length);
    if (isStored) {
        std::memcpy(out.p, block, length);
        *clean = length;
        return Step::WENT_ON;
    }
    const int unpacked = lz4.decompress(reinterpret_cast<const char*>(block), reinterpret_cast<char*>(out.p),
                                        static_cast<int>(length), static_cast<int>(std::min(out.room(), most)));
    if (unpacked <= 0 && out.room() < most)
        return TOO_SMALL("The output buffer of %zu bytes can't take an LZ4 block.\n", out.capacity());
    if (unpacked <= 0)
        return DAMAGED("LZ4 block of %zu bytes can't be decompressed.\n", length);
    *clean = static_cast<std::size_t>(unpacked);
    return Step::WENT_ON;
}

Step readBlock(DqCompressionState* state) {
    DqLz4State& lz4 = state->_impl->_engine.lz4;
    DqCompressionBuffer& in = state->inpput.buf;
    if (in.bytes() < LZ4_LENGTH_SIZE)
        return Step::MUST_WAIT;
    const std::uint32_t word = number32(in.low);
    const std::size_t length = word & ~LZ4_STORED;
    if (length > lz4BlockMaximum(lz4.blockSizeCode))
        return DAMAGED("LZ4 block of %zu bytes, the frame allows %zu.\n", length, lz4BlockMaximum(lz4.blockSizeCode));
    const std::size_t total = length + LZ4_BLOCK_OVERHEAD;
    if (in.bytes() < total) {
        if (!in.isLent && !dqMakeRoom(&in, total - in.bytes()) && !dqGrow(&in, total))
            return TOO_SMALL("The input buffer of %zu bytes can't take an LZ4 block of %zu.\n", in.capacity(), total);
        return Step::MUST_WAIT;
    }
    if (length == 0)
        return endFrame(state);
    const std::byte* const block = in.low + LZ4_LENGTH_SIZE;
    if (XXH32(block, length, LZ4_SEED) != number32(block + length))
        return DAMAGED("LZ4 block hash failed.\n");
    std::size_t clean = 0;
    if (const Step step = unpack(state, block, length, (word & LZ4_STORED) != 0, &clean); step != Step::WENT_ON)
        return step;
    if (lz4.hashing)
        (void)XXH32_update(lz4.streamHash.get(), state->output.buf.p, clean);
    state->output.buf.p += clean;
    DqCompressionConsume(&state->inpput, total);
    return Step::WENT_ON;
}

// Waiting in vain: the input's file has ended. Up to six bytes behind a frame are no data.
bool isCut(const DqCompressionState& state) {
    const DqCompressionChannel& inpput = state.inpput;
    if (!dqHasFile(inpput) || !inpput._eof || state.output.buf.bytes() > 0)
        return false;
    return state._impl->_engine.lz4.inFrame || inpput.buf.bytes() >= LZ4_HEADER_SIZE;
}

}  // namespace

DqCompressionErr lz4Decompress(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    Step step = Step::WENT_ON;
    while (step == Step::WENT_ON)
        step = engine.lz4.inFrame ? readBlock(state) : readHeader(state);
    engine._eof = true;
    engine.lz4.frameEnded = step == Step::FRAME_ENDED;
    if (step == Step::MUST_WAIT && isCut(*state))
        (void)DAMAGED("The LZ4 data ends inside a frame.\n");
    return state->_error;
}

void DqCompressionRestart(DqCompressionState* state) {
    if (!state->_impl)
        return;
    DqCompressionConsume(&state->inpput, state->inpput.buf.bytes());
    DqCompressionConsume(&state->output, state->output.buf.bytes());
    state->inpput._eof = false;
    state->_impl->_engine._eof = false;
    state->_impl->_engine.lz4.inFrame = false;
    if (state->_error == DQ_BAD_DATA || state->_error == DQ_NOT_COMPRESSED)
        state->_error = DQ_SUCCESS;
}

bool DqCompressionInFrame(const DqCompressionState& state) {
    return state._impl && state._impl->_engine.lz4.inFrame;
}

std::size_t DqCompressionNeededRoom(const DqCompressionState& state, std::span<const std::byte> input) {
    constexpr std::size_t SIZES_AT = sizeof LZ4_MAGIC + 1;
    if (DqCompressionInFrame(state))
        return lz4BlockMaximum(state._impl->_engine.lz4.blockSizeCode);
    return input.size() > SIZES_AT
               ? lz4BlockMaximum(static_cast<unsigned>(input[SIZES_AT]) >> LZ4_CODE_SHIFT & LZ4_CODE_MASK)
               : 0;
}
