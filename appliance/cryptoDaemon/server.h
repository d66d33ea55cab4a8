// server.h - the connections of the key service, all in one thread.
//
// A client that does its own cipher work keeps a quiet connection for hours, so there can be many, and each costs
// little more than its descriptor. What isn't quiet has a time limit: a request that doesn't become whole, a reply that
// isn't fetched, a connection without a session.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <vector>

#include "base/file_descriptor.h"
#include "cryptoDaemon/session.h"

namespace keyservice {

using Clock = std::chrono::steady_clock;

class Server {
public:
    // Listens on loopback; port 0 takes any that is free.
    Server(const KeyStore& keys, const Ticket& ticket, std::uint16_t port);

    [[nodiscard]] std::uint16_t port() const { return port_; }

    // Serves until `stop` (a signalfd) can be read.
    void run(int stop);

private:
    struct Connection {
        FileDescriptor socket;
        Session session;
        std::vector<std::byte> received;  // no more than the longest request
        std::string reply;                // what is left of it
        std::size_t sent = 0;
        bool isEnding = false;  // after the reply, waits for the client to go
        Clock::time_point deadline;

        Connection(FileDescriptor client, Session own, Clock::time_point limit)
            : socket(std::move(client)), session(std::move(own)), deadline(limit) {}
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
        ~Connection();  // wipes what it has, which may be a key that wasn't fetched
    };

    void acceptOne();
    // Each is false when the connection is over.
    [[nodiscard]] bool serve(Connection* connection, short events);
    [[nodiscard]] bool receive(Connection* connection);
    [[nodiscard]] bool sendReply(Connection* connection);
    [[nodiscard]] bool takeRequests(Connection* connection);
    void refuse(Connection* connection, const char* text);

    const KeyStore& keys_;
    const Ticket& ticket_;
    FileDescriptor listener_;
    std::uint16_t port_ = 0;
    Clock::time_point acceptAgain_{};  // not before that, after a failure
    std::list<Connection> connections_;
    std::vector<std::byte> scratch_;
};

}  // namespace keyservice
