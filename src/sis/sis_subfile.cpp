// Blocks in the store: compressed one by one where that pays.

#include <algorithm>
#include <atomic>
#include <cstring>

#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"
#include "sis/SIScompLZ4.h"

namespace {

constexpr std::size_t LARGEST_TO_COMPRESS = 0x100000;
constexpr std::size_t SMALLEST_TO_COMPRESS = 4097;
constexpr std::size_t LEAST_COMPRESSED_BUFFER = 0x200000;
constexpr std::size_t SAVED_UNIT = 4096;
constexpr std::uint64_t BEST_RATIO = 255;  // of LZ4: what promises more can't be true

constexpr int NOT_ASKED = -1;
std::atomic<bool> g_columnExists = false;
std::atomic<int> g_useCompression = NOT_ASKED;

bool isCompressed(const hashValue& record) {
    return record.compressedLength != 0 && record.compressedLength != record.hashedLength;
}

bool holdsDigest(const hashValue& record) {
    return (record.flags & (hashValue_in | hashValue_out)) != 0;
}

// Hash IDs are used again, so the digest counts too when it is known.
bool isInBuffer(const SIS* handle, const hashValue& record) {
    const hashValue& kept = handle->subfileOf;
    if (handle->subfileLength == 0 || kept.hashID != record.hashID || kept.SISoffset != record.SISoffset ||
        kept.hashedLength != record.hashedLength)
        return false;
    return !holdsDigest(kept) || !holdsDigest(record) ||
           std::memcmp(kept.digest, record.digest, sizeof kept.digest) == 0;
}

// Writes all of it; each failure is tried once more.
int writeAll(SIS* handle, std::span<const std::byte> data, std::uint64_t offset) {
    while (!data.empty()) {
        ssize_t written = writeSIS(handle, data, offset);
        if (written < 1) {
            log_message(0, "failed to write to SIS, retry.\n");
            written = writeSIS(handle, data, offset);
        }
        if (written < 1) {
            log_message(0, "Couldn't populate single instance store at 0x%lX\n", offset);
            log_message(0, "writeSIS error, 0x%lX, %lu) \n", offset, data.size());
            return -1;
        }
        data = data.subspan(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return 0;
}

int readAll(SIS* handle, std::span<std::byte> data, std::uint64_t offset) {
    while (!data.empty()) {
        const ssize_t got = readSIS(handle, data, offset);
        if (got < 1) {
            log_message(0, "readSIS error or premature end-of-file reading single instance store\n");
            log_message(0, "Couldn't read from single instance store at 0x%lX\n", offset);
            return -1;
        }
        data = data.subspan(static_cast<std::size_t>(got));
        offset += static_cast<std::uint64_t>(got);
    }
    return 0;
}

// Whether a record's sizes can be true, so that they may be allocated and read.
bool isPlausible(const SIS* handle, const hashValue& record) {
    if (record.compressedLength < record.hashedLength && record.hashedLength / BEST_RATIO <= record.compressedLength &&
        record.compressedLength <= handle->nextFree() - record.SISoffset)
        return true;
    log_message(0, "readSIScompressedBlock, invalid arguments, length %zu, compressedSize %ld, \n",
                static_cast<std::size_t>(record.hashedLength), static_cast<std::int64_t>(record.compressedLength));
    return false;
}

// Reads the compressed form of a block and unpacks it into exactly `destination`.
int readSIScompressedBlock(SIS* handle, std::span<std::byte> destination, std::uint64_t offset,
                           std::uint64_t compressedSize) {
    if (prepareCompressedBuffer(handle, compressedSize) == -1)
        return -1;
    const std::span<std::byte> packed(handle->compressed.bytes.get(), compressedSize);
    if (readAll(handle, packed, offset) == -1)
        return -1;
    // One block by what we write; several, one behind the other, are as good.
    std::span<const std::byte> source = packed;
    while (!destination.empty()) {
        const int size = SISdecompressBlock(source, destination);
        if (size < 1) {
            log_message(0, "SISdecompressBlock(SIS @ 0x%lX) failed\n", offset);
            return -1;
        }
        destination = destination.subspan(static_cast<std::size_t>(size));
        source = source.subspan(std::min(source.size(), SIScompressedSize(source)));
    }
    return 0;
}

int readSIScompressedRegion(SIS* handle, std::span<std::byte> destination, const hashValue& record) {
    if (readSIScompressedBlock(handle, destination, record.SISoffset, record.compressedLength) == 0)
        return 0;
    log_message(0, "readSIScompressedRegion(SIS @ 0x%lX) failed\n", record.SISoffset);
    return -1;
}

// Unpacks the whole block into the handle's buffer, unless it is there already.
int loadSubfile(SIS* handle, const hashValue& record) {
    if (isInBuffer(handle, record))
        return 0;
    handle->subfileLength = 0;
    if (!handle->subfile.grow(record.hashedLength)) {
        log_message(0, "readSISsubfile, realloc failed, length %lu)\n", record.hashedLength);
        return -1;
    }
    if (readSIScompressedRegion(handle, {handle->subfile.bytes.get(), record.hashedLength}, record) == -1)
        return -1;
    handle->subfileLength = record.hashedLength;
    handle->subfileOf = record;
    return 0;
}

// Writes a whole block, compressed if that pays, and tells the record how.
int writeWholeSubfile(SIS* handle, std::span<const std::byte> data, hashValue* record) {
    std::span<const std::byte> stored;
    const int compressed = mightCompress(handle, data, &stored);
    if (compressed == -1 || writeAll(handle, stored, record->SISoffset) == -1)
        return -1;
    record->compressedLength = compressed == 1 && stored.size() < record->hashedLength ? stored.size() : 0;
    return 0;
}

// Takes a piece of a block in. 1 when the block is complete, 0 if not yet, -1 for a piece that doesn't fit.
int writeToSubfileBuffer(SIS* handle, std::span<const std::byte> piece, std::uint64_t offset, const hashValue& record) {
    if (offset < record.SISoffset || offset - record.SISoffset > record.hashedLength) {
        log_message(0, "writeToSubfileBuffer, invalid offset, 0x%lx\n", offset);
        return -1;
    }
    if (offset == record.SISoffset) {
        handle->assembled = 0;
        if (record.hashedLength > handle->assembly.capacity)
            log_message(5, "prepareSubfileBuffer, realloc subfileBufferSize %lu\n", record.hashedLength);
        if (!handle->assembly.grow(record.hashedLength)) {
            log_message(0, "prepareSubfileBuffer, realloc failed, length 0x%lu)\n", record.hashedLength);
            return -1;
        }
    }
    if (offset - record.SISoffset != handle->assembled) {  // a gap would be filled with another block's bytes
        log_message(0, "writeToSubfileBuffer, invalid offset, 0x%lx\n", offset);
        return -1;
    }
    if (piece.size() > record.hashedLength - handle->assembled) {
        log_message(0, "writeToSubfileBuffer, length to large for buffer\n");
        return -1;
    }
    std::memcpy(handle->assembly.bytes.get() + handle->assembled, piece.data(), piece.size());
    handle->assembled += piece.size();
    return handle->assembled == record.hashedLength ? 1 : 0;
}

// Packs compressed blocks to the front of the buffer. Returns the bytes that are left, or -1.
ssize_t packBlocks(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset, std::span<hashValue> records) {
    const bool compress = useSIScompression();
    std::size_t from = 0;
    std::size_t to = 0;
    for (hashValue& record : records) {
        if (record.hashedLength > buffer.size() - from) {
            log_message(0, "writeSISmultiBlock, not enough room in buffer\n");
            return -1;
        }
        const std::span<const std::byte> data = buffer.subspan(from, record.hashedLength);
        std::span<const std::byte> stored = data;
        if (compress && mightCompress(handle, data, &stored) == -1)
            return -1;
        std::memmove(buffer.data() + to, stored.data(), stored.size());
        record.SISoffset = offset + to;
        record.compressedLength = stored.size() < data.size() ? stored.size() : 0;
        from += data.size();
        to += stored.size();
    }
    return static_cast<ssize_t>(to);
}

}  // namespace

void tellCompressedLengthColumn(bool exists) {
    if (g_columnExists.exchange(exists) != exists)
        g_useCompression = NOT_ASKED;
}

bool useSIScompression() {
    int use = g_useCompression;
    if (use == NOT_ASKED) {
        unsigned char wanted = 0;
        (void)ini_get_bool("fileDedup", "useSIScompression", 0, &wanted, g_master_ini);  // the default is in place
        use = wanted != 0 && g_columnExists ? 1 : 0;
        if (wanted != 0 && use == 0)
            log_message(0, "SIS compression not supported by database, setting useSIScompression %d\n", use);
        g_useCompression = use;
    }
    return use != 0;
}

int prepareCompressedBuffer(SIS* handle, std::size_t size) {
    if (size <= handle->compressed.capacity)
        return 0;
    log_message(5, "prepareCompressedBuffer, realloc compressedBufferSize %lu\n", size);
    if (handle->compressed.grow(size))
        return 0;
    log_message(0, "prepareCompressedBuffer, realloc failed, length 0x%lu)\n", size);
    return -1;
}

int mightCompress(SIS* handle, std::span<const std::byte> source, std::span<const std::byte>* result) {
    *result = source;
    if (source.size() > LARGEST_TO_COMPRESS || source.size() < SMALLEST_TO_COMPRESS) {
        log_message(6, "don't compress this block\n");
        return 0;
    }
    if (prepareCompressedBuffer(handle, std::max(2 * source.size(), LEAST_COMPRESSED_BUFFER)) == -1)
        return -1;
    const int size = SIScompressBlock(source, {handle->compressed.bytes.get(), handle->compressed.capacity});
    // A device gives out whole pages: what doesn't save one isn't worth unpacking.
    const std::size_t tail = source.size() % SAVED_UNIT;
    const std::size_t most = source.size() - (tail == 0 ? SAVED_UNIT : tail);
    if (size <= 0 || static_cast<std::size_t>(size) > most)
        return 0;
    log_message(6, "write compressed block\n");
    *result = {handle->compressed.bytes.get(), static_cast<std::size_t>(size)};
    return 1;
}

ssize_t readSISsubfile(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset, const hashValue& record) {
    const std::uint64_t end = handle->nextFree();
    if (offset >= end) {
        log_message(0, "readSISsubfile(): offset 0x%lX >= 0x%lX\n", offset, end);
        return -1;
    }
    if (offset < record.SISoffset || offset - record.SISoffset >= record.hashedLength) {
        log_message(0, "readSISsubfile(): offset 0x%lX isn't in the block at 0x%lX\n", offset, record.SISoffset);
        return -1;
    }
    const std::uint64_t start = offset - record.SISoffset;
    const std::span<std::byte> wanted = buffer.first(std::min(record.hashedLength - start, buffer.size()));
    if (!isCompressed(record))
        return readSIS(handle, wanted, offset);
    if (!isPlausible(handle, record))
        return -1;
    if (wanted.size() == record.hashedLength)
        return readSIScompressedRegion(handle, wanted, record) == 0 ? static_cast<ssize_t>(wanted.size()) : -1;
    if (loadSubfile(handle, record) == -1)
        return -1;
    std::memcpy(wanted.data(), handle->subfile.bytes.get() + start, wanted.size());
    return static_cast<ssize_t>(wanted.size());
}

ssize_t writeSISsubfile(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset, hashValue* record) {
    const auto length = static_cast<ssize_t>(buffer.size());
    if (!useSIScompression()) {
        if (writeAll(handle, buffer, offset) == -1)
            return -1;
        record->compressedLength = 0;
        return length;
    }
    if (offset == record->SISoffset && buffer.size() == record->hashedLength)
        return writeWholeSubfile(handle, buffer, record) == 0 ? length : -1;
    const int complete = writeToSubfileBuffer(handle, buffer, offset, *record);
    if (complete == 1 && writeWholeSubfile(handle, {handle->assembly.bytes.get(), handle->assembled}, record) == -1)
        return -1;
    return complete == -1 ? -1 : length;
}

ssize_t writeSISmultiBlock(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset,
                           std::span<hashValue> records) {
    const ssize_t packed = packBlocks(handle, buffer, offset, records);
    if (packed == -1 || writeAll(handle, buffer.first(static_cast<std::size_t>(packed)), offset) == -1)
        return -1;
    return packed;
}
