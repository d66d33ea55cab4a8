// compression.h - independently compressed blocks, and the index behind them that makes a compressed file seekable.
//
// A state moves bytes from its input channel to its output channel. A channel has a file of its own, or none: then the
// caller puts bytes behind `inpput.buf.p`, as many as room() says, and moves `p`; it takes them from `output.buf.low`
// and says so with DqCompressionConsume. Any call may move a buffer's bytes, or the buffer: no pointer into it lasts
// over one.
//
// Threads: a state, and a loaded index, belong to one thread at a time.
// Errors:  the functions return the state's _error (DqCompressionErr); every failure logs the whole state at level 0
//          and stays until the close.
// Units:   bytes; "octets" in names are bytes. A block and a segment count clean bytes, index entries physical ones.
#pragma once

#include <sys/types.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "compression/type.h"

enum DqCompressionErr : int {
    DQ_SUCCESS = 0,
    DQ_OUTPUT_PENDING = 1,  // take the output and call again
    DQ_BAD_DATA = -1,       // or not created yet
    DQ_BAD_ARGUMENT = -2,   // or a record whose version isn't 111
    DQ_FILE_ERROR = -4,
    DQ_NO_MEMORY = -5,
    DQ_NO_HEADER_SPACE = -6,
    DQ_INVALID_STATE = -7,
    DQ_ZLIB_ERROR = -8,
    DQ_NOT_COMPRESSED = -9,  // the compressed data ends here; no failure to a reader
};

enum DqCompressionOp : int { DQ_COMPRESS = 1, DQ_DECOMPRESS = 2, DQ_PASS = 3 };

enum DqCompressionEngineType : int { DQ_ENGINE_NONE = 0, DQ_ENGINE_RX9 = 1, DQ_ENGINE_ZLIB = 2, DQ_ENGINE_LZ4 = 3 };

inline constexpr int DQ_VERSION = 111;
inline constexpr std::size_t DQ_DEFAULT_BLOCK = 65536;
inline constexpr std::size_t DQ_DEFAULT_SEGMENT = 131072;
inline constexpr std::size_t DQ_SECONDARY_CHUNK = 10485760;   // clean bytes between two entries of the second table
inline constexpr std::size_t DQ_MIN_OUTPUT_BUFFER = 9999992;  // a compressor's given buffer must hold a whole index

// Bytes lie between `low` and `p`, room between `p` and `high`. The state frees the buffer if `_apifrees` is set.
struct DqCompressionBuffer {
    int _version = 0;
    std::byte* base = nullptr;  // where the space begins; taken bytes lie between `base` and `low`
    std::byte* low = nullptr;
    std::byte* p = nullptr;
    std::byte* high = nullptr;
    bool _apifrees = false;
    bool isLent = false;  // for one call: what it holds stays where it is, and more comes with another call

    [[nodiscard]] std::size_t bytes() const { return static_cast<std::size_t>(p - low); }
    [[nodiscard]] std::size_t room() const { return static_cast<std::size_t>(high - p); }
    [[nodiscard]] std::size_t capacity() const { return static_cast<std::size_t>(high - base); }
};

struct DqCompressionChannel {
    int _version = 0;
    DqCompressionBuffer buf;
    off_t offset = 0;     // stream offset of `low`
    bool _eof = false;    // end of input seen, or end of output space
    bool _flush = false;  // something is to be moved
    int _fd = -1;
    FILE* _file = nullptr;
    int (*_seek)(FILE* file, off_t offset, int whence) = nullptr;  // null: fseeko and ftello
    off_t (*_tell)(FILE* file) = nullptr;
    bool _apicloses = false;  // the state opened the file
};

struct DqCompressionImpl;  // engine and index writer; holds a zlib stream, which must not move

struct DqCompressionImplDeleter {
    void operator()(DqCompressionImpl* impl) const noexcept;
};

struct DqCompressionState {
    int _version = DQ_VERSION;
    DqCompressionErr _error = DQ_BAD_DATA;
    char _errorDetails[256] = {};
    DqCompressionOp _op = DQ_PASS;
    DqCompressionChannel inpput;
    DqCompressionChannel output;
    std::unique_ptr<DqCompressionImpl, DqCompressionImplDeleter> _impl;

    DqCompressionState() = default;
    DqCompressionState(DqCompressionState&& other) noexcept;
    DqCompressionState& operator=(DqCompressionState&& other) noexcept;
    ~DqCompressionState();  // frees buffers and closes files that the state made
};

// What to make a state with. Of path, file and descriptor at most one a side; sizes of 0 mean the defaults.
struct DqCompressionOptions {
    int level = 1;
    const char* inputPath = nullptr;
    const char* outputPath = nullptr;
    FILE* inputFile = nullptr;
    FILE* outputFile = nullptr;
    int inputFd = -1;
    int outputFd = -1;
    std::size_t blockOctets = 0;
    std::size_t segmentOctets = 0;  // a factor of DQ_SECONDARY_CHUNK
    std::span<std::byte> inputBuffer;
    std::size_t inputOctets = 0;  // size of an input buffer to allocate
    std::span<std::byte> outputBuffer;
    std::size_t outputOctets = 0;
};

[[nodiscard]] DqCompressionState CreateDqCompressionState(DqCompressionOp op, DqCompressionEngineType engine,
                                                          const DqCompressionOptions& options);

// Moves input to output until input or room is out; a decompressor also stops at the end of a frame, so that its caller
// can look at what follows. Call again until nothing moves any more.
DqCompressionErr DqCompressionBlock(DqCompressionState* state);

// Moves all that can be moved. Never ends a block early.
DqCompressionErr DqCompressionFlush(DqCompressionState* state);

// Finishes the data, and writes the index behind a compressor's. DQ_OUTPUT_PENDING: take the output, call again.
DqCompressionErr DqCompressionClose(DqCompressionState* state);

// Up to `octets` from the input's file to its buffer; from the output's buffer to its file. Nothing happens to a
// channel without a file.
DqCompressionErr DqCompressionRead(DqCompressionState* state, std::size_t octets);
DqCompressionErr DqCompressionWrite(DqCompressionState* state, std::size_t octets);

// Of channels that have a FILE; others give DQ_BAD_ARGUMENT, and -1. A seek drops what the channel's buffer holds.
DqCompressionErr DqCompressionInpSeek(DqCompressionState* state, off_t offset);
off_t DqCompressionInpTell(const DqCompressionState& state);
DqCompressionErr DqCompressionOutSeek(DqCompressionState* state, off_t offset);
off_t DqCompressionOutTell(const DqCompressionState& state);

// Takes `count` bytes from the front of a channel's buffer and moves the stream offset on.
void DqCompressionConsume(DqCompressionChannel* channel, std::size_t count);

// A decompressor's next bytes begin a new frame: after a seek. Both buffers are emptied, and bad data before is
// forgiven.
void DqCompressionRestart(DqCompressionState* state);

// Whether a decompressor has begun a frame and not seen its end. If so at the end of the file, the file is cut.
[[nodiscard]] bool DqCompressionInFrame(const DqCompressionState& state);

// Clean bytes that the reader's next step can need at most, when it is given `input`; 0 if that doesn't tell yet.
[[nodiscard]] std::size_t DqCompressionNeededRoom(const DqCompressionState& state, std::span<const std::byte> input);

// Moves what the channel's buffer holds to its front if `count` more bytes don't fit otherwise; fewer may still do.
void DqCompressionMakeRoom(DqCompressionChannel* channel, std::size_t count);

// The engine that a master.ini text names, without case; null counts as "auto". Unknown texts give DQ_ENGINE_NONE.
[[nodiscard]] DqCompressionEngineType engine_type_of(const char* name);

// Where the blocks of a compressed file begin: entry i is the physical offset of the block at clean offset
// i * chunkSize (counted from the start of the file's own stream, an encryption token included).
struct compression_index {
    std::vector<std::int64_t> entries;
    std::size_t chunkSize = 0;

    [[nodiscard]] std::size_t count() const { return entries.size(); }
};

// Loads the index from the end of the file; of two tables the finer one. Null with the reason in *error. The
// descriptor's position stays; O_DIRECT is off meanwhile and set back.
[[nodiscard]] std::unique_ptr<compression_index> LoadCompressionIndex(int fd, std::string* error);

// All tables, the finer one first, as far as they are good: for who shows them.
[[nodiscard]] std::vector<std::unique_ptr<compression_index>> LoadCompressionIndexTables(int fd, std::string* error);

// lseek to the start of the chunk that holds `offset`. The new position, or -1 with ERANGE or EINVAL.
[[nodiscard]] off_t SeekToCompressedOffset(int fd, const compression_index* index, off_t offset);
