#include "vault/target_catalogue.h"

#include <libxml/parser.h>

#include <stdexcept>

#include "bookkeeping/common.h"
#include "config/directories.h"
#include "config/ini.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "replication/replication.h"
#include "replication/uxml.h"

namespace vault {
namespace {

using DocumentPtr = std::unique_ptr<xmlDoc, Releaser<&xmlFreeDoc>>;

// Some columns of the metadata document, as its sender wrote them.
struct Metadata {
    std::string systemName, systemUuid, clientName, instanceUuid, appType;
    unsigned long type = 0, startTime = 0, totalMegs = 0, properties = 0;
};

PgResultPtr query(PgResultPtr result) {
    if (pgStatus(result.get()) == -1)
        throw std::runtime_error("the catalogue can't be used");
    return result;
}

std::string quoted(const std::string& text) {
    std::string escaped;
    if (pgAEscape(&escaped, text) == -1)
        throw std::runtime_error("the catalogue can't be used");
    return "'" + escaped + "'";
}

// The number in the first row, 0 for no row.
long firstNumber(const PgResultPtr& result, const char* column) {
    return pgTuples(result.get()) == 0 ? 0 : pgIVal(result.get(), 0, column);
}

bool parse(std::string_view text, Metadata* out) {
    while (!text.empty() && text.back() == '\0')
        text.remove_suffix(1);
    const DocumentPtr document(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
    std::string version;
    if (root == nullptr || uxml_get_text(root, "metadata_version", &version) != 0 || version != "1")
        return false;
    xmlNode* system = uxml_find_child(root, "systems");
    xmlNode* client = uxml_find_child(root, "nodes");
    xmlNode* instance = uxml_find_child(root, "application_instances");
    xmlNode* backup = uxml_find_child(root, "backups");
    return system != nullptr && client != nullptr && instance != nullptr && backup != nullptr &&
           uxml_get_text(system, "name", &out->systemName) == 0 &&
           uxml_get_text(system, "UUID", &out->systemUuid) == 0 &&
           uxml_get_text(client, "node_name", &out->clientName) == 0 &&
           uxml_get_text(instance, "instance-uuid", &out->instanceUuid) == 0 && isValidUUID(out->instanceUuid) &&
           uxml_get_text(instance, "app_type", &out->appType) == 0 && uxml_get_ulong(backup, "type", &out->type) == 0 &&
           uxml_get_ulong(backup, "start_time", &out->startTime) == 0 && out->startTime != 0 &&
           uxml_get_ulong(backup, "total_megs", &out->totalMegs) == 0 &&
           uxml_get_ulong(backup, "properties", &out->properties) == 0;
}

long systemOf(const Metadata& from) {
    const std::string uuid = quoted(from.systemUuid);
    const long known =
        firstNumber(query(pgVExec("SELECT system_id FROM systems WHERE identity = %s", uuid.c_str())), "system_id");
    if (known != 0)
        return known;
    return firstNumber(query(pgVExec("INSERT INTO systems (name, identity, role) VALUES (%s, %s, 'Replication Source') "
                                     "RETURNING system_id",
                                     quoted(from.systemName).c_str(), uuid.c_str())),
                       "system_id");
}

long clientOf(const Metadata& from) {
    const long system = systemOf(from);
    const std::string name = quoted(from.clientName);
    const long known = firstNumber(
        query(pgVExec("SELECT node_no FROM nodes WHERE gcname = %s AND system_id = %ld", name.c_str(), system)),
        "node_no");
    if (known != 0)
        return known;
    return firstNumber(query(pgVExec("INSERT INTO nodes (node_name, gcname, properties, system_id) "
                                     "VALUES (%s, %s, %d, %ld) RETURNING node_no",
                                     quoted(from.clientName + "@" + from.systemName).c_str(), name.c_str(),
                                     static_cast<int>(P_IMPORTED), system)),
                       "node_no");
}

// Finds or makes the instance; its client comes with it.
void instanceOf(const Metadata& from, long* instance, long* client) {
    const std::string uuid = quoted(from.instanceUuid);
    const PgResultPtr known = query(pgVExec(
        "SELECT instance_id, node_no FROM application_instances WHERE LOWER(identity) = LOWER(%s)", uuid.c_str()));
    *instance = firstNumber(known, "instance_id");
    if (*instance != 0) {
        *client = firstNumber(known, "node_no");
        return;
    }
    *client = clientOf(from);
    *instance = firstNumber(
        query(pgVExec("INSERT INTO application_instances (node_no, app_id, identity) SELECT %ld, app_id, %s FROM "
                      "application_lookup WHERE type = %s RETURNING instance_id",
                      *client, uuid.c_str(), quoted(from.appType).c_str())),
        "instance_id");
}

bool mayCleanUp() {
    unsigned char allowed = 0;
    (void)ini_get_bool("Replication", "allowCleanupOutOfOrderBackups", 0, &allowed, g_master_ini);
    return allowed != 0;
}

void setStatus(std::int64_t number, unsigned status) {
    (void)query(pgVExec("UPDATE backups SET status = %u WHERE backup_no = %ld AND (status & %u) <> 0", status,
                        static_cast<long>(number), static_cast<unsigned>(ST_BUILDING)));
}

}  // namespace

BackupState TargetCatalogue::find(const std::string& identity, std::int64_t number) {
    const std::lock_guard guard(lock_);
    std::uint64_t known = static_cast<std::uint64_t>(number);
    if (number == 0 && !identity.empty() && UBIstringToBackupNumber(identity.c_str(), &known) == -1) {
        (void)query(pgExec("SELECT 1"));  // a lost database isn't an identity that nobody knows
        known = 0;
    }
    BackupState state;
    if (known == 0)
        return state;
    const PgResultPtr row = query(pgVExec("SELECT status, properties FROM backups WHERE backup_no = %lu", known));
    if (pgTuples(row.get()) == 1) {
        state.number = static_cast<std::int64_t>(known);
        state.status = pgUVal(row.get(), 0, "status");
        state.properties = pgUVal(row.get(), 0, "properties");
    }
    return state;
}

Refusal TargetCatalogue::start(std::string_view metadata, bool force, std::int64_t* number) {
    Metadata from;
    if (!parse(metadata, &from)) {
        LOG_HERE(0, "The metadata document can't be read");
        return Refusal::CannotProcess;
    }
    const std::lock_guard guard(lock_);
    long instance = 0;
    long client = 0;
    instanceOf(from, &instance, &client);
    if (instance == 0) {
        LOG_HERE(0, "There is no application of type '%s' here", from.appType.c_str());
        return Refusal::CannotProcess;
    }
    const PgResultPtr same =
        query(pgVExec("SELECT backup_no FROM backups WHERE instance_id = %ld AND start_time = %lu AND type = %lu AND "
                      "(status & %u) = 0 AND tape_no <> %u",
                      instance, from.startTime, from.type, static_cast<unsigned>(JOB_FAILED), TAPE_NO_DELETED));
    *number = firstNumber(same, "backup_no");
    if (*number != 0)
        return Refusal::None;
    if (enforceGroupOrdering(instance, static_cast<std::int64_t>(from.startTime), force && mayCleanUp()) != 0)
        return Refusal::OutOfOrder;
    *number = firstNumber(
        query(pgVExec("INSERT INTO backups (node_no, instance_id, properties, type, status, start_time, tape_no, "
                      "total_megs, server_name) VALUES (%ld, %ld, %lu, %lu, %u, %lu, 1, %lu, %s) RETURNING backup_no",
                      client, instance, from.properties | P_REPLICATED, from.type, static_cast<unsigned>(ST_BUILDING),
                      from.startTime, from.totalMegs, quoted(from.clientName).c_str())),
        "backup_no");
    (void)query(pgVExec("INSERT INTO backup_msg (backup_no) VALUES (%ld)", static_cast<long>(*number)));
    return Refusal::None;
}

void TargetCatalogue::giveUp(const std::string& identity, const std::string& message) {
    const BackupState state = find(identity, 0);
    if (state.number != 0 && (state.status & ST_BUILDING) != 0)
        markFailed(state.number, "given up by the source: " + message);
}

void TargetCatalogue::markComplete(std::int64_t number, std::uint64_t sizeBytes) {
    const std::lock_guard guard(lock_);
    (void)query(
        pgVExec("UPDATE backups SET status = %u, properties = properties | %u, total_megs = %lu "
                "WHERE backup_no = %ld AND (status & %u) <> 0",
                static_cast<unsigned>(ST_COMPLETE | ST_ON_SYSTEM | ST_SUCCESS), static_cast<unsigned>(P_HASHED),
                sizeBytes >> 20, static_cast<long>(number), static_cast<unsigned>(ST_BUILDING)));
}

void TargetCatalogue::markFailed(std::int64_t number, const std::string& reason) {
    LOG_HERE(0, "Backup %ld failed: %s", static_cast<long>(number), reason.c_str());
    const std::lock_guard guard(lock_);
    setStatus(number, ST_COMPLETE | ST_FAILED);
    (void)query(pgVExec("UPDATE backup_msg SET messages = messages || %s WHERE backup_no = %ld",
                        quoted(reason + "\n").c_str(), static_cast<long>(number)));
}

std::vector<std::int64_t> TargetCatalogue::building() {
    const std::lock_guard guard(lock_);
    const PgResultPtr rows =
        query(pgVExec("SELECT backup_no FROM backups WHERE (status & %u) <> 0", static_cast<unsigned>(ST_BUILDING)));
    std::vector<std::int64_t> numbers;
    numbers.reserve(static_cast<std::size_t>(pgTuples(rows.get())));
    for (int row = 0; row < pgTuples(rows.get()); ++row)
        numbers.push_back(pgIVal(rows.get(), row, "backup_no"));
    return numbers;
}

std::string TargetCatalogue::deviceDirectory() {
    const std::lock_guard guard(lock_);
    const PgResultPtr row = query(pgExec("SELECT dev_rw_name FROM devices WHERE device_type = 128 ORDER BY device_no"));
    if (pgTuples(row.get()) == 0)
        throw std::runtime_error("there is no disk device in the catalogue");
    return pgSDup(row.get(), 0, "dev_rw_name");
}

}  // namespace vault
