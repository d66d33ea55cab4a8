#include "commands/util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/standard_streams.h"
#include "bookkeeping/replicationQueue.h"
#include "commands/util_internal.h"
#include "config/directories.h"
#include "config/program_log.h"
#include "log/logger.h"

namespace {

constexpr const char* LOG_NAME = "ferryd-util";
constexpr int DEFAULT_INSTANCES = 1;
constexpr int ANY_NUMBER = 1 << 20;  // of arguments
constexpr int FIRST_ARGUMENT = 3;    // of argv

// Commands whose machinery this version lacks say so instead of doing nothing.
int notInThisVersion(Arguments) {
    LOG_HERE(0, "This command is not in this version");
    fprintf(stderr, "ferryd util: this command is not in this version\n");
    return 1;
}

struct Command {
    const char* name;
    const char* arguments;
    const char* text;  // lines of the usage, without their tabs; null: not in the usage
    int least;         // number of arguments
    int most;
    int (*run)(Arguments);
    int step = 1;  // between the numbers that are allowed
};

static_assert(REPLICATION_OUT_OF_ORDER == 128 && REPLICATION_NEED_ASSIST == 64);  // both stand in the usage

// In the order of the usage. One is in the usage only and does nothing.
constexpr Command COMMANDS[] = {
    {"createqueue", "", "Create dq.replication_queue", 0, 0, utilCreateQueue},
    {"createtypes", "", "create types in dq.operation_names", 0, 0, utilCreateTypes},
    {"enqueue", " <backup_no> <vault>", "Adds backup (and all it depends on) to queue", 2, 2, utilEnqueue},
    {"complete", " <backup_no> <vault>", "Mark backup:vault entry as complete", 2, 2, utilComplete},
    {"remove", " <backup_no> <vault>", "Remove backup:vault from queue", 2, 2, utilRemove},
    {"peek", " <offset>", "Display backup at position offset", 1, 1, utilPeek},
    {"swap", " <backup_no> <vault> <backup_no> <vault>", "Swap two entries in the queue", 4, 4, utilSwap},
    {"cleanup", " <backup_no> <vault>", "Mark backup:vault for termination and cleanup", 2, 2, utilCleanup},
    {"count", " <backup_no>", "List the number of distinct blocks followed by total blocks", 1, 1, utilCount},
    {"list", " <backup_no> <distinct value [0|1]>",
     "List the blocks in the backup (in 4tuple format).\nThe distinct flag determines if duplicate blocks are printed",
     2, 2, utilList},
    {"lbe", " <backup_no> <lbe type [0-4]>",
     "List the blocks in the backup (in 3tuple format).\nThe lbe type determines what type of lbe to perform\n"
     "Note: does not check any target for existance of backup\nLBE Types(only considers sync_done backups):\n"
     "\t0: none \n\t1: last master\n\t2: last group\n\t3: all in same instance\n\t4: all marked sync_done",
     2, 2, utilLbe},
    {"block", " <3tuple>", "Reads and dumps the output of the block to stdout", 1, 1, utilBlock},
    {"export-ubi", " <backup_no>", "Dumps the Universal Backup Identifier (UBI) for backup_no", 1, 1, utilExportUbi},
    {"check-ubi", " <UBI string> <target(optional)>",
     "Checks the target for the backup number and status of the backup\n"
     "which matches the UBI string provided. Performs a local check if\nno target is provided",
     1, 2, utilCheckUbi},
    {"export-metadata", " <backup_no>", "Dumps the metadata (blob) for backup_no", 1, 1, utilExportMetadata},
    {"import-metadata", " <path to metadata file>", "imports the metadata found in the file path to the current system",
     1, 1, notInThisVersion},
    {"replicate", " <backup_no> <target>", "Replicate single backup with settings from master.ini", 2, 2,
     utilReplicate},
    {"tuple-hash", " <3tuple> <offset> <output length>",
     "Output the hash described by the 3tuple and offset\n"
     "This hash is used for vaultServer locking when forking is enabled",
     3, 3, utilTupleHash},
    {"start-backup", " <vault> <backup_no>", "Initiates the first step of a replication", 2, 2, utilStartBackup},
    {"fix-paused-instance", " <vault> <backup_no>",
     "For an instance that is paused resolve the issue causing it to be paused.\n"
     "REPLICATION_OUT_OF_ORDER (128):\n"
     "Initiates the first step of a replication to resolve a failure from an out of order backup.\n"
     "WARNING: This will cause backups on target to be marked FAILED and deletes out of order\n"
     "backups on the replication_queue.  The replication_queue status for <backup_no> will be\n"
     "set to REPLICATION_NEEDED when complete.  Target must have \"allowCleanupOutOfOrderBackups\"\n"
     "set to True in the \"Replication\" section of the master.ini file to allow cleanup.\n"
     "REPLICATION_NEED_ASSIST (64):\n"
     "TBD - not implemented.",
     2, 2, utilFixPausedInstance},
    {"post-check", "", nullptr, 2, ANY_NUMBER, utilPostCheck},
    {"post-check-offset", " <vault> <target backup_no> <3tuple> <offset> <3tuple> <offset> ...",
     "Asks the target about a set of blocks. For each block, a reference is made on the target.", 4, ANY_NUMBER,
     utilPostCheckOffset, 2},
    {"put-block", " <vault> <target backup_no> <bufferSize> <3tuple> <offset> <3tuple> <offset> ...",
     "Read and send blocks to the target", 5, ANY_NUMBER, utilPutBlock, 2},
    {"send-hactar", " <vault> <local backup_no> <target backup_no>", "Create and send a hactar to the target", 3, 3,
     utilSendHactar},
    {"cancel-backup", " <vault> <local backup_no>", "Fail a backup on the target based on local backup_no", 2, 2,
     utilCancelBackup},
    {"cancel-ubi", " <vault> <UBI>", "Fail a backup on the target from a given UBI.", 0, ANY_NUMBER, nullptr},
    {"list-backup-status", " <vault>",
     "Display status of replicated backups on source and target to stdout\n"
     "Create CSV output to /tmp/replicationResult.csv.\n"
     "Note that the csv file will be overwritten if it already exists.",
     1, 1, utilListBackupStatus},
};

void printIndented(const char* text) {
    while (*text != '\0') {
        const std::size_t length = std::strcspn(text, "\n");
        printf("\t\t%.*s\n", static_cast<int>(length), text);
        text += length + (text[length] == '\n' ? 1 : 0);
    }
}

void printUsage() {
    printf("Usage:\nferryd util <command> [args]\n");
    for (const Command& command : COMMANDS) {
        if (command.text == nullptr)
            continue;
        printf("\t%s%s\n", command.name, command.arguments);
        printIndented(command.text);
    }
}

// A command whose output got lost, in a full disk or a closed pipe, has failed whatever it says.
int withOutput(int result) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return result;
    LOG_HERE(0, "The output could not be written");
    return result == 0 ? 1 : result;
}

}  // namespace

bool numberArgument(const char* text, std::uint64_t* number) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0) {
        fprintf(stderr, "ferryd util: '%s' is not a number\n", text);
        return false;
    }
    *number = value;
    return true;
}

bool targetArgument(const char* name) {
    if (std::strlen(name) < TARGET_NAME_SIZE)
        return true;
    fprintf(stderr, "ferryd util: a target's name has at most %zu bytes\n", TARGET_NAME_SIZE - 1);
    return false;
}

int runUtility(int argc, char** argv) {
    set_program_name(argv[0]);
    if (init_application() == -1)
        return 1;
    closeStandardInput();
    (void)OpenProgramLog(LOG_NAME, DEFAULT_INSTANCES);  // the log has its own fall-back
    LOG_HERE(2, "Entering utility mode\n");
    if (argc < FIRST_ARGUMENT) {
        printUsage();
        return 0;
    }
    const Arguments arguments(argv + FIRST_ARGUMENT, static_cast<std::size_t>(argc - FIRST_ARGUMENT));
    for (const Command& command : COMMANDS) {
        if (std::strcmp(command.name, argv[2]) != 0)
            continue;
        const int count = static_cast<int>(arguments.size());
        if (count < command.least || count > command.most || (count - command.least) % command.step != 0) {
            printUsage();
            return 0;
        }
        return command.run == nullptr ? 0 : withOutput(command.run(arguments));
    }
    return 0;
}
