#include "lab/proxy.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <vector>

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t CHUNK = 256 << 10;
constexpr std::size_t MOST_ON_THE_WAY = 16 << 20;  // bytes; then the sender has to wait

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

bool sendAll(int socket, const std::vector<char>& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

struct Packet {
    Clock::time_point due;
    std::vector<char> bytes;  // empty: the end
};

}  // namespace

Proxy::Proxy(int serverPort, std::chrono::milliseconds delay)
    : serverPort_(serverPort), delay_(delay), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    if (listener_.get() == -1 || bind(listener_.get(), raw, length) == -1 || listen(listener_.get(), 64) == -1 ||
        getsockname(listener_.get(), raw, &length) == -1)
        fail("proxy");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread(&Proxy::acceptAll, this);
}

Proxy::~Proxy() {
    ending_ = true;
    (void)shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (Line& line : lines_) {
        (void)shutdown(line.client.get(), SHUT_RDWR);
        (void)shutdown(line.server.get(), SHUT_RDWR);
    }
    for (Line& line : lines_) {
        line.up.join();
        line.down.join();
    }
}

double Proxy::measureRate(std::chrono::seconds time) const {
    using std::chrono::system_clock;
    const auto start = std::chrono::ceil<std::chrono::seconds>(system_clock::now()) + std::chrono::milliseconds(500);
    std::this_thread::sleep_until(start);
    const std::uint64_t before = bytesSent_;
    std::this_thread::sleep_until(start + time);
    return static_cast<double>(bytesSent_ - before) / static_cast<double>(time.count());
}

void Proxy::acceptAll() {
    while (!ending_) {
        FileDescriptor client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() != -1)
            open(std::move(client));
    }
}

void Proxy::open(FileDescriptor client) {
    FileDescriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(serverPort_);
    const int noDelay = 1;
    if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        return;
    for (const int socket : {client.get(), server.get()})
        (void)setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    ++connections_;
    Line& line = lines_.emplace_back();
    line.client = std::move(client);
    line.server = std::move(server);
    line.up = std::thread(&Proxy::pump, this, line.client.get(), line.server.get(), &bytesSent_);
    line.down = std::thread(&Proxy::pump, this, line.server.get(), line.client.get(), nullptr);
}

void Proxy::pump(int from, int to, std::atomic<std::uint64_t>* counter) const {
    std::deque<Packet> packets;
    std::size_t onTheWay = 0;
    bool ended = false;
    const Clock::time_point opened = Clock::now() + 2 * delay_;  // the round trip of connecting
    while (!ended || !packets.empty()) {
        const auto now = Clock::now();
        if (!packets.empty() && packets.front().due <= now) {
            if (packets.front().bytes.empty() || !sendAll(to, packets.front().bytes))
                break;
            onTheWay -= packets.front().bytes.size();
            packets.pop_front();
            continue;
        }
        const auto left = packets.empty() ? std::chrono::milliseconds(-1)
                                          : std::chrono::ceil<std::chrono::milliseconds>(packets.front().due - now);
        pollfd readable{ended || onTheWay >= MOST_ON_THE_WAY ? -1 : from, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(left.count())) <= 0)
            continue;
        std::vector<char> bytes(CHUNK);
        const ssize_t n = recv(from, bytes.data(), bytes.size(), 0);
        ended = n <= 0;
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        onTheWay += bytes.size();
        if (counter != nullptr)
            *counter += bytes.size();
        packets.push_back({std::max(opened, Clock::now() + delay_), std::move(bytes)});
    }
    (void)shutdown(to, SHUT_WR);
}

}  // namespace lab
