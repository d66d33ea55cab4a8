// The search for a backup to read a block from.
//
// It runs in passes over the block's references. A pass that meets a reference of a backup that isn't locked opens and
// locks the file and ends; the next pass, now under that lock, must see a reference of the same backup again before it
// seeks to it. So the place that is read was seen while nobody could be changing the file. A reference that failed once
// isn't tried again in the same search.
//
// The search is made for every block that is sent. A file that was kept open from the block before is locked
// beforehand, so that usually one round trip tells and confirms at once.

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "block/signal_catch.h"
#include "hash/candidate_source.h"
#include "hash/hashed_contents_internal.h"
#include "log/logger.h"

namespace {

constexpr int MOST_PASSES = 64;  // against a catalogue that keeps changing under the search
constexpr std::uint64_t NO_BACKUP = 0;

enum class Taken { no, locked, seeked };

struct Search {
    hashedContents* handle;
    std::uint64_t hashID;
    std::int64_t offset;  // within the block
    CandidateSource source{&handle->hashValues->connection, hashID};
    int candidates = 0;  // references met in this pass
    std::vector<std::uint64_t> unusableBackups{};
    std::vector<Reference> unusableReferences{};
};

// Whether the open file is still the one that its name leads to. It may have been kept open over a replacement, and
// then the catalogue tells of offsets in another file.
bool isCurrentFile(const hashedContents& handle) {
    struct stat opened {};
    struct stat named {};
    return fstat(archive_fd(handle.backup.get()), &opened) == 0 && stat(handle.backupPath.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

bool openCandidate(hashedContents* handle, std::uint64_t backupNumber) {
    handle->backup = openBackupFile(&handle->hashValues->connection, backupNumber, &handle->backupPath);
    if (!handle->backup) {
        log_message(3, "Can't open backup %ld file\n", static_cast<std::int64_t>(backupNumber));
        return false;
    }
    handle->backupNumber = backupNumber;
    return true;
}

bool lockCandidate(hashedContents* handle) {
    if (flock(archive_fd(handle->backup.get()), LOCK_SH | LOCK_NB) == -1) {
        log_message(3, "Can't lock backup %ld file: %s\n", static_cast<std::int64_t>(handle->backupNumber),
                    std::strerror(errno));
        closeBackup(handle);
        return false;
    }
    handle->backupLocked = true;
    return true;
}

// Opens and locks the backup's file, or opens it anew if it was replaced while it was kept.
bool openAndLock(hashedContents* handle, std::uint64_t backupNumber) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if ((!handle->backup && !openCandidate(handle, backupNumber)) || !lockCandidate(handle))
            return false;
        if (isCurrentFile(*handle))
            return true;
        closeBackup(handle);
    }
    log_message(3, "Can't open backup %ld file\n", static_cast<std::int64_t>(backupNumber));
    return false;
}

Taken takeCandidate(Search* search, const Reference& reference) {
    hashedContents* handle = search->handle;
    if (handle->backup && handle->backupNumber != reference.backupNumber)
        closeBackup(handle);
    if (!handle->backupLocked) {
        if (openAndLock(handle, reference.backupNumber))
            return Taken::locked;
        search->unusableBackups.push_back(reference.backupNumber);
        return Taken::no;
    }
    std::int64_t wanted = 0;
    if (!__builtin_add_overflow(reference.fileOffset, search->offset, &wanted) &&
        archive_seek(handle->backup.get(), wanted, SEEK_SET) == wanted)
        return Taken::seeked;
    log_message(3, "Can't seek to 0x%lX in backup %ld\n", wanted, static_cast<std::int64_t>(reference.backupNumber));
    closeBackup(handle);
    search->unusableReferences.push_back(reference);
    return Taken::no;
}

bool isUnusable(const Search& search, const Reference& reference) {
    return std::ranges::count(search.unusableBackups, reference.backupNumber) > 0 ||
           std::ranges::count(search.unusableReferences, reference) > 0;
}

int runPass(Search* search, Taken* taken) {
    const hashedContents& handle = *search->handle;
    *taken = Taken::no;
    search->candidates = 0;
    return search->source.offer(handle.backup ? handle.backupNumber : NO_BACKUP, [&](const Reference& reference) {
        ++search->candidates;
        if (!isUnusable(*search, reference))
            *taken = takeCandidate(search, reference);
        return *taken != Taken::no;
    });
}

// Passes until a place was seeked to under the lock (1), or there is none (0), or nothing works (-1).
int searchInPasses(Search* search) {
    for (int pass = 0; pass < MOST_PASSES; ++pass) {
        Taken taken = Taken::no;
        if (checkForSignal(SignalLayer::hashes) == 1 || runPass(search, &taken) == -1)
            return -1;
        if (taken == Taken::seeked)
            return 1;
        if (taken == Taken::no)
            break;
    }
    log_message(search->candidates > 0 ? 0 : 3, "Couldn't find a backup to open with hash ID 0x%lX\n", search->hashID);
    return search->candidates > 0 ? -1 : 0;
}

// The usual case, that the next block lies in the backup of the one before: with its file locked first, one round trip
// is a whole pass. 1: seeked to, 0: not there (or no longer), -1: failure.
int searchOpenBackup(Search* search) {
    hashedContents* handle = search->handle;
    if (!lockOpenBackup(handle))
        return 0;
    std::optional<Reference> reference;
    if (search->source.findIn(handle->backupNumber, &reference) == -1)
        return -1;
    return reference && takeCandidate(search, *reference) == Taken::seeked ? 1 : 0;
}

// A place that was confirmed together with others, under a lock that is still held.
bool seekAnnounced(hashedContents* handle, std::uint64_t hashID, std::int64_t offset) {
    const std::optional<std::int64_t> place = handle->confirmedPlace(hashID);
    std::int64_t wanted = 0;
    return place && !__builtin_add_overflow(*place, offset, &wanted) &&
           archive_seek(handle->backup.get(), wanted, SEEK_SET) == wanted;
}

}  // namespace

bool lockOpenBackup(hashedContents* handle) {
    if (!handle->backup || !lockCandidate(handle))
        return false;
    if (isCurrentFile(*handle))
        return true;
    closeBackup(handle);
    return false;
}

int findBackupCandidate(hashedContents* handle, std::uint64_t hashID, std::int64_t offset) {
    if (checkForSignal(SignalLayer::hashes) == 1)
        return -1;
    if (seekAnnounced(handle, hashID, offset))
        return 1;
    if (prepareHashValuesPrivatePSQL(&handle->hashValues, __func__) == -1)
        return -1;
    Search search{.handle = handle, .hashID = hashID, .offset = offset};
    int result = searchOpenBackup(&search);
    if (result == 0)
        result = searchInPasses(&search);
    if (search.source.end() == -1)
        result = -1;
    if (result != 1)
        closeBackup(handle);
    return result;
}
