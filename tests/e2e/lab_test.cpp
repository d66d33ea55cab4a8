// What the README promises of the demo and of the lab that one works with by hand; and the lab's vault, since a target
// that took everything would hide the faults of whoever sends to it.

#include <regex>

#include "e2e/e2e_fixture.h"

namespace e2e {
namespace {

class Lab : public EndToEnd {
protected:
    // Runs the lab's program with an environment of its own: it makes appliances of its own.
    int run(const std::vector<std::string>& command, std::string* output) {
        lab::ProcessOptions options;
        options.output = scratch() / "output";
        const int status = lab::run(command, options);
        *output = testsupport::readFile(options.output);
        return status;
    }
    static fs::path program() { return lab::programDirectory() / "lab"; }
    fs::path scratch() const { return source().root() / "tmp"; }

    // The reply's status; of several requests on one connection, one behind the other.
    std::string ask(const std::string& arguments) {
        std::string output;
        const std::string url = "http://" + lab().vaultName() + "/cgi-bin/vaultServer/";
        (void)source().run(
            {"/bin/sh", "-c", "U=" + url + "; curl -sS -o /dev/null -w '%{http_code} %{num_connects} ' " + arguments},
            &output);
        return output;
    }
};

TEST_F(Lab, DemoShowsWhatWasAskedFoundAndSent) {
    std::string output;
    EXPECT_EQ(run({program(), "demo", data(91, 3)}, &output), 0) << output;
    const std::regex figures("Blocks: ([0-9]+) asked, ([0-9]+) on target, ([0-9]+) sent");
    int backups = 0;
    for (std::sregex_iterator match(output.begin(), output.end(), figures), end; match != end; ++match, ++backups) {
        const auto number = [&match](std::size_t group) { return std::stoul((*match)[group]); };
        EXPECT_TRUE(number(1) > 0 && number(3) > 0);
        EXPECT_EQ(number(1), number(2) + number(3));
    }
    EXPECT_EQ(backups, 2) << output;
    EXPECT_TRUE(std::regex_search(output, std::regex("[1-9][0-9.]* MB crossed"))) << output;
}

TEST_F(Lab, UpBringsAKeyServiceAndIngestSaysWhenThereIsNone) {
    const fs::path place = scratch() / "lab";
    std::string output;
    ASSERT_EQ(run({program(), "up", place}, &output), 0) << output;
    const std::string ingest = "$DQDIR/bin/ingest --encrypt " + data(92, 1).string() + " 2>&1";
    EXPECT_EQ(run({"/bin/sh", "-c", ". " + (place / "environment").string() + "; " + ingest}, &output), 0) << output;
    EXPECT_EQ(run({program(), "down", place}, &output), 0) << output;
    EXPECT_FALSE(fs::exists(place));
    // This lab's source has none.
    EXPECT_EQ(source().run({"/bin/sh", "-c", ingest}, &output), 1);
    EXPECT_NE(output.find("no key service (cryptoDaemon), so nothing can be encrypted: "), std::string::npos) << output;
}

TEST_F(Lab, VaultTakesWorkOnlyForBackupsThatAreBeingBuiltAndOnlyAsAnnounced) {
    lab().startVault();
    const std::string number = std::to_string(lab().ingest(data(81, 1)));
    std::string target = util({"start-backup", lab().vaultName(), number});
    target.pop_back();
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
    EXPECT_EQ(vault().log("vaultServer").find("vaultServer/start-backup: "), std::string::npos);

    (void)util({"cancel-backup", lab().vaultName(), number});
    for (const auto& [status, reply] : {std::pair("4160", "405 1 "), {"3136", "405 1 "}, {"512", "200 1 "}}) {
        vault().sql(std::string("UPDATE backups SET status = ") + status);
        EXPECT_EQ(ask(check), reply);
        EXPECT_EQ(ask("-T /etc/passwd " + of + "${U}f-/x/hactar_1"), reply);
    }
    // A file that is none makes a failure of the backup, once.
    EXPECT_TRUE(eventually([&] { return vault().value("SELECT status FROM backups") == "4160"; }));
}

}  // namespace
}  // namespace e2e
