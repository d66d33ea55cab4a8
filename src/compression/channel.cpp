#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "compression/compression_internal.h"

namespace {

int seekFile(const DqCompressionChannel& channel, off_t offset) {
    return channel._seek != nullptr ? channel._seek(channel._file, offset, SEEK_SET)
                                    : fseeko(channel._file, offset, SEEK_SET);
}

off_t tellFile(const DqCompressionChannel& channel) {
    return channel._tell != nullptr ? channel._tell(channel._file) : ftello(channel._file);
}

void emptyBuffer(DqCompressionBuffer* buffer) {
    buffer->low = buffer->p = buffer->base;
}

// A file that has no position, a pipe, stands where it stands.
DqCompressionErr synchronize(DqCompressionState* state, const DqCompressionChannel& channel, const char* name) {
    if (channel._file == nullptr)
        return DQ_SUCCESS;
    const off_t position = tellFile(channel);
    if (position == -1 || position == channel.offset || seekFile(channel, channel.offset) == 0)
        return DQ_SUCCESS;
    return DQ_FAIL(state, DQ_FILE_ERROR, "%s: can't seek from %lld to %lld: %s\n", name,
                   static_cast<long long>(position), static_cast<long long>(channel.offset), std::strerror(errno));
}

DqCompressionErr seekChannel(DqCompressionState* state, DqCompressionChannel DqCompressionState::*side, off_t offset,
                             const char* name) {
    if (const DqCompressionErr error = dqCheck(state); error != DQ_SUCCESS)
        return error;
    DqCompressionChannel* const channel = &(state->*side);
    if (channel->_file == nullptr)
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%s: no file to seek in\n", name);
    if (seekFile(*channel, offset) != 0)
        return DQ_FAIL(state, DQ_FILE_ERROR, "%s: can't seek to %lld: %s\n", name, static_cast<long long>(offset),
                       std::strerror(errno));
    emptyBuffer(&channel->buf);
    channel->offset = offset;
    channel->_eof = false;
    return DQ_SUCCESS;
}

// -1 with errno, 0 at the end, or the bytes read.
ssize_t readOnce(const DqCompressionChannel& channel, std::byte* to, std::size_t count) {
    if (channel._file != nullptr) {
        const std::size_t got = std::fread(to, 1, count, channel._file);
        return got == 0 && std::ferror(channel._file) != 0 ? -1 : static_cast<ssize_t>(got);
    }
    ssize_t got = 0;
    do
        got = read(channel._fd, to, count);
    while (got == -1 && errno == EINTR);
    return got;
}

ssize_t writeOnce(const DqCompressionChannel& channel, const std::byte* from, std::size_t count) {
    if (channel._file != nullptr) {
        const std::size_t took = std::fwrite(from, 1, count, channel._file);
        return took == 0 ? -1 : static_cast<ssize_t>(took);
    }
    ssize_t took = 0;
    do
        took = write(channel._fd, from, count);
    while (took == -1 && errno == EINTR);
    return took;
}

bool isNoSpace(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

}  // namespace

bool dqMakeRoom(DqCompressionBuffer* buffer, std::size_t count) {
    if (buffer->room() >= count)
        return true;
    const std::size_t bytes = buffer->bytes();
    if (buffer->low != buffer->base) {
        std::memmove(buffer->base, buffer->low, bytes);
        buffer->low = buffer->base;
        buffer->p = buffer->base + bytes;
    }
    return buffer->room() >= count;
}

bool dqGrow(DqCompressionBuffer* buffer, std::size_t size) {
    if (buffer->capacity() >= size)
        return true;
    if (!buffer->_apifrees)
        return false;
    const auto lowAt = buffer->low - buffer->base;
    const auto endAt = buffer->p - buffer->base;
    auto* const base = static_cast<std::byte*>(std::realloc(buffer->base, size));
    if (base == nullptr)
        return false;
    buffer->base = base;
    buffer->low = base + lowAt;
    buffer->p = base + endAt;
    buffer->high = base + size;
    return true;
}

void DqCompressionConsume(DqCompressionChannel* channel, std::size_t count) {
    DqCompressionBuffer& buffer = channel->buf;
    count = std::min(count, buffer.bytes());
    buffer.low += count;
    channel->offset += static_cast<off_t>(count);
    if (buffer.low == buffer.p)
        emptyBuffer(&buffer);
}

DqCompressionErr DqCompressionRead(DqCompressionState* state, std::size_t octets) {
    if (const DqCompressionErr error = dqCheck(state); error != DQ_SUCCESS)
        return error;
    DqCompressionChannel& inpput = state->inpput;
    if (!dqHasFile(inpput) || octets == 0)
        return DQ_SUCCESS;
    (void)dqMakeRoom(&inpput.buf, octets);  // what there is will do
    const std::size_t count = std::min(octets, inpput.buf.room());
    if (count == 0)
        return DQ_SUCCESS;
    const ssize_t got = readOnce(inpput, inpput.buf.p, count);
    if (got == -1 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return DQ_SUCCESS;
    if (got == -1)
        return DQ_FAIL(state, DQ_FILE_ERROR, "%s: can't read %zu bytes: %s\n", __func__, count, std::strerror(errno));
    inpput._eof = got == 0;
    inpput.buf.p += got;
    return DQ_SUCCESS;
}

DqCompressionErr DqCompressionWrite(DqCompressionState* state, std::size_t octets) {
    if (const DqCompressionErr error = dqCheck(state); error != DQ_SUCCESS)
        return error;
    DqCompressionChannel& output = state->output;
    const std::size_t count = std::min(octets, output.buf.bytes());
    if (!dqHasFile(output) || count == 0)
        return DQ_SUCCESS;
    const ssize_t took = writeOnce(output, output.buf.low, count);
    if (took == -1 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return DQ_SUCCESS;
    output._eof = took == 0 || (took == -1 && isNoSpace(errno));
    if (took == -1)
        return DQ_FAIL(state, DQ_FILE_ERROR, "%s: can't write %zu bytes: %s\n", __func__, count, std::strerror(errno));
    DqCompressionConsume(&output, static_cast<std::size_t>(took));
    return DQ_SUCCESS;
}

DqCompressionErr DqCompressionInpSeek(DqCompressionState* state, off_t offset) {
    return seekChannel(state, &DqCompressionState::inpput, offset, __func__);
}

off_t DqCompressionInpTell(const DqCompressionState& state) {
    return state.inpput._file != nullptr ? tellFile(state.inpput) : -1;
}

DqCompressionErr DqCompressionOutSeek(DqCompressionState* state, off_t offset) {
    return seekChannel(state, &DqCompressionState::output, offset, __func__);
}

off_t DqCompressionOutTell(const DqCompressionState& state) {
    return state.output._file != nullptr ? tellFile(state.output) : -1;
}

DqCompressionErr dqSynchronize(DqCompressionState* state) {
    const DqCompressionErr error = synchronize(state, state->output, "output");
    if (error != DQ_SUCCESS || state->inpput.buf.bytes() != 0 || state->inpput._eof)
        return error;
    return synchronize(state, state->inpput, "input");
}

int dqCloseChannel(DqCompressionChannel* channel) {
    FILE* const own = channel->_apicloses ? channel->_file : nullptr;
    channel->_file = nullptr;
    channel->_fd = -1;
    return own == nullptr ? 0 : std::fclose(own);
}

void DqCompressionMakeRoom(DqCompressionChannel* channel, std::size_t count) {
    (void)dqMakeRoom(&channel->buf, count);
}
