// root.h - a root prefix of its own for one test: directories, dq.ini, master.ini, and the log as text.
#pragma once

#include "support/test.h"

namespace testsupport {

// Makes a temporary root with /etc/default/dq.ini (DQDIR inside the root), /usr/dq/dqinit/master.ini, bin and logs.dir,
// /var/run, /var/opt/kestrelix, /dev/shm and /tmp, points systemPath and the g_... variables at it, and sends the log
// at level 6 to a file in it. Removes all of it at the end.
class TestRoot {
public:
    TestRoot();
    TestRoot(const TestRoot&) = delete;
    TestRoot& operator=(const TestRoot&) = delete;
    ~TestRoot();

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(std::string_view below) const { return path_ / below; }

    // Replaces master.ini; its modification time rises by at least a second each time.
    void masterIni(std::string_view text);

    // What was logged so far; `logged` tells whether some line holds the text.
    [[nodiscard]] std::string log() const;
    [[nodiscard]] bool logged(std::string_view text) const;
    void clearLog();

private:
    std::filesystem::path path_;
    std::filesystem::path logPath_;
};

void writeFile(const std::filesystem::path& path, std::string_view text);
[[nodiscard]] std::string readFile(const std::filesystem::path& path);

}  // namespace testsupport
