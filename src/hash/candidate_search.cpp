// The search for a backup to read a block from.
//
// It runs in passes over the block's references. A pass that meets a reference of a backup that isn't locked opens and
// locks the file and ends; the next pass, now under that lock, must see a reference of the same backup again before it
// seeks to it. So the place that is read was seen while nobody could be changing the file. A reference that failed once
// isn't tried again in the same search.
//
// The search is made for every block that is sent. What can be sent together is, in the same order; and a file that was
// kept open from the block before is locked beforehand, so that usually one round trip tells and confirms at once.

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "base/text.h"
#include "block/signal_catch.h"
#include "hash/hashed_contents_internal.h"
#include "log/logger.h"

namespace {

constexpr int MOST_PASSES = 64;  // against a catalogue that keeps changing under the search
constexpr std::uint64_t NO_BACKUP = 0;

enum class Taken { no, locked, seeked };

struct Reference {
    std::uint64_t backupNumber;
    std::int64_t fileOffset;
    bool operator==(const Reference&) const = default;
};

struct Search {
    hashedContents* handle;
    std::uint64_t hashID;
    std::int64_t offset;  // within the block
    int candidates = 0;   // references met in this pass
    bool cursorOpen = false;
    bool broken = false;  // a statement failed: there is nothing to commit
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

// What went wrong, by the statement that has no good result.
int reportFailure(const std::vector<PgRowsPtr>& results, std::initializer_list<const char*> texts,
                  const HashConnection& connection) {
    std::size_t failed = results.empty() ? 0 : results.size() - 1;
    if (!results.empty() && succeeded(results.back().get()))
        ++failed;
    log_message(0, "%s", failed < texts.size() ? texts.begin()[failed] : "Can't read candidates\n");
    log_message(0, "%s", connection.error());
    return -1;
}

// The first candidates of a block: those of the open backup, then those of the newest.
std::string declareAndFetch(const Search& search) {
    const auto preferred = static_cast<std::int64_t>(search.handle->backup ? search.handle->backupNumber : NO_BACKUP);
    const auto hashID = static_cast<std::int64_t>(search.hashID);
    return formatString(
        "BEGIN;DECLARE candidates CURSOR FOR SELECT backup_no, file_offset FROM dq.backups_hash_values WHERE "
        "(backup_no = %ld) AND (hash_id = %ld) AND (deduplicated IS NULL) AND (hash_incomplete = FALSE) UNION ALL "
        "(SELECT backup_no, file_offset FROM dq.backups_hash_values WHERE (deduplicated IS NULL) AND (hash_incomplete "
        "= "
        "FALSE) AND (hash_id = %ld) ORDER BY backup_no DESC);FETCH NEXT FROM candidates",
        preferred, hashID, hashID);
}

Reference referenceIn(const PGresult* row) {
    return {std::strtoull(PQgetvalue(row, 0, 0), nullptr, 10), std::strtoll(PQgetvalue(row, 0, 1), nullptr, 10)};
}

// Begins a pass: ends the former one, declares the cursor and fetches its first row. `*row` is owned by the caller.
int openPass(Search* search, PgRowsPtr* row) {
    HashConnection& connection = search->handle->hashValues->connection;
    const std::string statements = (search->cursorOpen ? "CLOSE candidates;COMMIT;" : "") + declareAndFetch(*search);
    const std::size_t expected = search->cursorOpen ? 5 : 3;
    std::vector<PgRowsPtr> results = connection.runAll(statements.c_str());
    const bool wasOpen = std::exchange(search->cursorOpen, true);
    if (results.size() != expected || !succeeded(results.back().get())) {
        constexpr char BEGIN_FAILED[] = "pgBegin() failed -- can't start transaction\n";
        return wasOpen ? reportFailure(results,
                                       {"Can't close cursor\n", "pgCommit() failed -- can't commit\n", BEGIN_FAILED},
                                       connection)
                       : reportFailure(results, {BEGIN_FAILED}, connection);
    }
    *row = std::move(results.back());
    return 0;
}

int fetchNext(Search* search, PgRowsPtr* row) {
    HashConnection& connection = search->handle->hashValues->connection;
    *row = connection.run("FETCH NEXT FROM candidates");
    if (succeeded(row->get()))
        return 0;
    log_message(0, "Can't read candidates\n%s", connection.error());
    return -1;
}

int runPass(Search* search, Taken* taken) {
    *taken = Taken::no;
    search->candidates = 0;
    PgRowsPtr row;
    if (openPass(search, &row) == -1) {
        search->broken = true;
        return -1;
    }
    while (PQntuples(row.get()) > 0) {
        const Reference reference = referenceIn(row.get());
        ++search->candidates;
        if (!isUnusable(*search, reference))
            *taken = takeCandidate(search, reference);
        if (*taken != Taken::no)
            break;
        search->broken = fetchNext(search, &row) == -1;
        if (search->broken || checkForSignal(SignalLayer::hashes) == 1)
            return -1;
    }
    return 0;
}

// Ends the transaction of the last pass.
int endSearch(Search* search) {
    if (!search->cursorOpen)
        return 0;
    HashConnection& connection = search->handle->hashValues->connection;
    if (!search->broken) {
        const std::vector<PgRowsPtr> results = connection.runAll("CLOSE candidates;COMMIT");
        if (results.size() == 2 && succeeded(results.back().get()))
            return 0;
        (void)reportFailure(results, {"Can't close cursor\n", "pgCommit() failed -- can't commit\n"}, connection);
    }
    if (!succeeded(connection.run("ROLLBACK").get()))
        log_message(0, "pgRollback() failed -- can't rollback\n");
    return -1;
}

// Passes until a place was seeked to under the lock (1), or there is none (0), or nothing works (-1).
int searchInPasses(Search* search) {
    for (int pass = 0; pass < MOST_PASSES; ++pass) {
        Taken taken = Taken::no;
        if (checkForSignal(SignalLayer::hashes) == 1 || runPass(search, &taken) == -1)
            return -1;
        if (taken == Taken::seeked)
            return 1;
        if (taken == Taken::no) {
            LOG_HERE(3, "Couldn't find a backup to open with hash ID 0x%lX\n", search->hashID);
            return search->candidates > 0 ? -1 : 0;
        }
    }
    log_message(0, "Couldn't find a backup to open with hash ID 0x%lX\n", search->hashID);
    return -1;
}

// The usual case, that the next block lies in the backup of the one before: with its file locked first, one round trip
// is a whole pass. 1: seeked to, 0: not there (or no longer), -1: failure.
int searchOpenBackup(Search* search) {
    hashedContents* handle = search->handle;
    if (!lockOpenBackup(handle))
        return 0;
    HashConnection& connection = handle->hashValues->connection;
    const PgRowsPtr row = connection.runPrepared(
        "openBackup",
        "SELECT backup_no, file_offset FROM dq.backups_hash_values WHERE (backup_no = $1) AND (hash_id = $2) AND "
        "(deduplicated IS NULL) AND (hash_incomplete = FALSE) LIMIT 1",
        {std::to_string(static_cast<std::int64_t>(handle->backupNumber)),
         std::to_string(static_cast<std::int64_t>(search->hashID))});
    if (!succeeded(row.get())) {
        log_message(0, "Can't read candidates\n%s", connection.error());
        return -1;
    }
    if (PQntuples(row.get()) == 0)
        return 0;
    const Reference reference = referenceIn(row.get());
    return takeCandidate(search, reference) == Taken::seeked ? 1 : 0;
}

// A place that was confirmed together with others, under a lock that is still held.
bool seekAnnounced(hashedContents* handle, std::uint64_t hashID, std::int64_t offset) {
    const std::optional<std::int64_t> place = handle->announced.placeOf(hashID);
    std::int64_t wanted = 0;
    return place && handle->backupLocked && !__builtin_add_overflow(*place, offset, &wanted) &&
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
    if (seekAnnounced(handle, hashID, offset))
        return 1;
    if (prepareHashValuesPrivatePSQL(&handle->hashValues) == -1)
        return -1;
    Search search{.handle = handle, .hashID = hashID, .offset = offset};
    int result = searchOpenBackup(&search);
    if (result == 0)
        result = searchInPasses(&search);
    if (endSearch(&search) == -1)
        result = -1;
    if (result != 1)
        closeBackup(handle);
    return result;
}
