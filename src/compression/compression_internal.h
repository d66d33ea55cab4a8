// compression_internal.h - what is behind a compression state: its engine and the index in the making.
//
// Every engine sees a block as one run of bytes: channels move what they hold to the front of their buffer when room
// is short, and only then. An engine writes into the output only what surely fits, so nothing is ever taken back.
#pragma once

#include <xxhash.h>
#include <zlib.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/file_descriptor.h"
#include "base/releaser.h"
#include "compression/compression.h"

static_assert(std::endian::native == std::endian::little, "index entries and stream numbers are stored as they stand");

// The request to the card. Kept for the dump: no card is driven here.
struct DqRx9Request {
    int error_code = 0;
    std::size_t size = 0;
    int context_index = 0;
    std::uint16_t object_flag = 0;
    std::byte* data_ptr = nullptr;
    std::size_t consumed = 0;
};

using Lz4CompressFunction = int (*)(void* workspace, const char* source, char* dest, int sourceSize, int room,
                                    int level);
using Lz4DecompressFunction = int (*)(const char* source, char* dest, int sourceSize, int room);

struct DqLz4State {
    bool inFrame = false;
    bool frameEnded = false;  // by the reader's last step
    bool blockChecksum = false;
    bool dependent = false;
    bool hashing = false;  // the frame has a checksum over its clean bytes, in streamHash
    std::unique_ptr<XXH32_state_t, Releaser<&XXH32_freeState>> streamHash;
    unsigned blockSizeCode = 4;
    MallocPtr<std::byte> workspace;  // of the compress function
    Lz4CompressFunction compress = nullptr;
    Lz4DecompressFunction decompress = nullptr;
};

struct DqCompressionEngine {
    int _version = DQ_VERSION;
    DqCompressionEngineType _type = DQ_ENGINE_NONE;
    int _level = 1;
    std::size_t _blockoctets = DQ_DEFAULT_BLOCK;
    off_t _blkstart = 0;  // input offsets of the present block; bytes behind _blkend wait for the next one
    off_t _blkend = 0;
    bool blockOpen = false;
    off_t checksumOffset = 0;  // input offset up to which crc and adler go
    std::uint32_t crc = 0;
    std::uint32_t adler = 1;
    off_t blockOutput = 0;  // output offset of the present block: what the index records
    bool _eof = false;      // can't go on without more room or more input, or a frame has ended
    bool _flush = false;    // finish the block even though it's short
    FileDescriptor _fd;
    DqRx9Request _rx9;
    z_stream _zstream{};
    bool zstreamReady = false;
    DqLz4State lz4;
};

// One table of the index as it is written: each stride-th entry.
struct DqIndexTable {
    std::size_t stride = 1;
    std::size_t chunk = 0;
    std::size_t count = 0;
    std::uint64_t checksum = 0;
};

struct DqCompressionIndex {
    const char* _magic = "ae9b77";
    std::size_t _segmentoctets = DQ_DEFAULT_SEGMENT;
    std::size_t _headerpadding = 32;
    std::size_t _trailerpadding = 32;
    std::size_t _grouping = 128;
    std::size_t _tablepadding = 8192;
    std::size_t _written = 0;
    off_t _offset = 0;
    MallocPtr<off_t> _low;
    off_t* _p = nullptr;
    off_t* _high = nullptr;
    off_t _segstart = 0;
    off_t _segend = 0;
    DqIndexTable tables[2];  // filled at the first close
    bool tablesReady = false;

    [[nodiscard]] std::size_t count() const { return static_cast<std::size_t>(_p - _low.get()); }
};

struct DqCompressionImpl {
    DqCompressionEngine _engine;
    DqCompressionIndex _index;

    DqCompressionImpl() = default;
    DqCompressionImpl(const DqCompressionImpl&) = delete;
    DqCompressionImpl& operator=(const DqCompressionImpl&) = delete;
    ~DqCompressionImpl() {
        if (_engine.zstreamReady)
            (void)deflateEnd(&_engine._zstream);  // answers "data lost" for a block that nobody wants any more
    }
};

// Logs the text and the whole state, and leaves both in the state. Gives `error`.
[[gnu::format(printf, 5, 6)]] DqCompressionErr dqFail(DqCompressionState* state, DqCompressionErr error,
                                                      const char* file, int line, const char* format, ...);
#define DQ_FAIL(state, error, format, ...) dqFail(state, error, __FILE__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)

// DQ_SUCCESS if the records are valid and no failure is waiting for the close.
[[nodiscard]] DqCompressionErr dqCheck(const DqCompressionState* state);

// Closes, frees and ends what the state holds; its _version is 0 from then on.
void dqDestroy(DqCompressionState* state);

// The state as text, at the given level.
void dqDump(int level, const DqCompressionState& state);

// --- channels ---
[[nodiscard]] inline bool dqHasFile(const DqCompressionChannel& channel) {
    return channel._fd != -1 || channel._file != nullptr;
}
[[nodiscard]] inline off_t dqEndOffset(const DqCompressionChannel& channel) {
    return channel.offset + static_cast<off_t>(channel.buf.bytes());
}
// Whether `count` bytes fit behind `p`, if need be after moving what is there to the front.
[[nodiscard]] bool dqMakeRoom(DqCompressionBuffer* buffer, std::size_t count);
// Enlarges a buffer that the state owns. False: it isn't the state's, or no memory.
[[nodiscard]] bool dqGrow(DqCompressionBuffer* buffer, std::size_t size);
// Brings the files of the channels to where the state thinks they are.
DqCompressionErr dqSynchronize(DqCompressionState* state);
// Lets go of the channel's file, and closes it if the state opened it. 0, or -1 with errno if the last bytes were lost.
int dqCloseChannel(DqCompressionChannel* channel);

inline void dqPut(DqCompressionBuffer* buffer, std::span<const std::byte> bytes) {
    std::copy(bytes.begin(), bytes.end(), buffer->p);
    buffer->p += bytes.size();
}
inline void dqPut32(DqCompressionBuffer* buffer, std::uint32_t value) {
    dqPut(buffer, std::as_bytes(std::span(&value, 1)));
}

// --- engines: start a block if there is input for one and room; then go on with it as far as it goes ---
DqCompressionErr zlibNewBlock(DqCompressionState* state);
DqCompressionErr zlibCompress(DqCompressionState* state);
DqCompressionErr lz4NewBlock(DqCompressionState* state);
DqCompressionErr lz4Compress(DqCompressionState* state);
DqCompressionErr lz4Decompress(DqCompressionState* state);
[[nodiscard]] bool lz4Prepare(DqCompressionEngine* engine);

// The most that a block can become in the output, its header and trailer included.
[[nodiscard]] std::size_t dqBlockBound(const DqCompressionEngine& engine);

// Moves the block's bounds on by one block, which begins at the output's end.
void dqAdvanceBlock(DqCompressionState* state);
// The block is done: it ends where the input stands.
void dqFinishBlock(DqCompressionState* state);

// --- index ---
// The sum of the CRC-32s of groups of 128 entries, each entry `stride` behind the one before.
[[nodiscard]] std::uint64_t dqIndexChecksum(std::span<const std::int64_t> entries, std::size_t stride);
// Notes the present block if it begins a segment.
DqCompressionErr dqRecordBlock(DqCompressionState* state);
// Puts as much of both tables into the output as fits. *done tells whether all is there.
DqCompressionErr DqCompressionCloseIndex(DqCompressionState* state, bool* done);
