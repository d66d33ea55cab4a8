#include "config/services.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "base/run_command.h"
#include "config/directories.h"
#include "config/ini_internal.h"
#include "log/logger.h"

namespace {

constexpr std::uint32_t CRC_POLYNOMIAL = 0xedb88320;  // IEEE 802.3, reflected

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t i = 0; i < table.size(); i++) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; bit++)
            value = (value & 1) != 0 ? (value >> 1) ^ CRC_POLYNOMIAL : value >> 1;
        table[i] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> CRC_TABLE = makeCrcTable();

// The exit status of a capability test, -1 if it gave none. `function` is the test's name for the log.
int askPlatform(const char* function, const std::string& command) {
    LOG_HERE(4, "%s: command is: %s\n", function, command.c_str());
    const int status = runCommand(command);
    if (status == -1)
        return -1;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        LOG_HERE(0, "%s: %s was signaled with %s\n", function, command.c_str(), strsignal(WTERMSIG(status)));
    else
        LOG_HERE(0, "%s: %s abnormally exited\n", function, command.c_str());
    return -1;
}

std::string capabilityTest(const char* grep) {
    return std::string(grep) + " " + shellQuoted(systemPath(paths::PLATFORM_CAPABILITIES)) + " >/dev/null 2>&1";
}

std::string platformProgram(const char* name) {
    return shellQuoted(g_bindir + "/" + name) + " 2>/dev/null";
}

[[noreturn]] void endWithoutMemory(const char* text) {
    report_error("%s", text);
    std::exit(1);
}

struct TypePair {
    int stored;
    int shown;
};

constexpr int RESTORE_TYPES[] = {12, 13, 0, 14};
constexpr int SQL_TYPES[] = {5,  6,  7,  8,  9,  10, 11, 21, 22, 23, 24, 25, 26, 38, 39,
                             40, 46, 47, 50, 49, 55, 56, 57, 58, 59, 62, 67, 68, 69};
constexpr TypePair BACKUP_TYPES[] = {
    {2, 2},     {3, 41},    {5, 18},    {6, 19},    {7, 20},    {9, 27},    {10, 28},   {11, 29},   {12, 34},
    {13, 35},   {14, 36},   {15, 37},   {16, 17},   {80, 63},   {96, 45},   {128, 16},  {256, 16},  {512, 16},
    {1024, 4},  {1025, 30}, {1026, 32}, {1027, 33}, {1028, 12}, {1029, 13}, {1030, 14}, {1031, 42}, {1032, 43},
    {1033, 44}, {1034, 51}, {1035, 52}, {1036, 53}, {1037, 54}, {1038, 48}, {1039, 60}, {4096, 60}, {4097, 60},
    {2048, 17}, {2064, 31}, {4098, 64}, {4099, 65}, {4100, 66},
};
constexpr int PROPERTY_PARTIAL = 1;     // bit 0: not a whole backup of its kind
constexpr int PROPERTY_SELECTED = 128;  // bit 7

template <std::size_t N>
int numbered(const int (&table)[N], int number) {
    return number <= static_cast<int>(N) ? table[number - 1] : 0;
}

}  // namespace

void* zalloc(unsigned size) {
    void* const block = std::calloc(1, size);
    if (block == nullptr)
        endWithoutMemory("\nzalloc: fatal error...out of memory\n");
    return block;
}

void* fmalloc(unsigned size) {
    void* const block = std::malloc(size);
    if (block == nullptr)
        endWithoutMemory("\nfmalloc: fatal error...out of memory\n");
    return block;
}

int safe_write(int fd, const void* buffer, int length) {
    int done = 0;
    while (done < length) {
        const ssize_t count =
            write(fd, static_cast<const char*>(buffer) + done, static_cast<std::size_t>(length - done));
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        done += static_cast<int>(count);
    }
    return done;
}

int safe_read(int fd, void* buffer, int length) {
    int done = 0;
    while (done < length) {
        const ssize_t count = read(fd, static_cast<char*>(buffer) + done, static_cast<std::size_t>(length - done));
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            return -1;
        if (count == 0)
            break;
        done += static_cast<int>(count);
    }
    return done;
}

std::string smallFileText(const std::string& path) {
    constexpr int MOST = 65536;
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(MOST, '\0');
    const int got = safe_read(file.get(), text.data(), MOST);
    text.resize(static_cast<std::size_t>(std::max(got, 0)));
    return text;
}

bool platformHasWord(std::string_view word, CapabilityPlace place) {
    const std::string text = smallFileText(systemPath(paths::PLATFORM_CAPABILITIES));
    const std::string_view separators = place == CapabilityPlace::anywhere ? " \t\r\n\v\f" : "\n";
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find_first_of(separators, start), text.size());
        const std::string_view piece = std::string_view(text).substr(start, end - start);
        if (trimEnd(skip(piece, INI_SPACE)) == word)
            return true;
        start = end + 1;
    }
    return false;
}

std::uint32_t crc32_buffer(const unsigned char* data, std::size_t length) {
    std::uint32_t crc = 0xffffffff;
    for (std::size_t i = 0; i < length; i++)
        crc = CRC_TABLE[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
    return crc ^ 0xffffffff;
}

int platformSupportsDedup() {
    const int status = askPlatform(__func__, platformProgram("platformSupportsDedup"));
    return status < 0 || status > 4 ? 0 : status;
}

int platformSupportsDedupNT() {
    return askPlatform(__func__, capabilityTest("grep -w '^dedupNT'")) == 0 ? 1 : 0;
}

int platformSupportsInlineDedup() {
    return askPlatform(__func__, capabilityTest("grep -w '^inlineDedup'")) == 0 ? 1 : 0;
}

int platformSupportsiSynth() {
    const int status = askPlatform(__func__, platformProgram("platformSupportsSynth"));
    return status < 0 ? 0 : status;
}

int isARXVirtual() {
    const bool isVirtual = askPlatform(__func__, capabilityTest("grep -qE '^virtual_machine'")) == 0;
    if (isVirtual)
        LOG_HERE(0, "isARXVirtual: True\n");
    else
        LOG_HERE(0, "isARXVirtual: False\n");
    return isVirtual ? 1 : 0;
}

void mynodename(char* name, int length) {
    if (length <= 0)
        return;
    const std::size_t size = static_cast<std::size_t>(length);
    if (gethostname(name, size) == -1) {
        log_message(2, "%s: gethostname failed [errno=%d]\n", "mynodename", errno);
        log_message(2, "%s: using uname() instead\n", "mynodename");
        struct utsname system = {};
        (void)uname(&system);  // fails only for a bad address
        const std::size_t copied = strnlen(system.nodename, size - 1);
        std::memcpy(name, system.nodename, copied);
        name[copied] = '\0';
    }
    name[size - 1] = '\0';
    name[std::strcspn(name, ".")] = '\0';
}

int public_backup_type(int type, int properties, int sqlType, int restoreType) {
    if (restoreType > 0)
        return numbered(RESTORE_TYPES, restoreType);
    if (sqlType > 0)
        return numbered(SQL_TYPES, sqlType);
    const bool isPartial = (properties & PROPERTY_PARTIAL) != 0;
    if (type == 1)
        return isPartial ? 0 : 1;
    if (type == 4)
        return (properties & PROPERTY_SELECTED) != 0 ? 15 : (isPartial ? 0 : 3);
    for (const TypePair& pair : BACKUP_TYPES)
        if (pair.stored == type)
            return pair.shown;
    return 0;
}
