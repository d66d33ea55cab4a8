// The real daemon against targets that answer as no target should: each attempt fails with its reason, the row waits
// again, and a good vault finishes the job.

#include "e2e/e2e_fixture.h"
#include "support/scripted_server.h"

namespace e2e {
namespace {

using testsupport::answer;
using testsupport::ok;
using testsupport::Peer;
using testsupport::ScriptedServer;

class HostileTarget : public EachPhase {
protected:
    // Jobs that have come to their end, well or badly.
    int attempts() const {
        int count = 0;
        const std::string log = workerLog();
        for (std::size_t at = 0; (at = log.find("cleanup operation_progress", at)) != std::string::npos; ++at)
            ++count;
        return count;
    }
};
INSTANTIATE_PHASES(HostileTarget);

// A target that doesn't know the backup, takes it as number 42 if `start` is empty, and says `blocks` of its blocks.
ScriptedServer::Script target(std::string start, std::string blocks = "") {
    return [start, blocks](Peer& peer) {
        if (!peer.readRequest())
            return;
        const std::string path = peer.request().path();
        if (path.ends_with("backup-check"))
            peer.send(ok(std::string(24, '\0')));
        else if (path.ends_with("start-backup"))
            peer.send(start.empty() ? ok("42") : start);
        else if (!blocks.empty())
            peer.send(blocks);
    };
}

TEST_P(HostileTarget, EveryKindOfNonsenseLeavesTheBackupWaiting) {
    const struct {
        const char* what;
        ScriptedServer::Script script;
    } cases[] = {
        {"closes at once", [](Peer&) {}},
        {"reads the head and resets",
         [](Peer& peer) {
             peer.readHead();
             peer.reset();
         }},
        {"sends no HTTP", answer("\x01\x02\xff garbage\r\n\r\n")},
        {"stops within the status line", answer("HTTP/1.1 20")},
        {"stops within the headers", answer("HTTP/1.1 200 OK\r\nContent-Le")},
        {"promises more than it sends", answer("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n1")},
        {"a header line of 64 KiB", answer("HTTP/1.1 200 OK\r\nX: " + std::string(65536, 'a') + "\r\n\r\n")},
        {"a number that is none", target(ok("abc"))},
        {"a negative number", target(ok("-17"))},
        {"an empty answer", target(ok(""))},
        {"a number that is cut off", target("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n4")},
        {"silence about the blocks", target("")},
        {"too little about the blocks", target("", ok("1"))},
        {"too much about the blocks", target("", ok(std::string(100000, '1')))},
        {"never ends its answer",
         [](Peer& peer) {
             if (!peer.readRequest())
                 return;
             peer.send("HTTP/1.1 200 OK\r\n\r\n");
             const std::string junk(1 << 20, '1');
             while (peer.send(junk)) {
             }
         }},
    };
    ScriptedServer server;
    lab().setReplication("SyncTo", server.name());
    lab().setReplication("RetryCount", "1");
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(31, 1));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        server.standing(c.script);
        // One attempt may have begun with the script before.
        const int before = attempts();
        ASSERT_TRUE(eventually([&] { return attempts() >= before + 2; }));
        ASSERT_TRUE(reaches(backup, REPLICATION_NEEDED));
    }
    EXPECT_FALSE(workerLogged("Finished: "));
    EXPECT_TRUE(lab().daemonProcess().running());

    // With the daemon down: a worker would write its result to the row under its old name.
    lab().stopDaemon();
    lab().source().sql("UPDATE replication_queue SET vault = '" + lab().vaultName() + "'");
    lab().setReplication("SyncTo", lab().vaultName());
    lab().startVault();
    lab().startDaemon();
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(backup));
}

}  // namespace
}  // namespace e2e
