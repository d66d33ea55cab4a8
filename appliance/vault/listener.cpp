#include "vault/listener.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "base/file_descriptor.h"

namespace vault {
namespace {

constexpr std::size_t READ_BUFFER = 256 << 10;
constexpr int KEEP_ALIVE_MS = 5000;
constexpr int BODY_WAIT_MS = 60000;

// The library knows the usual reason for 405; clients of a vault compare the whole line.
constexpr std::string_view USUAL_405 = "HTTP/1.1 405 Method Not Allowed\r\n";
constexpr std::string_view VAULT_405 = "HTTP/1.1 405 Bad Request\r\n";

thread_local bool closeConnection = false;  // one thread serves a connection from its first request to its last

class SocketStream : public httplib::Stream {
public:
    explicit SocketStream(int socket) : socket_(socket), buffer_(READ_BUFFER) {}

    [[nodiscard]] bool waitReadable(int timeoutMs) const { return filled_ > position_ || ready(POLLIN, timeoutMs); }
    bool is_readable() const override { return waitReadable(BODY_WAIT_MS); }
    bool is_writable() const override { return ready(POLLOUT, BODY_WAIT_MS); }

    ssize_t read(char* destination, size_t size) override {
        if (position_ == filled_) {
            if (!is_readable())
                return -1;
            ssize_t n;
            do
                n = recv(socket_, buffer_.data(), buffer_.size(), 0);
            while (n == -1 && errno == EINTR);
            if (n <= 0)
                return n;
            position_ = 0;
            filled_ = static_cast<std::size_t>(n);
        }
        const std::size_t n = std::min(size, filled_ - position_);
        std::memcpy(destination, buffer_.data() + position_, n);
        position_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* source, size_t size) override {
        std::string_view text(source, size);
        if (text.starts_with(USUAL_405)) {
            if (!sendAll(VAULT_405))
                return -1;
            text.remove_prefix(USUAL_405.size());
        }
        return sendAll(text) ? static_cast<ssize_t>(size) : -1;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = "127.0.0.1";
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override { get_remote_ip_and_port(ip, port); }
    socket_t socket() const override { return socket_; }

private:
    [[nodiscard]] bool ready(short events, int timeoutMs) const {
        pollfd entry{socket_, events, 0};
        int n;
        do
            n = poll(&entry, 1, timeoutMs);
        while (n == -1 && errno == EINTR);
        return n == 1;
    }

    [[nodiscard]] bool sendAll(std::string_view text) const {
        while (!text.empty()) {
            if (!is_writable())
                return false;
            const ssize_t n = send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
            if (n == -1 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            text.remove_prefix(static_cast<std::size_t>(n));
        }
        return true;
    }

    int socket_;
    std::vector<char> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
};

}  // namespace

void Listener::closeAfterReply() {
    closeConnection = true;
}

bool Listener::process_and_close_socket(socket_t socket) {
    const FileDescriptor owner(socket);
    const int on = 1;
    (void)setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // an optimisation only
    SocketStream stream(socket);
    bool closed = false;
    bool good = true;
    closeConnection = false;
    while (good && !closed && !closeConnection && is_running() && stream.waitReadable(KEEP_ALIVE_MS))
        good = process_request(stream, false, closed, nullptr);
    return good;
}

}  // namespace vault
