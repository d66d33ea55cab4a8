#include "pipeline/block_source.h"

#include <vector>

#include "elimination/elimination.h"
#include "log/logger.h"

int openBlockSource(const ReplicationSettings& settings, const SendJob& job, HashListPtr* list) {
    constexpr int DISTINCT = 1;  // a checkpoint compares with the target's count of unique blocks
    std::vector<std::uint64_t> exclusions;
    if (useBlockElim(settings, job.backupNo)) {
        LOG_HERE(3, "Using local block elimination");
        const std::int64_t count = getLbeList(job.backupNo, settings.blockEliminationType, &exclusions, &job.url);
        if (count == -1) {
            LOG_HERE(0, "Failed to get exclusion list:%ld", count);
            return -1;
        }
        std::erase(exclusions, 0u);  // those that the target couldn't confirm
    } else {
        LOG_HERE(3, "Not using local block elimination");
    }
    if (createHashList(list, job.backupNo, exclusions, DISTINCT) == -1) {
        LOG_HERE(0, "failed to create virtual block list");
        return -1;
    }
    return 0;
}
