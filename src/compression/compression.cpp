#include "compression/compression.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "compression/compression_internal.h"
#include "log/logger.h"

namespace {

// Output that nobody has asked for yet goes to its file in pieces of this size.
constexpr std::size_t WRITE_BATCH = 262144;

// Where a state stands: what a call that moved something has changed.
struct Position {
    off_t input = 0;
    off_t inputEnd = 0;
    off_t output = 0;
    off_t outputEnd = 0;
    bool blockOpen = false;
    bool inFrame = false;

    bool operator==(const Position&) const = default;
};

Position positionOf(const DqCompressionState& state) {
    const DqCompressionEngine& engine = state._impl->_engine;
    return {state.inpput.offset,       dqEndOffset(state.inpput), state.output.offset,
            dqEndOffset(state.output), engine.blockOpen,          engine.lz4.inFrame};
}

DqCompressionErr moveOutput(DqCompressionState* state) {
    DqCompressionChannel& output = state->output;
    const bool wanted = output._flush || state->_impl->_engine._eof || output.buf.bytes() >= WRITE_BATCH;
    while (wanted && dqHasFile(output) && output.buf.bytes() > 0) {
        const std::size_t before = output.buf.bytes();
        if (const DqCompressionErr error = DqCompressionWrite(state, before); error != DQ_SUCCESS)
            return error;
        if (output.buf.bytes() == before)
            break;
    }
    return DQ_SUCCESS;
}

// Reads when it is worth it: when the engine can't go on, or with more than half of the buffer free. On a flush too:
// what is there is used up first, so that it needn't be moved over and over.
DqCompressionErr moveInput(DqCompressionState* state, bool isStuck) {
    DqCompressionChannel& inpput = state->inpput;
    DqCompressionEngine& engine = state->_impl->_engine;
    const std::size_t space = inpput.buf.capacity() - inpput.buf.bytes();
    const bool isWorthIt = isStuck || space > inpput.buf.capacity() / 8 * 7;
    if (isWorthIt && !inpput._eof && space > 0)
        if (const DqCompressionErr error = DqCompressionRead(state, space); error != DQ_SUCCESS)
            return error;
    if (inpput._eof) {
        state->output._flush = true;
        if (engine.blockOpen)
            engine._blkend = std::min(engine._blkend, dqEndOffset(inpput));
    }
    return DQ_SUCCESS;
}

void pass(DqCompressionState* state) {
    DqCompressionBuffer& in = state->inpput.buf;
    DqCompressionBuffer& out = state->output.buf;
    (void)dqMakeRoom(&out, in.bytes());  // what there is will do
    const std::size_t count = std::min(in.bytes(), out.room());
    dqPut(&out, {in.low, count});
    DqCompressionConsume(&state->inpput, count);
}

DqCompressionErr newBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    if (engine._blkend >= dqEndOffset(state->inpput))
        return DQ_SUCCESS;
    const DqCompressionErr error = engine._type == DQ_ENGINE_LZ4 ? lz4NewBlock(state) : zlibNewBlock(state);
    if (error != DQ_SUCCESS || !engine.blockOpen)
        return error;
    return dqRecordBlock(state);
}

DqCompressionErr compress(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    if (engine.blockOpen) {
        const DqCompressionErr error = engine._type == DQ_ENGINE_LZ4 ? lz4Compress(state) : zlibCompress(state);
        if (error != DQ_SUCCESS)
            return error;
    }
    return engine.blockOpen ? DQ_SUCCESS : newBlock(state);
}

DqCompressionErr step(DqCompressionState* state) {
    if (state->_op == DQ_COMPRESS)
        return compress(state);
    if (state->_op == DQ_PASS) {
        pass(state);
        return DQ_SUCCESS;
    }
    if (state->_impl->_engine._type != DQ_ENGINE_LZ4)
        return DQ_FAIL(state, DQ_INVALID_STATE, "%.80s: no decompressor for engine %d\n", __func__,
                       static_cast<int>(state->_impl->_engine._type));
    return lz4Decompress(state);
}

// `isStuck`: the round before stopped for want of input or room.
DqCompressionErr oneRound(DqCompressionState* state, bool isStuck) {
    DqCompressionErr error = dqSynchronize(state);
    if (error == DQ_SUCCESS)
        error = moveOutput(state);
    if (error == DQ_SUCCESS)
        error = moveInput(state, isStuck);
    if (error == DQ_SUCCESS)
        error = step(state);
    // The end of the compressed data is no reason to hold back what came before it.
    if (error == DQ_SUCCESS)
        error = moveOutput(state);
    return error;
}

bool isVersion(const DqCompressionChannel& channel) {
    return channel._version == DQ_VERSION && channel.buf._version == DQ_VERSION;
}

DqCompressionErr failClose(DqCompressionState* state) {
    const DqCompressionEngine& engine = state->_impl->_engine;
    return DQ_FAIL(state, DQ_FILE_ERROR, "%.80s: Unable to finish compression: _engine._eof=%d, output._eof=%d\n",
                   "DqCompressionClose", engine._eof, state->output._eof);
}

DqCompressionErr pending(DqCompressionState* state) {
    state->_error = DQ_OUTPUT_PENDING;
    return DQ_OUTPUT_PENDING;
}

// The last block may be short, and the one before it may still be in the buffer.
DqCompressionErr finishBlocks(DqCompressionState* state) {
    Position before;
    do {
        before = positionOf(*state);
        state->_impl->_engine._flush = true;
        if (const DqCompressionErr error = DqCompressionFlush(state); error != DQ_SUCCESS)
            return error;
    } while (positionOf(*state) != before);
    if (state->inpput.buf.bytes() == 0 && !state->_impl->_engine.blockOpen)
        return DQ_SUCCESS;
    return state->output.buf.bytes() > 0 && !state->output._eof ? pending(state) : failClose(state);
}

// Writes what is left. DQ_OUTPUT_PENDING if the caller must take it.
DqCompressionErr drain(DqCompressionState* state) {
    state->output._flush = true;
    if (const DqCompressionErr error = moveOutput(state); error != DQ_SUCCESS)
        return error;
    if (state->output.buf.bytes() == 0)
        return DQ_SUCCESS;
    if (!dqHasFile(state->output) || !state->output._eof)
        return pending(state);
    return DQ_FAIL(state, DQ_FILE_ERROR, "%.80s: Unable to write compressed file: output._fd=%d, ._eof=%d\n",
                   "DqCompressionClose", state->output._fd, state->output._eof);
}

DqCompressionErr finishIndex(DqCompressionState* state) {
    bool done = false;
    while (!done) {
        if (const DqCompressionErr error = DqCompressionCloseIndex(state, &done); error != DQ_SUCCESS)
            return error;
        if (const DqCompressionErr error = drain(state); error != DQ_SUCCESS)
            return error;
    }
    return DQ_SUCCESS;
}

DqCompressionErr finishFile(DqCompressionState* state) {
    DqCompressionChannel& output = state->output;
    const bool isGood = (output._file == nullptr || std::fflush(output._file) == 0) && dqCloseChannel(&output) == 0;
    return isGood ? DQ_SUCCESS
                  : DQ_FAIL(state, DQ_FILE_ERROR, "%.80s: can't write the end of the file: %s\n", "DqCompressionClose",
                            std::strerror(errno));
}

}  // namespace

DqCompressionErr dqCheck(const DqCompressionState* state) {
    if (state == nullptr || state->_version != DQ_VERSION)
        return DQ_BAD_ARGUMENT;
    if (!state->_impl)
        return DQ_BAD_DATA;
    const DqCompressionImpl& impl = *state->_impl;
    if (!isVersion(state->inpput) || !isVersion(state->output) || impl._engine._version != DQ_VERSION)
        return DQ_BAD_ARGUMENT;
    return state->_error == DQ_OUTPUT_PENDING ? DQ_SUCCESS : state->_error;
}

void dqAdvanceBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    engine._blkstart = engine._blkend;
    engine._blkend += static_cast<off_t>(engine._blockoctets);
    engine.blockOutput = dqEndOffset(state->output);
    engine.blockOpen = true;
    engine._eof = false;
}

void dqFinishBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    engine._blkend = state->inpput.offset;
    engine.blockOpen = false;
    engine._eof = true;
    engine._flush = false;
}

DqCompressionErr DqCompressionBlock(DqCompressionState* state) {
    if (const DqCompressionErr error = dqCheck(state); error != DQ_SUCCESS)
        return error;
    DqCompressionEngine& engine = state->_impl->_engine;
    state->_error = DQ_SUCCESS;
    engine._eof = false;
    Position before;
    bool isStuck = false;
    bool wasStuck = false;
    do {
        before = positionOf(*state);
        wasStuck = isStuck;
        engine._eof = false;
        if (const DqCompressionErr error = oneRound(state, wasStuck); error != DQ_SUCCESS)
            return error;
        isStuck = engine._eof || positionOf(*state) == before;
    } while (!engine.lz4.frameEnded && (positionOf(*state) != before || (isStuck && !wasStuck)));
    return state->_error;
}

DqCompressionErr DqCompressionFlush(DqCompressionState* state) {
    if (const DqCompressionErr error = dqCheck(state); error != DQ_SUCCESS)
        return error;
    Position before;
    DqCompressionErr error = DQ_SUCCESS;
    do {
        before = positionOf(*state);
        state->inpput._flush = state->output._flush = true;
        error = DqCompressionBlock(state);
    } while (error == DQ_SUCCESS && positionOf(*state) != before);
    state->inpput._flush = state->output._flush = false;
    return error;
}

DqCompressionErr DqCompressionClose(DqCompressionState* state) {
    if (state == nullptr || state->_version != DQ_VERSION)
        return DQ_BAD_ARGUMENT;
    if (state->_error == DQ_OUTPUT_PENDING)
        state->_error = DQ_SUCCESS;
    dqDump(state->_error == DQ_SUCCESS ? 6 : 0, *state);
    if (state->_error != DQ_SUCCESS || state->_op == DQ_DECOMPRESS) {
        LOG_HERE(3, "Destroying %s state.\n", state->_op == DQ_DECOMPRESS ? "decompression" : "broken compression");
        dqDestroy(state);
        return DQ_SUCCESS;
    }
    DqCompressionErr error = finishBlocks(state);
    if (error == DQ_SUCCESS)
        error = state->_op == DQ_COMPRESS ? finishIndex(state) : drain(state);
    if (error == DQ_SUCCESS)
        error = finishFile(state);
    if (error == DQ_SUCCESS)
        dqDestroy(state);
    return error;
}
