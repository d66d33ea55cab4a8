// services.h - the few helpers that several rooms share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Zeroed and plain blocks for interfaces that free(); without memory both end the process with status 1.
[[nodiscard]] void* zalloc(unsigned size);
[[nodiscard]] void* fmalloc(unsigned size);

// Write or read until all is done; EINTR restarts. Both give the count so far at a short end; safe_read gives -1 on an
// error.
[[nodiscard]] int safe_write(int fd, const void* buffer, int length);
[[nodiscard]] int safe_read(int fd, void* buffer, int length);

// A small file as text, at most 64 KiB of it; empty if it can't be read.
[[nodiscard]] std::string smallFileText(const std::string& path);

// CRC-32 of IEEE 802.3; 0 for no bytes.
[[nodiscard]] std::uint32_t crc32_buffer(const unsigned char* data, std::size_t length);

// Platform capabilities. Each call asks anew and may start a shell.
[[nodiscard]] int platformSupportsDedup();
[[nodiscard]] int platformSupportsDedupNT();
[[nodiscard]] int platformSupportsInlineDedup();
[[nodiscard]] int platformSupportsiSynth();
[[nodiscard]] int isARXVirtual();

// Whether the list of the platform's capabilities has a word: anywhere, or as a line of its own between blanks. Starts
// no shell; any thread.
enum class CapabilityPlace { anywhere, lineOfItsOwn };
[[nodiscard]] bool platformHasWord(std::string_view word, CapabilityPlace place);

// Recent errors by class, for reports of user-level operations. Main thread only.
inline constexpr int GERROR_CLASSES = 6;
inline constexpr int GERROR_LIMIT = 10;  // entries a class keeps
void init_gerror(const char* textFile);
[[gnu::format(printf, 3, 4)]] void add_gerror(int errorClass, int number, const char* format, ...);
// Registers a class above those built in. Returns 0, or -1 when ten are registered.
int register_gerror_class(int errorClass, int highest, const char* prefix, const char* (*text)(int number));
// Entries kept for a class, and the text of one of them (null beyond the end).
[[nodiscard]] int gerror_count(int errorClass);
[[nodiscard]] const char* gerror_text(int errorClass, int index);

// Host name without its domain; always terminated.
void mynodename(char* name, int length);

// The public number of a stored backup type.
[[nodiscard]] int public_backup_type(int type, int properties, int sqlType, int restoreType);
