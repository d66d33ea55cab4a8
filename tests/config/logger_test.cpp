#include "config/program_log.h"

#include "base/paths.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using testsupport::readFile;
using testsupport::writeFile;

#define STAMP "[A-Z][a-z][a-z] [0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] : "

std::string reported;
bool wasMasked = false;  // signals, while that was reported

void noteReport(const char* text) {
    sigset_t present;
    reported += text;
    wasMasked = pthread_sigmask(SIG_BLOCK, nullptr, &present) == 0 && sigismember(&present, SIGUSR1) == 1;
}

class Logger : public testing::Test {
protected:
    Logger() {
        reported.clear();
        g_errmsg_proc = noteReport;
        close_log();
        log_reset();
        for (const char* name : {"DQLOGNAME", "LOG_LEVEL"})
            unsetenv(name);
    }
    ~Logger() override {
        close_log();
        log_reset();
        log_set_rotation(nullptr, 0, 0, 1, nullptr);
        log_simple = 0;
        log_screen_level = -1;
        g_errmsg_proc = nullptr;
    }

    std::filesystem::path log(std::string_view name) const { return root / ("usr/dq/logs.dir/" + std::string(name)); }
    std::string read(std::string_view name) const { return readFile(log(name)); }
    bool exists(std::string_view name) const { return std::filesystem::exists(log(name)); }

    // The names in the log directory, joined by blanks.
    std::string names() const {
        std::set<std::string> sorted;
        for (const auto& entry : std::filesystem::directory_iterator(log("")))
            sorted.insert(entry.path().filename());
        sorted.erase("test.log");  // the fixture's own
        std::string all;
        for (const std::string& name : sorted)
            all += (all.empty() ? "" : " ") + name;
        return all;
    }
    void makeLog(std::string_view name, int ageDays, int ageSeconds = 0) const {
        writeFile(log(name), std::string(name) + "\n");
        const timeval when = {time(nullptr) - ageDays * 86400L - ageSeconds, 0};
        const timeval times[2] = {when, when};
        ASSERT_EQ(utimes(log(name).c_str(), times), 0);
    }
    // Fills the open log to a piece of 1 KB and one line more.
    static void fillPiece(const char* mark) { log_message(0, "%s %s\n", mark, std::string(1100, '.').c_str()); }

    testsupport::TestRoot root;
};

TEST_F(Logger, LineHasStampTagAndOneNewline) {
    ASSERT_EQ(open_log("a.log"), 0);
    const int written = log_message(3, "one %d", 1);
    log_message(3, "two\n");
    log_message(3, "%s", "three\n");
    log_message(0, "program (Log level=%d)\n", 3);
    log_raw(3, "raw %d", 4);
    log_raw(3, "\n");
    log_message(7, "above");
    EXPECT_THAT(read("a.log"), MatchesRegex(STAMP "\\[LOG3\\] one 1\n" STAMP "\\[LOG3\\] two\n" STAMP
                                                  "\\[LOG3\\] three\n\nprogram \\(Log level=3\\)\nraw 4\n"));
    EXPECT_EQ(written, static_cast<int>(strlen("Nov 16 21:46:27 : [LOG3] one 1\n")));
}

TEST_F(Logger, LongMessageIsKeptWhole) {
    ASSERT_EQ(open_log("a.log"), 0);
    // Around the fixed space for a line, and far beyond.
    for (const std::size_t size : {2020u, 2021u, 2022u, 2023u, 2024u, 100000u}) {
        const std::string message(size, 'x');
        log_message(0, "%s|", message.c_str());
        EXPECT_THAT(read("a.log"), EndsWith(" " + message + "|\n")) << size;
    }
}

TEST_F(Logger, ScreenCopiesAreBareAndHaveTheirOwnLevel) {
    ASSERT_EQ(open_log("a.log"), 0);
    log_level = 2;
    log_screen_level = 4;
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_message(4, "screen"), 0);
    log_message(1, "both %d\n", 2);
    log_message(5, "none");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "screen\nboth 2\n");
    EXPECT_THAT(read("a.log"), MatchesRegex(STAMP "\\[LOG1\\] both 2\n"));
}

TEST_F(Logger, ErrnoStandsBehindTheMessageAndSurvivesIt) {
    ASSERT_EQ(open_log("a.log"), 0);
    errno = ENOENT;
    log_errno(1, "can't open %s\n", "x");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(read("a.log"), EndsWith("[LOG1] can't open x because...(2) No such file or directory \n"));
    writeFile(root / "tmp/in", "first 100%\nlast");
    EXPECT_EQ(log_include_file(2, (root / "tmp/in").c_str()), 0);
    EXPECT_THAT(read("a.log"), ContainsRegex("\\[LOG2\\] first 100%\n.*\\[LOG2\\] last\n$"));
    EXPECT_EQ(log_include_file(2, "/nowhere"), -1);
}

TEST_F(Logger, SilentLevelLeavesNoTrace) {
    log_level = LOG_SILENT;
    EXPECT_EQ(open_log("a.log") + log_message(0, "x") + log_raw(0, "x"), 0);
    close_log();
    EXPECT_EQ(names(), "");
    ASSERT_NE(log_stream(nullptr), nullptr);  // "/dev/null", for callers that want some stream
}

TEST_F(Logger, LevelsFrom100SelectTheSimpleWriterExceptForServers) {
    log_level = 103;
    ASSERT_EQ(open_log("some-program-7.log"), 0);
    EXPECT_EQ(log_level, 3);
    EXPECT_NE(log_simple, 0);
    log_message(3, "in\n");
    log_message(4, "out\n");
    close_log();
    EXPECT_EQ(names(), "some-program.log");
    EXPECT_THAT(read("some-program.log"),
                MatchesRegex(STAMP "\\[LOG3\\] in\n" STAMP "pid=[0-9]+ [0-9]+ : Log Closed\n"));
    log_simple = 0;
    log_level = 103;
    ASSERT_EQ(open_log("dqserver-0.log"), 0);
    EXPECT_EQ(log_level, 3);
    EXPECT_EQ(log_simple, 0);
    EXPECT_TRUE(exists("dqserver-0.log"));
}

TEST_F(Logger, SimpleWriterCutsAt1024BytesAndSaysSo) {
    log_simple = 1;
    ASSERT_EQ(open_log("a.log"), 0);
    const std::size_t head = strlen("Nov 16 21:46:27 : [LOG0] ");
    const std::string fits(1024 - head, 'f');
    log_message(0, "%s", fits.c_str());
    EXPECT_THAT(read("a.log"), MatchesRegex(STAMP "\\[LOG0\\] f+\n"));
    EXPECT_EQ(read("a.log").size(), 1025u);
    std::filesystem::resize_file(log("a.log"), 0);
    log_message(0, "%s\n", std::string(2000, 'x').c_str());
    const std::string text = read("a.log");
    const std::string notice = "Message below was truncated from 2026 to 1024 bytes\n";
    EXPECT_THAT(text, StartsWith(notice));
    EXPECT_EQ(text.size(), notice.size() + 1025);
    EXPECT_EQ(text.substr(notice.size() + head), std::string(1024 - head, 'x') + "\n");
}

TEST_F(Logger, WithoutALogLinesGoToTheFallback) {
    log_message(1, "early");
    EXPECT_THAT(readFile(root / "tmp/program.log"), MatchesRegex(STAMP "\\[LOG1\\] early\n"));
    close_log();
    g_logdir.clear();
    ASSERT_EQ(open_log("b.log"), 0);
    EXPECT_EQ(std::string(log_fname), (root / "tmp/b.log").string());
}

TEST_F(Logger, UnopenableLogGoesToNullAndTheProgramGoesOn) {
    std::string path = log("no/such/dir.log");
    EXPECT_EQ(OpenLog(&path), -1);
    EXPECT_EQ(path, "/dev/null");
    EXPECT_THAT(reported, HasSubstr("no/such/dir.log because: No such file or directory\n"));
    EXPECT_TRUE(wasMasked) << "a handler that logs would meet its own lock";
    EXPECT_GT(log_message(0, "lost"), 0);
    log_simple = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(open_log("no/such/dir.log"), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), StartsWith("Error opening logfile "));
}

// Any user may put something in the place of the fall-back log; a device in the place of a log is not ours to change.
TEST_F(Logger, LinksAndDevicesInThePlaceOfALogAreLeftAlone) {
    std::filesystem::create_symlink(root / "tmp/elsewhere", root / "tmp/program.log");
    log_message(0, "early");
    EXPECT_FALSE(std::filesystem::exists(root / "tmp/elsewhere"));
    EXPECT_THAT(reported, HasSubstr("Fatal error opening logfile "));
    close_log();
    ASSERT_EQ(mkfifo(log("fifo.log").c_str(), 0600), 0);
    const int reader = open(log("fifo.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string path = log("fifo.log");
    EXPECT_EQ(OpenLog(&path), 0);
    log_message(0, "into the pipe");
    char text[100] = "";
    EXPECT_GT(::read(reader, text, sizeof text - 1), 0);
    EXPECT_THAT(text, HasSubstr("into the pipe"));
    EXPECT_EQ(std::filesystem::status(log("fifo.log")).permissions(), std::filesystem::perms(0600));
    (void)::close(reader);
}

TEST_F(Logger, OpeningEmptiesTheLogAndSetsItsMode) {
    makeLog("a.log", 0);
    makeLog("a_1.log", 0);
    makeLog("a_3.log", 0);
    const mode_t mask = umask(077);
    ASSERT_EQ(open_log("a.log"), 0);
    umask(mask);
    EXPECT_EQ(names(), "a.log a_3.log");  // the clean-up stops at the first gap
    EXPECT_EQ(read("a.log"), "");
    EXPECT_EQ(static_cast<int>(std::filesystem::status(log("a.log")).permissions()), 0664);
    EXPECT_NE(fcntl(fileno(log_stream(nullptr)), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Logger, LevelComesFromTheEnvironment) {
    for (const auto& [value, level] :
         {std::pair("LOG_LEVEL: 5", 5), {"elevenchars4", 4}, {"short", 2}, {"elevenchars", 2}}) {
        log_level = 2;
        setenv("LOG_LEVEL", value, 1);
        ASSERT_EQ(open_log("a.log"), 0);
        EXPECT_EQ(log_level, level) << value;
    }
    unsetenv("LOG_LEVEL");
}

TEST_F(Logger, RotationKeepsFourPiecesInOrderAndTheirExtensions) {
    root.masterIni("[MaxLogKB]\nprog=1\n[LogsPerInstance]\ndefault=4\n");
    ASSERT_EQ(OpenProgramLog("prog", 1), 0);
    EXPECT_THAT(read("prog-0.log"),
                ContainsRegex("^prog\\[[0-9.]+, pid = [0-9]+\\]: started on .*  \\(Log level=6\\)\n"));
    for (const char* mark : {"r0", "r1", "r2", "r3"})
        fillPiece(mark);
    ASSERT_EQ(names(), "prog-0.log prog-0_1.log prog-0_2.log prog-0_3.log");
    // Another tool compresses a piece; rotation takes it along.
    std::filesystem::rename(log("prog-0_1.log"), log("prog-0_1.log.gz"));
    fillPiece("r4");
    EXPECT_EQ(names(), "prog-0.log prog-0_1.log prog-0_2.log.gz prog-0_3.log");
    fillPiece("r5");
    EXPECT_EQ(names(), "prog-0.log prog-0_1.log prog-0_2.log prog-0_3.log.gz");
    fillPiece("r6");
    EXPECT_EQ(names(), "prog-0.log prog-0_1.log prog-0_2.log prog-0_3.log");
    EXPECT_THAT(
        read("prog-0.log"),
        ContainsRegex("^prog\\[[^]]+\\]: started on [^(]+[^ (] \\(Log level=6\\)\nLog size limit reached, starting new "
                      "log file. For prior logs, check prog-0\\*.log\n" STAMP "\\[LOG0\\] r6 "));
    EXPECT_THAT(read("prog-0_1.log"), HasSubstr("[LOG0] r5 "));
    EXPECT_THAT(read("prog-0_3.log"), HasSubstr("[LOG0] r3 "));
    EXPECT_THAT(read("prog-0_1.log"), ContainsRegex(" : Current log size = [0-9]+; Moving log file...  \n$"));
    EXPECT_EQ(reported, "");
}

TEST_F(Logger, RotationLooksAtTheFormatAndOnlyAtItsOwnStream) {
    ASSERT_EQ(open_log("a.log"), 0);
    log_set_rotation("a", 0, 1, 4, "now");
    log_message(0, "%s", std::string(5000, 'x').c_str());  // passes the limit by its whole length
    FILE* const planted = fopen(log("planted.log").c_str(), "w");
    ASSERT_NE(planted, nullptr);
    FILE* const own = log_stream(planted);
    for (int i = 0; i < 3; i++)
        fillPiece("p");
    EXPECT_EQ(log_stream(own), planted);
    (void)fclose(planted);
    for (const auto& [maxKB, pieces] : {std::pair(0u, 4), std::pair(1u, 1)}) {
        log_set_rotation("a", 0, maxKB, pieces, nullptr);
        fillPiece("n");
        EXPECT_EQ(names(), "a.log planted.log");
    }
    log_set_rotation("a", 0, 1, 2, nullptr);
    log_message(0, "x");
    EXPECT_EQ(names(), "a.log a_1.log planted.log");
    fillPiece("a");
    std::filesystem::remove_all(log(""));  // a rotation that fails is said once and turned off
    fillPiece("b");
    EXPECT_THAT(reported, HasSubstr("Fatal error opening logfile "));
    const std::string once = reported;
    fillPiece("c");
    EXPECT_EQ(reported, once);
}

TEST_F(Logger, InstanceIsTheFirstFreeOrAgedElseTheOldest) {
    const std::tuple<const char*, std::vector<std::pair<const char*, int>>, int> cases[] = {
        // name and age in hours of what is there; the instance
        {"none", {}, 0},
        {"next free", {{"p-0.log", 1}}, 1},
        {"gap", {{"p-0.log", 1}, {"p-2.log", 1}}, 1},
        {"aged out", {{"p-0.log", 1}, {"p-1.log", 49}, {"p-2.log", 1}}, 1},
        {"compressed", {{"p-0.log.gz", 1}}, 1},
        {"all recent", {{"p-0.log", 2}, {"p-1.log", 3}, {"p-2.log", 1}}, 1},
        {"of another", {{"pp-0.log", 1}}, 0},
        {"last number is used", {{"p-0.log", 2}, {"p-1.log", 3}}, 2}};
    root.masterIni("[LogRetentionDays]\np=2\n[LogRetentionInstances]\ndefault=9\np=2\n");
    for (const auto& [what, present, instance] : cases) {
        SCOPED_TRACE(what);
        for (const auto& entry : std::filesystem::directory_iterator(log("")))
            std::filesystem::remove(entry.path());
        for (const auto& [name, hours] : present)
            makeLog(name, 0, hours * 3600);
        ASSERT_EQ(OpenProgramLog("p", 1), 0);
        const std::string path = log("p-" + std::to_string(instance) + ".log");
        EXPECT_EQ(g_base_fname, path);
        EXPECT_EQ(ini_text("Location Information", "p", "", root / "etc/default/dq.ini"), path);
        EXPECT_THAT(readFile(path), StartsWith("p["));  // emptied
        close_log();
    }
    EXPECT_EQ(ini_text("Location Information", "prev_p", "", root / "etc/default/dq.ini"), log("p-0.log").string());
}

// As shipped, no worker takes over the log of one that runs.
TEST_F(Logger, TheExampleHasLogsForAllWorkers) {
    root.masterIni(readFile(FERRYD_EXAMPLES "/master.ini"));
    for (int n = 0; n < ini_get_int("Replication", "MaxConcurrent", 0, g_master_ini) + 5; n++) {
        ASSERT_EQ(OpenProgramLog("ferryd-worker", 1), 0);
        EXPECT_EQ(g_base_fname, log("ferryd-worker-" + std::to_string(n) + ".log"));
    }
}

TEST_F(Logger, ChildKeepsTheLogNamedByItsParent) {
    makeLog("parent-0.log", 0);
    setenv("DQLOGNAME", log("parent-0.log").c_str(), 1);
    ASSERT_EQ(OpenProgramLog("child", 1), 0);
    unsetenv("DQLOGNAME");
    EXPECT_THAT(read("parent-0.log"), StartsWith("parent-0.log\nchild["));
    EXPECT_EQ(names(), "parent-0.log");
}

TEST_F(Logger, ReopeningCarriesThePiecesOver) {
    root.masterIni("[MaxLogKB]\ndefault=1\n");
    ASSERT_EQ(OpenProgramLog("old", 1), 0);
    fillPiece("a");
    fillPiece("b");
    ASSERT_EQ(names(), "old-0.log old-0_1.log");
    log_level = 5;  // dumps would start a further piece
    ASSERT_EQ(ReopenInstanceLog("new"), 0);
    EXPECT_EQ(names(), "new-0.log new-0_1.log");
    EXPECT_THAT(read("new-0.log"), ContainsRegex("b \\.+\n.*Log Closed\n"));
    fillPiece("c");
    EXPECT_EQ(names(), "new-0.log new-0_1.log new-0_2.log");
    EXPECT_THAT(read("new-0_2.log"), HasSubstr("[LOG0] a "));
    ASSERT_EQ(open_log(g_base_fname.c_str(), LogOpening::carryOver), 0);  // under its own name: nothing is lost
    EXPECT_EQ(names(), "new-0.log new-0_1.log new-0_2.log");
}

TEST_F(Logger, SweepRemovesLogsPastTheirRetention) {
    root.masterIni("[LogRetentionDays]\ndefault=2\nlong=10\n[LogRetentionInstances]\ndefault=3\nfew=0\n");
    const std::map<std::string, std::pair<int, bool>> files = {
        // name, age in days, stays
        {"a-0.log", {1, true}},    {"a-1_1.log", {3, false}},      {"a-2.log.gz", {3, false}},
        {"a-3.log", {1, true}},    {"a-4.log", {1, false}},        {"a-5_12.log.gz", {1, false}},
        {"long-1.log", {9, true}}, {"long-2.log", {11, false}},    {"few-1.log", {1, true}},
        {"few-2.log", {1, false}}, {"two-part-9.log", {1, false}}, {"a.log", {99, true}},
        {"-1.log", {99, true}},    {"a-1_.log", {99, true}},       {"a-1.log.bz2", {99, true}},
    };
    std::string expected;
    for (const auto& [name, what] : files) {
        makeLog(name, what.first);
        if (what.second)
            expected += (expected.empty() ? "" : " ") + name;
    }
    EXPECT_GT(PurgeOldLogs(), 0);
    EXPECT_EQ(names(), expected);
    g_logdir += "/none";
    EXPECT_EQ(PurgeOldLogs(), -1);
    EXPECT_THAT(reported, HasSubstr("ScanLogsDir: Could not perform opendir on logs directory\n"));
}

TEST_F(Logger, CleanUpRefusesNamesThatAreNoLogs) {
    EXPECT_DEATH((void)CleanupOldLogs(".log"), "");
    makeLog("a.txt", 0);
    EXPECT_EQ(CleanupOldLogs(log("a.txt").c_str()), 0);
    EXPECT_EQ(names(), "a.txt");
}

// Also run under the thread sanitizer.
TEST(LoggerThreads, ConcurrentLinesStayWholeAcrossRotations) {
    constexpr int LINES = 1500;
    const testsupport::TestRoot root;
    ASSERT_EQ(open_log("t.log"), 0);
    log_set_rotation("t", 0, 32, 100, "now");
    const auto lineOf = [](char mark, int i) {
        return mark + std::to_string(i) + " " + std::string(static_cast<std::size_t>(i % 90), mark);
    };
    std::multiset<std::string> expected;
    std::vector<std::thread> threads;
    for (const char mark : {'a', 'b'}) {
        for (int i = 0; i < LINES; i++)
            expected.insert(lineOf(mark, i));
        threads.emplace_back([&, mark] {
            for (int i = 0; i < LINES; i++) {
                log_message(i % 7, "%s\n", lineOf(mark, i).c_str());
                if (i % 100 == 0)
                    log_flush();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    close_log();
    std::multiset<std::string> seen;
    for (const auto& entry : std::filesystem::directory_iterator(root / "usr/dq/logs.dir")) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (const std::size_t tag = line.find("[LOG"); tag != std::string::npos)
                seen.insert(line.substr(tag + 7));
    }
    EXPECT_TRUE(seen == expected);
    EXPECT_TRUE(std::filesystem::exists(root / "usr/dq/logs.dir/t_3.log"));
    log_set_rotation(nullptr, 0, 0, 1, nullptr);
    log_reset();
}

}  // namespace
