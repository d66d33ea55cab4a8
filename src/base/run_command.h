// run_command.h - outside programs through the shell.
#pragma once

#include <string>
#include <string_view>

// Runs `sh -c command` and waits for it. Returns its wait status as waitpid gives it, or -1 with errno.
// Unlike system(), signals of this process keep their handling meanwhile, so a termination request is not lost while a
// tool runs; the child starts with default dispositions and an empty signal mask. Thread-safe.
[[nodiscard]] int runCommand(const std::string& command);

// The text as one word of a shell command; a text without special characters stays as it is.
[[nodiscard]] std::string shellQuoted(std::string_view text);
