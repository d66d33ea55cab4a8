// The readers: sections, keys, and the syntax of values.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/file_descriptor.h"
#include "base/text.h"
#include "config/ini.h"
#include "config/ini_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t LINE_BYTES = 16383;        // a longer line counts as several
constexpr std::size_t CONTINUATION_BYTES = 511;  // of a line that continues a value
constexpr std::size_t MESSAGE_SIZE = 120;
constexpr int READER_PATIENCE_MS = 100;
constexpr std::string_view LINE_ENDS = "\t\n\r";  // what ends the token of a section header
constexpr std::string_view KEY_ENDS = "=\t\n\r";  // what ends a key

thread_local char lastMessage[MESSAGE_SIZE] = "";

[[gnu::format(printf, 1, 2)]] void keepMessage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(lastMessage, sizeof(lastMessage), format, arguments) < 0)
        lastMessage[0] = '\0';
    va_end(arguments);
}

// The first token of a line; *rest is what follows the delimiter that ended it, *delimiter that character (NUL if the
// line ended first). Leading delimiters are skipped.
std::string_view firstToken(std::string_view line, std::string_view delimiters, std::string_view* rest,
                            char* delimiter) {
    *rest = {};
    *delimiter = '\0';
    const std::size_t start = line.find_first_not_of(delimiters);
    if (start == std::string_view::npos)
        return {};
    const std::size_t end = line.find_first_of(delimiters, start);
    if (end == std::string_view::npos)
        return line.substr(start);
    *delimiter = line[end];
    *rest = line.substr(end + 1);
    return line.substr(start, end - start);
}

// Gives the pieces of a text as lines, the newline included.
class Lines {
public:
    explicit Lines(std::string_view text) : text_(text) {}

    // False at the end. A line of more than `limit` bytes is given in pieces.
    bool next(std::string_view* line, std::size_t limit = LINE_BYTES) {
        if (text_.empty())
            return false;
        const std::size_t newline = text_.find('\n');
        const std::size_t length = std::min(newline == std::string_view::npos ? text_.size() : newline + 1, limit);
        *line = text_.substr(0, length);
        text_.remove_prefix(length);
        return true;
    }

private:
    std::string_view text_;
};

bool isSectionHeader(std::string_view line, std::string_view* name) {
    std::string_view rest;
    char delimiter = '\0';
    const std::string_view token = skip(firstToken(line, LINE_ENDS, &rest, &delimiter), INI_SPACE);
    if (!token.starts_with('['))
        return false;
    const std::size_t end = token.rfind(']');
    *name = end == std::string_view::npos ? token.substr(1) : token.substr(1, end - 1);
    return true;
}

enum class LineKind { key, comment, sectionEnd };

LineKind splitKey(std::string_view line, std::string_view* key, std::string_view* value, char* delimiter) {
    const std::string_view token = skip(firstToken(line, KEY_ENDS, value, delimiter), INI_SPACE);
    if (token.empty() || token.front() == ';' || token.front() == '#')
        return LineKind::comment;
    if (token.front() == '[')
        return LineKind::sectionEnd;
    *key = trimEnd(token, "\n \t\r");
    return LineKind::key;
}

bool findSection(Lines* lines, const char* section) {
    std::string_view line;
    std::string_view name;
    while (lines->next(&line))
        if (isSectionHeader(line, &name) && sameName(name, section))
            return true;
    keepMessage("Section [%s] not found ", section);
    return false;
}

// The raw value of the first line with the key, and the lines behind it. A key with nothing behind it has no value.
bool findValue(Lines* lines, const char* key, std::string_view* value) {
    std::string_view line;
    std::string_view name;
    char delimiter = '\0';
    while (lines->next(&line)) {
        const LineKind kind = splitKey(line, &name, value, &delimiter);
        if (kind == LineKind::sectionEnd)
            return false;
        if (kind == LineKind::key && sameName(name, key))
            return !value->empty() && !(delimiter == '\r' && *value == "\n");
    }
    return false;
}

// Copies a value by its syntax. The state that the rules speak of: the previous character, whether the value began
// with a double quote and that quote is open, and whether a single quote is open.
class ValueCopier {
public:
    ValueCopier(char* dest, std::size_t destLen) : dest_(dest), limit_(destLen - 1) {}

    void copy(std::string_view value, Lines* lines) {
        value = skip(value, INI_SPACE);
        if (value.starts_with('"')) {
            isQuoteOpen_ = true;
            value.remove_prefix(1);
        }
        while (!value.empty() && length_ < limit_) {
            const char c = value.front();
            value.remove_prefix(1);
            if ((c == '\n' || c == '\r') && !isSingleQuoted_ && previous_ == '\\') {
                if (!lines->next(&value, CONTINUATION_BYTES))
                    break;
                previous_ = '\0';
                continue;
            }
            if (!take(c))
                break;
            previous_ = c;
        }
        // What a quoted value holds at its end is meant to be there.
        while (length_ > quoteEnd_ && INI_SPACE.find(dest_[length_ - 1]) != std::string_view::npos)
            length_--;
        dest_[length_] = '\0';
    }

private:
    void store(char c) { dest_[length_++] = c; }

    // False if the character ends the value.
    bool take(char c) {
        const bool isEscaped = previous_ == '\\';
        switch (c) {
            case '\n':
            case '\r':
                if (!isSingleQuoted_)
                    store(c);
                break;
            case '"':
                if (isQuoteOpen_ && !isEscaped) {
                    isQuoteOpen_ = false;
                    quoteEnd_ = length_;
                } else {
                    store(c);
                }
                break;
            case '#':
            case ';':
                if (!isQuoteOpen_ && !isEscaped)
                    return false;
                store(c);
                break;
            case '\'':
                store(c);
                if (!isEscaped)
                    isSingleQuoted_ = !isSingleQuoted_;
                break;
            case '\\':
                if (isSingleQuoted_ || isEscaped)
                    store(c);
                break;
            case 'n':
            case 't':
                store(isSingleQuoted_ || !isEscaped ? c : (c == 'n' ? '\n' : '\t'));
                break;
            default:
                store(c);
        }
        return true;
    }

    char* dest_;
    std::size_t limit_;
    std::size_t length_ = 0;
    std::size_t quoteEnd_ = 0;
    char previous_ = '\0';
    bool isQuoteOpen_ = false;
    bool isSingleQuoted_ = false;
};

// Names one after the other, each with its NUL, an empty one at the end. One that doesn't fit is left out.
class NameList {
public:
    NameList(char* dest, std::size_t destLen) : dest_(dest), destLen_(destLen) { dest_[0] = '\0'; }

    void add(std::string_view name) {
        if (used_ + name.size() + 2 > destLen_)
            return;
        name.copy(dest_ + used_, name.size());
        used_ += name.size();
        dest_[used_++] = '\0';
        dest_[used_] = '\0';
    }

private:
    char* dest_;
    std::size_t destLen_;
    std::size_t used_ = 0;
};

void listSections(Lines lines, char* dest, std::size_t destLen) {
    NameList names(dest, destLen);
    std::string_view line;
    std::string_view name;
    while (lines.next(&line))
        if (isSectionHeader(line, &name))
            names.add(name);
}

void listKeys(Lines lines, char* dest, std::size_t destLen) {
    NameList names(dest, destLen);
    std::string_view line;
    std::string_view name;
    std::string_view value;
    char delimiter = '\0';
    while (lines.next(&line)) {
        const LineKind kind = splitKey(line, &name, &value, &delimiter);
        if (kind == LineKind::sectionEnd)
            return;
        if (kind == LineKind::key)
            names.add(name);
    }
}

int giveDefault(const char* defaultValue, char* dest, std::size_t destLen) {
    if (dest == nullptr || destLen == 0 || defaultValue == nullptr)
        return -1;
    const std::size_t length = std::min(std::strlen(defaultValue), destLen - 1);
    std::memmove(dest, defaultValue, length);  // a caller may give its present value as the default
    dest[length] = '\0';
    return -1;
}

using Clock = std::chrono::steady_clock;

// The file whose lock somebody holds without using it, and until when that is believed. Of two threads that note
// different files one is forgotten, which costs a wait.
std::atomic<ino_t> hungFile = 0;
std::atomic<Clock::rep> hungUntil = 0;

struct stat fileState(int fd) {
    struct stat info = {};
    (void)fstat(fd, &info);  // of an open file; should it fail, two states are alike and nothing is lost
    return info;
}

bool sameState(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool isHung(const struct stat& file, Clock::time_point now) {
    return hungFile.load() == file.st_ino && now.time_since_epoch().count() < hungUntil.load();
}

void noteHung(const struct stat& file) {
    constexpr std::chrono::seconds BELIEVED(10);
    hungFile = file.st_ino;
    hungUntil = (Clock::now() + BELIEVED).time_since_epoch().count();
}

enum class Lookup { done, missing, found };

// Does what both readers share: opens the file, answers listings, finds the raw value.
class Search {
public:
    Lookup run(const char* section, const char* key, char* dest, std::size_t destLen, const std::string& path) {
        lastMessage[0] = '\0';
        if (dest == nullptr || destLen == 0)
            return Lookup::missing;
        if (readWholeFile(path, &text_) == -1) {
            keepMessage("Error opening %s ", path.c_str());
            return Lookup::missing;
        }
        lines = Lines(text_);
        if (section == nullptr) {
            listSections(lines, dest, destLen);
            return Lookup::done;
        }
        if (!findSection(&lines, section))
            return Lookup::missing;
        if (key == nullptr) {
            listKeys(lines, dest, destLen);
            return Lookup::done;
        }
        return findValue(&lines, key, &value) ? Lookup::found : Lookup::missing;
    }

    Lines lines{""};         // behind the value's line
    std::string_view value;  // the rest of the line behind the key's delimiter

private:
    std::string text_;
};

bool startsWithWord(const char* text, std::initializer_list<const char*> words) {
    return std::any_of(words.begin(), words.end(),
                       [text](const char* word) { return strncasecmp(text, word, std::strlen(word)) == 0; });
}

}  // namespace

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

int lockWithin(int fd, int operation, int timeoutMs) {
    const Clock::time_point start = Clock::now();
    const struct stat before = fileState(fd);
    const bool isWaiting = !isHung(before, start);
    const Clock::time_point deadline = start + std::chrono::milliseconds(isWaiting ? timeoutMs : 0);
    while (flock(fd, operation | LOCK_NB) == -1) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return -1;
        if (Clock::now() >= deadline) {
            if (isWaiting && sameState(before, fileState(fd)))
                noteHung(before);
            errno = EWOULDBLOCK;
            return -1;
        }
        constexpr timespec PAUSE = {0, 2'000'000};
        (void)nanosleep(&PAUSE, nullptr);  // cut short by a signal, the next try comes early
    }
    return 0;
}

int readWholeFd(int fd, std::string* text) {
    struct stat info = {};
    if (fstat(fd, &info) == -1)
        return -1;
    text->clear();
    std::size_t used = 0;
    // One read of the whole file, and a second that finds its end.
    std::size_t room = info.st_size > 0 ? static_cast<std::size_t>(info.st_size) + 1 : 4096;
    for (;;) {
        text->resize(used + room);
        const ssize_t count = read(fd, text->data() + used, room);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0) {
            text->resize(used);
            return count == 0 ? 0 : -1;
        }
        used += static_cast<std::size_t>(count);
        room = 4096;
    }
}

int readWholeFile(const std::string& path, std::string* text) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen())
        return -1;
    // A writer holds the lock for a moment only; who can't get it soon reads anyway.
    (void)lockWithin(file.get(), LOCK_SH, READER_PATIENCE_MS);
    return readWholeFd(file.get(), text);
}

const char* ini_last_message() {
    return lastMessage;
}

int ini_get_string(const char* section, const char* key, const char* defaultValue, char* dest, std::size_t destLen,
                   const std::string& path) {
    Search search;
    const Lookup outcome = search.run(section, key, dest, destLen, path);
    if (outcome == Lookup::missing)
        return giveDefault(defaultValue, dest, destLen);
    if (outcome == Lookup::found)
        ValueCopier(dest, destLen).copy(search.value, &search.lines);
    return 0;
}

int ini_get_data(const char* section, const char* key, const char* defaultValue, char* dest, std::size_t destLen,
                 const std::string& path) {
    Search search;
    const Lookup outcome = search.run(section, key, dest, destLen, path);
    if (outcome == Lookup::done)
        return 0;
    if (outcome == Lookup::missing) {
        if (lastMessage[0] == '\0' && key != nullptr)  // file and section are there
            keepMessage("Keyword [%s] not found ", key);
        return giveDefault(defaultValue, dest, destLen);
    }
    const std::string_view value = trimEnd(search.value);
    if (value.size() >= destLen) {
        LOG_HERE(2, "ini_get_data: Not enough room to hold the returned value (src_len = %d, dest_len = %d)\n",
                 static_cast<int>(value.size()), static_cast<int>(destLen));
        return giveDefault(defaultValue, dest, destLen);
    }
    value.copy(dest, value.size());
    dest[value.size()] = '\0';
    return 0;
}

int ini_get_int(const char* section, const char* key, int defaultValue, const std::string& path) {
    char text[31];
    if (ini_get_string(section, key, "", text, sizeof(text), path) == -1)
        return defaultValue;
    return static_cast<int>(
        std::clamp(std::strtol(text, nullptr, 10), static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

int ini_get_bool(const char* section, const char* key, int defaultValue, unsigned char* result,
                 const std::string& path) {
    char text[9];
    *result = static_cast<unsigned char>(defaultValue);
    if (ini_get_string(section, key, "", text, sizeof(text), path) == -1 || text[0] == '\0')
        return -1;
    if (startsWithWord(text, {"true", "yes", "on", "y", "1"}))
        *result = 1;
    else if (startsWithWord(text, {"false", "no", "off", "n", "0"}))
        *result = 0;
    return 0;
}

std::string ini_text(const char* section, const char* key, const char* defaultValue, const std::string& path,
                     std::size_t limit) {
    std::string text(limit + 1, '\0');
    (void)ini_get_string(section, key, defaultValue, text.data(), text.size(), path);  // the default is in place
    text.resize(std::strlen(text.c_str()));
    return text;
}
