#include "cryptoDaemon/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "log/logger.h"

namespace keyservice {
namespace {

constexpr std::chrono::seconds EXCHANGE_LIMIT{60};
constexpr std::chrono::seconds ENDING_LIMIT{2};
constexpr std::chrono::milliseconds TICK{1000};  // how late a time limit may be noticed
constexpr std::size_t MOST_CONNECTIONS = 800;    // below the usual limit of descriptors
constexpr int BACKLOG = 128;

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

Server::Server(const KeyStore& keys, const Ticket& ticket, std::uint16_t port)
    : keys_(keys),
      ticket_(ticket),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      scratch_(LONGEST_REQUEST) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const int on = 1;
    if (!listener_.isOpen() || setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        bind(listener_.get(), generic, size) == -1 || listen(listener_.get(), BACKLOG) == -1 ||
        getsockname(listener_.get(), generic, &size) == -1)
        throw std::runtime_error(std::string("can't listen: ") + strerror(errno));
    port_ = ntohs(address.sin_port);
}

Server::Connection::~Connection() {
    OPENSSL_cleanse(reply.data(), reply.size());
    OPENSSL_cleanse(received.data(), received.size());
}

void Server::run(int stop) {
    for (;;) {
        std::vector<pollfd> entries = {{stop, POLLIN, 0},
                                       {Clock::now() < acceptAgain_ ? -1 : listener_.get(), POLLIN, 0}};
        for (const Connection& connection : connections_)
            entries.push_back(
                {connection.socket.get(), static_cast<short>(connection.reply.empty() ? POLLIN : POLLOUT), 0});
        if (poll(entries.data(), entries.size(), static_cast<int>(TICK.count())) == -1) {
            if (errno != EINTR)
                throw std::runtime_error(std::string("can't wait for clients: ") + strerror(errno));
            continue;
        }
        if (entries[0].revents != 0)
            return;
        const Clock::time_point now = Clock::now();
        std::size_t entry = 2;
        for (auto connection = connections_.begin(); connection != connections_.end(); ++entry) {
            const short events = entries[entry].revents;
            // The limit first: a client that dribbles is ready all the time.
            const bool stays = connection->deadline > now && (events == 0 || serve(&*connection, events));
            connection = stays ? std::next(connection) : connections_.erase(connection);
        }
        if (entries[1].revents != 0)
            acceptOne();
    }
}

void Server::acceptOne() {
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isOpen()) {
        if (!wouldBlock() && errno != ECONNABORTED) {
            LOG_HERE(0, "Can't accept a client: %s", strerror(errno));
            acceptAgain_ = Clock::now() + TICK;
        }
        return;
    }
    if (connections_.size() >= MOST_CONNECTIONS) {
        LOG_HERE(0, "More than %zu clients: one was turned away", MOST_CONNECTIONS);
        return;
    }
    const int on = 1;
    (void)setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // an optimisation only
    connections_.emplace_back(std::move(socket), Session(keys_, ticket_), Clock::now() + EXCHANGE_LIMIT);
}

bool Server::serve(Connection* connection, short events) {
    if ((events & POLLOUT) != 0)  // more requests may have come behind the one whose reply goes out
        return sendReply(connection) && takeRequests(connection);
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0)
        return receive(connection);
    return false;
}

bool Server::receive(Connection* connection) {
    const std::size_t room = LONGEST_REQUEST - connection->received.size();
    const ssize_t got = recv(connection->socket.get(), scratch_.data(), room, 0);
    if (got == -1)
        return wouldBlock();
    if (got == 0)
        return false;
    if (connection->isEnding)
        return true;
    if (connection->received.empty())
        connection->deadline = Clock::now() + EXCHANGE_LIMIT;
    connection->received.insert(connection->received.end(), scratch_.begin(), scratch_.begin() + got);
    return takeRequests(connection);
}

// Answers what is whole, as long as the client takes the replies.
bool Server::takeRequests(Connection* connection) {
    std::vector<std::byte>& received = connection->received;
    while (connection->reply.empty() && !connection->isEnding) {
        try {
            const std::size_t size = Session::requestSize(received);
            if (size == 0 || size > received.size())
                break;
            connection->reply = connection->session.answer(std::span(received).first(size));
            received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(size));
        } catch (const Refused& refused) {
            refuse(connection, refused.what());
        } catch (const std::exception& e) {
            LOG_HERE(0, "A request failed: %s", e.what());
            refuse(connection, "the service failed");
        }
        if (!sendReply(connection))
            return false;
    }
    // A quiet session may last as long as its client.
    if (received.empty() && connection->reply.empty() && connection->session.isOpen() && !connection->isEnding)
        connection->deadline = Clock::time_point::max();
    return true;
}

void Server::refuse(Connection* connection, const char* text) {
    LOG_HERE(0, "Refused a request: %s", text);
    connection->received.clear();
    connection->reply = resultReply(-1, text);
    connection->isEnding = true;
}

bool Server::sendReply(Connection* connection) {
    std::string& reply = connection->reply;
    while (connection->sent < reply.size()) {
        const ssize_t sent = send(connection->socket.get(), reply.data() + connection->sent,
                                  reply.size() - connection->sent, MSG_NOSIGNAL);
        if (sent == -1 && wouldBlock()) {
            // POLLOUT brings us back; the client has a while from each piece that it takes.
            connection->deadline = Clock::now() + EXCHANGE_LIMIT;
            return true;
        }
        if (sent <= 0)
            return false;
        connection->sent += static_cast<std::size_t>(sent);
    }
    OPENSSL_cleanse(reply.data(), reply.size());  // it may have held a key
    reply.clear();
    connection->sent = 0;
    if (connection->isEnding) {
        // Closing now, with a request half read, would take the reply away from the client.
        (void)shutdown(connection->socket.get(), SHUT_WR);
        connection->deadline = Clock::now() + ENDING_LIMIT;
    }
    return true;
}

}  // namespace keyservice
