#include "config/directories.h"

#include <netdb.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "config/ini.h"
#include "config/services.h"
#include "log/logger.h"

std::string g_master_ini;
std::string g_appdir;
std::string g_bindir;
std::string g_reportdir;
std::string g_initdir;
std::string g_xrdir;
std::string g_listdir;
std::string g_profiledir;
std::string g_infodir;
std::string g_utildir;
std::string g_libdir;
std::string g_appname;
std::string ghAppName;
int g_nice = 0;
int Snap_debug = 0;
int Snap_stack_level = 9;
ProcessState g_state;
std::string dayname[7];
std::string abrdayname[7];
std::string monthname[12];
std::string abrmonthname[12];
void (*g_yield_hook)() = nullptr;

namespace {

constexpr const char* LOCATION = "Location Information";
constexpr const char* OPTIONS = "Configuration Options";
constexpr const char* DEBUGGING = "Debugging";
constexpr std::size_t PATH_LIMIT = 256;  // bytes of the install directory and of master.ini's path, with the NUL
constexpr std::size_t NAME_LIMIT = 32;   // of argv[0]
constexpr std::size_t APPNAME_LIMIT = 63;
constexpr std::size_t VALUE_LIMIT = 1023;
constexpr mode_t DIRECTORY_MODE = 0777;
constexpr int ERROR_RELATIVE_PATH = 17;
constexpr int DEFAULT_SERVICE_PORT = 1743;
constexpr const char* SERVICE = "dqd";
constexpr const char* PROTOCOL = "tcp";

int option(const char* key, int defaultValue) {
    return ini_get_int(OPTIONS, key, defaultValue, g_master_ini);
}

bool flagOption(const char* key, bool defaultValue) {
    unsigned char value = 0;
    (void)ini_get_bool(OPTIONS, key, defaultValue ? 1 : 0, &value, g_master_ini);  // the default is in place
    return value != 0;
}

std::string location(const char* key, const std::string& defaultValue) {
    return ini_text(LOCATION, key, defaultValue.c_str(), g_master_ini);
}

bool isMissing(std::string_view value) {
    return value.empty() || value.find("N/A") != std::string_view::npos;
}

void nameCalendar() {
    char text[64];
    std::tm day = {};
    for (day.tm_wday = 0; day.tm_wday < 7; day.tm_wday++) {
        dayname[day.tm_wday].assign(text, std::strftime(text, sizeof(text), "%A", &day));
        abrdayname[day.tm_wday].assign(text, std::strftime(text, sizeof(text), "%a", &day));
    }
    day.tm_wday = 0;
    for (day.tm_mon = 0; day.tm_mon < 12; day.tm_mon++) {
        monthname[day.tm_mon].assign(text, std::strftime(text, sizeof(text), "%B", &day));
        abrmonthname[day.tm_mon].assign(text, std::strftime(text, sizeof(text), "%b", &day));
    }
}

void useLocale() {
    std::setlocale(LC_ALL, "");
    // Numbers go to other programs, the database among them: their decimal point must not follow the locale.
    std::setlocale(LC_NUMERIC, "C");
    tzset();
    nameCalendar();
}

std::string findInstallDirectory() {
    const std::string dqIni = systemPath(paths::DQ_INI);
    const char* const environment = std::getenv("DQDIR");
    std::string directory;
    if (environment != nullptr)
        directory = environment;
    else if (access(dqIni.c_str(), F_OK) == 0)
        directory = ini_text(LOCATION, "DQDIR", "N/A", dqIni);
    return isMissing(directory) ? systemPath(paths::INSTALL_DIR) : directory;
}

void applyNiceClass() {
    const char* const keys[] = {"NiceHigh", "NiceNormal", "NiceLow"};
    g_nice = ini_get_int("Nice", ghAppName.c_str(), 0, g_master_ini);
    if (g_nice < 1 || g_nice > 3)
        return;
    const int value = option(keys[g_nice - 1], -1);
    if (value == -1)
        return;
    const int priority = nice(value - 20);
    log_message(0, "Nice is set to level %ld, resulting priority %ld\n", static_cast<long>(value),
                static_cast<long>(priority));
}

void makeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), DIRECTORY_MODE) == -1 && errno != EEXIST)
        LOG_HERE(0, "Cannot make directory %s: %s\n", path.c_str(), std::strerror(errno));
}

void deriveDirectories() {
    g_utildir = g_appdir + "/util";
    g_libdir = g_appdir + "/lib";
    g_bindir = g_appdir + "/bin";
    g_initdir = g_appdir + "/dqinit";
    g_xrdir = g_initdir + "/xresources";
    g_listdir = g_appdir + "/lists.dir";
    g_profiledir = g_appdir + "/profiles.dir";
    g_infodir = g_appdir + "/info.dir";
}

void readLocations() {
    g_state.title = ini_text(OPTIONS, "Title", "", g_master_ini);
    g_state.title.resize(std::min(g_state.title.find(';'), g_state.title.size()));
    g_state.catalogDir = location("CatalogDir", g_appdir + "/catalog.dir");
    g_reportdir = location("Reports-Dir", g_appdir + "/reports.dir");
    g_logdir = location("Logs-Dir", g_appdir + "/logs.dir");
    g_state.logname = location("Logname", g_logdir + "/dq.log");
}

void readDebugging() {
    Snap_debug = ini_get_int(DEBUGGING, ghAppName.c_str(), 0, g_master_ini);
    log_level = Snap_debug;
    if (log_level > 99 && log_level != LOG_SILENT) {
        log_level -= 100;
        log_simple = 1;
    }
    Snap_stack_level = ini_get_int(DEBUGGING, "Enable-stack-level", 9, g_master_ini);
}

void readOptions() {
    g_state.testTries = option("TestTries", -1);
    g_state.isClient = option("IsClient", 0);
    g_state.catalogLines = option("CatalogLines", 66);
    g_state.rewindDelay = option("RewindDelay", 30);
    g_state.alwaysSkip = flagOption("AlwaysSkip", true);
    g_state.skipNoFiles = flagOption("SkipNoFiles", false);
    g_state.interChannel = option("InterChannel", 0);
}

// Finds a name that nobody has, in the log directory or, while there is none, in the fall-back's, and leaves it free
// again: a trace for whoever looks for leftovers.
void noteTemporaryName() {
    std::string name = g_logdir + "/.AAAXXXXXX";
    FileDescriptor file(mkstemp(name.data()));
    if (!file.isOpen()) {
        name = systemPath(paths::FALLBACK_LOG_DIR) + "/.AAAXXXXXX";
        file.reset(mkstemp(name.data()));
    }
    if (!file.isOpen())
        return;
    log_message(2, "Profile_Temp: %s\n", name.c_str());
    (void)unlink(name.c_str());  // it is empty, and the next start would not mind it
}

void findProfile() {
    g_state.profile = ini_text(OPTIONS, "DefProfile", (g_profiledir + "/Default.spr").c_str(), g_master_ini);
    if (!g_state.profile.starts_with('/'))
        g_state.profile = g_profiledir + "/" + g_state.profile;
    log_message(2, "Profile: %s\n", g_state.profile.c_str());
}

struct EnvironmentEntry {
    const char* name;
    const std::string* value;
};

constexpr EnvironmentEntry ENVIRONMENT[] = {
    {"DQ_MASTER_INI", &g_master_ini},
    {"DQ_APPDIR", &g_appdir},
    {"DQ_BINDIR", &g_bindir},
    {"DQ_LOGDIR", &g_logdir},
    {"DQ_REPORTDIR", &g_reportdir},
    {"DQ_INITDIR", &g_initdir},
    {"DQ_XRDIR", &g_xrdir},
    {"DQ_LISTDIR", &g_listdir},
    {"DQ_PROFILEDIR", &g_profiledir},
    {"DQ_INFODIR", &g_infodir},
    {"DQ_UTILDIR", &g_utildir},
    {"DQ_LIBDIR", &g_libdir},
    {"DQDIR", &g_appdir},
    {"BKUPBIN", &g_bindir},
};

void exportEnvironment() {
    for (const EnvironmentEntry& entry : ENVIRONMENT) {
        const std::string text = std::string(entry.name) + "=" + *entry.value;
        if (setenv(entry.name, entry.value->c_str(), 1) == -1)
            log_message(0, "Failed to set environment (no memory): %s\n", text.c_str());
        else
            log_message(5, "Env-> %s\n", text.c_str());
    }
}

// The install directory and master.ini. 0, or -1 for a path that the buffers of other programs could not hold.
int locateProduct() {
    const std::string directory = findInstallDirectory();
    const std::string masterIni = directory + "/dqinit/master.ini";
    if (directory.size() >= PATH_LIMIT || masterIni.size() >= PATH_LIMIT) {
        log_message(0, "Installed directory path is too long\n");
        return -1;
    }
    g_appdir = directory;
    g_master_ini = masterIni;
    log_message(5, "Master_ini: %s\n", g_master_ini.c_str());
    return 0;
}

void enterInstallDirectory() {
    if (!g_appdir.starts_with('/')) {
        log_message(0, "DQ path: %s must start with / - re-install", g_appdir.c_str());
        g_state.error = ERROR_RELATIVE_PATH;
    }
    makeDirectory(g_appdir);
    if (chdir(g_appdir.c_str()) == -1)
        LOG_HERE(0, "Cannot change to directory %s: %s\n", g_appdir.c_str(), std::strerror(errno));
}

}  // namespace

void set_program_name(const char* argv0) {
    std::string_view name = argv0 == nullptr ? "" : argv0;
    if (name.size() > NAME_LIMIT)
        name.remove_prefix(name.size() - NAME_LIMIT);
    const std::size_t slash = name.rfind('/');
    ghAppName = slash == std::string_view::npos ? name : name.substr(slash + 1);
}

int init_application() {
    useLocale();
    if (locateProduct() == -1)
        return -1;
    applyNiceClass();
    enterInstallDirectory();
    g_appname = ini_text(OPTIONS, "OemName", "Kestrelix Server", g_master_ini, APPNAME_LIMIT);
    deriveDirectories();
    init_gerror((g_initdir + "/gerror.ini").c_str());
    readLocations();
    close_log();
    (void)open_log(g_state.logname.c_str());  // the log says its own troubles and goes on
    readDebugging();
    readOptions();
    noteTemporaryName();
    for (const std::string& directory : {g_profiledir, g_listdir, g_infodir, g_state.catalogDir, g_logdir, g_reportdir})
        makeDirectory(directory);
    log_message(2, "Dqdir: %s\n", g_appdir.c_str());
    log_message(2, "Master_ini: %s\n", g_master_ini.c_str());
    findProfile();
    service_port_setup();
    exportEnvironment();
    g_yield_hook = GiveUpProcessor;
    return 0;
}

void service_port_setup() {
    const servent* const entry = getservbyname(SERVICE, PROTOCOL);
    if (entry != nullptr) {
        g_state.servicePort = ntohs(static_cast<std::uint16_t>(entry->s_port));
        log_message(2, "Service \"%s\" is on port %u\n", SERVICE, static_cast<unsigned>(g_state.servicePort));
    } else {
        g_state.servicePort = DEFAULT_SERVICE_PORT;
        log_message(0, "Can't get Kestrelix Server service [service=%s protocol=%s]\n", SERVICE, PROTOCOL);
        log_message(0, "Using %ld\n", static_cast<long>(DEFAULT_SERVICE_PORT));
    }
    g_state.dataPort = option("data", 1744);
    g_state.queue = option("Queue", 4);
    g_state.netpacket = option("Netpacket", 768);
    g_state.optNetpacket = option("OptNetpacket", 4);
}

int init_globals(const char* program, const char* iniName, const char* defaultDir) {
    const std::string dqIni = iniName[0] == '/' ? iniName : systemPath(paths::INI_DIR) + iniName;
    char directory[VALUE_LIMIT + 1];
    int result = 0;
    if (ini_get_string(LOCATION, "DQDIR", defaultDir, directory, sizeof(directory), dqIni) == 0) {
        g_initdir = std::string(directory) + "/dqinit";
    } else {
        result = ini_get_string(LOCATION, "APPDIR", defaultDir, directory, sizeof(directory), dqIni);
        g_initdir = std::string(directory) + "/config";
    }
    g_appdir = directory;
    g_master_ini = g_initdir + "/master.ini";
    if (access(g_master_ini.c_str(), R_OK) == -1)
        g_master_ini = dqIni;
    g_logdir = g_appdir + "/logs.dir";
    g_bindir = g_appdir + "/bin";
    const char* const slash = std::strrchr(program, '/');
    log_level = ini_get_int("debugging", slash == nullptr ? program : slash + 1, log_level, g_master_ini);
    return result;
}

int get_config_value(const char* section, const char* key, std::string* dest) {
    if (g_master_ini.empty())
        return -1;
    *dest = ini_text(section, key, "N/A", g_master_ini, VALUE_LIMIT);
    return isMissing(*dest) ? -1 : 0;
}

void export_environment(int shellSyntax) {
    for (const EnvironmentEntry& entry : ENVIRONMENT) {
        if (shellSyntax != 0)
            std::printf(": ${%s:=%s}\n", entry.name, entry.value->c_str());
        else
            std::printf("%s=%s\n", entry.name, entry.value->c_str());
    }
}

void GiveUpProcessor() {
    (void)sched_yield();  // always succeeds on Linux
}
