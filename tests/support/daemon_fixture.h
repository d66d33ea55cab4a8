// daemon_fixture.h - one appliance for a test: catalogue, tools, backups with their device; and the target it talks to.
#pragma once

#include "config/settings.h"
#include "daemon/daemon.h"
#include "hash/hash_connection.h"
#include "hash/hash_generation.h"
#include "support/catalogue_fixture.h"
#include "support/scripted_server.h"
#include "worker/configuration.h"
#include "worker/statistics.h"
#include "worker/worker_table.h"

namespace testsupport {

// Whether a process still does something; one that nobody has reaped yet doesn't.
inline bool isAlive(int pid) {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

inline constexpr const char* INSTANCE_UUID = "0a1b2c3d-0000-4000-8000-00000000000a";

class DaemonTest : public CatalogueTest {
protected:
    DaemonTest() {
        catalogue.sql(
            "INSERT INTO dq.nodes (node_no, node_name) VALUES (1, 'client');"
            "INSERT INTO dq.operation_names VALUES (6, 'prepare'), (7, 'replicate'), (8, 'wait')");
        forgetHashTableShape();
        forgetMetadataGeneration();
        g_settings = {};
        g_mode = {};
        g_bytesSent = 0;
        resetConfiguration();
        resetSdsStatsFlag();
        clearWorkers();
    }
    ~DaemonTest() override { forgetMetadataGeneration(); }

    // A finished, successful, hashed backup of client 1; `changes` are assignments put over that.
    void backup(int number, int instance = 2, int start = 1000, const std::string& changes = "") {
        const std::string no = std::to_string(number);
        CatalogueTest::backup(number, TYPE_MASTER, instance, start,
                              "properties = 512, sync_status = 1, total_megs = 3, fileset_no = " + no);
        catalogue.sql("INSERT INTO dq.filesets (fileset_no, tape_drive_name) VALUES (" + no +
                      ",'D2D') ON CONFLICT DO NOTHING");
        if (!changes.empty())
            catalogue.sql("UPDATE dq.backups SET " + changes + " WHERE backup_no = " + no);
    }
    // Instance 2 is the client's file system, any other a virtual machine of it.
    void instance(int number, const std::string& identity = INSTANCE_UUID) {
        CatalogueTest::instance(number, number == 2 ? 1 : 4);
        catalogue.sql("UPDATE dq.application_instances SET identity = NULLIF('" + identity +
                      "','') WHERE instance_id = " + std::to_string(number));
    }
    // Puts all backups on one device; its path.
    std::filesystem::path device() {
        const std::filesystem::path path = root / "disk";
        std::filesystem::create_directories(path);
        catalogue.sql("INSERT INTO dq.devices (device_no, dev_name, dev_rw_name) VALUES (1, 'D2D', '" + path.string() +
                      "')");
        return path;
    }
    // A shell script as a tool of the appliance.
    void tool(const std::string& name, const std::string& script) const {
        const std::filesystem::path file = root / "usr/dq/bin" / name;
        writeFile(file, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }

    // Status of a queue row, empty for none.
    std::string queueRow(int backupNo) {
        return catalogue.value("SELECT status FROM dq.replication_queue WHERE backup_no = " + std::to_string(backupNo));
    }
    std::string syncStatus(int backupNo) {
        return catalogue.value("SELECT sync_status FROM dq.backups WHERE backup_no = " + std::to_string(backupNo));
    }
};

// A target that takes everything, and says what a test wants it to say. Set it up before a request is made.
class Target {
public:
    Target() {
        server_.standing([this](Peer& peer) { serve(peer); });
    }
    [[nodiscard]] const std::string& name() const { return server_.name(); }

    // What it says to backup-check, a letter a question, the last one for all further ones. It knows the backup as 77:
    // b building, p present, o on the system only, e ended only, f failed, c cancelled, n none of these. 'u' is an
    // unknown backup, '!' a negative answer, '-' the end of the connection without a word, 'x' a "present" cut off at
    // its end.
    std::string checks = "u";
    std::string start = ok("77");                                 // the reply to start-backup
    std::function<void(const std::string& request)> before = {};  // called in its thread, before it answers

    // What was asked, in order: the last part of the path, "f" for a file.
    [[nodiscard]] std::vector<std::string> requests() {
        std::vector<std::string> names;
        std::ranges::transform(server_.requests(), std::back_inserter(names), nameOf);
        return names;
    }
    // The last request of that name.
    [[nodiscard]] Request request(const std::string& name) {
        Request found;
        for (const Request& request : server_.requests())
            if (nameOf(request) == name)
                found = request;
        return found;
    }
    [[nodiscard]] long count(const std::string& name) { return std::ranges::count(requests(), name); }

private:
    static std::string nameOf(const Request& request) {
        const std::string path = request.path();
        return path.find("/f-") == std::string::npos ? path.substr(path.find_last_of('/') + 1) : "f";
    }
    // One request at a time comes: no lock.
    std::string checkReply() {
        constexpr std::uint64_t ON = ST_ON_SYSTEM;
        const std::uint64_t statuses[] = {0,
                                          0,
                                          0,
                                          ST_BUILDING,
                                          ON,
                                          ST_COMPLETE,
                                          ST_COMPLETE | ON,
                                          ST_COMPLETE | ON,
                                          ST_FAILED | ON,
                                          ST_CANCELLED | ON};
        const char letter = checks.front();
        if (checks.size() > 1)
            checks.erase(0, 1);
        if (letter == '-')
            return "";
        const std::uint64_t words[] = {letter == 'u'   ? 0
                                       : letter == '!' ? ~3ull
                                                       : 77,
                                       statuses[std::string_view("u!nboepxfc").find(letter)],
                                       letter == 'p' ? P_HASHED : 0u};
        const std::string body(reinterpret_cast<const char*>(words), sizeof words);
        return letter == 'x' ? "HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n" + body : ok(body);
    }
    void serve(Peer& peer) {
        if (!peer.readRequest())
            return;
        const std::string name = nameOf(peer.request());
        if (before)
            before(name);
        (void)peer.send(name == "backup-check" ? checkReply() : name == "start-backup" ? start : ok(""));
    }

    ScriptedServer server_;  // last: its threads use all above
};

}  // namespace testsupport
