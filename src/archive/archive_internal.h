// archive_internal.h - the filter's record, and its file side: device buffer, direct I/O, physical reads.
//
// The clean stream of a plain file is the file, so readers are served straight from the device buffer.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "archive/archiverw.h"
#include "foundation/file_descriptor.h"

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

// Physical bytes in memory. `start` is the next byte to hand out, `bytes` what is left from there on; the bytes from
// `oldest` to `start` were handed out and are still good for a step back.
struct DeviceBuffer {
    MallocPtr<std::byte> data;  // page-aligned, as direct I/O wants it
    std::size_t size = 0;
    std::size_t oldest = 0;
    std::size_t start = 0;
    std::size_t bytes = 0;

    void empty() { oldest = start = bytes = 0; }
};

struct archive_filter {
    FileDescriptor file;
    std::uint64_t properties = 0;  // ARCHIVE_DIRECT_IO stands for what the descriptor really does
    std::size_t fsBlockSize = 4096;
    std::size_t blocksize = 0;      // physical I/O unit, 0 none
    off_t virt_offset = 0;          // position in the clean stream
    off_t fd_offset = 0;            // position of the descriptor
    std::int64_t discardBytes = 0;  // physical bytes to drop from the coming reads
    DeviceBuffer device;
    std::size_t userBufferSize = 0;  // wanted sizes for data that must be transformed
    std::size_t decompressedBlockSize = 0;
    unsigned readCounter = 0;  // caller reads since the last far seek; saturates
    int readAheadLowWaterMark = 0;
    int cheatSeek0 = 0;  // 1: a seek to 0 waits for the next read; -1: never defer
    bool lastSeekOutOfBuffer = false;
    bool endOfStream = false;
    bool physicalEof = false;
    bool contextReady = false;  // what kind of data the file holds is known
    bool streamMode = false;
    bool padBlocks = false;
    bool continueOnError = false;

    [[nodiscard]] bool direct() const { return (properties & ARCHIVE_DIRECT_IO) != 0; }
};

[[nodiscard]] constexpr std::size_t roundUp(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit * unit;
}

// Turns O_DIRECT on if the properties ask for it; a refusal clears the bit and is no failure.
void archive_enable_direct(archive_filter* filter);

// Grows the device buffer and keeps what wasn't handed out. 0 or -1.
[[nodiscard]] int archive_grow_device(archive_filter* filter, std::size_t size);

// One physical read behind what the device buffer holds (at most a few bytes, else it is empty). `missing` is what the
// caller of the filter still wants, `forBuffer` whether it wants to see it. Returns 0 with more data, fewer than hoped
// for, or none; the end of the file shows in physicalEof alone. -1 on failure.
[[nodiscard]] int archive_fill_device(archive_filter* filter, std::size_t missing, bool forBuffer);
