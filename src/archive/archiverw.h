// archiverw.h - a backup file as a plain seekable stream of clean bytes, in the shape of plain file I/O.
//
// Offsets that callers see are virtual: positions in the clean stream. What the filter reads so far is plain files: a
// file that turns out to be compressed, and an open for an encrypted or deduplicated backup or for writing, is refused
// with ENOTSUP and a line on the log.
//
// Threads: a filter belongs to one thread at a time. archive_open_backup, archive_stat and archive_get_actual_size use
//          the process-wide database connection.
// Errors:  -1 or null with errno, which outlasts this room's own logging: EBADMSG stored bytes that make no sense,
//          EINVAL wrong use, ENOMEM, ENOTSUP as above, or what the system call gave.
// Units:   offsets and sizes count bytes.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/releaser.h"

struct archive_filter;

// Finishes, closes and frees. Returns 0 or -1; the filter is gone in both cases. Null gives 0.
int archive_close(archive_filter* filter);
using ArchiveFilterPtr = std::unique_ptr<archive_filter, Releaser<&archive_close>>;

// The property bits that the filter looks at; a backup's other bits pass through unexamined.
inline constexpr std::uint64_t ARCHIVE_MAYBE_COMPRESSED = 0x2;  // the file's first bytes decide, not its name
inline constexpr std::uint64_t ARCHIVE_COMPRESSED_TOO = 0x4;
inline constexpr std::uint64_t ARCHIVE_ENCRYPTED = 0x100;
inline constexpr std::uint64_t ARCHIVE_DEDUPLICATED = 0x400;
inline constexpr std::uint64_t ARCHIVE_DIRECT_IO = 0x10000000;  // O_DIRECT, where the file system can do it

// Opens a file; the mode begins with 'r' or 'w'.
[[nodiscard]] ArchiveFilterPtr archive_open(const char* path, const char* mode, std::uint64_t properties);

// Opens a backup for reading by its number, with its own properties less the bits of `clearProperties`. ENOENT if its
// file is missing, EBADMSG if the catalogue doesn't tell where it is.
[[nodiscard]] ArchiveFilterPtr archive_open_backup(int backupNo, std::uint64_t clearProperties);

// Reads up to `count` bytes; less only at the end of the stream, 0 behind it. A null buffer skips the bytes.
// After -1 the position is behind what was read before the failure.
[[nodiscard]] ssize_t archive_read(archive_filter* filter, void* buffer, std::size_t count);

// Writes all of the bytes. Returns `count` or -1.
[[nodiscard]] ssize_t archive_write(archive_filter* filter, const void* data, std::size_t count);

// SEEK_SET or SEEK_CUR. Returns the new virtual offset or -1. A seek to 0 waits for the next read, so that a rewind of
// a file just opened costs nothing. A position behind the end is allowed; reading there gives 0.
[[nodiscard]] off_t archive_seek(archive_filter* filter, off_t offset, int whence);

// Requests of archive_fcntl, with their arguments.
enum ArchiveRequest : int {
    ARCHIVE_SET_BLOCK_SIZE = 1,          // size: physical I/O in whole blocks, rounded up to those of the file system
    ARCHIVE_SET_STREAM_MODE = 2,         // 0 or 1: the file can't be seeked
    ARCHIVE_SET_BLOCK_PADDING = 3,       // 0 or 1: the last block written is filled up with zeros
    ARCHIVE_CLOSE_DESCRIPTOR = 4,        // none: buffers and position stay; a second call does nothing
    ARCHIVE_REOPEN = 5,                  // path: goes on at the start of this file; clears the marks of the end
    ARCHIVE_SET_CLOEXEC = 6,             // none
    ARCHIVE_DISCARD = 7,                 // bytes: drops that many physical bytes from the coming reads
    ARCHIVE_REOPEN_DIRECT = 8,           // path: as 5, with O_DIRECT
    ARCHIVE_CONTINUE_ON_ERROR = 9,       // 0 or 1: a failed write can be tried again; 0 forgets an error
    ARCHIVE_GROW_DEVICE_BUFFER = 10,     // size
    ARCHIVE_GROW_USER_BUFFER = 11,       // size
    ARCHIVE_SET_DECOMPRESSED_SIZE = 12,  // size: clean bytes that positioning in compressed data aims at
    ARCHIVE_SET_LOW_WATER_MARK = 13,     // reads after a far seek that are kept short, negative for none
};

// Returns 0 or -1: EBADF for a null filter, ENOSYS for an unknown request or a path where none belongs.
[[nodiscard]] int archive_fcntl(archive_filter* filter, int request, std::int64_t value = 0);
[[nodiscard]] int archive_fcntl(archive_filter* filter, int request, const std::string& path);

// Tries a failed write again, when ARCHIVE_CONTINUE_ON_ERROR is on. Returns the bytes, or -1.
[[nodiscard]] ssize_t archive_rewrite(archive_filter* filter);

// Grows a file ahead of its writes by at least the estimate; an estimate of -1 trims it to what was written.
void archive_adjust_size(archive_filter* filter, long sizeGrowthEstimate);

// Position of the descriptor in the file; 9 for null.
[[nodiscard]] off_t archive_physical_offset(const archive_filter* filter);

// The descriptor, borrowed, for locks on the file; -1 when it is closed.
[[nodiscard]] int archive_fd(const archive_filter* filter);

// stat of a backup's file, and its bytes on disk. 0 or -1.
[[nodiscard]] int archive_stat(int backupNo, struct stat* st);
[[nodiscard]] int archive_get_actual_size(int backupNo, std::uint64_t* size);
