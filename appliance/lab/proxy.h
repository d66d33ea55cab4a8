// proxy.h - a line of a given latency between a client and a server on loopback, that counts what crosses it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "base/file_descriptor.h"

namespace lab {

// Forwards each connection made to it; every byte arrives `delay` after it was sent, in both directions. Making a
// connection takes a round trip, as on a real line.
class Proxy {
public:
    Proxy(int serverPort, std::chrono::milliseconds delay);
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;
    ~Proxy();  // cuts all connections

    [[nodiscard]] std::string name() const { return "127.0.0.1:" + std::to_string(port_); }
    [[nodiscard]] std::uint64_t connections() const { return connections_; }
    [[nodiscard]] std::uint64_t bytesSent() const { return bytesSent_; }  // by clients

    // Bytes a second that clients send over the coming `time`. Starts in the middle of a second: who keeps to a limit
    // sends his share at a second's start, and a window that began just there would hold one more or one less.
    [[nodiscard]] double measureRate(std::chrono::seconds time) const;

private:
    struct Line {
        FileDescriptor client;
        FileDescriptor server;
        std::thread up;
        std::thread down;
    };

    void acceptAll();
    void open(FileDescriptor client);
    void pump(int from, int to, std::atomic<std::uint64_t>* counter) const;

    int serverPort_;
    std::chrono::milliseconds delay_;
    int port_ = 0;
    FileDescriptor listener_;
    std::atomic<std::uint64_t> connections_ = 0;
    std::atomic<std::uint64_t> bytesSent_ = 0;
    std::atomic<bool> ending_ = false;
    std::list<Line> lines_;  // the acceptor's, then the destructor's
    std::thread acceptor_;
};

}  // namespace lab
