#include "worker/configuration.h"

#include "bandwidth/blockOut.h"
#include "daemon/options.h"
#include "log/logger.h"
#include "support/daemon_fixture.h"

namespace testsupport {
namespace {

class Configuration : public ::testing::Test {
protected:
    Configuration() {
        g_settings = {};
        g_mode = {};
        resetConfiguration();
    }
    ~Configuration() override { log_level = 6; }

    int options(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "ferryd");
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        return parseOptions(static_cast<int>(arguments.size()), argv.data());
    }
    void read(const std::string& replication, const std::string& rest = "") {
        root.masterIni("[Replication]\n" + replication + "\n[debugging]\nferryd=6\n" + rest);
        readConfiguration();
    }

    static std::string numbers() {
        return formatString("%zu %d %d %d", static_cast<std::size_t>(g_settings.maxBlocks), g_settings.timeDelay,
                            g_settings.queueScheme, g_settings.cluster);
    }

    TestRoot root;
};

TEST_F(Configuration, WorkersStartOnlyWithReplicationOnAndTheOtherKindOff) {
    const std::tuple<const char*, const char*, int> cases[] = {{"", "", 0},
                                                               {"Enabled=true", "", 5},
                                                               {"Enabled=true\nMaxConcurrent=2", "", 2},
                                                               {"Enabled=false\nMaxConcurrent=2", "", 0},
                                                               {"Enabled=true", "[tidesync]\nAutoSyncEnabled=true", 0},
                                                               {"", "[tidesync]\nAutoSyncEnabled=true", 0}};
    for (const auto& [replication, rest, workers] : cases) {
        read(replication, rest);
        EXPECT_EQ(g_settings.maxConcurrent, workers) << replication << rest;
    }
}

TEST_F(Configuration, OptionsOutliveEveryReload) {
    ASSERT_EQ(options({"-c", "-m", "5000", "-o", "3", "-t", "7", "-q", "2", "-v", std::string(64, 'v'), "-s", "5"}), 0);
    const std::string file =
        "Cluster=1\nMaxBlocks=100000\nMaxConcurrent=9\nTimeDelay=1\nQueueScheme=1\nSyncTo=file\nMetaSize=50\n";
    read(file + "Enabled=false");
    EXPECT_EQ(g_settings.maxConcurrent, 0);
    read(file + "Enabled=true");
    EXPECT_EQ(g_settings.maxConcurrent, 3) << "the option comes back when the file allows it";
    EXPECT_EQ(numbers(), "5000 7 2 0");
    EXPECT_EQ(g_settings.targetName, std::string(64, 'v'));
    EXPECT_EQ(g_settings.metaSize, 50) << "what no option gave is read";
}

TEST_F(Configuration, OptionsThatAreRefusedOrIgnored) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(options({"-x"}) + options({"-t"}), 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Usage: \nUsage: \n");
    EXPECT_EQ(options({"-v", std::string(65, 'v')}), -1);
    EXPECT_TRUE(root.logged("Invalid vault override\n") && root.logged("Must be smaller than 64\n"));
    ASSERT_EQ(options({"-o", "many", "-m", "-5", "-t", "soon", "-q", "", "-l", "high"}), 0);
    read("Enabled=true\nMaxConcurrent=4\nMaxBlocks=100000\nTimeDelay=9\nQueueScheme=1");
    EXPECT_EQ(g_settings.maxConcurrent, 4);
    EXPECT_EQ(numbers(), "100000 9 1 1");
    EXPECT_EQ(g_mode.loadLimit, 0.0F);
}

TEST_F(Configuration, ValuesThatCantBeUsed) {
    read("SyncTo=" + std::string(70, 's') + "\nMaxBlocks=0\nQueueScheme=2");
    EXPECT_EQ(g_settings.targetName, std::string(64, 's'));
    EXPECT_EQ(g_settings.maxBlocks, 0xa00000u);
    EXPECT_EQ(g_settings.queueScheme, 2);
    read("SyncTo=\"\"\nQueueScheme=2");
    EXPECT_EQ(g_settings.queueScheme, 0) << "without a target nothing is queued";
}

TEST_F(Configuration, IsReadAgainOnlyWhenTheFileIsNewer) {
    read("RetryCount=8\nCheckpoint=true");
    EXPECT_EQ(g_settings.retryCount, 8);
    EXPECT_TRUE(root.logged("Using checkpoint system"));
    const auto file = root / "usr/dq/dqinit/master.ini";
    const auto time = std::filesystem::last_write_time(file);
    writeFile(file, "[Replication]\nRetryCount=9\nSOCKET_TIMEOUT=11\n");
    for (const int seconds : {0, -100}) {
        std::filesystem::last_write_time(file, time + std::chrono::seconds(seconds));
        root.clearLog();
        readConfiguration();
        EXPECT_EQ(g_settings.retryCount, 8);
        EXPECT_TRUE(root.logged("SOCKET_TIMEOUT 11")) << "the socket keys are read in any case";
    }
    std::filesystem::last_write_time(file, time + std::chrono::seconds(1));
    readConfiguration();
    EXPECT_EQ(g_settings.retryCount, 9);
    EXPECT_FALSE(g_settings.checkpoint);
    read("SOCKET_TIMEOUT=0");  // for the tests that follow
}

TEST_F(Configuration, ScheduleThatIsTooLongIsIgnored) {
    ASSERT_EQ(createBandwidthTable(), 0);
    const std::tuple<const char*, std::string, std::uint64_t> cases[] = {
        {"the longest that fits", "=1m" + std::string(4091, ','), 1u << 20},
        {"a byte more", "=1m" + std::string(4092, ','), NO_BANDWIDTH_LIMIT},
        {"a good one again", "=2m", 2u << 20},
        {"no schedule", "nonsense", NO_BANDWIDTH_LIMIT},
        {"and a good one", "=2m", 2u << 20},
        {"not read when no workers are to come", "=3m\nEnabled=false", 2u << 20}};
    for (const auto& [what, text, limit] : cases) {
        read("BlockOutPeriods=" + text + "\nEnabled=true");
        EXPECT_EQ(threadBandwidthLimit(0), limit) << what;
    }
    const std::string head = "WARNING: The variable 'BlockOutPeriods' in file " +
                             (root / "usr/dq/dqinit/master.ini").string() + "\n         ";
    EXPECT_TRUE(root.logged(head + "is too long. Ignored.\n"));
    EXPECT_TRUE(root.logged(head + "is invalid. Ignored.\n"));
    detachBandwidthTable();
}

TEST_F(Configuration, LoadIsTheFirstFigureOrNone) {
    const std::string file = root / "loadavg";
    for (const auto& [text, load] : {std::pair("0.75 1.50 2.00 1/300 4711\n", 0.75F), {"busy", -1.0F}, {"", -1.0F}}) {
        writeFile(file, text);
        EXPECT_EQ(getLoadAverage(file), load) << text;
    }
    EXPECT_EQ(getLoadAverage(root / "absent"), -1.0F);
}

}  // namespace
}  // namespace testsupport
