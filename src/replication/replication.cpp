// replication.cpp - universal backup identities and the order of backups within an instance.
#include "replication/replication.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>

#include "bookkeeping/common.h"
#include "database/pghelper.h"

namespace {

// The parts of a UBI.
struct Identity {
    std::string uuid;
    long startTime = 0;
    long type = 0;
};

int parseIdentity(const char* ubi, const char* caller, Identity* identity) {
    const char* separator = std::strchr(ubi, '_');
    if (separator == nullptr || separator - ubi > static_cast<std::ptrdiff_t>(UUID_LENGTH)) {
        LOG_HERE(0, "%s: ERROR: Invalid format for intial part of string.\n", caller);
        return -1;
    }
    identity->uuid.assign(ubi, separator);
    if (!isValidUUID(identity->uuid)) {
        LOG_HERE(0, "%s: ERROR: not a valid UUID segment.\n", caller);
        return -1;
    }
    char* end = nullptr;
    identity->startTime = strtol(separator + 1, &end, 10);
    if (identity->startTime == 0 || *end != '_') {
        LOG_HERE(0, "%s: ERROR: Invalid format for second part of string.\n", caller);
        return -1;
    }
    const char* typeText = end + 1;
    identity->type = strtol(typeText, &end, 10);
    if (end == typeText || *end != '\0') {
        LOG_HERE(0, "%s: ERROR: Invalid format for third part of string.\n", caller);
        return -1;
    }
    return 0;
}

// Gathers backup numbers, logging them each time the line is full.
class NumberLines {
public:
    void add(long number) {
        const std::string text = std::to_string(number);
        if (!line_.empty() && line_.size() + 2 + text.size() > LINE_LENGTH)
            flush();
        line_ += (line_.empty() ? "" : ", ") + text;
    }
    void flush() {
        if (!line_.empty())
            LOG_HERE(0, "%s\n", line_.c_str());
        line_.clear();
    }

private:
    static constexpr std::size_t LINE_LENGTH = 511;
    std::string line_;
};

int markOutOfOrder(long backupNo, const char* caller) {
    constexpr int FAILED_AND_ENDED = 5184;
    const PgResultPtr marked =
        pgQuery("UPDATE backups SET status = %d WHERE backup_no = %ld", FAILED_AND_ENDED, backupNo);
    if (!marked) {
        LOG_HERE(0, "%s: Failed to mark backup %ld failed.\n", caller, backupNo);
        return -1;
    }
    const PgResultPtr noted = pgVExec(
        "UPDATE backup_msg SET messages = messages || 'Mark backup as failed, out of order.\n' WHERE backup_no = %ld",
        backupNo);
    if (!noted)
        LOG_HERE(0, "%s: Failed to update backup_msg why backup %ld was marked FAILED.\n", caller, backupNo);
    return 0;
}

}  // namespace

int getUniversalBackupIdentity(std::uint64_t backupNo, std::optional<std::string>* identity) {
    if (identity != nullptr)
        identity->reset();
    if (identity == nullptr || backupNo == 0) {
        LOG_HERE(0, "%s: ERROR: Invalid input: backup_no is zero or identityString pointer is NULL.\n", __func__);
        return -1;
    }
    const long number = static_cast<long>(backupNo);
    const PgResultPtr result = pgQuery(
        "SELECT identity, start_time, type FROM backups JOIN application_instances USING(instance_id) WHERE backup_no "
        "= %ld",
        number);
    if (!result) {
        LOG_HERE(0, "%s: ERROR: Query to get backup info for backup_no %ld failed.\n", __func__, number);
        return -1;
    }
    if (pgTuples(result.get()) == 0) {
        LOG_HERE(0, "%s: ERROR: Backup %ld was not found.\n", __func__, number);
        return -1;
    }
    const char* instance = pgSVal(result.get(), 0, "identity");
    if (instance == nullptr) {
        LOG_HERE(3, "%s: this instance has never replicated.\n", __func__);
        return 0;
    }
    *identity =
        formatString("%s_%lu_%lu", instance, pgUVal(result.get(), 0, "start_time"), pgUVal(result.get(), 0, "type"));
    return 0;
}

int UBIstringToBackupNumber(const char* ubi, std::uint64_t* backupNo) {
    if (backupNo != nullptr)
        *backupNo = 0;
    if (ubi == nullptr || backupNo == nullptr) {
        LOG_HERE(0, "%s: ERROR: input pointers can't be NULL.\n", __func__);
        return -1;
    }
    Identity identity;
    if (parseIdentity(ubi, __func__, &identity) == -1)
        return -1;
    std::string uuid;
    const PgResultPtr result =
        pgAEscape(&uuid, identity.uuid) == -1
            ? nullptr
            : pgVExec(
                  "SELECT backup_no FROM backups JOIN application_instances USING(instance_id) WHERE "
                  "LOWER(identity) = LOWER('%s') AND type = %ld AND start_time = %ld AND (properties & %d) = %d "
                  "AND (status & %d) = 0 AND tape_no != %u ORDER BY backup_no DESC",
                  uuid.c_str(), identity.type, identity.startTime, P_REPLICATED, P_REPLICATED, JOB_FAILED,
                  TAPE_NO_DELETED);
    if (!result) {
        LOG_HERE(0, "%s: ERROR: Query to get backup_no failed.\n", __func__);
        return -1;
    }
    if (pgTuples(result.get()) == 0)
        LOG_HERE(4, "%s: No matching backup found.\n", __func__);
    else
        *backupNo = pgUVal(result.get(), 0, "backup_no");
    return 0;
}

int genUUID(char* buffer, std::size_t length) {
    if (buffer == nullptr || length < UUID_BUFFER_SIZE) {
        LOG_HERE(0, "%s: ERROR: Invalid inputs for uuid buffer.\n", __func__);
        return -1;
    }
    uuid_t uuid;
    uuid_generate(uuid);
    std::memset(buffer, 0, length);
    uuid_unparse_lower(uuid, buffer);
    return 0;
}

bool isValidUUID(std::string_view text) {
    if (text.size() != UUID_LENGTH || text.find('-') != 8)
        return false;
    std::size_t dash = 8;
    for (int group = 0; group < 3; ++group) {
        const std::size_t next = text.find('-', dash + 1);
        if (next != dash + 5)
            return false;
        dash = next;
    }
    return text.size() - dash - 1 == 12;
}

int enforceGroupOrdering(std::uint64_t instanceId, std::int64_t startTime, bool markFailed) {
    constexpr unsigned long ORDERED_TYPES = 5135;
    const PgResultPtr result = pgVExec(
        "SELECT backup_no FROM backups WHERE instance_id = %ld AND start_time > %ld AND (status & %d) = 0 AND tape_no "
        "!= %d AND (type & %lu) > 0 AND (type != %d) AND (type != %d)",
        static_cast<long>(instanceId), static_cast<long>(startTime), JOB_FAILED, -1, ORDERED_TYPES, TYPE_BARE_METAL,
        TYPE_SELECTIVE);
    if (!result) {
        LOG_HERE(0, "%s: ERROR: Query to find out of order backups failed.\n", __func__);
        return -1;
    }
    const int found = pgTuples(result.get());
    if (found == 0)
        return 0;
    if (markFailed)
        LOG_HERE(0,
                 "%s: Out of order backups detected, marking %zd backups FAILED that are newer than current backup:\n",
                 __func__, static_cast<ssize_t>(found));
    else
        LOG_HERE(0, "%s: ERROR: Out of order backups detected, %zd backups found that are newer than current backup:\n",
                 __func__, static_cast<ssize_t>(found));
    int left = found;
    NumberLines lines;
    for (int row = 0; row < found; ++row) {
        const long number = pgIVal(result.get(), row, "backup_no");
        if (markFailed) {
            if (markOutOfOrder(number, __func__) == -1)
                return -1;
            --left;
        }
        lines.add(number);
    }
    lines.flush();
    if (markFailed && left > 0)
        LOG_HERE(0, "INTERNAL ERROR:  all backups should have been marked failed but num = %d.\n", left);
    return left;
}
