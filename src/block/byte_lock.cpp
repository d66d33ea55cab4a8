#include "block/byte_lock.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "base/paths.h"
#include "block/signal_catch.h"
#include "log/logger.h"

namespace {

constexpr auto SIGNAL_LOOK_INTERVAL = std::chrono::milliseconds(100);  // no signal wakes a condition variable

int setRecordLock(int fd, int command, short type, off_t byte) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(fd, command, &lock);
}

}  // namespace

// A forked child inherits this memory but not one lock of it.
void ByteLockFile::forgetLocksOfParent() {
    if (owner_ != getpid()) {
        bytes_.clear();
        owner_ = getpid();
    }
}

int ByteLockFile::open() {
    forgetLocksOfParent();
    const std::string path = systemPath(name_);
    if (file_.isOpen() && path_ == path)
        return 0;
    std::error_code ignored;  // open tells what is wrong
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.isOpen()) {
        log_message(0, "%s: open(%s): %s\n", opener_, path.c_str(), std::strerror(errno));
        return -1;
    }
    file_ = std::move(file);
    path_ = path;
    bytes_.clear();
    return 0;
}

// Takes or waits for the record lock. The caller must not hold the mutex: the other process may be waiting for this
// one.
int ByteLockFile::obtainRecordLock(int fd, const std::string& path, short type, off_t byte, bool wait) const {
    if (setRecordLock(fd, F_SETLK, type, byte) == 0)
        return 0;
    if (errno != EAGAIN && errno != EACCES) {
        log_message(0, "%s: fcntl(%s, F_SETLK): %s\n", locker_, path.c_str(), std::strerror(errno));
        return -1;
    }
    if (!wait) {
        errno = EAGAIN;
        return -1;
    }
    while (setRecordLock(fd, F_SETLKW, type, byte) == -1) {
        if (errno == EINTR && !signalWaiting(SignalLayer::hashes))
            continue;
        log_message(0, "%s: fcntl(%s, F_SETLKW): %s\n", locker_, path.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

// Waits until no other holder of this process stands in the way. Returns the byte's state; null if a signal came, or if
// there is someone and the caller doesn't want to wait.
ByteLockFile::ByteState* ByteLockFile::waitForByte(std::unique_lock<std::mutex>* guard, const Holding& own, off_t byte,
                                                   bool exclusive, bool wait) {
    for (;;) {
        ByteState& state = bytes_[byte];
        const bool othersExclusive = state.held.exclusive > own.exclusive;
        const bool othersShared = state.held.shared > own.shared;
        if (!state.changing && !othersExclusive && !(exclusive && othersShared))
            return &state;
        if (!wait || signalWaiting(SignalLayer::hashes)) {
            errno = EAGAIN;
            return nullptr;
        }
        changed_.wait_for(*guard, SIGNAL_LOOK_INTERVAL);
    }
}

int ByteLocks::prepare() {
    const std::lock_guard guard(file_->mutex_);
    if (owner_ != getpid()) {
        held_.clear();
        owner_ = getpid();
    }
    return file_->open();
}

int ByteLocks::lock(off_t byte, bool exclusive, bool wait) {
    std::unique_lock guard(file_->mutex_);
    ByteLockFile::Holding& own = held_[byte];
    ByteLockFile::ByteState* state = file_->waitForByte(&guard, own, byte, exclusive, wait);
    int result = state == nullptr ? -1 : 0;
    if (state != nullptr) {
        ByteLockFile::Holding wanted = state->held;
        ++(exclusive ? wanted.exclusive : wanted.shared);
        if (wanted.recordLock() != state->held.recordLock()) {
            state->changing = true;
            const int fd = file_->file_.get();
            const std::string path = file_->path_;
            guard.unlock();
            result = file_->obtainRecordLock(fd, path, wanted.recordLock(), byte, wait);
            const int reason = errno;
            guard.lock();
            errno = reason;
            state->changing = false;
        }
        if (result == 0) {
            state->held = wanted;
            ++(exclusive ? own.exclusive : own.shared);
        } else if (state->held.none()) {
            file_->bytes_.erase(byte);
        }
        file_->changed_.notify_all();
    }
    if (own.none())
        held_.erase(byte);
    return result;
}

int ByteLocks::unlock(off_t byte) {
    const std::lock_guard guard(file_->mutex_);
    const auto own = held_.find(byte);
    const auto state = file_->bytes_.find(byte);
    if (own == held_.end() || state == file_->bytes_.end())
        return 0;
    const bool exclusive = own->second.exclusive > 0;
    const short before = state->second.held.recordLock();
    --(exclusive ? own->second.exclusive : own->second.shared);
    --(exclusive ? state->second.held.exclusive : state->second.held.shared);
    const short after = state->second.held.recordLock();
    int result = 0;
    if (after != before && setRecordLock(file_->file_.get(), F_SETLK, after, byte) == -1) {
        log_message(0, "%s: fcntl(%s, F_SETLK): %s\n", file_->locker_, file_->path_.c_str(), std::strerror(errno));
        result = -1;
    }
    if (own->second.none())
        held_.erase(own);
    if (state->second.held.none())
        file_->bytes_.erase(state);
    file_->changed_.notify_all();
    return result;
}

ByteLocks::~ByteLocks() {
    if (owner_ != getpid())
        return;
    const auto held = held_;
    for (const auto& [byte, holding] : held)
        for (int locks = holding.shared + holding.exclusive; locks > 0; --locks)
            (void)unlock(byte);  // logged; the count goes with the holder
}
