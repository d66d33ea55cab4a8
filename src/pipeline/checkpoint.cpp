#include "pipeline/checkpoint.h"

#include <unistd.h>

#include "pipeline/pipeline_internal.h"
#include "rest/lifecycle.h"

BlockCount askBlockCount(const SendJob& job, int retryCount, const char* who) {
    BlockCount asked;
    for (; asked.tries < retryCount; ++asked.tries) {
        if (asked.tries > 1)
            sleep(static_cast<unsigned>(asked.tries));
        asked.curlCode = 0;
        asked.count = -1;
        asked.answer =
            postBlockCount(job.url, static_cast<std::uint64_t>(job.backupNoOnTarget), &asked.curlCode, &asked.count);
        if (asked.isGood())
            break;
        LOG_THREAD(0, "%spostBlockCount failed, retry.", who);
    }
    return asked;
}

CheckpointCounts::Outcome CheckpointCounts::judge(std::int64_t count, std::uint64_t records, int* rounds,
                                                  std::int64_t* last) {
    *rounds = rounds_;
    *last = lastReported_;
    const bool isShort = static_cast<std::int64_t>(expected_) > count;
    const bool isMore = count > lastReported_;
    if (isShort)
        expected_ -= records;
    if (!isShort || isMore)
        lastReported_ = count;
    rounds_ = isShort && !isMore ? rounds_ + 1 : 0;
    if (!isShort)
        return Outcome::Good;
    return isMore ? Outcome::ShortWithProgress : Outcome::Short;
}
