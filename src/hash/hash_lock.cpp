#include "hash/hash_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "foundation/file_descriptor.h"
#include "foundation/logger.h"
#include "foundation/paths.h"
#include "hash/signal_catch.h"

namespace {

constexpr std::uint64_t LOCK_BYTE_MASK = 0x3fffffff;
constexpr auto SIGNAL_LOOK_INTERVAL = std::chrono::milliseconds(100);  // no signal wakes a condition variable

// Locks on one byte, of one handle or of the whole process.
struct Holding {
    int shared = 0;
    int exclusive = 0;

    [[nodiscard]] bool none() const { return shared == 0 && exclusive == 0; }
    [[nodiscard]] short recordLock() const { return exclusive > 0 ? F_WRLCK : shared > 0 ? F_RDLCK : F_UNLCK; }
};

struct ByteState {
    Holding held;
    bool changing = false;  // some thread is outside the mutex to change the record lock
};

struct ProcessLocks {
    std::mutex mutex;
    std::condition_variable changed;
    // All below is guarded by the mutex.
    std::string path;
    FileDescriptor file;
    pid_t owner = 0;
    std::unordered_map<off_t, ByteState> bytes;
};

// Never destroyed: handles may be released while the process ends.
ProcessLocks& processLocks() {
    static auto* locks = new ProcessLocks;
    return *locks;
}

off_t byteOf(const hashValue& value) {
    return static_cast<off_t>(value.hashID & LOCK_BYTE_MASK);
}

int setRecordLock(int fd, int command, short type, off_t byte) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(fd, command, &lock);
}

// Takes or waits for the record lock. The caller must not hold the mutex: the other process may be waiting for this
// one.
int obtainRecordLock(int fd, const std::string& path, short type, off_t byte) {
    if (setRecordLock(fd, F_SETLK, type, byte) == 0)
        return 0;
    if (errno != EAGAIN && errno != EACCES) {
        log_message(0, "%s: fcntl(%s, F_SETLK): %s\n", "doTheLock", path.c_str(), std::strerror(errno));
        return -1;
    }
    while (setRecordLock(fd, F_SETLKW, type, byte) == -1) {
        if (errno == EINTR && !signalWaiting(SignalLayer::hashes))
            continue;
        log_message(0, "%s: fcntl(%s, F_SETLKW): %s\n", "doTheLock", path.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

// A forked child inherits this memory but not one lock of it.
void forgetLocksOfParent(ProcessLocks* locks) {
    if (locks->owner != getpid()) {
        locks->bytes.clear();
        locks->owner = getpid();
    }
}

int openLockFile(ProcessLocks* locks) {
    const std::string path = systemPath(paths::HASH_LOCK_FILE);
    if (locks->file.isOpen() && locks->path == path)
        return 0;
    std::error_code ignored;  // open tells what is wrong
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.isOpen()) {
        log_message(0, "%s: open(%s): %s\n", "getLockedHashState", path.c_str(), std::strerror(errno));
        return -1;
    }
    locks->file = std::move(file);
    locks->path = path;
    locks->bytes.clear();
    return 0;
}

}  // namespace

struct lockedHashState {
    pid_t owner = 0;
    std::unordered_map<off_t, Holding> held;
};

namespace {

int getLockedHashState(HashLockPtr* handle) {
    ProcessLocks& locks = processLocks();
    const std::lock_guard guard(locks.mutex);
    forgetLocksOfParent(&locks);
    if (!*handle)
        handle->reset(new (std::nothrow) lockedHashState);
    if (!*handle) {
        log_message(0, "%s: malloc(%zd) failed\n", __func__, static_cast<ssize_t>(sizeof(lockedHashState)));
        return -1;
    }
    if ((*handle)->owner != getpid()) {
        (*handle)->held.clear();
        (*handle)->owner = getpid();
    }
    return openLockFile(&locks);
}

// Waits until no other handle of this process stands in the way. Returns the byte's state, null if a signal came.
ByteState* waitForByte(ProcessLocks* locks, std::unique_lock<std::mutex>* guard, const Holding& own, off_t byte,
                       bool exclusive) {
    for (;;) {
        ByteState& state = locks->bytes[byte];
        const bool othersExclusive = state.held.exclusive > own.exclusive;
        const bool othersShared = state.held.shared > own.shared;
        if (!state.changing && !othersExclusive && !(exclusive && othersShared))
            return &state;
        if (signalWaiting(SignalLayer::hashes))
            return nullptr;
        locks->changed.wait_for(*guard, SIGNAL_LOOK_INTERVAL);
    }
}

int lockByte(lockedHashState* handle, off_t byte, bool exclusive) {
    ProcessLocks& locks = processLocks();
    std::unique_lock guard(locks.mutex);
    Holding& own = handle->held[byte];
    ByteState* state = waitForByte(&locks, &guard, own, byte, exclusive);
    int result = state == nullptr ? -1 : 0;
    if (state != nullptr) {
        Holding wanted = state->held;
        ++(exclusive ? wanted.exclusive : wanted.shared);
        if (wanted.recordLock() != state->held.recordLock()) {
            state->changing = true;
            const int fd = locks.file.get();
            const std::string path = locks.path;
            guard.unlock();
            result = obtainRecordLock(fd, path, wanted.recordLock(), byte);
            guard.lock();
            state->changing = false;
        }
        if (result == 0) {
            state->held = wanted;
            ++(exclusive ? own.exclusive : own.shared);
        } else if (state->held.none()) {
            locks.bytes.erase(byte);
        }
        locks.changed.notify_all();
    }
    if (own.none())
        handle->held.erase(byte);
    return result;
}

// Undoes one lock of the handle, the exclusive one first. A byte that the handle doesn't hold stays as it is.
int unlockByte(lockedHashState* handle, off_t byte) {
    ProcessLocks& locks = processLocks();
    const std::lock_guard guard(locks.mutex);
    const auto own = handle->held.find(byte);
    const auto state = locks.bytes.find(byte);
    if (own == handle->held.end() || state == locks.bytes.end())
        return 0;
    const bool exclusive = own->second.exclusive > 0;
    const short before = state->second.held.recordLock();
    --(exclusive ? own->second.exclusive : own->second.shared);
    --(exclusive ? state->second.held.exclusive : state->second.held.shared);
    const short after = state->second.held.recordLock();
    int result = 0;
    if (after != before && setRecordLock(locks.file.get(), F_SETLK, after, byte) == -1) {
        log_message(0, "%s: fcntl(%s, F_SETLK): %s\n", "doTheLock", locks.path.c_str(), std::strerror(errno));
        result = -1;
    }
    if (own->second.none())
        handle->held.erase(own);
    if (state->second.held.none())
        locks.bytes.erase(state);
    locks.changed.notify_all();
    return result;
}

int doTheLock(HashLockPtr* handle, short type, std::span<const hashValue> list, const char* function) {
    if (handle == nullptr) {
        log_message(0, "%s(NULL,,)\n", function);
        return -1;
    }
    if (list.empty())
        return 0;
    if (getLockedHashState(handle) == -1) {
        log_message(0, "Can't get locked hash state\n");
        return -1;
    }
    int handled = 0;
    for (const hashValue& value : list) {
        int result = 0;
        if ((value.flags & hashID_in) != 0)
            result = type == F_UNLCK ? unlockByte(handle->get(), byteOf(value))
                                     : lockByte(handle->get(), byteOf(value), type == F_WRLCK);
        if (result == -1)
            return handled > 0 ? handled : -1;
        ++handled;
    }
    return handled;
}

}  // namespace

void freeLockedHashState(lockedHashState* state) {
    const std::unique_ptr<lockedHashState> owner(state);
    if (owner->owner != getpid())
        return;
    const auto held = owner->held;
    for (const auto& [byte, holding] : held)
        for (int locks = holding.shared + holding.exclusive; locks > 0; --locks)
            (void)unlockByte(state, byte);  // logged; the count goes with the handle
}

int lockHashValuesShared(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_RDLCK, list, __func__);
}

int lockHashValuesExclusive(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_WRLCK, list, __func__);
}

int unlockHashValues(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_UNLCK, list, __func__);
}
