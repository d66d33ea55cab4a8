#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "base/text.h"
#include "compression/compression_internal.h"
#include "log/logger.h"

namespace {

long long number(off_t offset) {
    return static_cast<long long>(offset);
}

std::string channelText(const char* name, const DqCompressionChannel& channel) {
    const DqCompressionBuffer& buf = channel.buf;
    return formatString(
        "  %s={_version=%d, buf={_version=%d, base=%p, low=+%td, p=+%td, high=+%td, _apifrees=%d}, offset=%lld, "
        "_eof=%d, _flush=%d, _fd=%d, _file=%p, _apicloses=%d}\n",
        name, channel._version, buf._version, static_cast<void*>(buf.base), buf.low - buf.base, buf.p - buf.base,
        buf.high - buf.base, buf._apifrees, number(channel.offset), channel._eof, channel._flush, channel._fd,
        static_cast<void*>(channel._file), channel._apicloses);
}

std::string engineText(const DqCompressionEngine& engine) {
    return formatString(
        "  _engine={_version=%d, _type=%d, _level=%d, _blockoctets=%zu, _blkstart=%lld, _blkend=%lld, open=%d, "
        "checksummed=%lld, crc=%08x, adler=%08x, blockoutput=%lld, _eof=%d, _flush=%d, _fd=%d,\n"
        "    _rx9={error_code=%d, size=%zu, context_index=%d, object_flag=%u, data_ptr=%p, consumed=%zu},\n"
        "    _zstream={avail_in=%u, total_in=%lu, avail_out=%u, total_out=%lu, msg=%.80s},\n"
        "    lz4={inframe=%d, blockchecksum=%d, dependent=%d, streamhash=%d, blocksizecode=%u}}\n",
        engine._version, static_cast<int>(engine._type), engine._level, engine._blockoctets, number(engine._blkstart),
        number(engine._blkend), engine.blockOpen, number(engine.checksumOffset), engine.crc, engine.adler,
        number(engine.blockOutput), engine._eof, engine._flush, engine._fd.get(), engine._rx9.error_code,
        engine._rx9.size, engine._rx9.context_index, engine._rx9.object_flag, static_cast<void*>(engine._rx9.data_ptr),
        engine._rx9.consumed, engine._zstream.avail_in, engine._zstream.total_in, engine._zstream.avail_out,
        engine._zstream.total_out, engine._zstream.msg != nullptr ? engine._zstream.msg : "", engine.lz4.inFrame,
        engine.lz4.blockChecksum, engine.lz4.dependent, engine.lz4.hashing, engine.lz4.blockSizeCode);
}

std::string indexText(const DqCompressionIndex& index) {
    return formatString(
        "  _index={_magic=%s, _segmentoctets=%zu, _headerpadding=%zu, _trailerpadding=%zu, _grouping=%zu, "
        "_tablepadding=%zu, _written=%zu, _offset=%lld, _low=%p, _p=+%zu, _high=+%td, _segstart=%lld, _segend=%lld}\n",
        index._magic, index._segmentoctets, index._headerpadding, index._trailerpadding, index._grouping,
        index._tablepadding, index._written, number(index._offset), static_cast<void*>(index._low.get()), index.count(),
        index._high - index._low.get(), number(index._segstart), number(index._segend));
}

}  // namespace

void dqDump(int level, const DqCompressionState& state) {
    if (level > log_level && level > log_screen_level)
        return;
    std::string text =
        formatString("DqCompressionState={_version=%d, _error=%d, _errorDetails=\"%s\", _op=%d\n", state._version,
                     static_cast<int>(state._error), state._errorDetails, static_cast<int>(state._op));
    if (state._impl)
        text += engineText(state._impl->_engine) + indexText(state._impl->_index);
    text += channelText("inpput", state.inpput) + channelText("output", state.output) + "}\n";
    LOG_HERE(level, "%s", text.c_str());
}

DqCompressionErr dqFail(DqCompressionState* state, DqCompressionErr error, const char* file, int line,
                        const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = vformatString(format, arguments);
    va_end(arguments);
    log_message(0, "%s:%d: %s", file, line, text.c_str());
    state->_error = error;
    const std::size_t length = std::min(text.find_last_not_of('\n') + 1, sizeof state->_errorDetails - 1);
    std::memcpy(state->_errorDetails, text.data(), length);
    state->_errorDetails[length] = '\0';
    dqDump(0, *state);
    return error;
}
