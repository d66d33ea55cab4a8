#include <netinet/in.h>
#include <netinet/tcp.h>

#include "base/file_descriptor.h"
#include "config/directories.h"
#include "rest/lifecycle.h"
#include "rest/session_internal.h"
#include "support/root.h"
#include "support/scripted_server.h"

namespace {

int optionOf(int socket, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(socket, level, option, &value, &size), 0);
    return value;
}

// SO_KEEPALIVE, TCP_KEEPIDLE, TCP_KEEPCNT, TCP_KEEPINTVL and seconds of SO_RCVTIMEO and SO_SNDTIMEO of a new socket.
std::vector<int> optionsOfNewSocket() {
    const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(sockopt_callback(nullptr, socket.get(), CURLSOCKTYPE_IPCXN), 0);
    return {optionOf(socket.get(), SOL_SOCKET, SO_KEEPALIVE), optionOf(socket.get(), IPPROTO_TCP, TCP_KEEPIDLE),
            optionOf(socket.get(), IPPROTO_TCP, TCP_KEEPCNT), optionOf(socket.get(), IPPROTO_TCP, TCP_KEEPINTVL),
            optionOf(socket.get(), SOL_SOCKET, SO_RCVTIMEO),  optionOf(socket.get(), SOL_SOCKET, SO_SNDTIMEO)};
}

TEST(SocketOptions, FollowTheFileAndOutliveTheirKeys) {
    testsupport::TestRoot root;
    testsupport::ScriptedServer server;
    server.standing(testsupport::answer(testsupport::ok("")));
    const FileDescriptor fresh(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int systemInterval = optionOf(fresh.get(), IPPROTO_TCP, TCP_KEEPINTVL);
    int curl = 0;
    const auto expect = [&](const char* what, const std::string& keys, bool installed,
                            const std::vector<int>& options) {
        root.masterIni("[Replication]\n" + keys);
        readSocketOptions(g_master_ini);
        root.clearLog();
        EXPECT_EQ(endBackup(server.name(), "u", "m", &curl), 0);
        EXPECT_EQ(root.logged("Starting sockopt_callback"), installed) << what;
        EXPECT_EQ(optionsOfNewSocket(), options) << what;
    };
    const std::vector<int> allSet = {1, 77, 3, 5, 9, 9};
    expect("defaults", "", true, {1, 600, 6, 300, 0, 0});
    expect("all set", "SOCKET_TIMEOUT=9\nTCP_KEEPIDLE=77\nTCP_KEEPCNT=3\nTCP_KEEPINTVL=5\n", true, allSet);
    expect("keys that went", "", true, allSet);
    expect("a zero leaves the system's", "TCP_KEEPINTVL=0\nSOCKET_TIMEOUT=-1\n", true,
           {1, 77, 3, systemInterval, 0, 0});
    expect("no keepalive: the TCP keys aren't read", "SOCKET_KEEPALIVE=no\nTCP_KEEPIDLE=5\nSOCKET_TIMEOUT=2\n", true,
           {0, 77, 3, systemInterval, 2, 2});
    expect("nothing wanted", "SOCKET_KEEPALIVE=no\nSOCKET_TIMEOUT=0\n", false, {0, 77, 3, systemInterval, 0, 0});
    expect("back again", "SOCKET_KEEPALIVE=yes\nTCP_KEEPIDLE=600\nTCP_KEEPCNT=6\nTCP_KEEPINTVL=300\n", true,
           {1, 600, 6, 300, 0, 0});
}

TEST(SocketOptions, OnlyATimeOutThatCannotBeSetGivesTheConnectionUp) {
    testsupport::TestRoot root;
    EXPECT_EQ(sockopt_callback(nullptr, -1, CURLSOCKTYPE_IPCXN), 0);
    EXPECT_TRUE(root.logged("SO_KEEPALIVE setsockopt failed, Bad file descriptor"));
    root.masterIni("[Replication]\nSOCKET_TIMEOUT=3\n");
    readSocketOptions(g_master_ini);
    EXPECT_EQ(sockopt_callback(nullptr, -1, CURLSOCKTYPE_IPCXN), 1);
    EXPECT_EQ(sockopt_callback(nullptr, -1, CURLSOCKTYPE_ACCEPT), 0);
    root.masterIni("[Replication]\nSOCKET_TIMEOUT=0\n");
    readSocketOptions(g_master_ini);
}

}  // namespace
