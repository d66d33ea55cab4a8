// archive_internal.h - the filter's record, and what the files of this room ask of each other.
//
// Two buffers: `device` holds the file's side, `user` the clean side. A plain file has no use for the second: its
// readers are served straight from the device buffer.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "archive/archiverw.h"
#include "archive/transform.h"
#include "base/file_descriptor.h"
#include "base/releaser.h"
#include "compression/compression.h"

inline constexpr mode_t ARCHIVE_FILE_MODE = 0660;

// Keeps errno over a log line, so that callers see the failure and not what the log left behind.
class KeepErrno {
public:
    KeepErrno() : saved_(errno) {}
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;
    ~KeepErrno() { errno = saved_; }

private:
    int saved_;
};

// `start` is the next byte to hand out, `bytes` what is left from there on; the bytes from `oldest` to `start` were
// handed out and are still good for a step back.
struct ArchiveBuffer {
    MallocPtr<std::byte> data;  // page-aligned, as direct I/O wants it
    std::size_t size = 0;
    std::size_t oldest = 0;
    std::size_t start = 0;
    std::size_t bytes = 0;

    [[nodiscard]] std::byte* begin() const { return data.get() + start; }
    [[nodiscard]] std::byte* end() const { return begin() + bytes; }
    [[nodiscard]] std::size_t room() const { return size - start - bytes; }
    [[nodiscard]] std::span<const std::byte> content() const { return {begin(), bytes}; }
    void empty() { oldest = start = bytes = 0; }
    void take(std::size_t count) {
        start += count;
        bytes -= count;
    }
    // Moves by an offset that lies in what the buffer holds, backward or forward.
    [[nodiscard]] bool holds(off_t skip) const {
        return skip < 0 ? -skip <= static_cast<off_t>(start - oldest) : skip <= static_cast<off_t>(bytes);
    }
    void move(off_t skip) {
        start = static_cast<std::size_t>(static_cast<off_t>(start) + skip);
        bytes = static_cast<std::size_t>(static_cast<off_t>(bytes) - skip);
    }
};

enum ArchiveState : std::uint32_t {
    ARCH_CONTEXT_READY = 4,   // what the file holds is known
    ARCH_STREAM_MODE = 8,     // the file can't be seeked
    ARCH_PAD_BLOCKS = 16,     // the last block written is filled up with zeros
    ARCH_ADJUSTING_SIZE = 32  // the file is grown ahead of the writes
};

// What says that nothing more comes. None of it is final: a seek, or another file, clears all of it.
struct EndMarks {
    bool stream = false;    // of the clean stream
    bool physical = false;  // the file is exhausted
    bool past = false;      // a seek went behind the index: nothing to read until the next one
    bool damaged = false;   // the data stopped in the middle of a unit
};

enum class LazySeek { none, pending, flushing };

// How far the close of a file that is written has come; a close that failed goes on where it stopped.
enum class FinishStep { data, index, flush, done };

struct archive_filter {
    FileDescriptor fd;
    char mode = 'r';
    std::uint64_t properties = 0;  // ARCHIVE_DIRECT_IO stands for what the descriptor really does
    std::size_t blocksize = 0;     // physical I/O unit, 0 none
    std::size_t fsBlockSize = 4096;
    std::unique_ptr<compression_index> positioner;  // loaded by the first seek that needs it
    std::unique_ptr<RedupReader> redup;             // of a deduplicated filter, which has no file of its own
    std::uint32_t state = 0;                        // ArchiveState
    EndMarks end;

    off_t virt_offset = 0;             // position in the clean stream; below 0 inside the token after a seek
    off_t fd_offset = 0;               // position of the descriptor
    std::int64_t discardBytes = 0;     // physical bytes to drop from the coming reads
    std::size_t encr_extra_bytes = 0;  // the token: bytes at the file's start that are no part of the clean stream
    Transform transform;

    ArchiveBuffer device;
    ArchiveBuffer user;
    std::size_t rawBytes = 0;        // reading: bytes behind those of `user` that aren't decrypted yet
    std::size_t userBufferSize = 0;  // wanted size of `user`, which is made when it is needed
    std::size_t decompressedBlockSize = 0;
    std::size_t decompressBlockSize = 0;
    std::size_t decryptBlockSize = 0;

    unsigned readCounter = 0;  // caller reads since the last far seek; saturates
    int readAheadLowWaterMark = 0;
    int cheatSeek0 = 0;      // 1: a seek to 0 waits for the next read; -1: never defer
    int retainedShifts = 0;  // coming reads over which `retainedBytes` of what was handed out stay in memory
    std::size_t retainedBytes = 0;
    bool lastSeekOutOfBuffer = false;

    bool continue_on_error = false;
    bool writeFailed = false;   // by the device; the bytes are kept, and archive_rewrite may try again
    std::size_t owedBytes = 0;  // at the front of the device buffer: what is left of a write that failed
    bool isBroken = false;      // writing can't go on: what was transformed is lost
    LazySeek lazySeek = LazySeek::none;
    FinishStep finishStep = FinishStep::data;
    off_t seek_virt_offset = 0;  // target of the pending seek of a file that is written
    off_t fd_size = 0;           // size given to the file so far
    std::vector<std::byte> zeroBuffer;
    std::vector<std::byte> unwritten;  // taken from the caller, but behind a write that failed

    [[nodiscard]] bool has(ArchiveState flag) const { return (state & flag) != 0; }
    void set(ArchiveState flag, bool on = true) { state = on ? state | flag : state & ~flag; }
    [[nodiscard]] bool direct() const { return (properties & ARCHIVE_DIRECT_IO) != 0; }
    [[nodiscard]] bool isTransforming() const {
        return (transform.flags & (TRANSFORM_DECOMPRESS | TRANSFORM_DECRYPT)) != 0;
    }
    [[nodiscard]] bool isCompressed() const { return (transform.flags & TRANSFORM_DECOMPRESS) != 0; }
    [[nodiscard]] bool isEncrypted() const { return (transform.flags & TRANSFORM_DECRYPT) != 0; }
};

[[nodiscard]] constexpr std::size_t roundUp(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit * unit;
}

// Logs nothing; for `return archive_fail(EINVAL)`.
[[nodiscard]] inline int archive_fail(int error) {
    errno = error;
    return -1;
}

// --- archive_read.cpp ---

// Where readers are served from: the user buffer if the file's bytes must be transformed, else the device buffer.
[[nodiscard]] ArchiveBuffer* archive_clean_buffer(archive_filter* filter);

// Reads `count` bytes, or skips them without a buffer, whatever seek waits. `*taken` tells how many also when it fails;
// fewer are the end of the stream. 0, or -1: also for none, where the data ends in the middle of a unit.
[[nodiscard]] int archive_read_stream(archive_filter* filter, std::byte* buffer, std::size_t count, std::size_t* taken);

// --- archive_device.cpp: the file's side when reading ---

// Turns O_DIRECT on if the properties ask for it; a refusal clears the bit and is no failure.
void archive_enable_direct(archive_filter* filter);
[[nodiscard]] int archive_set_direct(int fd, bool on);

// Grow a buffer with what it holds, and `behind` bytes after that. 0 or -1.
[[nodiscard]] int archive_grow_device(archive_filter* filter, std::size_t size);
[[nodiscard]] int archive_grow_buffer(ArchiveBuffer* buffer, std::size_t size, std::size_t behind);

// One physical read behind what the device buffer holds, which grows if a unit of reading doesn't fit there. `missing`
// is what the caller of the filter still wants, `forBuffer` whether it wants to see it. Returns 0 with more data, fewer
// than hoped for, or none; the end of the file shows in end.physical alone. -1 on failure: nothing that was held is
// lost.
[[nodiscard]] int archive_fill_device(archive_filter* filter, std::size_t missing, bool forBuffer);

// --- archive_context.cpp: what a file holds ---

// Learns it from the first bytes. 0 done, 1 more bytes are needed than the device buffer holds, -1 failed.
[[nodiscard]] int archive_context_init(archive_filter* filter);

// --- archive_transform.cpp: from the device buffer to the user buffer ---

// Moves some bytes through the transform. The next `skip` bytes won't be looked at, and needn't be decrypted.
// 0 with progress or the end of the stream, 1 if the device buffer holds too little, -1 failed.
[[nodiscard]] int archive_transform_some(archive_filter* filter, std::size_t skip);

// No more data will come: hands out what is left, and sets end.stream. 0 or -1.
[[nodiscard]] int archive_transform_end(archive_filter* filter);

// Forgets what was transformed: the next bytes of the device buffer are another place of the stream.
void archive_transform_restart(archive_filter* filter);

// --- archive_seek.cpp ---
[[nodiscard]] off_t archive_seek_reading(archive_filter* filter, off_t target);

// --- archive_write.cpp, archive_flush.cpp ---
enum class FlushMode { normal, final, forced };

[[nodiscard]] off_t archive_seek_writing(archive_filter* filter, off_t offset, int whence);
[[nodiscard]] int archive_flush_device(archive_filter* filter, FlushMode mode);
[[nodiscard]] int archive_finish_writing(archive_filter* filter);

// Whether the last failure of writing can be tried again.
[[nodiscard]] inline bool archive_is_recoverable(const archive_filter& filter) {
    return filter.writeFailed && filter.continue_on_error && !filter.isBroken;
}
