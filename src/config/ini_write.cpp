// The writers. Both change the file where it lies, so that its inode, owner and mode stay, and hold an exclusive flock
// meanwhile: several processes write dq.ini, and it names the install directory. Who can't have the lock writes
// nothing. All that changes goes out in one write; the file is cut only afterwards, so a reader never finds it empty.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/file_descriptor.h"
#include "base/text.h"
#include "config/ini.h"
#include "config/ini_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t LINE_WIDTH = 77;    // columns that a line without comment is padded to
constexpr std::size_t FIXED_COLUMNS = 3;  // two blanks before the key, and the '='
constexpr mode_t INI_MODE = 0644;
constexpr int WRITER_PATIENCE_MS = 2000;
constexpr std::string_view BLANKS = " \t";

std::string_view skipBlanks(std::string_view text) {
    return skip(text, BLANKS);
}

// Where a key stands in a file, or where it belongs.
struct Place {
    bool hasSection = false;
    bool hasKey = false;
    std::size_t lineStart = 0;   // of the key's line
    std::size_t lineEnd = 0;     // behind its newline
    std::size_t sectionEnd = 0;  // the next header, or the end of the file
    std::size_t lastKeyEnd = 0;  // behind the section's last key, or its header
};

bool isHeaderOf(std::string_view line, std::string_view section) {
    line = skipBlanks(line);
    if (!line.starts_with('['))
        return false;
    line.remove_prefix(1);
    return sameName(trimEnd(line.substr(0, line.find_first_of("]\t\r\n"))), section);
}

bool isComment(std::string_view line) {
    line = skipBlanks(line);
    return line.starts_with('#') || line.starts_with(';');
}

bool isLineOf(std::string_view line, std::string_view key) {
    if (isComment(line) || line.find('=') == std::string_view::npos)
        return false;
    line = skipBlanks(line);
    return sameName(line.substr(0, line.find_first_of(" =\t\n\r")), key);
}

Place findPlace(std::string_view text, std::string_view section, std::string_view key) {
    Place place;
    place.sectionEnd = text.size();
    place.lastKeyEnd = text.size();
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t newline = text.find('\n', start);
        const std::size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
        const std::string_view line = text.substr(start, end - start);
        if (!place.hasSection) {
            place.hasSection = isHeaderOf(line, section);
            place.lastKeyEnd = place.hasSection ? end : text.size();
        } else if (skipBlanks(line).starts_with('[')) {
            place.sectionEnd = start;
            return place;
        } else if (isLineOf(line, key)) {
            place.hasKey = true;
            place.lineStart = start;
            place.lineEnd = end;
            return place;
        } else if (!isComment(line) && !trimEnd(line).empty()) {
            place.lastKeyEnd = end;
        }
        start = end;
    }
    return place;
}

// The comment at the end of a line, its newline included; empty for none. What stands in the value is no comment.
std::string_view trailingComment(std::string_view line) {
    std::string_view rest = skipBlanks(line.substr(line.find('=') + 1));
    if (rest.starts_with('"')) {
        std::size_t end = 1;
        while (end < rest.size() && rest[end] != '"')
            end += rest[end] == '\\' ? 2 : 1;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    } else if (!rest.starts_with('#') && !rest.starts_with(';')) {
        rest.remove_prefix(std::min(rest.find_first_of(INI_SPACE), rest.size()));
    }
    const std::size_t start = rest.find_first_of("#;");
    return start == std::string_view::npos ? std::string_view() : rest.substr(start);
}

std::string_view lineEnding(std::string_view line) {
    return line.substr(std::min(line.find_first_of("\r\n"), line.size()));
}

std::string assignment(std::string_view key, std::string_view value) {
    return std::string("  ").append(key).append("=").append(value);
}

// The text of a line that has no room to keep, or is new.
std::string freshLine(std::string_view key, std::string_view value, std::string_view comment, std::string_view ending) {
    std::string line = assignment(key, value);
    if (comment.empty()) {
        line.resize(std::max(line.size(), LINE_WIDTH), ' ');
        return line += ending;
    }
    const std::string note = std::string(trimEnd(comment)).append(ending);
    if (key.size() + value.size() + note.size() < LINE_WIDTH)
        line += ' ';
    else
        line += ending;
    return line += note;
}

std::string fieldLine(std::string_view oldLine, std::string_view key, std::string_view value) {
    const std::string_view comment = trailingComment(oldLine);
    const std::string_view tail = comment.empty() ? lineEnding(oldLine) : comment;
    const std::size_t needed = key.size() + value.size() + FIXED_COLUMNS + tail.size();
    if (needed > oldLine.size())
        return freshLine(key, value, comment, oldLine.ends_with("\r\n") ? "\r\n" : "\n");
    return assignment(key, value).append(oldLine.size() - needed, ' ').append(tail);
}

class IniFile {
public:
    explicit IniFile(const std::string& path)
        : path_(path), file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, INI_MODE)) {}

    [[nodiscard]] int load(std::string* text) {
        if (!file_.isOpen())
            return -1;
        if (lockWithin(file_.get(), LOCK_EX, WRITER_PATIENCE_MS) == -1) {
            LOG_HERE(0, "Can't lock %s to write it: %s\n", path_.c_str(), std::strerror(errno));
            return -1;
        }
        return readWholeFd(file_.get(), text);
    }

    // Puts `changed` in the place of all that follows `offset`, or of as many bytes if `isInPlace`.
    [[nodiscard]] int store(std::size_t offset, std::string_view changed, bool isInPlace) {
        std::size_t done = 0;
        while (done < changed.size()) {
            const ssize_t count =
                pwrite(file_.get(), changed.data() + done, changed.size() - done, static_cast<off_t>(offset + done));
            if (count == -1 && errno == EINTR)
                continue;
            if (count <= 0)
                return -1;
            done += static_cast<std::size_t>(count);
        }
        return isInPlace ? 0 : ftruncate(file_.get(), static_cast<off_t>(offset + done));
    }

private:
    const std::string& path_;
    FileDescriptor file_;  // closing it gives the lock up
};

bool isOneLine(const char* text) {
    return text != nullptr && std::strpbrk(text, "\r\n") == nullptr;
}

enum class Style { plain, field };

int putSection(IniFile* file, std::string* text, const char* section, Style style) {
    const std::string header = formatString("\n[%s]\n", section);
    // A last line without its newline must not swallow the header.
    const std::string added = (text->empty() || text->ends_with('\n') ? "" : "\n") + header;
    if (file->store(text->size(), added, true) == -1) {
        if (style == Style::plain)
            log_message(0, "%s: Unable to add section %s\n", "ini_put_data", section);
        else
            log_message(0, "Unable to add section %s\n", section);
        return -1;
    }
    *text += added;
    return 0;
}

int putLine(IniFile* file, const std::string& text, const Place& place, const char* key, const char* value,
            Style style) {
    std::size_t offset = 0;
    std::size_t behind = 0;  // where what stays begins
    std::string line;
    if (place.hasKey) {
        offset = place.lineStart;
        behind = place.lineEnd;
        line = style == Style::plain ? assignment(key, value) + "\n"
                                     : fieldLine(std::string_view(text).substr(offset, behind - offset), key, value);
    } else {
        const bool isBehindLastKey = style == Style::field && place.sectionEnd < text.size();
        offset = behind = isBehindLastKey ? place.lastKeyEnd : place.sectionEnd;
        if (offset > 0 && text[offset - 1] != '\n')
            line = "\n";
        line += style == Style::plain ? assignment(key, value) + "\n" : freshLine(key, value, "", "\n");
    }
    const bool isInPlace = line.size() == behind - offset;
    if (!isInPlace)
        line.append(text, behind);
    if (file->store(offset, line, isInPlace) == -1) {
        log_message(0, "Unable to add field %s\n", key);
        return -1;
    }
    return 0;
}

int put(const char* section, const char* key, const char* value, const std::string& path, Style style) {
    // A line break in any of them would add lines of its own to the file.
    if (!isOneLine(section) || !isOneLine(key) || !isOneLine(value))
        return -1;
    IniFile file(path);
    std::string text;
    if (file.load(&text) == -1)
        return -1;
    Place place = findPlace(text, section, key);
    if (!place.hasSection) {
        if (putSection(&file, &text, section, style) == -1)
            return -1;
        place.sectionEnd = text.size();
    }
    return putLine(&file, text, place, key, value, style);
}

}  // namespace

int ini_put_data(const char* section, const char* key, const char* value, const std::string& path) {
    return put(section, key, value, path, Style::plain);
}

int ini_put_field(const char* section, const char* key, const char* value, const std::string& path) {
    return put(section, key, value, path, Style::field);
}

int ini_put_int(const char* section, const char* key, int value, const std::string& path) {
    return ini_put_field(section, key, formatString("%d", value).c_str(), path);
}
