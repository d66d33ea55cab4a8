#include "e2e/e2e_fixture.h"

#include "support/bytes.h"

namespace e2e {

using testsupport::noise;
using testsupport::writeFile;

namespace {

struct Place {
    fs::path directory = lab::temporaryDirectory("ferryd-e2e");
    lab::Lab lab{directory / "lab"};
    ~Place() {
        lab.stopDaemon();
        lab.stopVault();
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
};

// Made by the first test and ended with the program: a cluster takes seconds to make.
Place& place() {
    static Place instance;
    return instance;
}

}  // namespace

lab::Lab& EndToEnd::lab() const {
    return place().lab;
}

void EndToEnd::SetUp() {
    lab().reset();
    fs::remove_all(place().directory / "data");
}

void EndToEnd::TearDown() {
    if (HasFailure())
        fprintf(stderr, "---- worker log\n%s\n---- daemon log\n%s\n---- vault log\n%s\n", workerLog().c_str(),
                source().log("ferryd").c_str(), vault().log("vaultServer").c_str());
}

void EndToEnd::startBoth() const {
    lab().startVault();
    lab().startDaemon();
}

std::string EndToEnd::util(std::vector<std::string> arguments, int status) const {
    std::string output;
    arguments.insert(arguments.begin(), {ferryd(), "util"});
    EXPECT_EQ(source().run(arguments, &output), status) << arguments[2] << ": " << output;
    return output;
}

fs::path EndToEnd::data(unsigned seed, unsigned megabytes) {
    const fs::path directory = place().directory / "data";
    fs::create_directories(directory / "small");
    for (unsigned i = 0; i < megabytes; ++i)
        writeFile(directory / ("large" + std::to_string(i)), noise((1 << 20) - 4096, seed * 1000 + i));
    for (unsigned i = 0; i < 40; ++i)
        writeFile(directory / "small" / std::to_string(i), noise(1 + i * 37, seed * 1000 + 500 + i));
    writeFile(directory / "empty", "");
    return directory;
}

::testing::AssertionResult EndToEnd::reaches(std::uint64_t backupNo, int statusMask) const {
    if (lab().waitForStatus(backupNo, statusMask, LIMIT))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "backup " << backupNo << " has status " << lab().queueStatus(backupNo);
}

::testing::AssertionResult EndToEnd::arrives(std::uint64_t backupNo) const {
    const ::testing::AssertionResult complete = reaches(backupNo, REPLICATION_COMPLETE);
    if (!complete || lab().sameOnVault(backupNo))
        return complete;
    return ::testing::AssertionFailure() << "backup " << backupNo << " is another one on the vault";
}

std::uint64_t EndToEnd::packSize() const {
    std::error_code missing;
    const auto size = fs::file_size(vault().disk() / "store/blocks.pack", missing);
    return missing ? 0 : size;
}

void EndToEnd::hold(const std::string& tool) {
    const std::string file = bin() / tool;
    fs::rename(file, file + ".real");
    writeFile(file,
              "#!/bin/sh\ntouch \"$0.held\"\nuntil [ -e \"$0.go\" ]; do sleep 0.05; done\nexec \"$0.real\" \"$@\"\n");
    fs::permissions(file, fs::perms::owner_all);
    fs::remove(file + ".held");
    fs::remove(file + ".go");
}

bool EndToEnd::ended(std::uint64_t backupNo, const std::string& message) const {
    const std::string last = "SELECT message FROM sds_stats WHERE backup_no = " + std::to_string(backupNo) +
                             " ORDER BY done_epoch DESC LIMIT 1";
    return eventually([&] { return value(last).starts_with(message); });
}

pid_t EndToEnd::workerPid() const {
    const std::string pid = value("SELECT pid_to_kill FROM operation_progress LIMIT 1");
    return pid.empty() ? 0 : std::stoi(pid);
}

}  // namespace e2e
