// daemonize.h - leaving the terminal, and the pid file that keeps a second daemon out.
#pragma once

// Detaches from the starter and takes the pid file of this program's name. Returns 0 in the daemon and -1 if it can't
// take over (logged); the starting process ends inside.
[[nodiscard]] int daemonize();

// Removes the pid file that daemonize took. Without one there is nothing to remove, which is logged.
void clearPidFile();
