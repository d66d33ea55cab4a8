// e2e_fixture.h - one lab for all end-to-end tests of the program, made new before each of them.
#pragma once

#include "bookkeeping/replicationQueue.h"
#include "lab/lab.h"
#include "support/root.h"
#include "support/test.h"

namespace e2e {

namespace fs = std::filesystem;

inline constexpr std::chrono::seconds LIMIT{90};  // a deadline, not an expectation

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    lab::Lab& lab() const;
    lab::Appliance& source() const { return lab().source(); }
    lab::Appliance& vault() const { return lab().vault(); }
    std::string ferryd() const { return source().root() / "usr/dq/bin/ferryd"; }
    // The first field of the answer of the source's catalogue.
    std::string value(const std::string& query) const { return source().value(query); }
    void set(const std::string& key, const std::string& text) const { lab().setReplication(key, text); }
    void startBoth() const;
    // Runs one of ferryd's operator commands on the source; its output.
    std::string util(std::vector<std::string> arguments, int status = 0) const;

    // A directory with files of several sizes, `megabytes` in all, the same for the same seed.
    fs::path data(unsigned seed, unsigned megabytes = 4);

    // Waits on a condition; false at the deadline.
    bool eventually(const std::function<bool()>& condition) const { return testsupport::eventually(condition, LIMIT); }
    // Waits for the row's status and says which it is if that doesn't come.
    ::testing::AssertionResult reaches(std::uint64_t backupNo, int statusMask) const;
    // Waits until it is complete, and the same on the vault.
    ::testing::AssertionResult arrives(std::uint64_t backupNo) const;

    // Bytes in the vault's pack of blocks.
    std::uint64_t packSize() const;

    // Holds a tool of the source back: it waits until release() before it does its work.
    void hold(const std::string& tool);
    void release(const std::string& tool) { testsupport::writeFile(bin() / (tool + ".go"), ""); }
    // Waits until a held tool has been started.
    bool isHeld(const std::string& tool) const {
        return eventually([&] { return fs::exists(bin() / (tool + ".held")); });
    }

    std::string workerLog() const { return source().log("ferryd-worker"); }
    bool workerLogged(const std::string& text) const { return workerLog().find(text) != std::string::npos; }
    bool daemonLogged(const std::string& text) const { return source().log("ferryd").find(text) != std::string::npos; }

    // Waits until the backup's last row of statistics has a message that begins so.
    bool ended(std::uint64_t backupNo, const std::string& message) const;
    // The worker's pid, from its progress row; 0 if there is none.
    pid_t workerPid() const;

private:
    fs::path bin() const { return source().root() / "usr/dq/bin"; }
};

// What must hold for both send phases; the parameter is ThreadedSendBlocks.
class EachPhase : public EndToEnd, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        EndToEnd::SetUp();
        set("ThreadedSendBlocks", std::to_string(GetParam()));
    }
};

#define INSTANTIATE_PHASES(suite)                                    \
    INSTANTIATE_TEST_SUITE_P(Phases, suite, ::testing::Values(0, 1), \
                             [](const auto& p) { return p.param == 1 ? "threaded" : "single"; })

}  // namespace e2e
