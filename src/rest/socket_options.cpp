// The socket keys of master.ini, and the callback that puts them on each new connection.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "config/ini.h"
#include "log/logger.h"
#include "rest/session_internal.h"

namespace {

constexpr int TRACE_LEVEL = 3;  // above it each option is read back

// Written by readSocketOptions between jobs, read by every request.
struct SocketOptions {
    int timeoutSeconds = 0;
    unsigned char keepAlive = 1;
    int keepCount = 6;
    int keepIdleSeconds = 600;
    int keepIntervalSeconds = 300;
    bool tcpTuning = true;
};
SocketOptions g_options;

void readNumber(const char* key, int* value, const std::string& path) {
    *value = ini_get_int("Replication", key, *value, path);
    if (*value > 0)
        LOG_HERE(4, "%s %d", key, *value);
}

// For the log only.
void trace(curl_socket_t socket, int level, int option, const char* name) {
    if (log_level <= TRACE_LEVEL)
        return;
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(socket, level, option, &value, &length) == -1)
        LOG_HERE(4, "%s getsockopt failed, %s\n", name, strerror(errno));
    else if (length != sizeof value)
        LOG_HERE(4, "%s unexpected optvallen %d\n", name, static_cast<int>(length));
    else
        LOG_HERE(4, "%s getsockopt val %d\n", name, value);
}

// The two time-outs are timevals: their seconds are read back.
void traceTimeout(curl_socket_t socket, int option, const char* name) {
    if (log_level <= TRACE_LEVEL)
        return;
    timeval value{};
    socklen_t length = sizeof value;
    if (getsockopt(socket, SOL_SOCKET, option, &value, &length) == -1)
        LOG_HERE(4, "%s getsockopt failed, %s\n", name, strerror(errno));
    else if (length != sizeof value)
        LOG_HERE(4, "%s unexpected optvallen %d\n", name, static_cast<int>(length));
    else
        LOG_HERE(4, "%s getsockopt val %d\n", name, static_cast<int>(value.tv_sec));
}

bool setTimeout(curl_socket_t socket, int option, const char* traceName, const char* failureName) {
    const timeval value{g_options.timeoutSeconds, 0};
    traceTimeout(socket, option, traceName);
    if (setsockopt(socket, SOL_SOCKET, option, &value, sizeof value) == -1) {
        LOG_HERE(0, "%s setsockopt failed, %s\n", failureName, strerror(errno));
        return false;
    }
    traceTimeout(socket, option, traceName);
    return true;
}

void setNumber(curl_socket_t socket, int level, int option, int value, const char* name) {
    if (value <= 0)
        return;
    trace(socket, level, option, name);
    if (setsockopt(socket, level, option, &value, sizeof value) == -1)
        LOG_HERE(0, "%s setsockopt failed, %s\n", name, strerror(errno));
    else
        trace(socket, level, option, name);
}

}  // namespace

void readSocketOptions(const std::string& path) {
    readNumber("SOCKET_TIMEOUT", &g_options.timeoutSeconds, path);
    unsigned char keepAlive = g_options.keepAlive;
    (void)ini_get_bool("Replication", "SOCKET_KEEPALIVE", g_options.keepAlive, &keepAlive, path);
    g_options.keepAlive = keepAlive;
    if (keepAlive != 0) {
        LOG_HERE(4, "SOCKET_KEEPALIVE %d", keepAlive);
        readNumber("TCP_KEEPCNT", &g_options.keepCount, path);
        readNumber("TCP_KEEPIDLE", &g_options.keepIdleSeconds, path);
        readNumber("TCP_KEEPINTVL", &g_options.keepIntervalSeconds, path);
    }
    g_options.tcpTuning = g_options.keepCount > 0 || g_options.keepIdleSeconds > 0 || g_options.keepIntervalSeconds > 0;
}

int sockopt_callback(void*, curl_socket_t socket, curlsocktype purpose) {
    LOG_HERE(4, "Starting sockopt_callback\n");
    if (purpose != CURLSOCKTYPE_IPCXN)
        return 0;
    if (g_options.timeoutSeconds > 0 && (!setTimeout(socket, SO_RCVTIMEO, "SO_RCVTIMEO", "SO_RECVTIMEO") ||
                                         !setTimeout(socket, SO_SNDTIMEO, "SO_SNDTIMEO", "SO_SNDTIMEO")))
        return 1;
    if (g_options.keepAlive != 0)
        setNumber(socket, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
    if (!g_options.tcpTuning)
        return 0;
    setNumber(socket, IPPROTO_TCP, TCP_KEEPIDLE, g_options.keepIdleSeconds, "TCP_KEEPIDLE");
    setNumber(socket, IPPROTO_TCP, TCP_KEEPCNT, g_options.keepCount, "TCP_KEEPCNT");
    setNumber(socket, IPPROTO_TCP, TCP_KEEPINTVL, g_options.keepIntervalSeconds, "TCP_KEEPINTVL");
    return 0;
}

void installSocketCallback(CURL* handle) {
    if (g_options.timeoutSeconds == 0 && g_options.keepAlive == 0)
        return;
    const CURLcode code = curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &sockopt_callback);
    if (code != CURLE_OK)
        LOG_HERE(0, "CURLOPT_SOCKOPTFUNCTION curl_easy_setup failed, %d\n", static_cast<int>(code));
}
