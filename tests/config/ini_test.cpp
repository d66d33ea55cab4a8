#include "config/ini.h"

#include "base/file_descriptor.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using testsupport::readFile;
using testsupport::writeFile;

class Ini : public testing::Test {
protected:
    testsupport::TestRoot root;
    const std::string path = root / "test.ini";

    std::string get(const std::string& text, const char* section = "S", const char* key = "k") {
        writeFile(path, text);
        return ini_text(section, key, "default", path, 20000);
    }
    std::string afterPut(const std::string& text, const char* key, const char* value) {
        writeFile(path, text);
        EXPECT_EQ(ini_put_field("S", key, value, path), 0);
        return readFile(path);
    }
};

TEST_F(Ini, ValuesFollowTheirSyntax) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"blanks around", "  k = v \t\n", "v"},
        {"tab before the equals sign", "k\t= v\n", "= v"},
        {"key in another case", "K=v\n", "v"},
        {"first of two keys", "k=1\nk=2\n", "1"},
        {"empty", "k=\n", ""},
        {"second delimiter in value", "k=a=b\n", "a=b"},
        {"tab as delimiter", "k\tv\n", "v"},
        {"delimiter in front", "=k=v\n", "v"},
        {"end of file", "k=v", "v"},
        {"CRLF", "k=v\r\n", "v"},
        {"semicolon comment", "k = value ; note\n", "value"},
        {"hash comment", "k = value# note\n", "value"},
        {"quoted semicolon", "k = \"a;b\" ; note\n", "a;b"},
        {"escaped semicolon", "k = a\\;b\n", "a;b"},
        {"blanks in quotes stay", "k = \"a  \" ; note\n", "a  "},
        {"text behind the quote", "k = \"a b\" c \n", "a b c"},
        {"open quote", "k = \"a;b  \n", "a;b"},
        {"quote not in front", "k = a\"b\"\n", "a\"b\""},
        {"escaped quote", "k = \"a\\\"b\"\n", "a\"b"},
        {"single quotes stay", "k = 'a b'\n", "'a b'"},
        {"comment in single quotes", "k = 'a;b'\n", "'a"},
        {"backslash in single quotes", "k = 'a\\;b'\n", "'a\\;b'"},
        {"newline and tab", "k = a\\nb\\tc\n", "a\nb\tc"},
        {"n in single quotes", "k = '\\n'\n", "'\\n'"},
        {"backslash kept", "k = a\\\\b\n", "a\\b"},
        {"backslash dropped", "k = a\\xb\n", "axb"},
        {"continued", "k = a\\\n b\\\nc ; d\n", "a bc"},
        {"continued, CRLF", "k = a\\\r\nb\r\n", "ab"},
        {"continued at the end of the file", "k = a\\\n", "a"},
        {"not continued in single quotes", "k = 'a\\\nb=1\n", "'a\\"},
        {"no value", "k\n", "default"},
        {"no value, CRLF", "k\r\n", "default"},
        {"no value at the end of the file", "k", "default"},
        {"value only on a second line", "k\nk=v\n", "default"},
        {"comment lines", ";k=v\n # k=v\n", "default"},
        {"next section", "[T]\nk=v\n", "default"},
        {"another key", "kk=v\n", "default"},
    };
    for (const auto& [what, line, value] : cases)
        EXPECT_EQ(get(std::string("k=outside\n[S]\n") + line), value) << what;
}

TEST_F(Ini, SectionNameEndsAtItsLastBracketAndOnlyTheFirstSectionCounts) {
    EXPECT_EQ(get("[Section] ; note\nk=1\n", "section"), "1");
    EXPECT_EQ(get("  [Two Words]\nk=1\n", "two words"), "1");
    EXPECT_EQ(get("[S] ; [x]\nk=1\n", "S] ; [x"), "1");
    EXPECT_EQ(get("[open\nk=1\n", "open"), "1");
    EXPECT_EQ(get("[S]\n[S]\nk=1\n"), "default");
    EXPECT_EQ(get("[SS]\nk=1\n"), "default");
}

TEST_F(Ini, LongLinesComeInPiecesAndLongValuesAreCut) {
    EXPECT_EQ(get("[S]\nk=" + std::string(20000, 'x')).size(), 16381u);
    EXPECT_EQ(get("[S]\nk=a\\\n" + std::string(600, 'b') + "\n").size(), 512u);
    char small[4] = "";
    writeFile(path, "[S]\nk=abc def\n");
    EXPECT_EQ(ini_get_string("S", "k", "", small, sizeof(small), path), 0);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(ini_get_string("S", "none", "defaults", small, sizeof(small), path), -1);
    EXPECT_STREQ(small, "def");
}

TEST_F(Ini, RawReaderKeepsQuotesAndCommentsAndRefusesToCut) {
    writeFile(path, "[S]\nk=\"a;b\" # c \t\r\n");
    char text[12] = "";
    EXPECT_EQ(ini_get_data("S", "k", "d", text, sizeof(text), path), 0);
    EXPECT_STREQ(text, "\"a;b\" # c");
    EXPECT_EQ(ini_get_data("S", "k", "d", text, 9, path), -1);
    EXPECT_STREQ(text, "d");
    EXPECT_TRUE(root.logged("(src_len = 9, dest_len = 9)"));
    EXPECT_EQ(ini_get_data("S", "z", "d", text, sizeof(text), path), -1);
    EXPECT_STREQ(ini_last_message(), "Keyword [z] not found ");
    EXPECT_EQ(ini_get_data("T", "z", nullptr, text, sizeof(text), path), -1);
    EXPECT_STREQ(text, "d");
    EXPECT_STREQ(ini_last_message(), "Section [T] not found ");
}

TEST_F(Ini, ListsLeaveOutWhatDoesNotFit) {
    writeFile(path, "[One]\na=1\n;b=2\nlonger=3\nc\n[Two]\nd=4\n");
    char names[32];
    ASSERT_EQ(ini_get_string(nullptr, nullptr, "", names, sizeof(names), path), 0);
    EXPECT_EQ(std::string(names, 9), std::string("One\0Two\0\0", 9));
    ASSERT_EQ(ini_get_string("one", nullptr, "", names, 6, path), 0);
    EXPECT_EQ(std::string(names, 5), std::string("a\0c\0\0", 5));
    EXPECT_EQ(ini_get_string("none", nullptr, "x", names, sizeof(names), path), -1);
    EXPECT_STREQ(names, "x");
}

TEST_F(Ini, NumbersAndTruthValues) {
    writeFile(path, "[S]\nhex=0x10\nneg=-7 ; x\nword=abc\nempty=\nhuge=99999999999\n");
    EXPECT_EQ(ini_get_int("S", "hex", 5, path), 0);
    EXPECT_EQ(ini_get_int("S", "neg", 5, path), -7);
    EXPECT_EQ(ini_get_int("S", "word", 5, path), 0);
    EXPECT_EQ(ini_get_int("S", "empty", 5, path), 0);
    EXPECT_EQ(ini_get_int("S", "huge", 5, path), 2147483647);
    EXPECT_EQ(ini_get_int("S", "missing", 5, path), 5);
    EXPECT_EQ(ini_get_int("S", "hex", 5, path + ".none"), 5);
    // The start of the text decides; 7 is the default.
    const std::pair<const char*, int> words[] = {
        {"true and long", 1}, {"YES", 1}, {"onward", 1},  {"y", 1},     {"10", 1}, {"false", 0}, {"No", 0},
        {"Offline", 0},       {"0", 0},   {"nothing", 0}, {"maybe", 7}, {"o", 7},  {"2", 7},     {"", 7}};
    for (const auto& [text, expected] : words) {
        SCOPED_TRACE(text);
        writeFile(path, std::string("[S]\nk=") + text + "\n");
        unsigned char result = 99;
        EXPECT_EQ(ini_get_bool("S", "k", 7, &result, path), *text == '\0' ? -1 : 0);
        EXPECT_EQ(result, expected);
    }
    unsigned char result = 99;
    EXPECT_EQ(ini_get_bool("S", "missing", 1, &result, path), -1);
    EXPECT_EQ(result, 1);
}

TEST_F(Ini, PutFieldKeepsWidthAndCommentColumn) {
    const std::string tail = "  z=1\n[T]\n  k=other\n";
    const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
        {"shorter, comment", "  k=12345    ; why\n", "1", "  k=1        ; why\n"},
        {"longer in the room", "  k=1        ; why\n", "12345", "  k=12345    ; why\n"},
        {"fills the room", "  k=1   ;c\n", "1234", "  k=1234;c\n"},
        {"shorter, no comment", "k = 12345\n", "1", "  k=1    \n"},
        {"comment mark in quotes", "  k=\"a;b\"   ; why\n", "x", "  k=x       ; why\n"},
        {"comment behind no value", "  k=      ; why\n", "x", "  k=x     ; why\n"},
        {"CRLF", "  k=12345\r\n", "1", "  k=1    \r\n"},
        {"outgrown, comment", "  k=1 ; why\n", "12345678", "  k=12345678 ; why\n"},
        {"outgrown, CRLF", "  k=1 ; why\r\n", "12345678", "  k=12345678 ; why\r\n"},
        {"outgrown, no comment", "  k=1\n", "12345678", "  k=12345678" + std::string(65, ' ') + "\n"},
        {"comment too wide", "  k=1 ; why  \n", std::string(71, 'v'), "  k=" + std::string(71, 'v') + "\n; why\n"},
        {"wider than a line", "  k=1\n", std::string(90, 'v'), "  k=" + std::string(90, 'v') + "\n"},
    };
    for (const auto& [what, before, value, after] : cases)
        EXPECT_EQ(afterPut("[s]\n" + before + tail, "k", value.c_str()), "[s]\n" + after + tail) << what;
}

TEST_F(Ini, NewKeysGoToTheirSection) {
    const std::string padded = "  n=1" + std::string(72, ' ') + "\n";
    EXPECT_EQ(afterPut("[S]\n  k=1\n\n[T]\n", "n", "1"), "[S]\n  k=1\n" + padded + "\n[T]\n");
    EXPECT_EQ(afterPut("[S]\n  k=a\\\n b\n[T]\n", "n", "1"), "[S]\n  k=a\\\n b\n" + padded + "[T]\n");
    EXPECT_EQ(afterPut("[T]\nn=2\n[S]\n;n=3\n  k=1", "n", "1"), "[T]\nn=2\n[S]\n;n=3\n  k=1\n" + padded);
    EXPECT_EQ(afterPut("[S]\n  k=1\n# of T\n[T]\n", "n", "1"), "[S]\n  k=1\n" + padded + "# of T\n[T]\n");
    EXPECT_EQ(afterPut("[T]\n  k=1", "n", "1"), "[T]\n  k=1\n\n[S]\n" + padded);
    (void)unlink(path.c_str());
    EXPECT_EQ(ini_put_int("S", "n", 1, path), 0);
    EXPECT_EQ(readFile(path), "\n[S]\n" + padded);
    EXPECT_EQ(ini_put_field("S", "n", "1\n[T]", path), -1);
    EXPECT_EQ(ini_put_field("S", "n", "1", path + "/none"), -1);
    EXPECT_EQ(readFile(path), "\n[S]\n" + padded);
}

TEST_F(Ini, PutDataReplacesTheLineAndTruncates) {
    writeFile(path, "[S] ; note\n  k = long value ; comment\n  z=1\n\n[T]\n  k=2\n");
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    EXPECT_EQ(ini_put_data("s", "k", "v", path), 0);
    EXPECT_EQ(ini_put_data("s", "new", "\"w;x\"", path), 0);
    EXPECT_EQ(ini_put_data("U", "u", "3", path), 0);
    EXPECT_EQ(readFile(path), "[S] ; note\n  k=v\n  z=1\n\n  new=\"w;x\"\n[T]\n  k=2\n\n[U]\n  u=3\n");
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

// Each worker start writes dq.ini, and every program reads the install directory from it.
TEST_F(Ini, ConcurrentWritersLoseNoKeyAndReadersSeeNoTornFile) {
    constexpr int WRITERS = 4;
    constexpr int ROUNDS = 400;
    // What lies behind moves with each line that grows: a write takes a while.
    writeFile(path, "[S]\n  a=1\n[Location]\n  DQDIR=/usr/dq\n[Z]\n;" + std::string(100000, 'z') + "\n");
    int barrier[2];  // they start together, when the last copy of the writing end is closed
    ASSERT_EQ(pipe2(barrier, O_CLOEXEC), 0);
    pid_t pids[WRITERS];
    for (int w = 0; w < WRITERS; w++) {
        pids[w] = fork();
        if (pids[w] == 0) {
            (void)close(barrier[1]);
            char none = 0;
            int failures = read(barrier[0], &none, 1) == 0 ? 0 : 1;
            for (int i = 0; i < ROUNDS; i++) {
                const std::string key = "key" + std::to_string(w) + "_" + std::to_string(i % 10);
                // Growing and shrinking lines in the first section move DQDIR about.
                const std::string value(static_cast<std::size_t>(i * 37 % 150), 'v');
                failures += i % 3 == 0 ? ini_put_data("S", key.c_str(), value.c_str(), path)
                                       : ini_put_field("S", key.c_str(), value.c_str(), path);
            }
            _exit(failures == 0 ? 0 : 1);
        }
        ASSERT_GT(pids[w], 0);
    }
    (void)close(barrier[0]);
    (void)close(barrier[1]);
    int torn = 0;
    for (int running = WRITERS; running > 0;) {
        torn += ini_text("Location", "DQDIR", "lost", path) == "/usr/dq" ? 0 : 1;
        int status = 0;
        while (waitpid(-1, &status, WNOHANG) > 0) {
            running--;
            EXPECT_EQ(status, 0);
        }
    }
    EXPECT_EQ(torn, 0);
    for (int w = 0; w < WRITERS; w++)
        for (int i = 0; i < 10; i++) {
            const int last = ROUNDS - 10 + i;
            const std::string key = "key" + std::to_string(w) + "_" + std::to_string(i);
            EXPECT_EQ(ini_text("S", key.c_str(), "lost", path).size(), static_cast<std::size_t>(last * 37 % 150))
                << key;
        }
}

// Whoever can read the file can lock it for good.
TEST_F(Ini, NobodyWaitsLongForALockThatIsNeverGivenUp) {
    std::string text = "[S]\nk=v\n";
    writeFile(path, text);
    const FileDescriptor hung(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(hung.get(), LOCK_EX), 0);
    const auto start = std::chrono::steady_clock::now();
    const auto passed = [start] { return std::chrono::steady_clock::now() - start; };
    EXPECT_EQ(ini_text("S", "k", "", path), "v");
    EXPECT_GE(passed(), std::chrono::milliseconds(50)) << "a writer is done in a moment";
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(ini_text("S", "k", "", path), "v");
    EXPECT_LT(passed(), std::chrono::seconds(5)) << "each of them waits no more";
    ASSERT_EQ(flock(hung.get(), LOCK_SH), 0);
    EXPECT_EQ(ini_put_field("S", "k", "w", path), -1);
    EXPECT_TRUE(root.logged("Can't lock " + path + " to write it"));
    EXPECT_LT(passed(), std::chrono::seconds(20));
    EXPECT_EQ(readFile(path), text);
    ASSERT_EQ(flock(hung.get(), LOCK_UN), 0);
    EXPECT_EQ(ini_put_field("S", "k", "w", path), 0);
}

}  // namespace
