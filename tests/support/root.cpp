#include "support/root.h"

#include "base/paths.h"
#include "config/directories.h"
#include "log/logger.h"
#include "support/test.h"

namespace testsupport {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::string_view text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out.flush())
        throw std::runtime_error("can't write " + path.string());
}

std::string readFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

TestRoot::TestRoot() {
    std::string pattern = fs::temp_directory_path() / "ferryd-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    for (const char* directory : {"etc/default", "usr/dq/dqinit", "usr/dq/bin", "usr/dq/logs.dir", "var/run",
                                  "var/opt/kestrelix", "dev/shm", "tmp"})
        fs::create_directories(path_ / directory);
    writeFile(path_ / "etc/default/dq.ini", "[Location Information]\n  DQDIR=" + (path_ / "usr/dq").string() + "\n");
    writeFile(path_ / "usr/dq/dqinit/master.ini", "");

    overrideSystemRoot(path_.string());
    g_appdir = path_ / "usr/dq";
    g_master_ini = path_ / "usr/dq/dqinit/master.ini";
    g_bindir = path_ / "usr/dq/bin";
    g_logdir = path_ / "usr/dq/logs.dir";

    logPath_ = path_ / "usr/dq/logs.dir/test.log";
    log_level = 6;
    log_screen_level = -1;
    log_simple = 0;
    log_set_rotation(nullptr, 0, 0, 1, nullptr);
    std::string logPath = logPath_;
    if (OpenLog(&logPath) != 0)
        throw std::runtime_error("can't open " + logPath_.string());
}

TestRoot::~TestRoot() {
    close_log();
    log_level = 0;
    overrideSystemRoot("");
    std::error_code ignored;
    if (::testing::Test::HasFailure() && getenv("FERRYD_KEEP") != nullptr)
        fprintf(stderr, "kept: %s\n", path_.c_str());
    else
        fs::remove_all(path_, ignored);
}

void TestRoot::masterIni(std::string_view text) {
    const fs::path file = path_ / "usr/dq/dqinit/master.ini";
    const auto before = fs::last_write_time(file);
    writeFile(file, text);
    fs::last_write_time(file, before + std::chrono::seconds(2));
}

std::string TestRoot::log() const {
    log_flush();
    return readFile(logPath_);
}

bool TestRoot::logged(std::string_view text) const {
    return log().find(text) != std::string::npos;
}

void TestRoot::clearLog() {
    log_flush();
    fs::resize_file(logPath_, 0);
}

}  // namespace testsupport
