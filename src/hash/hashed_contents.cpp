#include "hash/hashed_contents.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "bookkeeping/common.h"
#include "hash/hash_operation.h"
#include "hash/hashed_contents_internal.h"
#include "hash/store_access.h"
#include "log/logger.h"

namespace {

constexpr std::uint64_t MOST_READ_AHEAD = 0xa00000;
constexpr std::uint32_t ID_FLAGS = hashID_in | hashID_out;
constexpr std::uint32_t DIGEST_FLAGS = hashValue_in | hashValue_out;
constexpr std::uint32_t LOCATION_FLAGS = locationID_in | locationID_out;

// One read on its way: the rest of what the caller wants.
struct Read {
    hashedContents* handle;
    const hashValue* record;
    std::span<std::byte> rest;
    std::int64_t offset;
    std::int64_t served = 0;
};

// Looks the record up by the key that it has, whichever way its flags point. 0 or -1.
int refreshRecord(hashedContents* handle, hashValue* record) {
    hashValue fresh = *record;
    outFlagsToIn(&fresh);
    fresh.flags &= hashID_in | hashValue_in;
    if (getHashValues(&handle->hashValues, {&fresh, 1}) == -1 || fresh.flags == 0) {
        log_message(0, "ERROR: Can't get hash value.\n");
        return -1;
    }
    if ((fresh.flags & hashID_out) != 0) {
        fresh.flags |= record->flags & LOCATION_FLAGS;
        *record = fresh;
    }
    return 0;
}

bool isSameBlock(const hashValue& a, const hashValue& b) {
    if (a.hashID != b.hashID)
        return false;
    const bool bothKnown = (a.flags & DIGEST_FLAGS) != 0 && (b.flags & DIGEST_FLAGS) != 0;
    return !bothKnown || std::memcmp(a.digest, b.digest, sizeof a.digest) == 0;
}

void advance(Read* read, std::size_t bytes) {
    read->rest = read->rest.subspan(bytes);
    read->offset += static_cast<std::int64_t>(bytes);
    read->served += static_cast<std::int64_t>(bytes);
}

void serveFromBuffer(Read* read) {
    const ReadAhead& ahead = read->handle->ahead;
    const std::int64_t start = read->offset - ahead.offset;
    if (ahead.length == 0 || !isSameBlock(ahead.block, *read->record) || start < 0 || start >= ahead.length)
        return;
    const std::size_t bytes = std::min(read->rest.size(), ahead.length - static_cast<std::size_t>(start));
    std::memcpy(read->rest.data(), ahead.bytes.get() + start, bytes);
    advance(read, bytes);
    log_message(5,
                read->rest.empty() ? "Data found in buffer, transfer %d bytes\n"
                                   : "Partial data found in buffer, transfer %d bytes.\n",
                static_cast<int>(bytes));
}

// A failed allocation is no failure of the read: the old buffer serves, or none.
void growReadAhead(hashedContents* handle, std::uint64_t hashedLength) {
    ReadAhead& ahead = handle->ahead;
    if (hashedLength <= ahead.capacity || ahead.capacity >= MOST_READ_AHEAD)
        return;
    if (handle->maxSubfileBytes == 0)
        handle->maxSubfileBytes = getMaxSubfileBytes(0, 0);
    const std::uint64_t size = std::min(std::max(hashedLength, handle->maxSubfileBytes), MOST_READ_AHEAD);
    std::unique_ptr<std::byte[]> bytes(new (std::nothrow) std::byte[size]);
    if (!bytes) {
        log_message(0, "Failed to allocate %d bytes, continue without buffering.\n", static_cast<int>(size));
        return;
    }
    ahead.bytes = std::move(bytes);
    ahead.capacity = static_cast<std::uint32_t>(size);
}

struct Target {
    std::span<std::byte> bytes;
    bool isAhead;  // the read-ahead buffer
};

// Where the bytes go: the caller's memory, or the buffer when more is read than was asked for.
Target chooseTarget(Read* read, std::uint64_t remaining) {
    if (read->rest.size() >= MOST_READ_AHEAD || read->rest.size() >= remaining)
        return {read->rest, false};
    ReadAhead& ahead = read->handle->ahead;
    growReadAhead(read->handle, read->record->hashedLength);
    ahead.length = 0;
    const std::uint64_t size = std::min<std::uint64_t>(remaining, ahead.capacity);
    const bool isAhead = read->rest.size() < size;
    return {isAhead ? std::span(ahead.bytes.get(), size) : read->rest, isAhead};
}

// Reads from some backup's file. Returns the bytes that came, or -1.
std::int64_t readFromBackup(const Read& read, std::span<std::byte> target) {
    hashedContents* handle = read.handle;
    const int found = findBackupCandidate(handle, read.record->hashID, read.offset);
    if (found != 1)
        return found;
    std::size_t total = 0;
    while (total < target.size()) {
        const ssize_t got = archive_read(handle->backup.get(), target.data() + total, target.size() - total);
        if (got <= 0) {
            log_message(0, "Error or premature end-of-file reading backup %ld\n",
                        static_cast<std::int64_t>(handle->backupNumber));
            break;
        }
        total += static_cast<std::size_t>(got);
    }
    if (handle->confirmed.empty())
        unlockBackup(handle);
    return total < read.rest.size() ? -1 : static_cast<std::int64_t>(total);
}

// Settles what came in for `target`. Returns the bytes of the whole read, or -1.
std::int64_t finish(Read* read, const Target& target, std::int64_t came) {
    ReadAhead& ahead = read->handle->ahead;
    if (came == 0 && read->served == 0)
        return 0;
    if (came < static_cast<std::int64_t>(read->rest.size())) {
        ahead.length = 0;
        return -1;
    }
    if (target.isAhead) {
        log_message(5, "Data buffered (%d bytes), transfer %d bytes\n", static_cast<int>(came),
                    static_cast<int>(read->rest.size()));
        ahead.length = static_cast<std::uint32_t>(came);
        ahead.offset = read->offset;
        ahead.block = *read->record;
        std::memcpy(read->rest.data(), target.bytes.data(), read->rest.size());
    }
    return read->served + static_cast<std::int64_t>(read->rest.size());
}

std::int64_t fetch(Read* read) {
    const auto length = static_cast<std::int64_t>(read->record->hashedLength);
    if (length < 0 || read->offset >= length)
        return read->served;
    const auto remaining = static_cast<std::uint64_t>(length - read->offset);
    read->rest = read->rest.first(std::min<std::uint64_t>(read->rest.size(), remaining));
    const Target target = chooseTarget(read, remaining);
    std::int64_t came = STORE_UNAVAILABLE;
    if ((read->record->flags & STORE_FLAGS) != 0)
        came = readStoredSubfile(&read->handle->store, *read->record, read->offset, target.bytes);
    if (came == STORE_UNAVAILABLE)
        came = readFromBackup(*read, target.bytes);
    return finish(read, target, came);
}

std::int64_t readContents(hashedContents* handle, hashValue* record, std::span<std::byte> buffer, std::int64_t offset,
                          bool refresh) {
    if ((record->flags & ID_FLAGS) == 0) {
        if (refreshRecord(handle, record) == -1)
            return -1;
        refresh = false;
        if ((record->flags & ID_FLAGS) == 0)
            return 0;
    }
    Read read{handle, record, buffer, offset};
    serveFromBuffer(&read);
    if (read.rest.empty())
        return read.served;
    if (refresh && !handle->confirmedPlace(record->hashID) && refreshRecord(handle, record) == -1)
        return -1;
    return fetch(&read);
}

int refuse(const HashedContentsPtr* handle, const hashValue* record, std::span<const std::byte> buffer,
           std::int64_t offset) {
    const auto text = [](bool missing) { return missing ? "NULL" : ""; };
    log_message(0, "readHashedContents(%s, %s, %s,, 0x%lX): %s\n", text(handle == nullptr), text(record == nullptr),
                text(buffer.data() == nullptr), static_cast<std::uint64_t>(offset), std::strerror(EINVAL));
    return -1;
}

}  // namespace

void unlockBackup(hashedContents* handle) {
    if (flock(archive_fd(handle->backup.get()), LOCK_UN) == -1)
        log_message(3, "Can't unlock backup %ld file: %s\n", static_cast<std::int64_t>(handle->backupNumber),
                    std::strerror(errno));
    handle->backupLocked = false;
}

int openHandle(HashedContentsPtr* handle) {
    if (!*handle)
        handle->reset(new (std::nothrow) hashedContents);
    if (*handle)
        return 0;
    log_message(0, "malloc(%zd) failed\n", static_cast<ssize_t>(sizeof(hashedContents)));
    return -1;
}

std::int64_t readHashedContents(HashedContentsPtr* handle, hashValue* record, std::span<std::byte> buffer,
                                std::int64_t offset, int refresh) {
    if (handle == nullptr || record == nullptr || buffer.data() == nullptr || offset < 0)
        return refuse(handle, record, buffer, offset);
    if (buffer.empty())
        return 0;
    const HashOperation operation(__func__);
    if (!operation.canRun() || openHandle(handle) == -1)
        return -1;
    return readContents(handle->get(), record, buffer, offset, refresh != 0);
}

void freeHashedContents(hashedContents* handle) {
    const std::unique_ptr<hashedContents> owner(handle);
}

void closeHashedContents(HashedContentsPtr* handle) {
    if (handle == nullptr) {
        log_message(0, "closeHashedContents(NULL): %s\n", std::strerror(EINVAL));
        return;
    }
    handle->reset();
}
