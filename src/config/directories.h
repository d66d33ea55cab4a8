// directories.h - the start of a product program: install directory, master.ini, the directory variables, the
// environment for child programs, and the call-name stack.
//
// Threads: both start functions run once, before any thread or child exists; the variables are constant from then on.
#pragma once

#include <string>

extern std::string g_master_ini;
extern std::string g_appdir;
extern std::string g_bindir;
extern std::string g_reportdir;
extern std::string g_initdir;
extern std::string g_xrdir;
extern std::string g_listdir;
extern std::string g_profiledir;
extern std::string g_infodir;
extern std::string g_utildir;
extern std::string g_libdir;
extern std::string g_appname;  // display name, at most 63 characters
extern std::string ghAppName;  // the program's name; set by set_program_name
extern int g_nice;
extern int Snap_debug;
extern int Snap_stack_level;

// What the start reads for interfaces beside replication; nothing in this program acts on it. Written at start alone.
struct ProcessState {
    int error = 0;  // 17: the install directory is not an absolute path
    int testTries = -1;
    int isClient = 0;
    int catalogLines = 66;
    int rewindDelay = 30;  // seconds
    bool alwaysSkip = true;
    bool skipNoFiles = false;
    int servicePort = 0;  // of the service dqd
    int dataPort = 0;
    int queue = 0;
    int netpacket = 0;
    int optNetpacket = 0;
    int interChannel = 0;
    std::string title;
    std::string catalogDir;
    std::string logname;
    std::string profile;
};
extern ProcessState g_state;

// Names of days and months in the locale of the start, from Sunday and from January.
extern std::string dayname[7];
extern std::string abrdayname[7];
extern std::string monthname[12];
extern std::string abrmonthname[12];

// Lets other processes run; what long local loops call through the hook.
void GiveUpProcessor();
extern void (*g_yield_hook)();

// Keeps the last 32 characters of argv[0], then what follows the last '/', as the program's name.
void set_program_name(const char* argv0);

// The full start of a product program. Returns 0, or -1 for an over-long install path (logged).
[[nodiscard]] int init_application();

// The light start, for a program that wants just the paths. A relative iniName lies in the directory of dq.ini; an
// absolute one and defaultDir are used as given, so callers pass systemPath(...). Returns -1 if dq.ini names no
// directory; the default is then in place and the work goes on.
[[nodiscard]] int init_globals(const char* program, const char* iniName, const char* defaultDir);

// Finds the port of the product's service and reads the ports and sizes beside it.
void service_port_setup();

// Reads master.ini with "N/A" as the mark of a missing value. Returns -1 if there is none.
[[nodiscard]] int get_config_value(const char* section, const char* key, std::string* dest);

// Prints the environment table to standard output, with shellSyntax as defaults that a shell can source.
void export_environment(int shellSyntax);

// The names of the functions being run, for diagnosing; 50 entries of 63 characters.
// push_name gives -1 when the stack was full: it is cleared and the name is not kept. pop_name gives -1 for an empty
// one.
int push_name(const char* name);
int pop_name();
const char* dbproc_name();  // the top name, in a static copy
void dump_names();          // to the log
