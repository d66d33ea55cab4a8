// options.h - the daemon's command line.
#pragma once

// Puts the options into g_mode and g_settings, pinning what they set. Returns 0, or the exit status of the process for
// a command line that is refused.
[[nodiscard]] int parseOptions(int argc, char** argv);
