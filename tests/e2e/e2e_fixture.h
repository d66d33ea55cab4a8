// e2e_fixture.h - one lab for all end-to-end tests of the program, made new before each of them.
#pragma once

#include "bookkeeping/replicationQueue.h"
#include "lab/lab.h"
#include "support/test.h"

namespace e2e {

inline constexpr std::chrono::seconds LIMIT{90};  // a deadline, not an expectation

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    lab::Lab& lab() const;

    // A directory with files of several sizes, `megabytes` in all, the same for the same seed.
    std::filesystem::path data(unsigned seed, unsigned megabytes = 4);

    // Waits on a condition; fails the test at the deadline.
    ::testing::AssertionResult eventually(const std::function<bool()>& condition) const;

    // Waits for the row's status and says what the worker logged if it doesn't come.
    ::testing::AssertionResult reaches(std::uint64_t backupNo, int statusMask) const;

    // Bytes in the vault's pack of blocks.
    std::uint64_t packSize() const;

    // Holds a tool of the source back: it waits until release() before it does its work.
    void hold(const std::string& tool);
    void release(const std::string& tool);
    // Whether a held tool has been started.
    bool isHeld(const std::string& tool) const;

    std::string workerLog() const { return lab().source().log("ferryd-worker"); }
    bool workerLogged(const std::string& text) const { return workerLog().find(text) != std::string::npos; }

    // The message of the backup's last row of statistics.
    std::string lastMessage(std::uint64_t backupNo) const;
    // The worker's pid, from its progress row; 0 if there is none.
    pid_t workerPid() const;
};

// What must hold for both send phases; the parameter is ThreadedSendBlocks.
class EachPhase : public EndToEnd, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        EndToEnd::SetUp();
        lab().setReplication("ThreadedSendBlocks", std::to_string(GetParam()));
    }
};

#define INSTANTIATE_PHASES(suite)                                    \
    INSTANTIATE_TEST_SUITE_P(Phases, suite, ::testing::Values(0, 1), \
                             [](const auto& p) { return p.param == 1 ? "threaded" : "single"; })

}  // namespace e2e
