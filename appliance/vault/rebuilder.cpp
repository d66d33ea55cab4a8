#include "vault/rebuilder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "common/hactar.h"
#include "config/services.h"
#include "log/logger.h"

namespace vault {

namespace fs = std::filesystem;

Rebuilder::Rebuilder(TargetCatalogue& catalogue, BlockStore& store, fs::path device)
    : catalogue_(catalogue),
      store_(store),
      device_(std::move(device)),
      thread_([this](const std::stop_token& stop) { run(stop); }) {}

fs::path Rebuilder::hactarPath(std::int64_t backupNo) const {
    return device_ / ("hactar_" + std::to_string(backupNo));
}

fs::path Rebuilder::backupPath(std::int64_t backupNo) const {
    return device_ / ("backup_" + std::to_string(backupNo));
}

void Rebuilder::build(std::int64_t backupNo) {
    {
        const std::lock_guard guard(lock_);
        queue_.push_back(backupNo);
    }
    wake_.notify_one();
}

void Rebuilder::resume() {
    for (const std::int64_t backupNo : catalogue_.building()) {
        if (fs::exists(hactarPath(backupNo)))
            build(backupNo);
    }
}

void Rebuilder::run(const std::stop_token& stop) {
    for (;;) {
        std::int64_t backupNo = 0;
        {
            std::unique_lock guard(lock_);
            if (!wake_.wait(guard, stop, [this] { return !queue_.empty(); }))
                return;
            backupNo = queue_.front();
            queue_.pop_front();
        }
        try {
            buildOne(backupNo);
        } catch (const std::exception& e) {
            LOG_HERE(0, "Backup %ld stays unfinished: %s", static_cast<long>(backupNo), e.what());
        }
    }
}

void Rebuilder::buildOne(std::int64_t backupNo) {
    const fs::path temporary = backupPath(backupNo).string() + ".building";
    std::uint64_t size = 0;
    try {
        size = writeStream(backupNo, temporary);
    } catch (const std::exception& e) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        catalogue_.markFailed(backupNo, e.what());
        return;
    }
    // The file first: a backup that is told complete is there, whatever happens to this process.
    fs::rename(temporary, backupPath(backupNo));
    catalogue_.markComplete(backupNo, size);
    fs::remove(hactarPath(backupNo));
    LOG_HERE(3, "Backup %ld is built, %lu bytes", static_cast<long>(backupNo), size);
}

std::uint64_t Rebuilder::writeStream(std::int64_t backupNo, const fs::path& temporary) {
    store_.sync();
    const FileDescriptor out(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
    if (!out.isOpen())
        throw std::system_error(errno, std::generic_category(), temporary.string());
    hactar::Visitor visitor;
    visitor.literal = [&](std::span<const std::byte> bytes) {
        if (safe_write(out.get(), bytes.data(), static_cast<int>(bytes.size())) != static_cast<int>(bytes.size()))
            throw std::system_error(errno, std::generic_category(), temporary.string());
    };
    visitor.block = [&](std::uint64_t length, const Sha512& digest) {
        if (!store_.copyTo({digest, length}, out.get()))
            throw std::runtime_error("a block is missing: " + toHex(digest));
    };
    const std::uint64_t size = hactar::read(hactarPath(backupNo), visitor);
    if (fsync(out.get()) == -1)
        throw std::system_error(errno, std::generic_category(), temporary.string());
    return size;
}

}  // namespace vault
