// The sweep over the log directory: logs of all programs past their retention go.
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "base/releaser.h"
#include "config/directories.h"
#include "config/ini.h"
#include "config/program_log.h"
#include "log/logger.h"

namespace {

constexpr time_t SECONDS_OF_DAY = 86400;
constexpr std::string_view DIGITS = "0123456789";

struct RetConf {
    int days;
    int instances;  // highest instance number to keep
    std::string program;
};

// The retention of the programs met so far; entry 0 is the default.
class RetConfList {
public:
    RetConfList() {
        list_.push_back({ini_get_int("LogRetentionDays", "default", 1, g_master_ini),
                         std::max(ini_get_int("LogRetentionInstances", "default", 20, g_master_ini), 1), ""});
    }

    const RetConf& of(const std::string& program) {
        const auto known = std::find_if(list_.begin() + 1, list_.end(),
                                        [&](const RetConf& entry) { return entry.program == program; });
        if (known != list_.end())
            return *known;
        list_.push_back(
            {ini_get_int("LogRetentionDays", program.c_str(), list_[0].days, g_master_ini),
             std::max(ini_get_int("LogRetentionInstances", program.c_str(), list_[0].instances, g_master_ini), 1),
             program});
        return list_.back();
    }

private:
    std::vector<RetConf> list_;
};

// Takes the digits at the end of `text` off; false if there are none.
bool takeTrailingNumber(std::string_view* text, std::string_view* digits) {
    const std::size_t last = text->find_last_not_of(DIGITS);
    const std::size_t start = last == std::string_view::npos ? 0 : last + 1;
    *digits = text->substr(start);
    *text = text->substr(0, start);
    return !digits->empty();
}

// Splits <program>-<n> or <program>-<n>_<k>; anything else is no log of ours.
bool parseInstanceLog(std::string_view base, std::string* program, long* instance) {
    std::string_view digits;
    if (!takeTrailingNumber(&base, &digits))
        return false;
    if (base.ends_with('_')) {
        base.remove_suffix(1);
        if (!takeTrailingNumber(&base, &digits))
            return false;
    }
    if (!base.ends_with('-') || base.size() == 1)
        return false;
    *program = base.substr(0, base.size() - 1);
    *instance = std::strtol(std::string(digits).c_str(), nullptr, 10);  // too many digits give the largest number
    return true;
}

// 1 for an entry that stays, 0 for one that was purged.
int ScanFilter(RetConfList* retention, const std::string& name) {
    const std::string_view base = withoutLogExtension(name);
    std::string program;
    long instance = 0;
    if (base == name || !parseInstanceLog(base, &program, &instance))
        return 1;
    const RetConf& limits = retention->of(program);
    const time_t cutOff = std::time(nullptr) - std::max(limits.days, 1) * SECONDS_OF_DAY;
    const std::string path = logPath(name);
    struct stat info = {};
    if (LogfileExists(std::string(withoutLogExtension(path)).c_str(), &info) != -1 && info.st_mtime >= cutOff &&
        instance <= limits.instances) {
        log_message(5, "Retaining log %s", name.c_str());
        return 1;
    }
    if (CleanupOldLogs(path.c_str()) <= 0)
        return 1;
    log_message(5, "Purged log %s \n", name.c_str());
    return 0;
}

int ScanLogsDir(RetConfList* retention) {
    DIR* const directory = opendir(g_logdir.c_str());
    if (directory == nullptr) {
        report_error("ScanLogsDir: Could not perform opendir on logs directory\n");
        return -1;
    }
    std::unique_ptr<DIR, Releaser<&closedir>> owner(directory);
    int retained = 0;
    errno = 0;
    while (const dirent* entry = readdir(directory)) {
        retained += ScanFilter(retention, entry->d_name);
        errno = 0;
    }
    if (errno != 0)
        report_error("ScanLogsDir: Error reading directory entries \n");
    if (closedir(owner.release()) == -1)
        report_error("ScanLogsDir: Error performing closedir - %s \n", std::strerror(errno));
    return retained;
}

}  // namespace

int PurgeOldLogs() {
    try {
        RetConfList retention;
        const int retained = ScanLogsDir(&retention);
        if (retained >= 0)
            log_message(3, "Suceesfully clean-up old logs. %d log files retained \n", retained);
        else
            log_message(0, "Error purging old logs because %s \n", std::strerror(errno));
        return retained;
    } catch (const std::bad_alloc&) {
        report_error("PurgeOldLogs: Error allocating memory \n");
        return -1;
    }
}
