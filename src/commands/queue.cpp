// Commands on the queue.

#include <algorithm>
#include <climits>
#include <cstdio>

#include "bookkeeping/replicationQueue.h"
#include "commands/util_internal.h"
#include "database/pghelper.h"
#include "log/logger.h"

namespace {

constexpr int BAD_ARGUMENT = 1;

// Most commands name a row by backup and target.
int onRow(Arguments arguments, int (*change)(std::uint64_t, const std::string&)) {
    std::uint64_t backupNo = 0;
    return numberArgument(arguments[0], &backupNo) ? change(backupNo, arguments[1]) : BAD_ARGUMENT;
}

// The names of the progress records; two more are in the schema.
int add_operation_names() {
    Statement<512> statement;
    if (statement.build("INSERT INTO dq.operation_names VALUES (%d,'%s');INSERT INTO dq.operation_names VALUES "
                        "(%d,'%s');INSERT INTO dq.operation_names VALUES (%d,'%s');INSERT INTO dq.operation_names "
                        "VALUES (%d,'%s');",
                        6, "prepare", 7, "replicate", 8, "wait", 9, "rebuild") == -1)
        return -1;
    if (pgStatus(pgExec(statement.text()).get()) == -1) {
        LOG_HERE(0, "Failed query\n");
        return -1;
    }
    return 0;
}

}  // namespace

int utilCreateQueue(Arguments) {
    return create_replication_queue();
}
int utilCreateTypes(Arguments) {
    return add_operation_names();
}
int utilEnqueue(Arguments arguments) {
    if (!targetArgument(arguments[1]))
        return BAD_ARGUMENT;
    return onRow(arguments, enqueue_rq);
}
int utilComplete(Arguments arguments) {
    return onRow(arguments, complete_rq);
}
int utilRemove(Arguments arguments) {
    return onRow(arguments, remove_rq);
}
int utilCleanup(Arguments arguments) {
    return onRow(arguments, cleanup_rq);
}

int utilPeek(Arguments arguments) {
    std::uint64_t offset = 0;
    if (!numberArgument(arguments[0], &offset))
        return BAD_ARGUMENT;
    const int backupNo = static_cast<int>(peek_rq(static_cast<int>(std::min<std::uint64_t>(offset, INT_MAX))));
    printf("%d", backupNo);
    return backupNo;
}

int utilSwap(Arguments arguments) {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (!numberArgument(arguments[0], &first) || !numberArgument(arguments[2], &second))
        return BAD_ARGUMENT;
    return swap_rq(first, arguments[1], second, arguments[3]);
}
