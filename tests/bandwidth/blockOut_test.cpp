#include "bandwidth/blockOut.h"

#include <sched.h>
#include <sys/shm.h>

#include <barrier>

#include "support/root.h"

namespace {

constexpr std::uint64_t NONE = NO_BANDWIDTH_LIMIT;
constexpr std::uint64_t K = 1024, M = K * K;

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
    const std::pair<const char*, std::function<std::uint64_t(int day, int hour)>> cases[] = {
        {"", [](int, int) { return NONE; }},
        {"  default 9-17", [](int, int) { return NONE; }},
        {"=1m", [](int, int) { return M; }},
        {"=100", [](int, int) { return std::uint64_t{4096}; }},
        {"=99999999999999999999", [](int, int) { return NONE - 1; }},
        {"9-17", [](int, int h) { return isIn(h, 9, 17) ? 4096 : NONE; }},
        {"=2m 1-5:9-17=512k", [](int d, int h) { return isIn(d, 1, 5) && isIn(h, 9, 17) ? 512 * K : 2 * M; }},
        {"5-1:23-0=1G", [](int d, int h) { return (d >= 5 || d <= 1) && (h == 23 || h == 0) ? K * M : NONE; }},
        {"3:,4", [](int d, int h) { return d == 3 || h == 4 ? 4096 : NONE; }},
        {"0, =1m, 1 =8k 0x10-021", [](int, int h) { return !h                ? 4096
                                                           : h == 1          ? M
                                                           : isIn(h, 16, 17) ? 8 * K
                                                                             : NONE; }},
        {"= 0x2000 7- 8=\t16k", [](int, int h) { return isIn(h, 7, 8) ? 16 * K : 8 * K; }},
    };
    for (const auto& [text, limit] : cases) {
        EXPECT_TRUE(parseBlockOutPeriods("0-23=77777") == 0 && parseBlockOutPeriods(text) == 0) << text;
        for (int day = 0; day < BANDWIDTH_DAYS; ++day)
            for (int hour = 0; hour < BANDWIDTH_HOURS; ++hour)
                ASSERT_EQ(threadBandwidthLimit(at(day, hour)), limit(day, hour)) << text << day << ":" << hour;
    }
}

TEST_F(BlockOut, MalformedSchedulesLeaveNoLimits) {
    // The schedule, and what of it is logged as wrong.
    const std::string cases[] = {"512=1m|Hours '512' must be 0-23",
                                 "20-24|Hours '20-24' must",
                                 "0-23=1m, 25|Hours '25' must",
                                 "7:1|Weekdays '7' must be 0-6",
                                 "1-7:1|Weekdays '1-7' must",
                                 "08|token: '08'",
                                 "0x|token: '0x'",
                                 "9-|token: '9-'",
                                 "9-17-20|token: '-20'",
                                 "-5|token: '-5'",
                                 "1:2:3|token: ':3'",
                                 ":9|token: ':9'",
                                 "9 -17|token: '-17'",
                                 "=1m default|token: 'default'",
                                 "9=|must follow '=': ''",
                                 "9=1mb|must follow '=': '1mb'",
                                 "9=-1|must follow '=': '-1'",
                                 "9,=,10|must follow '=': ',10'",
                                 "=x 9-17|Bad default bandwidth: 'x 9-17'"};
    for (const std::string& row : cases) {
        const std::size_t bar = row.find('|');
        const std::string text = row.substr(0, bar);
        ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
        root.clearLog();
        EXPECT_EQ(parseBlockOutPeriods(text.c_str()), -1) << text;
        EXPECT_TRUE(root.logged(row.substr(bar + 1))) << text << root.log();
        for (int hour = 0; hour < BANDWIDTH_HOURS; ++hour)
            ASSERT_EQ(threadBandwidthLimit(at(hour % 7, hour)), NONE) << text;
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
    void* const page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    auto& step = *new (page) std::atomic<int>(0);
    const auto comes = [&](int next) { return testsupport::eventually([&] { return step == next; }); };
    const pid_t child = fork();
    if (child == 0) {
        detachBandwidthTable();  // what was inherited
        bool isRight = limit() == NONE && getBandwidthTableId() == -1;
        isRight = isRight && parseBlockOutPeriods(("attach:" + std::to_string(id)).c_str()) == 0 && limit() == M;
        step = 1;
        isRight = isRight && comes(2) && limit() == 2 * M && parseBlockOutPeriods("=1m") == -1 && limit() == 2 * M;
        _exit(isRight ? 0 : 1);
    }
    EXPECT_TRUE(comes(1));
    EXPECT_EQ(parseBlockOutPeriods("=2m"), 0);
    step = 2;
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
    munmap(page, 4096);
}

TEST_F(BlockOut, AnIdThatIsNoneDetaches) {
    const int id = getBandwidthTableId();
    for (const std::string text : {"attach:", "attach:x", "attach:-1", "attach:5 ", "attach:99999999999"}) {
        attachBandwidthTable(id);
        EXPECT_TRUE(parseBlockOutPeriods(text.c_str()) == -1 && getBandwidthTableId() == -1) << text;
        EXPECT_TRUE(root.logged("Shared memory id (integer) must follow attach: '" + text.substr(7) + "'"));
        ASSERT_EQ(createBandwidthTable(), 0);
    }
    // The daemon that is told to attach to its own table has a table without limits.
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    EXPECT_EQ(parseBlockOutPeriods(("attach:" + std::to_string(getBandwidthTableId())).c_str()), -1);
    EXPECT_EQ(threadBandwidthLimit(at(0, 0)), NONE);
    EXPECT_TRUE(parseBlockOutPeriods("=1m") == 0 && threadBandwidthLimit(at(0, 0)) == M) << "and keeps it";
}

TEST_F(BlockOut, TheTableGoesWithTheLastOneAttached) {
    const int id = getBandwidthTableId();
    shmid_ds state{};
    ASSERT_EQ(parseBlockOutPeriods("=1m") | shmctl(id, IPC_STAT, &state), 0);
    EXPECT_TRUE(state.shm_segsz == 1344 && (state.shm_perm.mode & 0777) == 0600);
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
}

}  // namespace
