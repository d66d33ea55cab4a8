// rebuilder.h - puts backups together from their final metadata file and the blocks, one at a time, in a thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "vault/block_store.h"
#include "vault/target_catalogue.h"

namespace vault {

class Rebuilder {
public:
    Rebuilder(TargetCatalogue& catalogue, BlockStore& store, std::filesystem::path device);

    // Queues a backup whose final metadata file is in place.
    void build(std::int64_t backupNo);

    // After a restart: queues what was received but not built.
    void resume();

    [[nodiscard]] std::filesystem::path hactarPath(std::int64_t backupNo) const;
    [[nodiscard]] std::filesystem::path backupPath(std::int64_t backupNo) const;

private:
    void run(const std::stop_token& stop);
    void buildOne(std::int64_t backupNo);
    [[nodiscard]] std::uint64_t writeStream(std::int64_t backupNo, const std::filesystem::path& temporary);

    TargetCatalogue& catalogue_;
    BlockStore& store_;
    std::filesystem::path device_;
    std::mutex lock_;
    std::condition_variable_any wake_;
    std::deque<std::int64_t> queue_;
    std::jthread thread_;  // last: it uses all above
};

}  // namespace vault
