// export.cpp - the document that describes a backup to the target.
//
// Every value is the text of an element; nothing is an attribute. A backup that came here by replication describes the
// system and client it was made on, and adds who passes it on. The library's global state is never cleaned up here:
// another thread may be at work with it.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "replication/replication.h"
#include "replication/uxml.h"

namespace {

constexpr const char* FUNCTION = "exportReplicationMetadata";  // for the log lines of its helpers
constexpr unsigned long CLIENT_PROPERTIES = 4 | 16;            // those that travel
constexpr unsigned long BACKUP_PROPERTIES = 0x2001F880;

using DocumentPtr = std::unique_ptr<xmlDoc, Releaser<&xmlFreeDoc>>;

struct Subject {
    long backupNo = 0;
    long nodeNo = 0;
    long instanceId = 0;
    bool rereplicated = false;  // it came here by replication and goes on to a further system
    long systemId = 0;          // where it was made, when rereplicated
    unsigned long properties = 0;
    std::string appType;
};

xmlNodePtr addElement(xmlNodePtr parent, const char* name) {
    const xmlNodePtr element = xmlNewChild(parent, nullptr, reinterpret_cast<const xmlChar*>(name), nullptr);
    if (element == nullptr)
        LOG_HERE(0, "%s: ERROR: Failed to create XML element.\n", FUNCTION);
    return element;
}

int failedElements(const char* tag) {
    LOG_HERE(0, "%s: ERROR: Failed to add elements to %s tag.\n", FUNCTION, tag);
    return -1;
}

int failedElement(const char* tag) {
    LOG_HERE(0, "%s: ERROR: Failed to add %s tag.\n", FUNCTION, tag);
    return -1;
}

// Copies columns as text. NULL is left out if optional, else a failure: the reader counts on the element.
int addColumns(xmlNodePtr element, const PgResultPtr& row, std::initializer_list<const char*> columns, bool optional) {
    for (const char* column : columns) {
        const char* text = pgSVal(row.get(), 0, column);
        if (text == nullptr && optional)
            continue;
        if (text == nullptr || uxml_add_text(element, column, text) == -1)
            return -1;
    }
    return 0;
}

int addUnsigned(xmlNodePtr element, const PgResultPtr& row, std::initializer_list<const char*> columns) {
    for (const char* column : columns)
        if (uxml_add_ulong(element, column, pgUVal(row.get(), 0, column)) == -1)
            return -1;
    return 0;
}

int readSubject(long backupNo, Subject* subject) {
    const PgResultPtr row = pgVExec(
        "SELECT node_no, instance_id, b.properties, system_id FROM backups b JOIN nodes USING(node_no) WHERE backup_no "
        "= %ld AND tape_no != %u",
        backupNo, TAPE_NO_DELETED);
    if (!row || pgTuples(row.get()) == 0) {
        LOG_HERE(0, "%s: ERROR: Backup %ld was not found or is logically deleted (or the query failed.)\n", FUNCTION,
                 backupNo);
        return -1;
    }
    subject->backupNo = backupNo;
    subject->nodeNo = pgIVal(row.get(), 0, "node_no");
    subject->instanceId = pgIVal(row.get(), 0, "instance_id");
    if (subject->instanceId == 0) {
        LOG_HERE(0, "%s: ERROR: Backup %ld doesn't have an instance_id.\n", FUNCTION, backupNo);
        return -1;
    }
    subject->properties = pgUVal(row.get(), 0, "properties");
    subject->rereplicated = (subject->properties & P_REPLICATED) != 0;
    if (subject->rereplicated && pgIsNull(row.get(), 0, "system_id")) {
        LOG_HERE(0, "%s: ERROR: Could not identify source system_id for replicated backup %ld.\n", FUNCTION, backupNo);
        return -1;
    }
    subject->systemId = pgIVal(row.get(), 0, "system_id");
    return 0;
}

int addSystem(xmlNodePtr root, const Subject& subject) {
    const PgResultPtr row =
        subject.rereplicated
            ? pgVExec("SELECT name, identity AS appl_uuid FROM systems WHERE system_id = %ld", subject.systemId)
            : pgExec("SELECT name, install_id AS appl_uuid FROM systems, state WHERE is_local_system = true");
    if (!row || pgTuples(row.get()) == 0) {
        LOG_HERE(0, "%s: ERROR: Query for system information failed.\n", FUNCTION);
        return -1;
    }
    if (pgIsNull(row.get(), 0, "appl_uuid")) {
        LOG_HERE(0, "%s: ERROR: Appliance uuid is NULL.\n", FUNCTION);
        return -1;
    }
    const xmlNodePtr systems = addElement(root, "systems");
    if (systems == nullptr || addColumns(systems, row, {"name"}, false) == -1 ||
        uxml_add_text(systems, "UUID", pgSVal(row.get(), 0, "appl_uuid")) == -1)
        return failedElements("systems");
    if (!subject.rereplicated)
        return 0;

    const PgResultPtr local = pgExec("SELECT name, install_id FROM systems, state WHERE is_local_system = true");
    if (!local || pgTuples(local.get()) == 0) {
        LOG_HERE(0, "%s: ERROR: Query to get local system information for re-replication failed.\n", FUNCTION);
        return -1;
    }
    const xmlNodePtr from = addElement(systems, "re-replicated-from");
    if (from == nullptr || addColumns(from, local, {"name"}, false) == -1 ||
        uxml_add_text(from, "UUID", pgSDup(local.get(), 0, "install_id").c_str()) == -1)
        return failedElements("re-replicated-from");
    return 0;
}

// Gives an instance its first identity. Who comes first decides, so that every exporter sends the same one. `where` is
// the condition that names the instance, `what` tells of a lost race on the log.
int createIdentity(const std::string& where, const std::string& what, std::string* identity) {
    char uuid[UUID_BUFFER_SIZE];
    if (genUUID(uuid, sizeof uuid) == -1)
        return -1;
    const PgResultPtr update =
        pgVExec("UPDATE application_instances SET identity = '%s' WHERE %s AND identity IS NULL", uuid, where.c_str());
    if (!update)
        return -1;
    if (pgAffected(update.get()) > 0) {
        *identity = uuid;
        return 0;
    }
    LOG_HERE(3, "%s: Possible race on creating %s, re-querying to get it.\n", FUNCTION, what.c_str());
    const PgResultPtr stored = pgVExec("SELECT identity FROM application_instances WHERE %s", where.c_str());
    if (pgTuples(stored.get()) == 0 || pgIsNull(stored.get(), 0, "identity"))
        return -1;
    *identity = pgSDup(stored.get(), 0, "identity");
    return 0;
}

// The client's name and file-level identity. A client of another system must bring both with it.
int readClient(const Subject& subject, const PgResultPtr& row, std::string* name, std::string* identity) {
    const char* nameColumn = subject.rereplicated ? "gcname" : "node_name";
    if (pgIsNull(row.get(), 0, nameColumn)) {
        LOG_HERE(0, "%s: ERROR: real client name for grandclient %ld is NULL.\n", FUNCTION, subject.nodeNo);
        return -1;
    }
    *name = pgSDup(row.get(), 0, nameColumn);
    if (!pgIsNull(row.get(), 0, "identity")) {
        *identity = pgSDup(row.get(), 0, "identity");
        return 0;
    }
    if (subject.rereplicated) {
        LOG_HERE(0, "%s: ERROR: file-level identity for grandclient %ld is NULL.\n", FUNCTION, subject.nodeNo);
        return -1;
    }
    return createIdentity(formatString("node_no = %ld AND app_id = 1", subject.nodeNo),
                          formatString("file-level uuid for node %ld", subject.nodeNo), identity);
}

int addClient(xmlNodePtr root, const Subject& subject) {
    const PgResultPtr row = pgVExec(
        "SELECT node_name, gcname, type, os, options, properties, identity, generic_property FROM nodes JOIN "
        "application_instances USING(node_no) WHERE app_id = 1 AND node_no = %ld",
        subject.nodeNo);
    std::string name;
    std::string identity;
    if (!row || pgTuples(row.get()) == 0 || readClient(subject, row, &name, &identity) == -1)
        return failedElements("nodes");
    const xmlNodePtr nodes = addElement(root, "nodes");
    if (nodes == nullptr || uxml_add_text(nodes, "node_name", name.c_str()) == -1 ||
        uxml_add_text(nodes, "file-level-uuid", identity.c_str()) == -1 ||
        addUnsigned(nodes, row, {"type", "os"}) == -1 ||
        uxml_add_ulong(nodes, "properties", pgUVal(row.get(), 0, "properties") & CLIENT_PROPERTIES) == -1 ||
        addUnsigned(nodes, row, {"generic_property", "options"}) == -1)
        return failedElements("nodes");
    return 0;
}

int addApplication(xmlNodePtr root, Subject* subject) {
    const PgResultPtr row = pgVExec(
        "SELECT app_id, key1, key2, key3, key4, type, identity FROM application_instances JOIN application_lookup "
        "USING(app_id) WHERE instance_id = %ld",
        subject->instanceId);
    if (!row || pgTuples(row.get()) == 0)
        return failedElements("application_instances");
    subject->appType = pgSDup(row.get(), 0, "type");
    std::string identity = pgSDup(row.get(), 0, "identity");
    if (pgIsNull(row.get(), 0, "identity")) {
        if (subject->rereplicated) {
            LOG_HERE(0, "%s: ERROR: Failed to get identity for grandclient instance_id %ld.\n", FUNCTION,
                     subject->instanceId);
            return -1;
        }
        if (createIdentity(formatString("instance_id = %ld", subject->instanceId),
                           formatString("uuid for instance_id %ld", subject->instanceId), &identity) == -1)
            return failedElements("application_instances");
    }
    const xmlNodePtr instances = addElement(root, "application_instances");
    if (instances == nullptr || uxml_add_text(instances, "instance-uuid", identity.c_str()) == -1 ||
        addUnsigned(instances, row, {"app_id"}) == -1 ||
        uxml_add_text(instances, "app_type", subject->appType.c_str()) == -1 ||
        addColumns(instances, row, {"key1", "key2", "key3", "key4"}, true) == -1)
        return failedElements("application_instances");
    return 0;
}

int addProperties(xmlNodePtr root, const Subject& subject) {
    const PgResultPtr rows = pgVExec("SELECT * FROM application_properties WHERE instance_id=%ld", subject.instanceId);
    if (!rows)
        return failedElements("application_properties");
    if (pgTuples(rows.get()) == 0) {
        LOG_HERE(3, "%s: No application_properties found for instance_id %ld.\n", FUNCTION, subject.instanceId);
        return 0;
    }
    const xmlNodePtr properties = addElement(root, "application_properties");
    for (int row = 0; properties != nullptr && row < pgTuples(rows.get()); ++row) {
        const xmlNodePtr pair = addElement(properties, "kv_pair");
        if (pair == nullptr || uxml_add_text(pair, "prop_key", pgSDup(rows.get(), row, "prop_key").c_str()) == -1 ||
            uxml_add_text(pair, "prop_value", pgSDup(rows.get(), row, "prop_value").c_str()) == -1)
            return failedElements("application_properties");
    }
    return properties != nullptr ? 0 : -1;
}

int addBackup(xmlNodePtr root, const Subject& subject) {
    const PgResultPtr row = pgVExec(
        "SELECT properties, type, start_time, total_megs, verify_after, is_verified::int, x_command_short, "
        "snapshot_time FROM backups LEFT OUTER JOIN backup_snapshots USING(backup_no) WHERE backup_no = %ld",
        subject.backupNo);
    if (!row || pgTuples(row.get()) == 0)
        return failedElements("backups");
    const xmlNodePtr backups = addElement(root, "backups");
    if (backups == nullptr ||
        uxml_add_ulong(backups, "properties", pgUVal(row.get(), 0, "properties") & BACKUP_PROPERTIES) == -1 ||
        addUnsigned(backups, row, {"type", "start_time", "total_megs", "verify_after", "is_verified"}) == -1 ||
        addColumns(backups, row, {"x_command_short"}, true) == -1)
        return failedElements("backups");
    if (pgIsNull(row.get(), 0, "snapshot_time"))
        return 0;
    const xmlNodePtr snapshots = addElement(root, "backup_snapshots");
    if (snapshots == nullptr || addUnsigned(snapshots, row, {"snapshot_time"}) == -1)
        return failedElement("snapshot_time");
    return 0;
}

// An element of the first row, for tables that need not have one.
int addOptional(xmlNodePtr root, const char* tag, const PgResultPtr& row, std::initializer_list<const char*> columns) {
    if (!row)
        return failedElements(tag);
    if (pgTuples(row.get()) == 0)
        return 0;
    const xmlNodePtr element = addElement(root, tag);
    if (element == nullptr || addColumns(element, row, columns, false) == -1)
        return columns.size() == 1 ? failedElement(*columns.begin()) : failedElements(tag);
    return 0;
}

int addApplicationDetails(xmlNodePtr root, const Subject& subject) {
    if (subject.appType == "VMware" &&
        (addOptional(root, "vmware_snapshots",
                     pgVExec("SELECT change_id FROM vmware_snapshots WHERE backup_no = %ld", subject.backupNo),
                     {"change_id"}) == -1 ||
         addOptional(
             root, "vmware_hardware_hashes",
             pgVExec("SELECT hardware_hash FROM vmware_hardware_hashes WHERE backup_no = %ld", subject.backupNo),
             {"hardware_hash"}) == -1))
        return -1;
    if (subject.appType == "NDMP Device" &&
        addOptional(root, "NDMP_backups",
                    pgVExec("SELECT vendor FROM ndmp_nas WHERE node_no = %d ", static_cast<int>(subject.nodeNo)),
                    {"vendor"}) == -1)
        return -1;
    if ((subject.properties & P_LEGACY_SQL) == 0)
        return 0;
    return addOptional(root, "sql_backups",
                       pgVExec("SELECT server_instance_name, database_name, sql_type, group_file_order, file_order_no "
                               "FROM sql_backups WHERE sql_ref = %ld",
                               subject.backupNo),
                       {"server_instance_name", "database_name", "sql_type", "group_file_order", "file_order_no"});
}

int serialise(xmlDocPtr document, std::string* blob) {
    xmlChar* text = nullptr;
    int length = 0;
    xmlIndentTreeOutput = 1;
    xmlDocDumpFormatMemory(document, &text, &length, 1);
    const Cleanup freeText([&] {
        if (text != nullptr)
            xmlFree(text);
    });
    if (text == nullptr || length <= 0) {
        LOG_HERE(0, "%s: ERROR: Out of memory.\n", FUNCTION);
        return -1;
    }
    blob->assign(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    return 0;
}

DocumentPtr createDocument() {
    DocumentPtr document(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
    if (!document) {
        LOG_HERE(0, "%s: ERROR: Failed to create XML doc.\n", FUNCTION);
        return nullptr;
    }
    const xmlNodePtr root = xmlNewNode(nullptr, reinterpret_cast<const xmlChar*>("backup_metadata"));
    if (root == nullptr) {
        LOG_HERE(0, "%s: ERROR: Failed to create XML element.\n", FUNCTION);
        return nullptr;
    }
    xmlDocSetRootElement(document.get(), root);
    if (uxml_add_text(root, "metadata_version", "1") == -1) {
        LOG_HERE(0, "%s: ERROR: Failed to add metadata version.\n", FUNCTION);
        return nullptr;
    }
    return document;
}

}  // namespace

int exportReplicationMetadata(std::int64_t backupNo, std::string* blob, std::size_t* size) {
    xmlCheckVersion(LIBXML_VERSION);
    if (blob != nullptr)
        blob->clear();
    if (size != nullptr)
        *size = 0;
    if (blob == nullptr || size == nullptr || backupNo < 1) {
        LOG_HERE(0, "%s: ERROR: Invalid inputs.\n", FUNCTION);
        return -1;
    }
    Subject subject;
    if (readSubject(backupNo, &subject) == -1)
        return -1;
    const DocumentPtr document = createDocument();
    if (!document)
        return -1;
    const xmlNodePtr root = xmlDocGetRootElement(document.get());
    if (addSystem(root, subject) == -1 || addClient(root, subject) == -1 || addApplication(root, &subject) == -1 ||
        addProperties(root, subject) == -1 || addBackup(root, subject) == -1 ||
        addApplicationDetails(root, subject) == -1 || serialise(document.get(), blob) == -1)
        return -1;
    *size = blob->size() + 1;
    LOG_HERE(4, "%s: Size of blob: %zu\n_______________________Blob XML_______________________\n%s\n", FUNCTION, *size,
             blob->c_str());
    return 0;
}
