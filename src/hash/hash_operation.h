// hash_operation.h - the frame of every public operation of this room.
//
// It holds signals back for the operation's time, and asks once which store of metadata serves it: the one place where
// an operation finds out, and the one where operations of another store branch off.
// Threads: an operation belongs to its thread; they nest.
#pragma once

#include "block/signal_catch.h"
#include "hash/hashValues.h"

class HashOperation {
public:
    // `name` stands in the lines that the frame logs, and outlives it.
    explicit HashOperation(const char* name);

    // Whether the operation may go on, in the catalogue's tables. Otherwise the reason is on the log, nothing has been
    // touched, and the operation's result is -1.
    [[nodiscard]] bool canRun() const { return canRun_; }

    // canRun, and a connection to the tables in `*handle`, which is made on first use. 0 or -1. A null handle is wrong
    // use; `count` is what the operation was asked for, for the line that says so.
    [[nodiscard]] int connect(HashValuesPtr* handle, std::size_t count = 1) const;

private:
    const char* name_;
    CaughtSignals caught_;
    bool canRun_;
};
