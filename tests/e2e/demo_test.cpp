// What the README promises of the demo and of the lab that one works with by hand.

#include <regex>

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

class LabProgram : public EndToEnd {
protected:
    // Runs with an environment of its own: it makes appliances of its own.
    int run(const std::vector<std::string>& command, std::string* output) {
        lab::ProcessOptions options;
        options.output = scratch() / "output";
        const int status = lab::run(command, options);
        std::ifstream file(options.output);
        output->assign(std::istreambuf_iterator<char>(file), {});
        return status;
    }
    static fs::path program() { return lab::programDirectory() / "lab"; }
    fs::path scratch() const { return lab().source().root() / "tmp"; }
};

TEST_F(LabProgram, DemoShowsWhatWasAskedFoundAndSent) {
    std::string output;
    EXPECT_EQ(run({program(), "demo", data(91, 3)}, &output), 0) << output;
    const std::regex figures("Blocks: ([0-9]+) asked, ([0-9]+) on target, ([0-9]+) sent");
    int backups = 0;
    for (std::sregex_iterator match(output.begin(), output.end(), figures), end; match != end; ++match, ++backups) {
        const auto number = [&match](std::size_t group) { return std::stoul((*match)[group]); };
        EXPECT_GT(number(1), 0u);
        EXPECT_GT(number(3), 0u);
        EXPECT_EQ(number(1), number(2) + number(3));
    }
    EXPECT_EQ(backups, 2) << output;
    EXPECT_TRUE(std::regex_search(output, std::regex("[1-9][0-9.]* MB crossed"))) << output;
}

TEST_F(LabProgram, UpBringsAKeyServiceAndIngestSaysWhenThereIsNone) {
    const fs::path place = scratch() / "lab";
    std::string output;
    ASSERT_EQ(run({program(), "up", place}, &output), 0) << output;
    const std::string ingest = ". " + (place / "environment").string() + "; $DQDIR/bin/ingest --encrypt ";
    EXPECT_EQ(run({"/bin/sh", "-c", ingest + data(92, 1).string()}, &output), 0) << output;
    EXPECT_EQ(run({program(), "down", place}, &output), 0) << output;
    EXPECT_FALSE(fs::exists(place));
    // This lab's source has none.
    EXPECT_EQ(
        lab().source().run({"/bin/sh", "-c", "$DQDIR/bin/ingest --encrypt " + data(92, 1).string() + " 2>&1"}, &output),
        1);
    EXPECT_NE(output.find("no key service (cryptoDaemon), so nothing can be encrypted: "), std::string::npos) << output;
}

}  // namespace
}  // namespace e2e
