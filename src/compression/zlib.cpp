// Each block becomes a gzip member of its own, made from a zlib stream: the two bytes of zlib's header give way to
// gzip's ten, and its Adler-32 to gzip's CRC-32 and length. The Adler-32 is compared with one of our own first, so that
// a bit that flips on its way through deflate's window is noticed while the input can still be read again.

#include <algorithm>
#include <array>

#include "compression/compression_internal.h"

namespace {

constexpr std::size_t ZLIB_HEADER = 2;
constexpr std::size_t ZLIB_TRAILER = 4;
constexpr std::size_t GZIP_TRAILER = 8;
constexpr unsigned char ZLIB_FIRST_BYTE = 'x';
constexpr std::array<unsigned char, 10> GZIP_HEADER = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 3};
constexpr std::size_t MEMBER_OVERHEAD = GZIP_HEADER.size() + GZIP_TRAILER;

Bytef* zlibBytes(std::byte* bytes) {
    return reinterpret_cast<Bytef*>(bytes);
}

DqCompressionErr zlibFail(DqCompressionState* state, int rc, const char* call) {
    return DQ_FAIL(state, DQ_ZLIB_ERROR, "%.80s: %d(%.80s)=%s\n", __func__, rc, zError(rc), call);
}

DqCompressionErr startDeflate(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    // A stream that has ended is reset: the same bytes come out, without the memory being taken anew for each block.
    const int rc = engine.zstreamReady ? deflateReset(&engine._zstream) : deflateInit(&engine._zstream, engine._level);
    if (rc != Z_OK)
        return zlibFail(state, rc, "deflateInit");
    engine.zstreamReady = true;
    return DQ_SUCCESS;
}

DqCompressionErr writeHeader(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqCompressionBuffer& out = state->output.buf;
    z_stream& z = engine._zstream;
    z.next_in = nullptr;
    z.avail_in = 0;
    z.next_out = zlibBytes(out.p);
    z.avail_out = GZIP_HEADER.size();
    const int rc = deflate(&z, Z_NO_FLUSH);
    if (rc != Z_OK || z.total_out != ZLIB_HEADER)
        return zlibFail(state, rc, "deflate");
    const auto first = static_cast<unsigned char>(*out.p);
    if (first != ZLIB_FIRST_BYTE)
        return DQ_FAIL(state, DQ_ZLIB_ERROR, "%.80s: %02x != 0x0f\n", __func__, first);
    dqPut(&out, std::as_bytes(std::span(GZIP_HEADER)));
    z.total_out = GZIP_HEADER.size();
    return DQ_SUCCESS;
}

void sumUp(DqCompressionState* state, std::size_t available) {
    DqCompressionEngine& engine = state->_impl->_engine;
    const auto summed = static_cast<std::size_t>(engine.checksumOffset - state->inpput.offset);
    const Bytef* const bytes = zlibBytes(state->inpput.buf.low) + summed;
    const std::size_t count = available - summed;
    engine.crc = static_cast<std::uint32_t>(crc32_z(engine.crc, bytes, count));
    engine.adler = static_cast<std::uint32_t>(adler32_z(engine.adler, bytes, count));
    engine.checksumOffset += static_cast<off_t>(count);
}

DqCompressionErr writeTrailer(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqCompressionBuffer& out = state->output.buf;
    std::uint32_t target = 0;
    for (const std::byte b : std::span(out.p - ZLIB_TRAILER, ZLIB_TRAILER))
        target = target << 8 | static_cast<std::uint32_t>(b);
    if (engine.adler != target)
        return DQ_FAIL(state, DQ_ZLIB_ERROR, "%.80s: engine.adler=%08x target=%08x\n", __func__, engine.adler, target);
    out.p -= ZLIB_TRAILER;
    dqPut32(&out, engine.crc);
    dqPut32(&out, static_cast<std::uint32_t>(engine._zstream.total_in));
    dqFinishBlock(state);
    return DQ_SUCCESS;
}

}  // namespace

DqCompressionErr zlibNewBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    if (const DqCompressionErr error = startDeflate(state); error != DQ_SUCCESS)
        return error;
    // Room for all of the block: deflate must never stop in the middle of its trailer.
    if (!dqMakeRoom(&state->output.buf, deflateBound(&engine._zstream, engine._blockoctets) + MEMBER_OVERHEAD)) {
        engine._eof = true;
        return DQ_SUCCESS;
    }
    dqAdvanceBlock(state);
    engine.checksumOffset = engine._blkstart;
    engine.crc = static_cast<std::uint32_t>(crc32_z(0, nullptr, 0));
    engine.adler = static_cast<std::uint32_t>(adler32_z(0, nullptr, 0));
    return writeHeader(state);
}

DqCompressionErr zlibCompress(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqCompressionChannel& inpput = state->inpput;
    DqCompressionBuffer& out = state->output.buf;
    const auto left = static_cast<std::size_t>(engine._blkend - inpput.offset);
    const std::size_t available = std::min(inpput.buf.bytes(), left);
    const bool finish = available == left || engine._flush;
    if (available == 0 && !finish)
        return DQ_SUCCESS;
    sumUp(state, available);
    z_stream& z = engine._zstream;
    z.next_in = zlibBytes(inpput.buf.low);
    z.avail_in = static_cast<uInt>(available);
    z.next_out = zlibBytes(out.p);
    z.avail_out = static_cast<uInt>(out.room() - ZLIB_TRAILER);  // gzip's trailer is that much longer
    const int rc = deflate(&z, finish ? Z_FINISH : Z_NO_FLUSH);
    if (rc != (finish ? Z_STREAM_END : Z_OK) || z.avail_in != 0)
        return zlibFail(state, rc, "deflate");
    out.p = reinterpret_cast<std::byte*>(z.next_out);
    DqCompressionConsume(&inpput, available);
    return finish ? writeTrailer(state) : DQ_SUCCESS;
}
