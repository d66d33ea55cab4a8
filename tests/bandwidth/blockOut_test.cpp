#include "bandwidth/blockOut.h"

#include <sched.h>
#include <sys/shm.h>

#include <barrier>

#include "support/root.h"
#include "support/test.h"

namespace {

constexpr std::uint64_t NONE = NO_BANDWIDTH_LIMIT;
constexpr std::uint64_t K = 1024;
constexpr std::uint64_t M = K * K;

// In a namespace of its own where that is allowed; elsewhere each root's own dq.ini gives a key of its own.
class BlockOut : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        (void)unshare(CLONE_NEWIPC);
        ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
        tzset();
    }
    void SetUp() override { ASSERT_EQ(createBandwidthTable(), 0); }
    void TearDown() override { detachBandwidthTable(); }

    testsupport::TestRoot root;
};

// A moment in that hour of that weekday.
std::time_t at(int day, int hour) {
    return (3 + day) * 86400 + hour * 3600 + 1800;  // the first Sunday was the 4th of January
}

bool isIn(int value, int first, int last) {
    return value >= first && value <= last;
}

TEST_F(BlockOut, SchedulesMeanWhatTheySay) {
    const struct {
        const char* text;
        std::function<std::uint64_t(int day, int hour)> limit;
    } cases[] = {
        {"", [](int, int) { return NONE; }},
        {"default", [](int, int) { return NONE; }},
        {"  default 9-17", [](int, int) { return NONE; }},
        {"=1m", [](int, int) { return M; }},
        {"=100", [](int, int) { return std::uint64_t{4096}; }},
        {"=99999999999999999999", [](int, int) { return NONE - 1; }},
        {"9-17", [](int, int h) { return isIn(h, 9, 17) ? 4096 : NONE; }},
        {"=2m 1-5:9-17=512k", [](int d, int h) { return isIn(d, 1, 5) && isIn(h, 9, 17) ? 512 * K : 2 * M; }},
        {"22-2", [](int, int h) { return h >= 22 || h <= 2 ? 4096 : NONE; }},
        {"5-1:=8k", [](int d, int) { return d >= 5 || d <= 1 ? 8 * K : NONE; }},
        {"5-1:23-0=1G", [](int d, int h) { return (d >= 5 || d <= 1) && (h == 23 || h == 0) ? K * M : NONE; }},
        {"3:", [](int d, int) { return d == 3 ? 4096 : NONE; }},
        {"3:,4", [](int d, int h) { return d == 3 || h == 4 ? 4096 : NONE; }},
        {"0, =1m, 1 2=2M =8k 0x10-021",
         [](int, int h) {
             return h == 0 ? 4096 : h == 1 ? M : h == 2 ? 2 * M : h == 16 || h == 17 ? 8 * K : NONE;
         }},
        {"0-23=1m 6:10=2m", [](int d, int h) { return d == 6 && h == 10 ? 2 * M : M; }},
        {"= 0x2000 7- 8=\t16k", [](int, int h) { return isIn(h, 7, 8) ? 16 * K : 8 * K; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(parseBlockOutPeriods("0-23=77777"), 0);
        EXPECT_EQ(parseBlockOutPeriods(c.text), 0);
        for (int day = 0; day < BANDWIDTH_DAYS; ++day) {
            for (int hour = 0; hour < BANDWIDTH_HOURS; ++hour)
                ASSERT_EQ(threadBandwidthLimit(at(day, hour)), c.limit(day, hour)) << day << ":" << hour;
        }
    }
}

TEST_F(BlockOut, MalformedSchedulesLeaveNoLimits) {
    const struct {
        const char* text;
        const char* logged;
    } cases[] = {
        {"512=1m", "Hours '512' must be 0-23"},
        {"20-24", "Hours '20-24' must be 0-23"},
        {"7:1", "Weekdays '7' must be 0-6"},
        {"1-7:1", "Weekdays '1-7' must be 0-6"},
        {"08", "Bad blockout token: '08'"},
        {"0x", "Bad blockout token: '0x'"},
        {"monday", "Bad blockout token: 'monday'"},
        {"9-", "Bad blockout token: '9-'"},
        {"9-17-20", "Bad blockout token: '-20'"},
        {"-5", "Bad blockout token: '-5'"},
        {"9;10", "Bad blockout token: ';10'"},
        {"1:2:3", "Bad blockout token: ':3'"},
        {":9", "Bad blockout token: ':9'"},
        {"9 -17", "Bad blockout token: '-17'"},
        {"9=", "Bandwidth limit must follow '=': ''"},
        {"9=1mb", "Bandwidth limit must follow '=': '1mb'"},
        {"9=-1", "Bandwidth limit must follow '=': '-1'"},
        {"9,=,10", "Bandwidth limit must follow '=': ',10'"},
        {"=x 9-17", "Bad default bandwidth: 'x 9-17'"},
        {"=1m default", "Bad blockout token: 'default'"},
        {"0-23=1m, 25", "Hours '25' must be 0-23"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
        root.clearLog();
        EXPECT_EQ(parseBlockOutPeriods(c.text), -1);
        EXPECT_TRUE(root.logged(c.logged)) << root.log();
        for (int hour = 0; hour < BANDWIDTH_HOURS; ++hour)
            ASSERT_EQ(threadBandwidthLimit(at(hour % 7, hour)), NONE);
    }
}

TEST_F(BlockOut, OneLimitIsSharedByAllThatAreAttached) {
    constexpr int SENDERS = 4;
    const int id = getBandwidthTableId();
    ASSERT_EQ(parseBlockOutPeriods("0=3m, 1=8192, 2=4097"), 0);
    std::barrier together(SENDERS);
    const auto limitIn = [](int hour) { return threadBandwidthLimit(at(0, hour)); };
    std::vector<std::jthread> senders;
    for (int i = 0; i < SENDERS; ++i)
        senders.emplace_back([&, i] {
            EXPECT_EQ(limitIn(0), NONE) << "not attached";
            attachBandwidthTable(id);
            attachBandwidthTable(id);  // once more is once
            together.arrive_and_wait();
            EXPECT_EQ(limitIn(0), 3 * M / SENDERS);
            EXPECT_EQ(limitIn(1), 4096u) << "the floor is per thread";
            EXPECT_EQ(limitIn(3), NONE) << "nothing to divide";
            EXPECT_EQ(parseBlockOutPeriods("=1m"), -1) << "a sender changes nothing";
            together.arrive_and_wait();
            if (i > 0)
                detachBandwidthTable();  // waits for work
            together.arrive_and_wait();
            EXPECT_EQ(limitIn(0), i > 0 ? NONE : 3 * M);
            together.arrive_and_wait();
        });
    senders.clear();
    EXPECT_EQ(limitIn(2), 4097u) << "threads detach when they end";
}

TEST_F(BlockOut, AProcessAttachesByIdAndSeesEveryChange) {
    const int id = getBandwidthTableId();
    const auto limit = [] { return threadBandwidthLimit(at(0, 0)); };
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    int toChild[2];
    int toParent[2];
    ASSERT_EQ(pipe(toChild) | pipe(toParent), 0);
    char byte = 'x';
    const pid_t child = fork();
    if (child == 0) {
        detachBandwidthTable();  // what was inherited
        bool isRight = limit() == NONE && getBandwidthTableId() == -1;
        isRight = isRight && parseBlockOutPeriods(("attach:" + std::to_string(id)).c_str()) == 0 && limit() == M;
        isRight = isRight && write(toParent[1], &byte, 1) == 1 && read(toChild[0], &byte, 1) == 1;
        isRight = isRight && limit() == 2 * M && parseBlockOutPeriods("=1m") == -1 && limit() == 2 * M;
        _exit(isRight ? 0 : 1);
    }
    close(toParent[1]);
    EXPECT_EQ(read(toParent[0], &byte, 1), 1);
    EXPECT_EQ(parseBlockOutPeriods("=2m"), 0);
    EXPECT_EQ(write(toChild[1], &byte, 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    for (const int fd : {toChild[0], toChild[1], toParent[0]})
        close(fd);
}

TEST_F(BlockOut, AnIdThatIsNoneDetaches) {
    const int id = getBandwidthTableId();
    for (const std::string text : {"attach:", "attach:x", "attach:-1", "attach:5 ", "attach:99999999999"}) {
        SCOPED_TRACE(text);
        attachBandwidthTable(id);
        root.clearLog();
        EXPECT_EQ(parseBlockOutPeriods(text.c_str()), -1);
        EXPECT_TRUE(root.logged("Shared memory id (integer) must follow attach: '" + text.substr(7) + "'"));
        EXPECT_EQ(getBandwidthTableId(), -1);
        ASSERT_EQ(createBandwidthTable(), 0);
    }
    // The daemon that is told to attach to its own table has a table without limits.
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    EXPECT_EQ(parseBlockOutPeriods(("attach:" + std::to_string(getBandwidthTableId())).c_str()), -1);
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), NONE);
    EXPECT_EQ(parseBlockOutPeriods("=1m"), 0);
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), M) << "and keeps it";
    root.clearLog();
    attachBandwidthTable(-1);
    EXPECT_EQ(getBandwidthTableId(), -1);
    EXPECT_EQ(root.log(), "") << "no table is no failure";
}

TEST_F(BlockOut, TheTableGoesWithTheLastOneAttached) {
    const int id = getBandwidthTableId();
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    shmid_ds state{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &state), 0);
    EXPECT_EQ(state.shm_segsz, 1344u);
    EXPECT_EQ(state.shm_perm.mode & 0777, 0600);
    detachBandwidthTable();
    EXPECT_EQ(shmctl(id, IPC_STAT, &state), -1);
    EXPECT_EQ(parseBlockOutPeriods("=1m"), 0) << "checked, and dropped";
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), NONE);
    attachBandwidthTable(id);
    EXPECT_TRUE(root.logged("Can't attach to shared memory " + std::to_string(id)));
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), NONE);
    ASSERT_EQ(createBandwidthTable(), 0);
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), NONE) << "a new table has no limits";
    detachBandwidthTable();
    std::filesystem::remove(root / "etc/default/dq.ini");
    EXPECT_EQ(createBandwidthTable(), -1);
    EXPECT_TRUE(root.logged("Can't get shared memory key: " + (root / "etc/default/dq.ini").string()));
}

}  // namespace
