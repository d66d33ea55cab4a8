#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "archive/archive_internal.h"
#include "archive/tar_header.h"
#include "archive/transform.h"
#include "log/logger.h"

namespace {

constexpr std::size_t TOKEN_BUFFER = 65536;

int failCompression(std::size_t remaining) {
    LOG_HERE(0, "Failed to compress archive data");
    LOG_HERE(0, "Error: %ld input blocks remain\n", static_cast<long>(remaining));
    return archive_fail(EBADMSG);
}

int makeRoom(ArchiveBuffer* buffer, std::size_t count) {
    if (buffer->room() >= count)
        return 0;
    const std::size_t needed = buffer->start + buffer->bytes + count;
    return archive_grow_buffer(buffer, std::max(needed, buffer->size + buffer->size / 2), 0);
}

int append(ArchiveBuffer* buffer, std::span<const std::byte> data) {
    if (makeRoom(buffer, data.size()) == -1)
        return -1;
    std::ranges::copy(data, buffer->end());
    buffer->bytes += data.size();
    return 0;
}

int takeCompressed(DqCompressionState* state, ArchiveBuffer* output) {
    const std::size_t count = state->output.buf.bytes();
    if (append(output, {state->output.buf.low, count}) == -1)
        return -1;
    DqCompressionConsume(&state->output, count);
    return 0;
}

// Encrypts on the way, if that is asked for: the ciphered bytes are never in a buffer of their own.
int put(Transform* transform, std::span<const std::byte> data, bool isEncrypting, std::byte* to) {
    if (isEncrypting)
        return transform_cipher(transform, CDLIB_ENCRYPT, data.data(), to, data.size());
    std::ranges::copy(data, to);
    return 0;
}

// Through the compressor's input. What it can't compress yet for lack of a whole block stays there.
int compress(Transform* transform, std::span<const std::byte> data, bool isEncrypting, ArchiveBuffer* output) {
    DqCompressionState& state = transform->compression;
    while (!data.empty()) {
        DqCompressionMakeRoom(&state.inpput, data.size());  // what there is will do
        std::size_t count = std::min(data.size(), state.inpput.buf.room());
        if (isEncrypting && count < data.size())
            count = count / CDLIB_BLOCK_SIZE * CDLIB_BLOCK_SIZE;
        if (count == 0)
            return failCompression(data.size());
        if (put(transform, data.first(count), isEncrypting, state.inpput.buf.p) == -1)
            return -1;
        state.inpput.buf.p += count;
        data = data.subspan(count);
        if (DqCompressionFlush(&state) < 0)
            return failCompression(state.inpput.buf.bytes() + data.size());
        if (takeCompressed(&state, output) == -1)
            return -1;
    }
    return 0;
}

int pass(Transform* transform, std::span<const std::byte> data, bool isEncrypting, ArchiveBuffer* output) {
    if ((transform->flags & TRANSFORM_COMPRESS) != 0)
        return compress(transform, data, isEncrypting, output);
    if (makeRoom(output, data.size()) == -1 || put(transform, data, isEncrypting, output->end()) == -1)
        return -1;
    output->bytes += data.size();
    return 0;
}

int failSession(const char* what, const CDlibResult& result) {
    LOG_HERE(0, "Failed to initialize encryption");
    LOG_HERE(0, "%s\n", what);
    LOG_HERE(0, "Error: %.64s\n", result.text);
    return archive_fail(EBADMSG);
}

// Opens the session, and puts its token in front of the stream. A token that no reader could take is refused.
int putToken(Transform* transform, ArchiveBuffer* output, std::size_t* tokenLength) {
    CDlibResult result{};
    if (CDlibInitCryptWithArchiveKey(&transform->crypt, &result) != 0)
        return failSession("Failed to initialize cryptoDaemon with archive key", result);
    std::array<std::byte, TOKEN_BUFFER> token;
    int length = static_cast<int>(token.size());
    if (CDlibGetToken(token.data(), &length, &transform->crypt, &result) != 0)
        return failSession("Failed to get the session's token", result);
    const auto size = static_cast<std::size_t>(length);
    const TarHeader header = std::span<const std::byte>(token).first<TAR_BLOCK>();
    const bool isSound = length > static_cast<int>(TAR_BLOCK) && size <= token.size() && size % TAR_BLOCK == 0 &&
                         is_encryption_token(header) && is_tar(header) &&
                         tar_size(header, TAR_SIZE) + TAR_BLOCK == size;
    if (!isSound)
        return failSession("Bad encrypted header", result);
    if (pass(transform, std::span(token).first(size), false, output) == -1)
        return -1;
    *tokenLength = size;
    LOG_HERE(3, "set encrypted extra bytes %d\n", length);
    return 0;
}

}  // namespace

int transform_write(Transform* transform, std::span<const std::byte> data, ArchiveBuffer* output,
                    std::size_t* tokenLength) {
    const bool isEncrypting = (transform->flags & TRANSFORM_ENCRYPT) != 0;
    if ((transform->flags & TRANSFORM_FIRST_CALL) != 0) {
        if (isEncrypting && putToken(transform, output, tokenLength) == -1)
            return -1;
        transform->flags &= ~static_cast<unsigned>(TRANSFORM_FIRST_CALL);
    }
    return data.empty() ? 0 : pass(transform, data, isEncrypting, output);
}

int transform_finish(Transform* transform, ArchiveBuffer* output) {
    if ((transform->flags & TRANSFORM_COMPRESS) == 0)
        return 0;
    transform->flags |= TRANSFORM_LAST_CALL;
    DqCompressionState& state = transform->compression;
    if (state._error < 0)
        return failCompression(state.inpput.buf.bytes());
    const DqCompressionErr result = DqCompressionClose(&state);
    if (result < 0)
        return failCompression(state.inpput.buf.bytes());
    if (result == DQ_SUCCESS)
        return 0;
    if (state.output.buf.bytes() == 0) {
        LOG_HERE(0, "Error when flushing data: expected pending compressed data but found none\n");
        return archive_fail(EBADMSG);
    }
    return takeCompressed(&state, output) == -1 ? -1 : 1;
}
