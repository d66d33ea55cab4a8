// pg_transaction.cpp - transactions, nested by savepoints.
//
// The depth of the current connection is the whole state: 0 outside any transaction, 1 in one, n with n - 1 savepoints.
// A transaction that was lost with its connection stays on the books until its owner pops it, and statements fail until
// then: none runs outside the transaction it was meant for. Only who calls pgOpen by hand gets a new connection before
// that, with the depth restored so that the pops stay balanced.
#include <cstring>

#include "database/pghelper_internal.h"

using namespace pghelper;

namespace {

int runCommandText(const char* statement) {
    return pgExec(statement) ? 0 : -1;
}

// A transaction that a failed statement spoiled answers COMMIT by rolling back, and calls that a success.
int commitOrSayNo() {
    const PgResultPtr result = pgExec("COMMIT;");
    return result && std::strcmp(PQcmdStatus(result->rows.get()), "ROLLBACK") != 0 ? 0 : -1;
}

// True (and the books are cleared) if the transaction to end went away with its connection.
bool transactionLost() {
    if (savepointDepth() == 0 || connectionGood())
        return false;
    LOG_HERE(0, "Resetting savepoint count to 0\n");
    setSavepointDepth(0);
    return true;
}

int releaseSavepoint(int id) {
    Statement<64> release;
    if (release.build("RELEASE SAVEPOINT pghelper_savepoint_%d", id) == -1)
        return -1;
    return runCommandText(release.text());
}

int rollbackToSavepoint(int id) {
    Statement<64> back;
    if (back.build("ROLLBACK TO SAVEPOINT pghelper_savepoint_%d", id) == -1)
        return -1;
    return runCommandText(back.text()) == -1 ? -1 : releaseSavepoint(id);
}

int popOutermost(bool commit) {
    const int result = commit ? pgCommit() : pgRollback();
    setSavepointDepth(0);
    if (result == 0)
        LOG_HERE(4, "pgPopTransaction was successful; %s transaction\n", commit ? "committed" : "rolled back");
    return result;
}

int popSavepoint(bool commit, int id) {
    const int result = commit ? releaseSavepoint(id) : rollbackToSavepoint(id);
    setSavepointDepth(id - 1);
    if (result == 0)
        LOG_HERE(4, "pgPopTransaction was successful; %sreleased savepoint %d\n", commit ? "" : "rolled back to and ",
                 id);
    return result;
}

}  // namespace

int pgBegin() {
    const SignalMask mask;
    return runCommandText("BEGIN;");
}

int pgCommit() {
    const SignalMask mask;
    if (transactionLost())
        return -1;
    const int result = commitOrSayNo();
    if (result == -1) {
        (void)runCommandText("ROLLBACK;");  // whether it works or not, the commit failed
        LOG_HERE(0, "Failed to commit transaction; rollback performed\n");
    }
    setSavepointDepth(0);
    return result;
}

int pgRollback() {
    const SignalMask mask;
    if (transactionLost())
        return -1;
    const int result = runCommandText("ROLLBACK;");
    setSavepointDepth(0);
    return result;
}

int pgPushTransaction(int* savepointId) {
    const SignalMask mask;
    const int id = savepointDepth() + 1;
    int result;
    if (id == 1) {
        // On the books even if BEGIN failed, so that the caller's pop stays balanced.
        result = pgBegin();
        setSavepointDepth(1);
    } else {
        Statement<64> savepoint;
        result = savepoint.build("SAVEPOINT pghelper_savepoint_%d;", id) == -1 ? -1 : runCommandText(savepoint.text());
        if (result == 0)
            setSavepointDepth(id);
    }
    if (savepointId != nullptr && (result == 0 || id == 1))
        *savepointId = id;
    if (result == 0)
        LOG_HERE(4, "pgPushTransaction was successful; savepoint id %d\n", id);
    else
        LOG_HERE(0, "Failed to start transaction or set savepoint\n");
    return result;
}

int pgPopTransaction(bool commit, int savepointId) {
    const SignalMask mask;
    const int depth = savepointDepth();
    if (depth == 0) {
        LOG_HERE(4, "pgPopTransaction: nothing to do, returning SUCCESS\n");
        return 0;
    }
    if (savepointId < 0 || savepointId > depth) {
        LOG_HERE(0, "Invalid savepoint identifier \"%d\"\n", savepointId);
        return -1;
    }
    if (!connectionGood()) {
        setSavepointDepth(savepointId == 0 ? 0 : savepointId - 1);
        LOG_HERE(0, "Adjusted savepoint count to %d\n", savepointDepth());
        return -1;
    }
    const int id = savepointId == 0 ? depth : savepointId;
    const int result = id == 1 ? popOutermost(commit) : popSavepoint(commit, id);
    if (result == -1)
        LOG_HERE(0, "Failed to %s transaction or %s savepoint\n", commit ? "commit" : "roll back",
                 commit ? "release" : "roll back to");
    return result;
}
