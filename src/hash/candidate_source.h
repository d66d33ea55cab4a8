// candidate_source.h - where a block's candidates come from: the references that its data can be read at.
//
// The search asks for them pass by pass and takes one; how they are found is this source's business alone. It reads the
// catalogue's tables.
// Threads: a source belongs to one read of one handle.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "hash/hash_connection.h"

// A place of a block's data.
struct Reference {
    std::uint64_t backupNumber;
    std::int64_t fileOffset;
    bool operator==(const Reference&) const = default;
};

class CandidateSource {
public:
    CandidateSource(HashConnection* connection, std::uint64_t hashID) : connection_(*connection), hashID_(hashID) {}

    // One pass: offers the candidates, those of the preferred backup first (0: none), then those of the newest, until
    // `take` returns true or there are no more. Returns 0, or -1 (logged) after a failed statement or a signal.
    [[nodiscard]] int offer(std::uint64_t preferredBackup, const std::function<bool(const Reference&)>& take);

    // A candidate of that one backup, in one round trip and outside of passes. 0 or -1.
    [[nodiscard]] int findIn(std::uint64_t backup, std::optional<Reference>* found);

    // Ends the passes: the transaction of the last one. 0 or -1.
    [[nodiscard]] int end();

private:
    [[nodiscard]] int openPass(std::uint64_t preferredBackup, PgRowsPtr* row);
    [[nodiscard]] int fetchNext(PgRowsPtr* row);

    HashConnection& connection_;
    std::uint64_t hashID_;
    bool cursorOpen_ = false;
    bool broken_ = false;  // a statement failed: there is nothing to commit
};
