// run_command.h - outside programs through the shell.
//
// Each runs in a process group of its own, whose number is the pid of its shell: with its job ends whatever it started,
// and a signal for this process's group doesn't reach it.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

// Runs `sh -c command` and waits for it. Returns its wait status as waitpid gives it, or -1 with errno.
// Unlike system(), signals of this process keep their handling meanwhile, so a termination request is not lost while a
// tool runs; the child starts with default dispositions and an empty signal mask. It inherits the descriptor
// `inherited`, if it isn't -1, besides the standard ones: a lock that it holds lasts until the last process of the tool
// has gone. A closed job gate lets no command begin, and none that ended return. Thread-safe.
[[nodiscard]] int runCommand(const std::string& command, int inherited = -1);

// Ends all commands that run now, for a process that is about to end: SIGTERM to their groups, and SIGKILL to what is
// left of them after `patience`. The job gate must be closed.
void endCommands(std::chrono::milliseconds patience = std::chrono::seconds(1));

// The text as one word of a shell command; a text without special characters stays as it is.
[[nodiscard]] std::string shellQuoted(std::string_view text);
