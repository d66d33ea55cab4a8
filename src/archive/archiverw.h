// archiverw.h - a backup file as a plain seekable stream of clean bytes, in the shape of plain file I/O.
//
// A backup's file may be compressed, encrypted or both: first encrypted, then compressed. Offsets that callers see are
// virtual: positions in the clean stream. What a file holds is learnt at the first read or seek.
//
// Threads: a filter belongs to one thread at a time. archive_open_backup, archive_stat and archive_get_actual_size use
//          the process-wide database connection.
// Errors:  -1 or null with errno, which outlasts this room's own logging: EBADMSG stored bytes that make no sense, or a
//          key service that can't be used, EINVAL wrong use, ENOMEM, or what the system call gave.
// Units:   offsets and sizes count bytes.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct archive_filter;

// Frees a filter. A file that is being written stays as it is: without archive_close it isn't finished.
struct ArchiveFilterDeleter {
    void operator()(archive_filter* filter) const noexcept;
};
using ArchiveFilterPtr = std::unique_ptr<archive_filter, ArchiveFilterDeleter>;

// Finishes, closes and frees. Returns 0 or -1; the filter is gone in both cases, but for one: a write failed and
// ARCHIVE_CONTINUE_ON_ERROR is on. Then it stays, for archive_rewrite and another close. An empty pointer gives 0.
[[nodiscard]] int archive_close(ArchiveFilterPtr* filter);

// The property bits that the filter looks at; a backup's other bits pass through unexamined.
inline constexpr std::uint64_t ARCHIVE_MAYBE_COMPRESSED = 0x2;  // the file's first bytes decide, not its name
inline constexpr std::uint64_t ARCHIVE_COMPRESSED_TOO = 0x4;
inline constexpr std::uint64_t ARCHIVE_ENCRYPTED = 0x100;
inline constexpr std::uint64_t ARCHIVE_DEDUPLICATED = 0x400;
inline constexpr std::uint64_t ARCHIVE_DIRECT_IO = 0x10000000;  // O_DIRECT, where the file system can do it

// Opens a file; the mode begins with 'r' or 'w'. A file to write must not exist, unless it is a device. Written data is
// compressed and encrypted as the properties say; the engine is a matter of master.ini.
[[nodiscard]] ArchiveFilterPtr archive_open(const char* path, const char* mode, std::uint64_t properties);

// Opens a backup for reading by its number, with its own properties less the bits of `clearProperties`. ENOENT if its
// file is missing, EBADMSG if the catalogue doesn't tell where it is.
[[nodiscard]] ArchiveFilterPtr archive_open_backup(int backupNo, std::uint64_t clearProperties);

// Reads up to `count` bytes; less only at the end of the stream, or in front of a failure, which the next call tells; 0
// behind the end. A null buffer skips the bytes. The position is behind what was given. Data that stops in the middle
// of a compressed block, a token or a cipher unit is given as far as it goes, and then -1 with EBADMSG. A call that
// failed may be tried again; damage stays until a seek elsewhere.
[[nodiscard]] ssize_t archive_read(archive_filter* filter, void* buffer, std::size_t count);

// Writes all of the bytes. Returns `count` or -1. With ARCHIVE_CONTINUE_ON_ERROR on, a failure of the device leaves the
// bytes with the filter: archive_rewrite goes on with them, and the caller with those behind them.
[[nodiscard]] ssize_t archive_write(archive_filter* filter, const void* data, std::size_t count);

// Returns the new virtual offset or -1.
// Reading: SEEK_SET or SEEK_CUR. A seek to 0 waits for the next read, so that a rewind of a file just opened costs
// nothing. A compressed file needs its index for other seeks. Behind its end reading gives 0, and the offset returned
// is that of the end or of the end of its index. Writing: SEEK_CUR. Nothing moves before the next write, which leaves a
// hole, or zeros where there can't be one; it fails if the target lies before what was written. Without a write behind
// it a seek has no effect.
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

// Tries a failed write, or the writing of a failed close, again, when ARCHIVE_CONTINUE_ON_ERROR is on. Returns the
// bytes that waited for the device, or -1.
[[nodiscard]] ssize_t archive_rewrite(archive_filter* filter);

// Grows a file ahead of its writes, in steps of 10485760 bytes, so that at least the estimate fits behind the present
// position; an estimate of -1 trims it to what was written, as the close does. A failure is only logged.
void archive_adjust_size(archive_filter* filter, long sizeGrowthEstimate);

// Position of the descriptor in the file, of a deduplicated filter the virtual one; 9 for null.
[[nodiscard]] off_t archive_physical_offset(const archive_filter* filter);

// Seeks to 0 are carried out at once from now on: for a reader that looks at the position in between.
void archive_never_defer_seek(archive_filter* filter);

// The descriptor, borrowed, for locks on the file; -1 when it is closed.
[[nodiscard]] int archive_fd(const archive_filter* filter);

// stat of a backup's file, and its bytes on disk. 0 or -1.
[[nodiscard]] int archive_stat(int backupNo, struct stat* st);
[[nodiscard]] int archive_get_actual_size(int backupNo, std::uint64_t* size);

// What reads a deduplicated backup: it finds the content that isn't in the file. Positions are virtual; errors as
// above.
class RedupReader {
public:
    RedupReader() = default;
    RedupReader(const RedupReader&) = delete;
    RedupReader& operator=(const RedupReader&) = delete;
    virtual ~RedupReader() = default;
    [[nodiscard]] virtual ssize_t read(void* buffer, std::size_t count) = 0;
    [[nodiscard]] virtual off_t seek(off_t offset, int whence) = 0;  // SEEK_SET or SEEK_CUR
    [[nodiscard]] virtual off_t offset() const = 0;
    [[nodiscard]] virtual archive_filter* inner() = 0;  // the reader of the file itself
};

// Who opens one: archive_open hands over to it for ARCHIVE_DEDUPLICATED. Null with errno for a failure. Without a
// registration such backups are refused with ENOTSUP. Registered once, at the start of the program, before threads.
using RedupOpener = std::unique_ptr<RedupReader> (*)(const char* path, const char* mode, std::uint64_t properties);
void archive_register_redup(RedupOpener opener);
