// SIS.h - the single instance store: one address space of 64-bit offsets over many files on many devices, in which each
// unique block lies once.
//
// A reader opens a handle and reads at the offset that a block's record names. A writer first reserves a range, which
// is its own from then on, and writes within it; the allocation pointer only moves on, so an offset never means two
// things. Blocks may be compressed one by one, store files encrypted as a whole; the record tells the first, the file
// the second.
//
// Threads: a handle belongs to one thread and one process (not across fork); any number of handles may be open.
// Errors:  null or -1, with the reason logged. A failed read may be tried again; a failed reservation leaves the
//          allocation pointer as it was unless someone else has moved it on.
// Units:   offsets and lengths count bytes; a SIS offset is one in the whole address space.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/releaser.h"
#include "block/hash_value.h"

struct SIS;
void freeSIS(SIS* handle);  // gives the reservation back, closes everything; logs null
using SISPtr = std::unique_ptr<SIS, Releaser<&freeSIS>>;

// Opens the store, and sets it up if it is new and nobody else has it open: then, and with the same luck at every later
// opening, its device list is brought in line with the catalogue.
[[nodiscard]] SISPtr openSIS();

// Space is given out in multiples of this; -1 for null.
[[nodiscard]] std::int64_t getDeduplicationBlockSize(const SIS* handle);

// Reserves `length` bytes, all in one store file, and gives the former reservation of the handle back. Length 0
// reserves nothing and tells the allocation pointer. Returns 0 with *offset, or -1.
[[nodiscard]] int reserveSIS(SIS* handle, std::uint64_t* offset, std::int64_t length);

// Up to buffer.size() bytes; fewer at the end of a window on the file. 0 for an empty buffer, -1 on failure, also for
// an offset that was never reserved. Reserved space that nobody wrote reads as zeros, or as noise in an encrypted file.
[[nodiscard]] ssize_t readSIS(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset);

// The same for writing within the reservation. What was written is safe on the device.
[[nodiscard]] ssize_t writeSIS(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset);

// Blocks: as above, but the record says how the block is stored. `offset` is a SIS offset within it, at
// record.SISoffset for its first byte. A compressed block is unpacked, and kept for reads of its other parts.
[[nodiscard]] ssize_t readSISsubfile(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset,
                                     const hashValue& record);

// Writes a block, whole or in pieces in order, at record->SISoffset; `offset` is that of the piece. With compression on
// nothing is written before the last piece. compressedLength is set when the block is there. Returns the piece's
// length.
[[nodiscard]] ssize_t writeSISsubfile(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset,
                                      hashValue* record);

// Writes the blocks that lie one behind the other in `buffer`, packed, from `offset` on; each record gets its SISoffset
// and compressedLength. The buffer's content is used up. Returns the bytes written, or -1: nothing may be relied on
// then.
[[nodiscard]] ssize_t writeSISmultiBlock(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset,
                                         std::span<hashValue> records);

// Compresses one block if that pays: *result is then the handle's buffer (until its next use), else the source.
// Returns 1 or 0, -1 if there is no memory.
[[nodiscard]] int mightCompress(SIS* handle, std::span<const std::byte> source, std::span<const std::byte>* result);
[[nodiscard]] int prepareCompressedBuffer(SIS* handle, std::size_t size);

// Whether new blocks are compressed: a setting, asked once per process, and the catalogue must have a column for it.
[[nodiscard]] bool useSIScompression();

// The catalogue's answer, handed down by the layer that keeps the records; none counts as no. To be told before the
// first write. A new answer makes the setting be asked anew.
void tellCompressedLengthColumn(bool exists);

// One byte of a lock file stands for each store file: writers share it, who reclaims space wants it alone. The command
// is F_SETLK or F_SETLKW, the type F_RDLCK or F_WRLCK. Each lock is undone once.
[[nodiscard]] int lockSISoffset(SIS* handle, std::uint64_t offset, int command, short type);
int unlockSISoffset(SIS* handle, std::uint64_t offset);

// The device of the catalogue that holds a store file, by the file's path; -1 if there is none.
[[nodiscard]] int findDeviceNumber(const std::string& path);

// The first offset and the device directory of a store file, by its path. 0 or -1.
[[nodiscard]] int pathToSISoffset(std::uint64_t* offset, std::string* device, SIS* handle, const std::string& path);

// The key under which space in an offset's store file is asked of the storage manager.
[[nodiscard]] std::uint32_t generateSISoffset_smgrKey(const SIS* handle, std::uint64_t offset);

// What an operator's tool shows of the store.
struct SISdevice {
    std::string directory;
    std::uint32_t weight = 0;  // points on the ring
    bool isDeleted = false;    // gets no new files
};
struct SISsummary {
    std::uint64_t updateTime = 0;
    std::uint64_t generation = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t fileSizeLimit = 0;
    std::uint64_t nextFree = 0;
    std::uint32_t ringEntries = 0;
};
[[nodiscard]] int describeSIS(SIS* handle, SISsummary* summary, std::span<const SISdevice>* devices);

// The device on which a new file for the offset would be put first. 0 or -1.
[[nodiscard]] int placeOfSISoffset(SIS* handle, std::uint64_t offset, SISdevice* device);

// For tests: asks memory and settings anew how much of a file to map at a time, which is settled once per process.
void forgetSISwindow();
