#include "hash/candidate_source.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "base/text.h"
#include "block/signal_catch.h"
#include "log/logger.h"

namespace {

const StatementStep CLOSE_CURSOR{"CLOSE candidates", "Can't close cursor\n"};
const StatementStep COMMIT{"COMMIT", "pgCommit() failed -- can't commit\n"};

// The first candidates of a block: those of the open backup, then those of the newest.
std::string declareStatement(std::uint64_t preferredBackup, std::uint64_t hashID) {
    const auto id = static_cast<std::int64_t>(hashID);
    return formatString(
        "DECLARE candidates CURSOR FOR SELECT backup_no, file_offset FROM dq.backups_hash_values WHERE (backup_no = "
        "%ld) AND (hash_id = %ld) AND (deduplicated IS NULL) AND (hash_incomplete = FALSE) UNION ALL (SELECT "
        "backup_no, file_offset FROM dq.backups_hash_values WHERE (deduplicated IS NULL) AND (hash_incomplete = FALSE) "
        "AND (hash_id = %ld) ORDER BY backup_no DESC)",
        static_cast<std::int64_t>(preferredBackup), id, id);
}

Reference referenceIn(const PGresult* row) {
    return {std::strtoull(PQgetvalue(row, 0, 0), nullptr, 10), std::strtoll(PQgetvalue(row, 0, 1), nullptr, 10)};
}

}  // namespace

// The search is made for every block that is sent, so what can be sent together is: the end of the former pass, and the
// new one up to its first row.
int CandidateSource::openPass(std::uint64_t preferredBackup, PgRowsPtr* row) {
    std::vector<StatementStep> steps;
    if (cursorOpen_)
        steps = {CLOSE_CURSOR, COMMIT};
    steps.push_back({"BEGIN", "pgBegin() failed -- can't start transaction\n"});
    steps.push_back({declareStatement(preferredBackup, hashID_), "Can't read candidates\n"});
    steps.push_back({"FETCH NEXT FROM candidates", "Can't read candidates\n"});
    *row = connection_.runSteps(steps);
    cursorOpen_ = true;
    broken_ = !*row;
    return broken_ ? -1 : 0;
}

int CandidateSource::fetchNext(PgRowsPtr* row) {
    *row = connection_.run("FETCH NEXT FROM candidates");
    broken_ = !succeeded(row->get());
    if (broken_)
        log_message(0, "Can't read candidates\n%s", connection_.error());
    return broken_ || checkForSignal(SignalLayer::hashes) == 1 ? -1 : 0;
}

int CandidateSource::offer(std::uint64_t preferredBackup, const std::function<bool(const Reference&)>& take) {
    PgRowsPtr row;
    if (openPass(preferredBackup, &row) == -1)
        return -1;
    while (PQntuples(row.get()) > 0 && !take(referenceIn(row.get())))
        if (fetchNext(&row) == -1)
            return -1;
    return 0;
}

int CandidateSource::findIn(std::uint64_t backup, std::optional<Reference>* found) {
    const PgRowsPtr row = connection_.runPrepared(
        "openBackup",
        "SELECT backup_no, file_offset FROM dq.backups_hash_values WHERE (backup_no = $1) AND (hash_id = $2) AND "
        "(deduplicated IS NULL) AND (hash_incomplete = FALSE) LIMIT 1",
        {std::to_string(static_cast<std::int64_t>(backup)), std::to_string(static_cast<std::int64_t>(hashID_))});
    if (!succeeded(row.get())) {
        log_message(0, "Can't read candidates\n%s", connection_.error());
        return -1;
    }
    if (PQntuples(row.get()) > 0)
        *found = referenceIn(row.get());
    return 0;
}

int CandidateSource::end() {
    if (!cursorOpen_)
        return 0;
    const StatementStep steps[] = {CLOSE_CURSOR, COMMIT};
    if (!broken_ && connection_.runSteps(steps, OnSignal::finish))
        return 0;
    if (!succeeded(connection_.run("ROLLBACK", OnSignal::finish).get()))
        log_message(0, "pgRollback() failed -- can't rollback\n");
    return -1;
}
