#include "config/directories.h"

#include "base/paths.h"
#include "log/logger.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using testsupport::readFile;
using testsupport::writeFile;

class Directories : public testing::Test {
protected:
    // The start changes the directory, the environment and the locale of its process, so it gets one of its own.
    static bool inOwnProcess(const std::function<void()>& body) {
        return testsupport::inOwnProcess([&body] {
            unsetenv("DQDIR");
            body();
        });
    }
    std::string install() const { return root / "usr/dq"; }

    testsupport::TestRoot root;
};

TEST_F(Directories, FullStartFindsMakesAndExportsTheDirectories) {
    root.masterIni("[Configuration Options]\nOemName=" + std::string(70, 'o') +
                   "\nTitle=\"A title; cut\"\nDefProfile=My.spr\nQueue=9\nAlwaysSkip=off\n"
                   "[Location Information]\nReports-Dir=" +
                   (root / "tmp/reports").string() + "\n[debugging]\nprog=104\n");
    EXPECT_TRUE(inOwnProcess([this] {
        set_program_name("/opt/somewhere/prog");
        ASSERT_EQ(init_application(), 0);
        EXPECT_EQ(std::filesystem::current_path().string(), install());
        for (const char* made : {"profiles.dir", "lists.dir", "info.dir", "catalog.dir", "logs.dir"})
            EXPECT_TRUE(std::filesystem::is_directory(install() + "/" + made)) << made;
        EXPECT_TRUE(std::filesystem::is_directory(root / "tmp/reports"));
        const std::pair<const char*, const char*> environment[] = {{"DQ_APPDIR", ""},
                                                                   {"DQDIR", ""},
                                                                   {"DQ_MASTER_INI", "/dqinit/master.ini"},
                                                                   {"DQ_BINDIR", "/bin"},
                                                                   {"BKUPBIN", "/bin"},
                                                                   {"DQ_XRDIR", "/dqinit/xresources"},
                                                                   {"DQ_LOGDIR", "/logs.dir"},
                                                                   {"DQ_INITDIR", "/dqinit"},
                                                                   {"DQ_PROFILEDIR", "/profiles.dir"},
                                                                   {"DQ_LISTDIR", "/lists.dir"},
                                                                   {"DQ_INFODIR", "/info.dir"},
                                                                   {"DQ_UTILDIR", "/util"},
                                                                   {"DQ_LIBDIR", "/lib"}};
        for (const auto& [name, below] : environment)
            EXPECT_EQ(getenv(name), install() + below) << name;
        EXPECT_EQ(getenv("DQ_REPORTDIR"), (root / "tmp/reports").string());
        testing::internal::CaptureStdout();
        export_environment(1);
        EXPECT_NE(testing::internal::GetCapturedStdout().find(": ${DQDIR:=" + install() + "}\n"), std::string::npos);
        EXPECT_EQ(g_appname, std::string(63, 'o'));
        EXPECT_EQ(g_state.title, "A title");
        EXPECT_EQ(g_state.profile, install() + "/profiles.dir/My.spr");
        EXPECT_EQ(g_state.queue, 9);
        EXPECT_EQ(g_state.servicePort, 1743);
        EXPECT_FALSE(g_state.alwaysSkip);
        EXPECT_EQ(g_state.error, 0);
        EXPECT_EQ(log_level, 4);
        EXPECT_EQ(log_simple, 1);
        close_log();
        EXPECT_NE(readFile(install() + "/logs.dir/dq.log").find("Using 1743\n"), std::string::npos);
        for (const auto& entry : std::filesystem::directory_iterator(install() + "/logs.dir"))
            EXPECT_EQ(entry.path().filename().string().find(".AAA"), std::string::npos);
    }));
}

TEST_F(Directories, SilenceIsNoLevelOfTheSimpleWriter) {
    for (const auto& [value, level, simple] : {std::tuple("200", 200, 0), {"201", 1, 1}, {"99", 99, 0}}) {
        root.masterIni(std::string("[debugging]\nprog=") + value + "\n");
        EXPECT_TRUE(inOwnProcess([&, wanted = level, isSimple = simple] {
            log_simple = 0;
            set_program_name("prog");
            ASSERT_EQ(init_application(), 0);
            EXPECT_EQ(log_level, wanted);
            EXPECT_EQ(log_simple, isSimple);
        })) << value;
    }
}

TEST_F(Directories, InstallDirectoryIsSearchedInOrder) {
    const std::string standard = systemPath(paths::INSTALL_DIR);
    const std::string fromIni = root / "tmp/ini";
    const std::string fromEnvironment = root / "tmp/env";
    // The environment's word, dq.ini's (null: no such file), and what comes of them.
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {fromEnvironment.c_str(), fromIni.c_str(), fromEnvironment},
        {nullptr, fromIni.c_str(), fromIni},
        {nullptr, nullptr, standard},
        {nullptr, "", standard},
        {"N/A", fromIni.c_str(), standard}};
    for (const auto& [environment, ini, directory] : cases)
        EXPECT_TRUE(inOwnProcess([this, environment = environment, ini = ini, expected = directory] {
            if (environment != nullptr)
                setenv("DQDIR", environment, 1);
            if (ini != nullptr)
                writeFile(root / "etc/default/dq.ini", std::string("[Location Information]\nDQDIR=") + ini + "\n");
            else
                std::filesystem::remove(root / "etc/default/dq.ini");
            ASSERT_EQ(init_application(), 0);
            EXPECT_EQ(g_appdir, expected);
        })) << directory;
}

TEST_F(Directories, PathsThatAreTooLongOrRelativeAreToldApart) {
    EXPECT_TRUE(inOwnProcess([this] {
        setenv("DQDIR", ("/" + std::string(300, 'd')).c_str(), 1);
        EXPECT_EQ(init_application(), -1);
        setenv("DQDIR", ("/" + std::string(240, 'd')).c_str(), 1);  // only master.ini's path is too long
        EXPECT_EQ(init_application(), -1);
        EXPECT_TRUE(root.logged("Installed directory path is too long\n"));
        ASSERT_EQ(chdir((root / "tmp").c_str()), 0);
        setenv("DQDIR", "relative", 1);
        EXPECT_EQ(init_application(), 0);
        EXPECT_EQ(g_state.error, 17);
        EXPECT_TRUE(root.logged("DQ path: relative must start with / - re-install"));
        EXPECT_TRUE(std::filesystem::is_directory(root / "tmp/relative"));
    }));
}

TEST_F(Directories, NiceClassSetsThePriority) {
    root.masterIni("[Nice]\nprog=3\nother=2\n[Configuration Options]\nNiceLow=27\n");
    const int before = getpriority(PRIO_PROCESS, 0);
    for (const auto& [name, added] : {std::pair("prog", 7), std::pair("other", 0), std::pair("none", 0)})
        EXPECT_TRUE(inOwnProcess([&, program = name, change = added] {
            set_program_name(program);
            ASSERT_EQ(init_application(), 0);
            EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before + change);
        })) << name;
}

TEST_F(Directories, LightStartFallsBackStepByStep) {
    const std::string directory = root / "tmp/app";
    const std::string dqIni = root / "etc/default/x.ini";
    const std::tuple<const char*, int, std::string, std::string> cases[] = {
        {"DQDIR", 0, directory, "/dqinit"}, {"APPDIR", 0, directory, "/config"}, {"none", -1, install(), "/config"}};
    for (const auto& [key, result, appdir, below] : cases) {
        writeFile(dqIni, std::string("[Location Information]\n") + key + "=" + directory + "\n[Debugging]\nprog=5\n");
        log_level = 1;
        EXPECT_EQ(init_globals("/some/prog", "x.ini", install().c_str()), result) << key;
        EXPECT_EQ(g_initdir, appdir + below);
        EXPECT_EQ(g_logdir, appdir + "/logs.dir");
        EXPECT_EQ(g_master_ini, dqIni);  // master.ini is not there, so the bootstrap file serves
        EXPECT_EQ(log_level, 5);
    }
    EXPECT_EQ(init_globals("prog", "dq.ini", "/none"), 0);
    EXPECT_EQ(g_master_ini, install() + "/dqinit/master.ini");
    std::string value = "untouched";
    root.masterIni("[S]\nk=v\nmissing=\nmarked=N/A\n");
    EXPECT_EQ(get_config_value("S", "k", &value), 0);
    EXPECT_EQ(value, "v");
    for (const char* key : {"missing", "marked", "absent"})
        EXPECT_EQ(get_config_value("S", key, &value), -1) << key;
}

TEST_F(Directories, ProgramAndCallNamesKeepWithinTheirLimits) {
    set_program_name("dir/abcdefghijklmnopqrstuvwxyz012345");
    EXPECT_EQ(ghAppName, "abcdefghijklmnopqrstuvwxyz012345");
    set_program_name("abcdefghijklmnopqrstuvwxyz0123456789");
    EXPECT_EQ(ghAppName, "efghijklmnopqrstuvwxyz0123456789");
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(push_name(std::string(100, 'x').c_str()), 0);
    EXPECT_EQ(dbproc_name(), std::string(63, 'x'));
    EXPECT_EQ(push_name("one too many"), -1);
    EXPECT_EQ(pop_name(), -1) << "a full stack is cleared";
}

}  // namespace
