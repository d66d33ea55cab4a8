// Each block becomes an LZ4 frame of its own, of units of at most 64 KB with a checksum each.

#include "compression/lz4.h"

#include <lz4.h>
#include <lz4hc.h>

#include <algorithm>
#include <array>

#include "compression/compression_internal.h"

namespace {

constexpr int FASTEST_SLOW_LEVEL = 4;  // from here on the slow compressor
constexpr std::byte FLAGS{0x40 | LZ4_INDEPENDENT | LZ4_BLOCK_CHECKSUM | LZ4_CONTENT_CHECKSUM};

int compressFast(void* workspace, const char* source, char* dest, int sourceSize, int room, int /*level*/) {
    return LZ4_compress_fast_extState(workspace, source, dest, sourceSize, room, 1);
}

// One unit behind `p`: its length, the bytes, their checksum. Units that don't shrink are stored as they are.
void writeUnit(DqCompressionEngine* engine, const std::byte* unit, std::size_t size, DqCompressionBuffer* out) {
    auto* const dest = reinterpret_cast<char*>(out->p + LZ4_LENGTH_SIZE);
    const auto* const source = reinterpret_cast<const char*>(unit);
    const int room = static_cast<int>(size) - 1;
    const int packed =
        engine->lz4.compress(engine->lz4.workspace.get(), source, dest, static_cast<int>(size), room, engine->_level);
    if (packed > 0) {
        dqPut32(out, static_cast<std::uint32_t>(packed));
        out->p += packed;
    } else {
        dqPut32(out, static_cast<std::uint32_t>(size) | LZ4_STORED);
        dqPut(out, {unit, size});
    }
    const std::size_t stored = packed > 0 ? static_cast<std::size_t>(packed) : size;
    dqPut32(out, XXH32(dest, stored, LZ4_SEED));
    (void)XXH32_update(engine->lz4.streamHash.get(), unit, size);
}

DqCompressionErr finishFrame(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    if (!dqMakeRoom(&state->output.buf, LZ4_BLOCK_OVERHEAD)) {
        engine._eof = true;
        return DQ_SUCCESS;
    }
    dqPut32(&state->output.buf, 0);
    dqPut32(&state->output.buf, XXH32_digest(engine.lz4.streamHash.get()));
    engine.lz4.inFrame = false;
    dqFinishBlock(state);
    return DQ_SUCCESS;
}

}  // namespace

std::byte lz4HeaderChecksum(const std::byte* descriptor, std::size_t size) {
    return static_cast<std::byte>(XXH32(descriptor, size, LZ4_SEED) >> 8 & 0xFF);
}

bool lz4Prepare(DqCompressionEngine* engine) {
    DqLz4State& lz4 = engine->lz4;
    const bool slow = engine->_level >= FASTEST_SLOW_LEVEL;
    lz4.compress = slow ? LZ4_compress_HC_extStateHC : compressFast;
    lz4.decompress = LZ4_decompress_safe;
    const int size = slow ? LZ4_sizeofStateHC() : LZ4_sizeofState();
    lz4.workspace.reset(static_cast<std::byte*>(std::malloc(static_cast<std::size_t>(size))));
    lz4.streamHash.reset(XXH32_createState());
    return lz4.workspace && lz4.streamHash;
}

DqCompressionErr lz4NewBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqLz4State& lz4 = engine.lz4;
    if (!dqMakeRoom(&state->output.buf, LZ4_HEADER_SIZE)) {
        engine._eof = true;
        return DQ_SUCCESS;
    }
    dqAdvanceBlock(state);
    lz4.inFrame = lz4.blockChecksum = lz4.hashing = true;
    lz4.dependent = false;
    lz4.blockSizeCode = LZ4_CODE_64K;
    (void)XXH32_reset(lz4.streamHash.get(), LZ4_SEED);
    const std::array<std::byte, 2> descriptor = {FLAGS, static_cast<std::byte>(LZ4_CODE_64K << LZ4_CODE_SHIFT)};
    dqPut32(&state->output.buf, LZ4_MAGIC);
    dqPut(&state->output.buf, descriptor);
    *state->output.buf.p++ = lz4HeaderChecksum(descriptor.data(), descriptor.size());
    return DQ_SUCCESS;
}

DqCompressionErr lz4Compress(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqCompressionChannel& inpput = state->inpput;
    for (;;) {
        const auto left = static_cast<std::size_t>(engine._blkend - inpput.offset);
        const std::size_t available = std::min(inpput.buf.bytes(), left);
        const std::size_t unit = std::min(available, LZ4_UNIT);
        const bool isWhole = unit == LZ4_UNIT || unit == left || engine._flush;
        if (unit == 0)
            return left == 0 || engine._flush ? finishFrame(state) : DQ_SUCCESS;
        if (!isWhole)
            return DQ_SUCCESS;
        if (!dqMakeRoom(&state->output.buf, unit + LZ4_BLOCK_OVERHEAD)) {
            engine._eof = true;
            return DQ_SUCCESS;
        }
        writeUnit(&engine, inpput.buf.low, unit, &state->output.buf);
        DqCompressionConsume(&inpput, unit);
    }
}

std::size_t dqBlockBound(const DqCompressionEngine& engine) {
    const std::size_t block = engine._blockoctets;
    if (engine._type == DQ_ENGINE_LZ4)
        return LZ4_HEADER_SIZE + block + (block / LZ4_UNIT + 2) * LZ4_BLOCK_OVERHEAD;
    return block + block / 16 + 64;  // more than zlib's own bound at any level
}
