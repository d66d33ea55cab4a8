#include "config/program_log.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/paths.h"
#include "base/text.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr const char* LOCATION_SECTION = "Location Information";
constexpr time_t SECONDS_OF_DAY = 86400;

struct LogConfig {
    int retentionDays = 1;
    int retentionInstances = 1;  // highest instance number in use
    int logsPerInstance = 4;
    int maxKB = 3072;
};

LogConfig g_config;  // of this process; loaded before threads exist

// The names of these keys are sections of master.ini; in each, the program's name is the key.
int configValue(const char* section, const char* program, int defaultValue) {
    const int general = ini_get_int(section, "default", defaultValue, g_master_ini);
    return ini_get_int(section, program, general, g_master_ini);
}

void loadLogConfig(const char* program, int defaultInstances) {
    g_config.retentionDays = std::max(configValue("LogRetentionDays", program, 1), 1);
    g_config.retentionInstances = std::max(configValue("LogRetentionInstances", program, defaultInstances), 1);
    g_config.logsPerInstance = configValue("LogsPerInstance", program, 4);
    g_config.maxKB = std::max(configValue("MaxLogKB", program, 3072), 0);
}

void logConfig() {
    log_message(6, "\tLogRetentionDays:%d\n", g_config.retentionDays);
    log_message(6, "\tLogRetentionInstances:%d\n", g_config.retentionInstances);
    log_message(6, "\tLogsPerInstance:%d\n", g_config.logsPerInstance);
    log_message(6, "\tMaxLogSize:%d\n", g_config.maxKB);
}

// The first number that is free or whose log has aged out; with all numbers in use, the one with the oldest log.
int chooseInstance(const std::string& prefix) {
    const time_t cutOff = std::time(nullptr) - std::max(g_config.retentionDays, 1) * SECONDS_OF_DAY;
    struct stat info = {};
    int oldest = 0;
    time_t oldestTime = LogfileExists((prefix + "0").c_str(), &info) == 0 ? info.st_mtime : 0;
    for (int n = 0;; n++) {
        if (LogfileExists((prefix + std::to_string(n)).c_str(), &info) == -1)
            return n;
        if (oldestTime == 0 || info.st_mtime < oldestTime) {
            oldest = n;
            oldestTime = info.st_mtime;
        }
        if (info.st_mtime < cutOff)
            return n;
        if (n == g_config.retentionInstances)
            return oldest;
    }
}

void keepPreviousName(const char* program, const std::string& dqIni) {
    const std::string last = ini_text(LOCATION_SECTION, program, "", dqIni);
    const std::string key = std::string("prev_") + program;
    (void)ini_put_field(LOCATION_SECTION, key.c_str(), last.c_str(), dqIni);  // a note for people; nothing reads it
}

// The log of an instance, opened as `how` says and noted in dq.ini.
int openInstance(const char* program, LogOpening how, int* instance) {
    const std::string dqIni = systemPath(paths::DQ_INI);
    keepPreviousName(program, dqIni);
    (void)applyLevelEncoding();  // the value is resolved either way
    if (std::strstr(program, "dqserver") != nullptr)
        log_simple = 0;
    if (log_simple != 0) {
        const std::string path = logPath(std::string(program) + g_extns[0]);
        *instance = 0;
        close_log();
        return open_log(path.c_str(), how);
    }
    const int number = chooseInstance(logPath(std::string(program) + "-"));
    const std::string path = logPath(formatString("%s-%d%s", program, number, g_extns[0]));
    *instance = number;
    log_message(6, "New Log Name: %s\n", path.c_str());
    log_message(6, "Location....: %s\n", g_logdir.c_str());
    log_message(6, "AppName.....: %s\n", program);
    log_message(6, "IniName.....: %s\n", dqIni.c_str());
    close_log();
    const int result = open_log(path.c_str(), how);
    (void)ini_put_field(LOCATION_SECTION, program, path.c_str(), dqIni);  // a note for people, as above
    return result;
}

std::string startTimeText() {
    const time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    char text[128];
    return std::string(text, std::strftime(text, sizeof(text), "%a %b %d %Y %X %Z", &parts));
}

}  // namespace

int OpenInstanceLog(const char* program, int* instance) {
    return openInstance(program, LogOpening::fresh, instance);
}

int OpenProgramLog(const char* program, int defaultInstances) {
    loadLogConfig(program, defaultInstances);
    int instance = 0;
    int result = 0;
    const char* const inherited = std::getenv("DQLOGNAME");
    if (inherited != nullptr)
        result = open_log(inherited, LogOpening::append);  // the parent's log: its lines stay
    else
        result = OpenInstanceLog(program, &instance);
    const std::string startTime = startTimeText();
    log_set_rotation(program, instance, static_cast<unsigned>(g_config.maxKB), g_config.logsPerInstance,
                     startTime.c_str());
    log_message(0, "%s[%s, pid = %d]: started on %s  (Log level=%d)\n", program, FERRYD_VERSION, getpid(),
                startTime.c_str(), log_level);
    log_message(6, "Program Log Loaded log configs\n");
    logConfig();
    return result;
}

int ReopenInstanceLog(const char* program) {
    loadLogConfig(program, g_config.retentionInstances);
    int instance = 0;
    const int result = openInstance(program, LogOpening::carryOver, &instance);
    log_set_rotation(program, instance, static_cast<unsigned>(g_config.maxKB), g_config.logsPerInstance, nullptr);
    log_message(6, "New log configs loaded for %s\n", program);
    logConfig();
    return result;
}
