// checkpoint.h - what the two send phases have in common when they compare with the target's count of blocks.
//
// Threads: a value of these belongs to its thread.
#pragma once

#include <cstdint>

#include "pipeline/send_phase.h"

// The target's count, asked for until an answer is one.
struct BlockCount {
    std::int64_t count = -1;  // negative: no count
    int answer = 0;           // of the last request: -1 it failed
    int curlCode = 0;         // libcurl's
    int tries = 0;            // that failed
    [[nodiscard]] bool isGood() const { return answer != -1 && count >= 0; }
};

// Asks up to `retryCount` times, with pauses from the third try on; each failure is logged for `who`.
[[nodiscard]] BlockCount askBlockCount(const SendJob& job, int retryCount, const char* who);

// The arithmetic of checkpoints in which a short batch is sent again: what is expected, and when to give up.
class CheckpointCounts {
public:
    explicit CheckpointCounts(int retryCount) : retryCount_(retryCount) {}

    // The next batch, or the same one once more: it is not among the expected records yet.
    void beginBatch() { isCounted_ = false; }

    // The batch's records are expected from now on. A pass that comes again counts nothing twice.
    void expectBatch(std::uint64_t records) {
        if (!isCounted_)
            expected_ += records;
        isCounted_ = true;
    }

    // Too many rounds in a row have brought nothing.
    [[nodiscard]] bool isExhausted() const { return rounds_ > retryCount_; }

    enum class Outcome { Good, ShortWithProgress, Short };
    // Judges the target's count. A short one takes the batch's records back, and counts as a fruitless round unless
    // it is above the last one. *rounds: the fruitless rounds before, *last: the count of the last checkpoint.
    [[nodiscard]] Outcome judge(std::int64_t count, std::uint64_t records, int* rounds, std::int64_t* last);

    [[nodiscard]] std::uint64_t expected() const { return expected_; }

private:
    int retryCount_;
    std::uint64_t expected_ = 0;
    std::int64_t lastReported_ = 0;
    int rounds_ = 0;
    bool isCounted_ = false;
};
