// daemonize.h - leaving the terminal, and the pid file that keeps a second daemon out.
#pragma once

// Detaches from the starter and takes the pid file of this program's name. Returns 0 in the daemon and -1 if it can't
// take over (logged); the starting process ends inside.
[[nodiscard]] int daemonize();

// Removes the pid file that daemonize took. Without one there is nothing to remove, which is logged.
void clearPidFile();

// Keeps a second daemon of this program's name out, whether it detaches or not, by the lock on a file of its own beside
// the pid file, which stays. Workers share the lock: after a daemon that was killed no other starts while one of its
// workers is still at work, for it would hand that worker's row out again. 0 or -1 (logged).
[[nodiscard]] int takeInstanceLock();
// For a stop in order, which lets the next daemon start while the workers end.
void releaseInstanceLock();
