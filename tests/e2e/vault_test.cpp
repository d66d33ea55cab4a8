// The vault itself: a target that took everything would hide the faults of whoever sends to it.

#include "e2e/e2e_fixture.h"

namespace e2e {
namespace {

class Vault : public EndToEnd {
protected:
    std::string util(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {lab().source().root() / "usr/dq/bin/ferryd", "util"});
        std::string output;
        (void)lab().source().run(arguments, &output);
        return output.substr(0, output.find('\n'));
    }
    // The reply's status; of several requests on one connection, one behind the other.
    std::string ask(const std::string& arguments) {
        std::string output;
        const std::string url = "http://" + lab().vaultName() + "/cgi-bin/vaultServer/";
        (void)lab().source().run(
            {"/bin/sh", "-c", "U=" + url + "; curl -sS -o /dev/null -w '%{http_code} %{num_connects} ' " + arguments},
            &output);
        return output;
    }
};

TEST_F(Vault, TakesWorkOnlyForBackupsThatAreBeingBuiltAndOnlyAsAnnounced) {
    lab().startVault();
    const std::string number = std::to_string(lab().ingest(data(81, 1)));
    const std::string target = util({"start-backup", lab().vaultName(), number});
    const std::string of = "-H X-BackupNo:" + target + " ";
    const std::string check = "-d '' -H X-Expect:0 " + of + "${U}post-check-offset ";
    const std::string blocks = "-T /dev/null -H X-ClusterAmt:0 " + of;
    EXPECT_EQ(ask(check), "200 1 ");
    EXPECT_EQ(ask(blocks + "-H X-BackupSize:0 ${U}multiblock"), "200 1 ");
    EXPECT_EQ(ask(blocks + "-H X-BackupSize:1 ${U}multiblock"), "405 1 ");
    EXPECT_EQ(ask("-d Failed: -H X-Amt:8 -H X-BackupUUID:x ${U}end-backup"), "405 1 ");
    // What a refused request brought along isn't the next request.
    const std::string inner = "POST /cgi-bin/vaultServer/start-backup HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(ask("-X PUT --data-binary '" + inner + "' -H X-BackupNo:999 ${U}multiblock --next -sS -o /dev/null -w " +
                  "'%{http_code} %{num_connects} ' " + check),
              "405 1 200 0 ");
    EXPECT_EQ(lab().vault().log("vaultServer").find("vaultServer/start-backup: "), std::string::npos);

    (void)util({"cancel-backup", lab().vaultName(), number});
    const std::string late = "-T /etc/passwd " + of + "${U}f-/x/hactar_1";
    for (const char* const status : {"4160", "3136", "512"}) {
        lab().vault().sql(std::string("UPDATE backups SET status = ") + status);
        EXPECT_EQ(ask(check), std::string(status) == "512" ? "200 1 " : "405 1 ");
        EXPECT_EQ(ask(late), std::string(status) == "512" ? "200 1 " : "405 1 ");
    }
    // A file that is none makes a failure of the backup, once.
    EXPECT_TRUE(eventually([&] { return lab().vault().value("SELECT status FROM backups") == "4160"; }));
}

}  // namespace
}  // namespace e2e
