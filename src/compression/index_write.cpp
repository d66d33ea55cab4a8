// The index behind the data: two tables of block offsets, the second with a stride, each with a header and a trailer.
// It is written as room comes free: _offset counts what should be there, _written what is.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "compression/compression_internal.h"

namespace {

constexpr char CLOSE_INDEX[] = "DqCompressionCloseIndex";
constexpr std::size_t FRAME_SIZE = 32;  // of a header, and of a trailer
using Frame = std::array<std::byte, FRAME_SIZE>;

// NUL-padded; a text that fills the frame is cut, and readers expect that of the checksum's last digits.
Frame frameOf(const std::string& text) {
    Frame frame{};
    std::memcpy(frame.data(), text.data(), std::min(text.size(), frame.size() - 1));
    return frame;
}

Frame headerOf(const DqCompressionIndex& index, const DqIndexTable& table) {
    return frameOf(formatString("%.6s%-8zu%d", index._magic, table.chunk, DQ_VERSION));
}

Frame trailerOf(const DqCompressionIndex& index, const DqIndexTable& table) {
    const std::size_t size = index._headerpadding + index._trailerpadding + table.count * sizeof(off_t);
    return frameOf(formatString("%6s %zu %lu ", index._magic, size, table.checksum));
}

DqIndexTable tableOf(const DqCompressionIndex& index, std::size_t stride, std::size_t chunk) {
    const std::span<const std::int64_t> entries(index._low.get(), index.count());
    return {stride, chunk, (entries.size() + stride - 1) / stride, dqIndexChecksum(entries, stride)};
}

// The next bytes of the index: those that are written already are passed over, the others are put as far as they fit.
void put(DqCompressionState* state, std::span<const std::byte> bytes) {
    DqCompressionIndex& index = state->_impl->_index;
    DqCompressionBuffer& out = state->output.buf;
    const auto from = static_cast<std::size_t>(index._offset);
    index._offset += static_cast<off_t>(bytes.size());
    if (index._written < from || index._written >= from + bytes.size())
        return;
    const std::span<const std::byte> rest = bytes.subspan(index._written - from);
    const std::size_t count = std::min(rest.size(), out.room());
    dqPut(&out, rest.first(count));
    index._written += count;
}

void putEntries(DqCompressionState* state, const DqIndexTable& table) {
    static constexpr std::array<std::byte, 8192 * sizeof(off_t)> ZEROS{};
    const DqCompressionIndex& index = state->_impl->_index;
    const std::span<const off_t> entries(index._low.get(), index.count());
    if (table.stride == 1)
        put(state, std::as_bytes(entries));
    else
        for (std::size_t i = 0; i < entries.size(); i += table.stride)
            put(state, std::as_bytes(entries.subspan(i, 1)));
    if (table.count < index._tablepadding)
        put(state, std::span(ZEROS).first((index._tablepadding - table.count) * sizeof(off_t)));
}

}  // namespace

std::uint64_t dqIndexChecksum(std::span<const std::int64_t> entries, std::size_t stride) {
    constexpr std::size_t GROUP = 128;
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < entries.size();) {
        uLong crc = crc32(0, nullptr, 0);
        const std::size_t run = stride == 1 ? std::min(GROUP, entries.size() - i) : 1;
        for (std::size_t n = 0; n < GROUP && i < entries.size(); n += run, i += run * stride)
            crc = crc32(crc, reinterpret_cast<const Bytef*>(&entries[i]), static_cast<uInt>(run * sizeof entries[i]));
        sum += crc;
    }
    return sum;
}

DqCompressionErr dqRecordBlock(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    DqCompressionIndex& index = state->_impl->_index;
    if (engine._blkend <= index._segend)
        return DQ_SUCCESS;
    const std::size_t count = index.count();
    if (index._p == index._high) {
        const std::size_t newCapacity = 2 * count + 1;
        auto* const table = static_cast<off_t*>(std::realloc(index._low.get(), newCapacity * sizeof(off_t)));
        if (table == nullptr)
            return DQ_FAIL(state, DQ_NO_MEMORY, "%.80s newlen=%lu\n", __func__, newCapacity);
        (void)index._low.release();
        index._low.reset(table);
        index._p = table + count;
        index._high = table + newCapacity;
        std::fill(index._p, index._high, 0);
    }
    *index._p++ = engine.blockOutput;
    index._segstart = engine._blkstart;
    index._segend = index._segstart + static_cast<off_t>(index._segmentoctets);
    return DQ_SUCCESS;
}

DqCompressionErr DqCompressionCloseIndex(DqCompressionState* state, bool* done) {
    DqCompressionIndex& index = state->_impl->_index;
    if (!index.tablesReady) {
        index.tables[0] = tableOf(index, 1, index._segmentoctets);
        index.tables[1] = tableOf(index, DQ_SECONDARY_CHUNK / index._segmentoctets, DQ_SECONDARY_CHUNK);
        index.tablesReady = true;
    }
    (void)dqMakeRoom(&state->output.buf, state->output.buf.capacity());  // all the room there is
    index._offset = 0;
    for (const DqIndexTable& table : index.tables) {
        put(state, headerOf(index, table));
        putEntries(state, table);
        put(state, trailerOf(index, table));
    }
    const auto planned = static_cast<std::size_t>(index._offset);
    *done = index._written >= planned;
    if (*done && index._written != planned)
        return DQ_FAIL(state, DQ_INVALID_STATE, "%.80s: Compression index calculated offset %zu != %zu written\n",
                       CLOSE_INDEX, planned, index._written);
    return DQ_SUCCESS;
}
