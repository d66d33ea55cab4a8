#include "block/byte_lock.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "base/paths.h"
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

// The caller must not hold the mutex: the other process may be waiting for this one.
int ByteLockFile::waitForRecordLock(int fd, const std::string& path, short type, off_t byte, SignalLayer layer) const {
    while (setRecordLock(fd, F_SETLKW, type, byte) == -1) {
        if (errno == EINTR && !signalWaiting(layer))
            continue;
        log_message(0, "%s: fcntl(%s, F_SETLKW): %s\n", locker_, path.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

// Waits until no other holder of this process stands in the way. Returns the byte's state; null if a signal came, if
// there is someone and the caller doesn't want to wait, or if both would wait for each other.
ByteLockFile::ByteState* ByteLocks::waitForByte(std::unique_lock<std::mutex>* guard, const ByteLockFile::Holding& own,
                                                off_t byte, bool exclusive, bool wait) {
    const bool upgrades = exclusive && own.shared > 0 && own.exclusive == 0;
    bool isFirst = true;
    ByteLockFile::ByteState* state = nullptr;
    for (;; isFirst = false) {
        state = &file_->bytes_[byte];
        const bool othersExclusive = state->held.exclusive > own.exclusive;
        const bool othersShared = state->held.shared > own.shared;
        if (!state->changing && !othersExclusive && !(exclusive && othersShared))
            break;
        if (isFirst && wait && upgrades && state->upgrading) {
            errno = EDEADLK;
            log_message(0, "%s: lock of byte %ld: %s\n", file_->locker_, static_cast<long>(byte), std::strerror(errno));
            return nullptr;
        }
        if (!wait || signalWaiting(layer_)) {
            errno = EAGAIN;
            state = nullptr;
            break;
        }
        state->upgrading = state->upgrading || upgrades;
        file_->changed_.wait_for(*guard, SIGNAL_LOOK_INTERVAL);
    }
    if (upgrades && !isFirst)
        file_->bytes_[byte].upgrading = false;
    return state;
}

// Trying never blocks, so it is done under the mutex; only a wait for another process goes outside.
int ByteLocks::changeRecordLock(std::unique_lock<std::mutex>* guard, ByteLockFile::ByteState* state, short type,
                                off_t byte, bool wait) {
    const int fd = file_->file_.get();
    const std::string path = file_->path_;
    if (setRecordLock(fd, F_SETLK, type, byte) == 0)
        return 0;
    if (errno != EAGAIN && errno != EACCES) {
        log_message(0, "%s: fcntl(%s, F_SETLK): %s\n", file_->locker_, path.c_str(), std::strerror(errno));
        return -1;
    }
    errno = EAGAIN;
    if (!wait)
        return -1;
    state->changing = true;
    guard->unlock();
    const int result = file_->waitForRecordLock(fd, path, type, byte, layer_);
    const int reason = errno;
    guard->lock();
    errno = reason;
    state->changing = false;
    return result;
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
    ByteLockFile::ByteState* state = waitForByte(&guard, own, byte, exclusive, wait);
    int result = state == nullptr ? -1 : 0;
    if (state != nullptr) {
        ByteLockFile::Holding wanted = state->held;
        ++(exclusive ? wanted.exclusive : wanted.shared);
        if (wanted.recordLock() != state->held.recordLock())
            result = changeRecordLock(&guard, state, wanted.recordLock(), byte, wait);
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
