#include <algorithm>
#include <cerrno>
#include <limits>
#include <string_view>

#include "archive/archive_internal.h"
#include "archive/transform.h"
#include "compression/lz4.h"
#include "log/logger.h"

namespace {

constexpr std::string_view INDEX_MAGICS[] = {"ae9b76", "ae9b77"};
constexpr std::size_t INDEX_MAGIC_SIZE = 6;
constexpr std::size_t LONGEST_START = LZ4_HEADER_SIZE;  // bytes that tell what comes; fewer are no LZ4 frame

// One step of a decoder: what it has to work with, and how far it came.
struct Step {
    std::span<const std::byte> input;
    std::span<std::byte> room;
    bool atEnd = false;
    std::size_t consumed = 0;
    std::size_t produced = 0;
};

int failDecompression(const char* why) {
    LOG_HERE(0, "Failed to decompress data");
    LOG_HERE(0, "Error inflating: %s\n", why);
    return archive_fail(EBADMSG);
}

int endOfCompression(Transform* transform) {
    if (transform->type == COMPRESSION_LZ4)
        LOG_HERE(4, "Non-compressed data in stream (possibly index)\n");
    else
        LOG_HERE(4, "Non-deflated data in stream (possibly index)\n");
    transform->flags |= TRANSFORM_NOT_COMPRESSED;
    return TRANSFORM_PROGRESS;
}

bool isIndex(std::span<const std::byte> data) {
    const std::string_view text(reinterpret_cast<const char*>(data.data()), std::min(data.size(), INDEX_MAGIC_SIZE));
    return std::ranges::any_of(INDEX_MAGICS, [&](std::string_view magic) { return magic.starts_with(text); });
}

void beginStream(Transform* transform, int type) {
    transform->type = type;
    transform->flags &= ~static_cast<unsigned>(TRANSFORM_NEW_STREAM);
    transform->isPending = false;
    if (type == COMPRESSION_GZIP)
        (void)inflateReset(transform->inflater.get());  // only a state that is none can make it fail
    else
        DqCompressionRestart(&transform->compression);
}

// What follows the end of a stream: another one of either kind, the index, or nothing.
int startStream(Transform* transform, const Step& step) {
    const std::size_t size = step.input.size();
    if (size == 0 || (size < LONGEST_START && !step.atEnd))
        return TRANSFORM_NEEDS_INPUT;
    transform->isTypeChecked = size >= COMPRESSION_MAGIC_SIZE;
    if (!transform->isTypeChecked) {
        LOG_HERE(5,
                 "Not enough data in transform buffer to check compression type.\nContinuing with previous type: %d\n",
                 transform->type);
        constexpr std::byte GZIP_START{0x1f};
        if (transform->type == COMPRESSION_LZ4 || step.input.front() != GZIP_START)
            return endOfCompression(transform);
        beginStream(transform, transform->type);
        return TRANSFORM_PROGRESS;
    }
    if (isIndex(step.input))
        return endOfCompression(transform);
    const int type = compression_type_of(step.input.data(), size);
    if (transform->type == COMPRESSION_LZ4 && type != COMPRESSION_GZIP && size < LONGEST_START)
        return endOfCompression(transform);
    if (type == COMPRESSION_UNKNOWN) {
        LOG_HERE(0, "Unknown compression type.  Aborting decompression.\n");
        return archive_fail(EBADMSG);
    }
    if (type != transform->type)
        LOG_HERE(1, "New decompresion type found: %d -> %d\n", transform->type, type);
    beginStream(transform, type);
    return TRANSFORM_PROGRESS;
}

// Gzip data is a chain of members; the end of one sets TRANSFORM_NEW_STREAM.
int inflateStep(Transform* transform, Step* step) {
    constexpr std::size_t LARGEST = std::numeric_limits<uInt>::max();
    z_stream& stream = *transform->inflater;
    const auto inputSize = static_cast<uInt>(std::min(step->input.size(), LARGEST));
    const auto roomSize = static_cast<uInt>(std::min(step->room.size(), LARGEST));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(step->input.data()));  // zlib doesn't write there
    stream.avail_in = inputSize;
    stream.next_out = reinterpret_cast<Bytef*>(step->room.data());
    stream.avail_out = roomSize;
    const int result = inflate(&stream, Z_SYNC_FLUSH);
    step->consumed = inputSize - stream.avail_in;
    step->produced = roomSize - stream.avail_out;
    transform->isPending = stream.avail_out == 0 && result != Z_STREAM_END;
    if (result == Z_STREAM_END) {
        transform->flags |= TRANSFORM_NEW_STREAM;
        return TRANSFORM_PROGRESS;
    }
    // Without its magic seen, data that isn't deflated is no member at all. Behind the magic it is damage: taken for
    // the end, it would make a broken backup a shorter good one.
    if (result == Z_DATA_ERROR && stream.total_out == 0 && !transform->isTypeChecked)
        return endOfCompression(transform);
    if (result != Z_OK && result != Z_BUF_ERROR)
        return failDecompression(stream.msg != nullptr ? stream.msg : zError(result));
    if (step->consumed != 0 || step->produced != 0)
        return TRANSFORM_PROGRESS;
    return roomSize == 0 ? TRANSFORM_NEEDS_ROOM : TRANSFORM_NEEDS_INPUT;
}

// Lends memory to a channel of the LZ4 state for one call, so that it works where the bytes are and are wanted.
class Lent {
public:
    Lent(DqCompressionChannel* channel, std::byte* from, std::byte* filledTo, std::byte* to)
        : channel_(channel), own_(channel->buf) {
        channel->buf.base = channel->buf.low = from;
        channel->buf.p = filledTo;
        channel->buf.high = to;
        channel->buf._apifrees = false;
        channel->buf.isLent = true;
    }
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;
    ~Lent() { channel_->buf = own_; }

private:
    DqCompressionChannel* channel_;
    DqCompressionBuffer own_;
};

int lz4Step(Transform* transform, Step* step) {
    DqCompressionState& state = transform->compression;
    if (step->room.size() < DqCompressionNeededRoom(state, step->input))
        return TRANSFORM_NEEDS_ROOM;
    auto* const input = const_cast<std::byte*>(step->input.data());  // nothing lent is moved
    std::byte* const inputEnd = input + step->input.size();
    DqCompressionErr error = DQ_SUCCESS;
    {
        const Lent lentInput(&state.inpput, input, inputEnd, inputEnd);
        const Lent lentOutput(&state.output, step->room.data(), step->room.data(),
                              step->room.data() + step->room.size());
        error = DqCompressionBlock(&state);
        // An input that was used up stands empty at its base.
        step->consumed = step->input.size() - state.inpput.buf.bytes();
        step->produced = state.output.buf.bytes();
        state.output.offset += static_cast<off_t>(step->produced);
    }
    if (error == DQ_NOT_COMPRESSED)
        return endOfCompression(transform);
    if (error != DQ_SUCCESS)
        return failDecompression(state._errorDetails);
    if (step->consumed == 0 && step->produced == 0)
        return TRANSFORM_NEEDS_INPUT;
    if (!DqCompressionInFrame(state))
        transform->flags |= TRANSFORM_NEW_STREAM;
    return TRANSFORM_PROGRESS;
}

}  // namespace

int transform_decompress(Transform* transform, std::span<const std::byte> input, bool atEnd, std::span<std::byte> room,
                         std::size_t* consumed, std::size_t* produced) {
    *consumed = *produced = 0;
    if (transform->hasFailed)
        return archive_fail(EBADMSG);
    for (;;) {
        Step step{input.subspan(*consumed), room.subspan(*produced), atEnd};
        int result = TRANSFORM_PROGRESS;
        if ((transform->flags & TRANSFORM_NEW_STREAM) != 0)
            result = startStream(transform, step);
        else if (transform->type == COMPRESSION_GZIP)
            result = inflateStep(transform, &step);
        else
            result = lz4Step(transform, &step);
        if (result == -1) {
            // The steps before it are good; the next call tells.
            transform->hasFailed = true;
            return *produced != 0 ? TRANSFORM_PROGRESS : -1;
        }
        *consumed += step.consumed;
        *produced += step.produced;
        if ((transform->flags & TRANSFORM_NOT_COMPRESSED) != 0)
            return TRANSFORM_PROGRESS;
        if (result != TRANSFORM_PROGRESS)
            return *consumed != 0 || *produced != 0 ? TRANSFORM_PROGRESS : result;
    }
}

void transform_restart(Transform* transform) {
    transform->flags |= TRANSFORM_NEW_STREAM;
    transform->flags &= ~static_cast<unsigned>(TRANSFORM_NOT_COMPRESSED);
    transform->isPending = false;
}

bool transform_may_end(const Transform& transform) {
    return (transform.flags & TRANSFORM_DECOMPRESS) == 0 ||
           (transform.flags & (TRANSFORM_NEW_STREAM | TRANSFORM_NOT_COMPRESSED)) != 0;
}
