#include <algorithm>
#include <cstring>

#include "archive/archive_internal.h"
#include "archive/tar_header.h"
#include "log/logger.h"

namespace {

constexpr std::size_t CRYPT_UNIT = CDLIB_BLOCK_SIZE;
constexpr std::size_t LEAST_ROOM = 131072;  // for one step; bytes that were handed out give way to it

// Room behind what the user buffer holds, at the cost of what was handed out, and of memory at last.
int makeRoom(archive_filter* filter, std::size_t least) {
    ArchiveBuffer& user = filter->user;
    if (user.size == 0 && archive_grow_buffer(&user, filter->userBufferSize, 0) == -1)
        return -1;
    if (user.room() >= least + filter->rawBytes)
        return 0;
    std::size_t keep = 0;
    if (filter->retainedShifts > 0)
        keep = std::min(filter->retainedBytes, user.start - user.oldest) / TAR_BLOCK * TAR_BLOCK;
    const std::size_t used = keep + user.bytes + filter->rawBytes;
    std::memmove(user.data.get(), user.begin() - keep, used);
    user.start = keep;
    user.oldest = 0;
    return user.size - used >= least ? 0 : archive_grow_buffer(&user, used + least, filter->rawBytes);
}

std::span<std::byte> freeSpace(const archive_filter& filter) {
    const ArchiveBuffer& user = filter.user;
    return {user.end() + filter.rawBytes, user.room() - filter.rawBytes};
}

// Compressed bytes up to the end of a chunk, so that about as many clean ones come out as a reader is likely to want.
// 0 if the index has no answer.
std::size_t pieceByIndex(const archive_filter& filter) {
    const compression_index& index = *filter.positioner;
    const auto chunk = static_cast<std::int64_t>(index.chunkSize);
    const std::int64_t position =
        filter.virt_offset + static_cast<std::int64_t>(filter.user.bytes + filter.rawBytes + filter.encr_extra_bytes);
    auto i = static_cast<std::size_t>(position / chunk);
    const std::int64_t from = filter.fd_offset - static_cast<std::int64_t>(filter.device.bytes);
    if (position >= 0 && i + 2 < index.count() && from >= index.entries[i + 1])
        ++i;  // what the decoder holds makes up for the rest of the chunk
    if (position < 0 || i + 1 >= index.count() || from < index.entries[i] || from >= index.entries[i + 1]) {
        if (i + 1 < index.count())
            LOG_HERE(4,
                     "WARNING: calculate chunk wrong to transform data.  entries[%lld]=%lld, entries[%lld]=%lld, "
                     "relative_phy_offset %lld\n",
                     static_cast<long long>(i), static_cast<long long>(index.entries[i]), static_cast<long long>(i + 1),
                     static_cast<long long>(index.entries[i + 1]), static_cast<long long>(from));
        return 0;
    }
    const auto wanted = static_cast<std::int64_t>(std::max(index.chunkSize, filter.decompressedBlockSize));
    const auto most = static_cast<std::int64_t>(filter.device.bytes);
    std::size_t last = i + 1;
    while (last + 1 < index.count() && index.entries[last] - from < most &&
           static_cast<std::int64_t>(last) * chunk - position < wanted)
        ++last;
    return static_cast<std::size_t>(std::clamp<std::int64_t>(index.entries[last] - from, 0, most));
}

std::size_t choosePiece(const archive_filter& filter) {
    std::size_t piece = 0;
    if (filter.isCompressed() && filter.positioner && filter.has(ARCH_CONTEXT_READY))
        piece = pieceByIndex(filter);
    if (piece == 0)
        piece = filter.isEncrypted() ? filter.decryptBlockSize : filter.decompressBlockSize;
    if (!filter.has(ARCH_CONTEXT_READY))
        piece = filter.fsBlockSize;  // the token is short
    return std::min(piece, filter.device.bytes);
}

// The token is no part of the stream, and what lies before a stream's first byte can't be stepped back to.
int takeToken(archive_filter* filter) {
    ArchiveBuffer& user = filter->user;
    std::size_t length = 0;
    const int result = transform_take_token(&filter->transform, {user.end(), filter->rawBytes}, &length);
    if (result != 0)
        return result;
    filter->encr_extra_bytes = length;
    filter->rawBytes -= length;
    user.start += length;
    user.oldest = user.start;
    return 0;
}

// Makes what came out of the decompressor part of the user buffer; `unit` is what is decrypted at least.
int publish(archive_filter* filter, std::size_t skip, std::size_t unit) {
    ArchiveBuffer& user = filter->user;
    if (filter->isEncrypted()) {
        if ((filter->transform.flags & TRANSFORM_AWAIT_TOKEN) != 0) {
            const int result = takeToken(filter);
            if (result != 0)
                return result == -1 ? -1 : 0;
        }
        const std::size_t count = filter->rawBytes / unit * unit;
        const std::size_t unseen =
            std::min(count, (skip > user.bytes ? skip - user.bytes : 0) / CRYPT_UNIT * CRYPT_UNIT);
        std::byte* const from = user.end() + unseen;
        if (transform_cipher(&filter->transform, CDLIB_DECRYPT, from, from, count - unseen) == -1)
            return -1;
        user.bytes += count;
        filter->rawBytes -= count;
        return 0;
    }
    user.bytes += filter->rawBytes;
    filter->rawBytes = 0;
    return 0;
}

int decompressSome(archive_filter* filter, std::size_t skip) {
    const std::size_t all = filter->device.bytes;
    std::size_t piece = choosePiece(*filter);
    for (std::size_t least = LEAST_ROOM;;) {
        if (makeRoom(filter, least) == -1)
            return -1;
        const bool atEnd = piece == all && filter->end.physical;
        std::size_t consumed = 0;
        std::size_t produced = 0;
        const int result = transform_decompress(&filter->transform, filter->device.content().first(piece), atEnd,
                                                freeSpace(*filter), &consumed, &produced);
        if (result == TRANSFORM_NEEDS_ROOM && least < TRANSFORM_LARGEST_BLOCK) {
            least = TRANSFORM_LARGEST_BLOCK;
            continue;
        }
        if (result == TRANSFORM_NEEDS_INPUT && piece < all) {
            piece = all;  // a block may be longer than a piece
            continue;
        }
        if (result != TRANSFORM_PROGRESS)
            return result == -1 ? -1 : 1;
        filter->device.take(consumed);
        filter->rawBytes += produced;
        return publish(filter, skip, TAR_BLOCK);
    }
}

// Encrypted and nothing else: decrypted on the way from one buffer to the other.
int decryptSome(archive_filter* filter, std::size_t skip) {
    ArchiveBuffer& device = filter->device;
    ArchiveBuffer& user = filter->user;
    std::size_t piece = choosePiece(*filter);
    if (makeRoom(filter, std::min(piece, LEAST_ROOM)) == -1)
        return -1;
    piece = std::min(piece, freeSpace(*filter).size());
    if ((filter->transform.flags & TRANSFORM_AWAIT_TOKEN) != 0 || filter->rawBytes != 0) {
        if (piece == 0)
            return 1;
        std::memcpy(user.end() + filter->rawBytes, device.begin(), piece);
        filter->rawBytes += piece;
        device.take(piece);
        return publish(filter, skip, CRYPT_UNIT);
    }
    piece = piece / CRYPT_UNIT * CRYPT_UNIT;
    if (piece == 0)
        return 1;
    const std::size_t unseen = std::min(piece, skip / CRYPT_UNIT * CRYPT_UNIT);
    if (transform_cipher(&filter->transform, CDLIB_DECRYPT, device.begin() + unseen, user.end() + unseen,
                         piece - unseen) == -1)
        return -1;
    user.bytes += piece;
    device.take(piece);
    return 0;
}

}  // namespace

int archive_transform_some(archive_filter* filter, std::size_t skip) {
    if ((filter->transform.flags & TRANSFORM_NOT_COMPRESSED) != 0)
        return archive_transform_end(filter);
    const int result = filter->isCompressed() ? decompressSome(filter, skip) : decryptSome(filter, skip);
    if (result == 0 && (filter->transform.flags & TRANSFORM_NOT_COMPRESSED) != 0)
        return archive_transform_end(filter);
    return result;
}

int archive_transform_end(archive_filter* filter) {
    const bool isCut = !transform_may_end(filter->transform) || (!filter->isCompressed() && filter->device.bytes != 0);
    const bool isTokenCut = (filter->transform.flags & TRANSFORM_AWAIT_TOKEN) != 0 && filter->rawBytes != 0;
    if (filter->isEncrypted() && !isTokenCut && publish(filter, 0, CRYPT_UNIT) == -1)
        return -1;
    filter->end.damaged = isCut || isTokenCut || filter->rawBytes != 0;
    if (filter->end.damaged)
        LOG_HERE(0, "The data ends in the middle of a %s, after %lld physical bytes: the file is cut\n",
                 isTokenCut                        ? "token"
                 : isCut && filter->isCompressed() ? "compressed block"
                                                   : "unit",
                 static_cast<long long>(filter->fd_offset));
    filter->end.stream = true;
    return 0;
}

void archive_transform_restart(archive_filter* filter) {
    filter->user.empty();
    filter->rawBytes = 0;
    filter->transform.hasFailed = false;
    if (filter->isCompressed())
        transform_restart(&filter->transform);
}
