#include "e2e/e2e_fixture.h"

#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

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

void writeRandom(const fs::path& path, std::size_t size, std::mt19937_64& random) {
    std::string content(size, '\0');
    for (char& byte : content)
        byte = static_cast<char>(random());
    std::ofstream(path, std::ios::binary) << content;
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
                lab().source().log("ferryd").c_str(), lab().vault().log("vaultServer").c_str());
}

fs::path EndToEnd::data(unsigned seed, unsigned megabytes) {
    const fs::path directory = place().directory / "data";
    fs::create_directories(directory / "small");
    std::mt19937_64 random(seed);
    for (unsigned i = 0; i < megabytes; ++i)
        writeRandom(directory / ("large" + std::to_string(i)), (1 << 20) - 4096, random);
    for (unsigned i = 0; i < 40; ++i)
        writeRandom(directory / "small" / std::to_string(i), 1 + i * 37, random);
    writeRandom(directory / "empty", 0, random);
    return directory;
}

::testing::AssertionResult EndToEnd::eventually(const std::function<bool()>& condition) const {
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return ::testing::AssertionFailure() << "it didn't happen in time";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult EndToEnd::reaches(std::uint64_t backupNo, int statusMask) const {
    if (lab().waitForStatus(backupNo, statusMask, LIMIT))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "backup " << backupNo << " has status " << lab().queueStatus(backupNo);
}

std::uint64_t EndToEnd::packSize() const {
    std::error_code missing;
    const auto size = fs::file_size(lab().vault().disk() / "store/blocks.pack", missing);
    return missing ? 0 : size;
}

void EndToEnd::hold(const std::string& tool) {
    const fs::path bin = lab().source().root() / "usr/dq/bin";
    fs::rename(bin / tool, bin / (tool + ".real"));
    std::ofstream(bin / tool) << "#!/bin/sh\ntouch '" << (bin / (tool + ".held")).string() << "'\nuntil [ -e '"
                              << (bin / (tool + ".go")).string() << "' ]; do sleep 0.05; done\nexec '"
                              << (bin / (tool + ".real")).string() << "' \"$@\"\n";
    fs::permissions(bin / tool, fs::perms::owner_all);
    fs::remove(bin / (tool + ".held"));
    fs::remove(bin / (tool + ".go"));
}

void EndToEnd::release(const std::string& tool) {
    std::ofstream(lab().source().root() / "usr/dq/bin" / (tool + ".go"));
}

bool EndToEnd::isHeld(const std::string& tool) const {
    return fs::exists(lab().source().root() / "usr/dq/bin" / (tool + ".held"));
}

std::string EndToEnd::lastMessage(std::uint64_t backupNo) const {
    return lab().source().value("SELECT message FROM sds_stats WHERE backup_no = " + std::to_string(backupNo) +
                                " ORDER BY done_epoch DESC LIMIT 1");
}

pid_t EndToEnd::workerPid() const {
    const std::string pid = lab().source().value("SELECT pid_to_kill FROM operation_progress LIMIT 1");
    return pid.empty() ? 0 : std::stoi(pid);
}

}  // namespace e2e
