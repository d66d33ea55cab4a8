// byte_lock.h - advisory locks on single bytes of a lock file, across processes and between users in one process.
//
// POSIX record locks belong to the process as a whole and vanish when any descriptor of the file closes. So a process
// opens such a file once and keeps it, and counts here who holds a byte: a holder neither loses its lock to another one
// in the process nor gets a byte that the other one holds exclusively. A holder may take a byte again, also in the
// other mode; each unlock undoes one lock. Of two holders that have a byte shared and both want it exclusively the
// second gets EDEADLK at once, in one process as across processes: each would wait for the other.
//
// Threads: holders of different threads may lock at the same time; one holder belongs to one thread.
// Errors:  0, or -1 with the reason logged. A signal that was caught for the holder's layer ends a wait.
// Units:   a lock covers one byte of the file, given by its offset; the file needs no content.
#pragma once

#include <fcntl.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/file_descriptor.h"
#include "block/signal_catch.h"

// One lock file of this process. Meant to live as long as the process does: closing the file would drop every lock.
class ByteLockFile {
public:
    // The path is one of systemPath's; the names stand at the head of lines about the file and about a lock.
    ByteLockFile(std::string_view path, const char* opener, const char* locker)
        : name_(path), opener_(opener), locker_(locker) {}
    ByteLockFile(const ByteLockFile&) = delete;
    ByteLockFile& operator=(const ByteLockFile&) = delete;

private:
    friend class ByteLocks;

    // Locks on one byte, of one holder or of the whole process.
    struct Holding {
        int shared = 0;
        int exclusive = 0;

        [[nodiscard]] bool none() const { return shared == 0 && exclusive == 0; }
        [[nodiscard]] short recordLock() const { return exclusive > 0 ? F_WRLCK : shared > 0 ? F_RDLCK : F_UNLCK; }
    };
    struct ByteState {
        Holding held;
        bool changing = false;   // some thread is outside the mutex and waits for the record lock
        bool upgrading = false;  // a holder that has it shared waits for it exclusively
    };

    int open();
    void forgetLocksOfParent();
    int waitForRecordLock(int fd, const std::string& path, short type, off_t byte, SignalLayer layer) const;

    const std::string_view name_;
    const char* const opener_;
    const char* const locker_;
    std::mutex mutex_;
    std::condition_variable changed_;
    // All below is guarded by the mutex.
    std::string path_;
    FileDescriptor file_;
    pid_t owner_ = 0;
    std::unordered_map<off_t, ByteState> bytes_;
};

// What one user holds; gives all of it back at the end. A forked child holds nothing of what its parent held.
class ByteLocks {
public:
    // A signal that was caught for `layer` ends a wait of this holder.
    explicit ByteLocks(ByteLockFile* file, SignalLayer layer = SignalLayer::hashes) : file_(file), layer_(layer) {}
    ByteLocks(const ByteLocks&) = delete;
    ByteLocks& operator=(const ByteLocks&) = delete;
    ~ByteLocks();

    // Opens the lock file if this process doesn't have it yet; to be called before each group of locks.
    [[nodiscard]] int prepare();

    // Without `wait` a byte that someone else has gives -1 with EAGAIN, and nothing on the log.
    [[nodiscard]] int lock(off_t byte, bool exclusive, bool wait = true);

    // Undoes one lock, the exclusive one first. A byte that isn't held stays as it is.
    int unlock(off_t byte);

private:
    ByteLockFile::ByteState* waitForByte(std::unique_lock<std::mutex>* guard, const ByteLockFile::Holding& own,
                                         off_t byte, bool exclusive, bool wait);
    int changeRecordLock(std::unique_lock<std::mutex>* guard, ByteLockFile::ByteState* state, short type, off_t byte,
                         bool wait);

    ByteLockFile* file_;
    SignalLayer layer_;
    pid_t owner_ = 0;
    std::unordered_map<off_t, ByteLockFile::Holding> held_;
};
