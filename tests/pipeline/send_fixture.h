// send_fixture.h - a backup of hashed blocks, a target in memory, and a send phase between them.
#pragma once

#include "fake_target.h"
#include "pipeline/send_phase.h"
#include "support/hashed_backup.h"

namespace testsupport {

using Names = std::vector<std::string>;
using Blocks = std::vector<std::string>;

inline constexpr const char* UNAVAILABLE = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n";

using SendPhase = int (*)(const ReplicationSettings&, const SendJob&);

class SendFixture : public HashedBackup {
protected:
    SendFixture() {
        settings.metaSize = 2;
        settings.maxBlocks = 4096;
        progress.operation = "processing";
        progress.next_size = 0;  // a write is due at once
    }

    int send(SendPhase phase) { return phase(settings, job); }

    static Blocks blocksOf(const std::vector<std::size_t>& sizes) {
        Blocks blocks;
        for (const std::size_t size : sizes)
            blocks.push_back(randomBytes(size, static_cast<unsigned>(blocks.size())));
        return blocks;
    }

    [[nodiscard]] bool targetHas(const Blocks& blocks) {
        return target->blocks == std::set<std::string>(blocks.begin(), blocks.end());
    }

    // The requests since the last call, sorted, less questions about no blocks.
    Names newRequests() {
        Names names;
        const std::vector<Request> requests = target.requests();
        for (; seen_ < requests.size(); ++seen_)
            if (requests[seen_].header("X-Expect") != "0")
                names.push_back(FakeTarget::nameOf(requests[seen_]));
        std::ranges::sort(names);
        return names;
    }

    void forgetBackup() { catalogue.sql("DELETE FROM dq.backups; DELETE FROM dq.backups_hash_values"); }

    FakeTarget target;
    ReplicationSettings settings;
    OperationProgress progress;
    std::uint64_t bytesSent = 0;
    SendJob job{
        .backupNo = 7, .url = target.name(), .backupNoOnTarget = 31, .progress = &progress, .bytesSent = &bytesSent};

private:
    std::size_t seen_ = 0;
};

}  // namespace testsupport
