// ini.h - readers and writers of ini files: dq.ini and master.ini.
//
// Every call opens the file anew, so an administrator's change is seen at the next read.
// Threads: readers may run in any thread. Writers lock the file (flock) against other writers while they change it in
//          place.
// Errors:  0, or -1 with the default in place: a missing file, section or key is not worth a log line.
#pragma once

#include <cstddef>
#include <string>

// Reads a value with its full syntax: quotes, escapes, continued lines, comments. A value that is too long is cut.
// A null section lists the sections, a null key the keys of a section: names one after the other, each behind a NUL.
int ini_get_string(const char* section, const char* key, const char* defaultValue, char* dest, std::size_t destLen,
                   const std::string& path);

// Reads the rest of the line as it stands, for values in which ';' or '#' is content.
int ini_get_data(const char* section, const char* key, const char* defaultValue, char* dest, std::size_t destLen,
                 const std::string& path);

// The number at the start of the value, 0 if it is none; the default if the key is missing.
[[nodiscard]] int ini_get_int(const char* section, const char* key, int defaultValue, const std::string& path);

// true, yes, on, y, 1 and their opposites, by the start of the word; anything else is the default.
// Returns -1 (and stores the default) for a missing or empty value.
int ini_get_bool(const char* section, const char* key, int defaultValue, unsigned char* result,
                 const std::string& path);

// Replaces or adds a line; the rest of the file keeps its bytes.
int ini_put_data(const char* section, const char* key, const char* value, const std::string& path);

// Replaces a value and keeps the line's comment and width, so that most updates rewrite one line in place.
int ini_put_field(const char* section, const char* key, const char* value, const std::string& path);
int ini_put_int(const char* section, const char* key, int value, const std::string& path);

// ini_get_string with a text of up to `limit` bytes as the result.
[[nodiscard]] std::string ini_text(const char* section, const char* key, const char* defaultValue,
                                   const std::string& path, std::size_t limit = 1024);

// Why this thread's last lookup that failed found nothing.
[[nodiscard]] const char* ini_last_message();
