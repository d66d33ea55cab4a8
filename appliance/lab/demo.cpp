#include "lab/demo.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "lab/lab.h"

namespace lab {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t ENOUGH = 50u << 20;  // bytes
constexpr std::chrono::minutes JOB_LIMIT{60};
constexpr std::chrono::milliseconds REFRESH{500};
constexpr int COMPLETE = 2;
constexpr int STOPPED = 4 | 8 | 64 | 128;  // skipped, terminated, paused: nothing will come any more
constexpr std::size_t ONE_FILE_IN = 100;

std::atomic<bool> interrupted;

// What a person pressing Ctrl-C expects: everything is taken down.
struct Interrupted : std::runtime_error {
    Interrupted() : std::runtime_error("interrupted") {}
};

void checkInterrupt() {
    if (interrupted)
        throw Interrupted();
}

std::uint64_t sizeOfTree(const fs::path& directory, std::uint64_t enough) {
    std::uint64_t size = 0;
    std::error_code error;
    const auto options = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(directory, options, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_regular_file(ignored) && !entry->is_symlink(ignored))
            size += entry->file_size(ignored);
        if (size >= enough)
            break;
    }
    return size;
}

fs::path someDirectory() {
    for (const char* candidate : {"/usr/share/doc", "/usr/include", "/usr/share", "/usr/lib"}) {
        if (sizeOfTree(candidate, ENOUGH) >= ENOUGH)
            return candidate;
    }
    throw std::runtime_error("no directory of 50 MB found; name one");
}

// Numbers from the worker's own log: what it asked about, what the target had, what it sent.
struct Counts {
    std::uint64_t asked = 0;
    std::uint64_t onTarget = 0;
    std::uint64_t toSend = 0;
};

Counts countsIn(const std::string& log, std::size_t from) {
    static const std::regex LINE(
        "Check ([0-9]+) blocks are on the target|([0-9]+) blocks need to be sent \\(([0-9]+) blocks are already");
    const auto number = [](const std::ssub_match& text) { return text.matched ? std::stoull(text) : 0; };
    Counts counts;
    const std::string fresh = log.substr(std::min(from, log.size()));
    for (std::sregex_iterator match(fresh.begin(), fresh.end(), LINE), end; match != end; ++match) {
        counts.asked += number((*match)[1]);
        counts.toSend += number((*match)[2]);
        counts.onTarget += number((*match)[3]);
    }
    return counts;
}

std::string megabytes(std::uint64_t bytes) {
    char text[32];
    snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

class Demo {
public:
    explicit Demo(fs::path directory) : directory_(std::move(directory)), place_(temporaryDirectory("ferryd-demo")) {}
    ~Demo() {
        lab_.reset();
        std::error_code ignored;
        fs::remove_all(place_, ignored);
    }
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;

    int run() {
        printf("Setting up a source and a vault in %s ...\n", place_.c_str());
        lab_ = std::make_unique<Lab>(place_ / "lab");
        checkInterrupt();
        // A copy, since files of it are changed later.
        printf("Copying %s ...\n", directory_.c_str());
        if (lab::run({"cp", "-a", "--", directory_, place_ / "data"}) != 0)
            printf("(some files could not be copied)\n");
        checkInterrupt();
        lab_->startVault();
        lab_->startDaemon();
        const bool first = replicate("first backup");
        const std::size_t changed = changeSome();
        printf("\nChanged %zu files, one in %zu.\n", changed, ONE_FILE_IN);
        const bool second = replicate("second backup");
        return first && second ? 0 : 1;
    }

private:
    bool replicate(const char* what) {
        printf("\nIngesting the %s ...\n", what);
        logStart_ = lab_->source().log("ferryd-worker").size();
        const std::uint64_t backupNo = lab_->ingest(place_ / "data");
        const std::uint64_t size = fs::file_size(lab_->source().backupFile(backupNo));
        printf("Backup %lu: %s. Waiting for the daemon ...\n", backupNo, megabytes(size).c_str());
        const auto began = Clock::now();
        const int status = watch(backupNo);
        const double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        if (status != COMPLETE) {
            printf("\nThe replication stopped with status %d. Log:\n%s\n", status,
                   lab_->source().log("ferryd-worker").c_str());
            return false;
        }
        const bool same = lab_->sameOnVault(backupNo);
        const Counts counts = countsIn(lab_->source().log("ferryd-worker"), logStart_);
        const std::uint64_t crossed = std::stoull(
            lab_->source().value("SELECT bytes_syncd FROM sds_stats WHERE backup_no = " + std::to_string(backupNo)));
        printf(
            "\nComplete in %.1f s (queue pass and hashing included); %s crossed of the %s that the backup has "
            "(%.1f%%).\nBlocks: %lu asked, %lu on target, %lu sent.\n",
            seconds, megabytes(crossed).c_str(), megabytes(size).c_str(),
            100.0 * static_cast<double>(crossed) / static_cast<double>(size), counts.asked, counts.onTarget,
            counts.toSend);
        printf("The vault rebuilt backup %lu as %lu: SHA-512 %s.\n", backupNo, lab_->targetNumber(backupNo),
               same ? "equal" : "DIFFERS");
        return same;
    }

    int watch(std::uint64_t backupNo) {
        const auto deadline = Clock::now() + JOB_LIMIT;
        std::uint64_t before = storedBytes();
        const std::uint64_t start = before;
        while (Clock::now() < deadline) {
            const int status = lab_->queueStatus(backupNo);
            const std::uint64_t now = storedBytes();
            const Counts counts = countsIn(lab_->source().log("ferryd-worker"), logStart_);
            printf("\r  %-28s blocks: %lu asked, %lu on target, %lu to send;  %s stored, %s/s      ",
                   (status & COMPLETE) != 0 ? "complete;" : progress(backupNo).c_str(), counts.asked, counts.onTarget,
                   counts.toSend, megabytes(now - start).c_str(), megabytes((now - before) * 2).c_str());
            fflush(stdout);
            if ((status & (COMPLETE | STOPPED)) != 0)
                return status;
            checkInterrupt();
            before = now;
            std::this_thread::sleep_for(REFRESH);
        }
        return lab_->queueStatus(backupNo);
    }

    // What the job's progress row tells: the step, and how much of the backup is through it.
    [[nodiscard]] std::string progress(std::uint64_t backupNo) const {
        return lab_->source().value(
            "SELECT coalesce((SELECT name_value || ' ' || current_size || ' of ' || final_size || ' MB;' FROM "
            "operation_progress JOIN operation_names USING (name_id) WHERE backup_no = " +
            std::to_string(backupNo) + " ORDER BY start_time DESC, name_id DESC LIMIT 1), 'waiting;')");
    }

    // What has arrived at the vault.
    std::uint64_t storedBytes() {
        std::error_code missing;
        const std::uint64_t size = fs::file_size(lab_->vault().disk() / "store/blocks.pack", missing);
        return missing ? 0 : size;
    }

    std::size_t changeSome() {
        std::size_t seen = 0;
        std::size_t changed = 0;
        for (const auto& entry : fs::recursive_directory_iterator(place_ / "data")) {
            if (!entry.is_regular_file() || entry.is_symlink() || seen++ % ONE_FILE_IN != 0)
                continue;
            std::error_code ignored;
            fs::permissions(entry.path(), fs::perms::owner_write, fs::perm_options::add, ignored);
            std::ofstream(entry.path(), std::ios::app) << "changed\n";
            ++changed;
        }
        return changed;
    }

    fs::path directory_;
    fs::path place_;
    std::unique_ptr<Lab> lab_;
    std::size_t logStart_ = 0;
};

}  // namespace

int demo(const fs::path& directory) {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = true; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return Demo(directory.empty() ? someDirectory() : fs::canonical(directory)).run();
}

}  // namespace lab
