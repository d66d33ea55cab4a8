// scripted_server.h - an HTTP peer on loopback that does exactly what a test says, down to the byte at which it stops.
//
// Each connection plays one script in a thread of its own: first those that were queued, in the order in which
// connections come, then the standing one. Every request is recorded as it came over the wire.
#pragma once

#include <list>

#include "base/file_descriptor.h"
#include "support/test.h"

namespace testsupport {

struct Request {
    std::string line;                  // "PUT /path HTTP/1.1"
    std::vector<std::string> headers;  // the lines as they came, in order
    std::string body;                  // without the framing of chunks
    bool isComplete = false;           // whether the whole body came

    [[nodiscard]] std::string path() const;
    // The value of a header; empty if it is absent.
    [[nodiscard]] std::string header(std::string_view name) const;
    // The header lines that begin with "X-", in order, joined by '|'.
    [[nodiscard]] std::string ownHeaders() const;
};

// The server's end of one connection, for scripts.
class Peer {
public:
    // Reads request line and headers; false if the client went before.
    bool readHead();
    // Reads the body, after the interim reply if the client waits for it; false if it is cut off.
    bool readBody();
    bool readRequest() { return readHead() && readBody(); }
    // Reads what comes next, at most that many bytes; empty at the end.
    std::string readSome(std::size_t most);
    bool send(std::string_view raw);
    // Ends the connection with a reset, so that the client loses even what was sent.
    void reset();
    // Returns when the client has gone or the server ends.
    void waitForEnd();

    [[nodiscard]] const Request& request() const { return request_; }

private:
    friend class ScriptedServer;
    explicit Peer(FileDescriptor socket, std::function<void(const Request&)> record)
        : socket_(std::move(socket)), record_(std::move(record)) {}
    bool fill();
    bool readLine(std::string* line);
    bool readBytes(std::size_t count, std::string* text);
    bool readChunks();

    FileDescriptor socket_;
    std::function<void(const Request&)> record_;
    std::string buffer_;  // received, not yet taken
    Request request_;
};

class ScriptedServer {
public:
    using Script = std::function<void(Peer&)>;

    ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    ~ScriptedServer();

    // What a target is called: "127.0.0.1:PORT".
    [[nodiscard]] const std::string& name() const { return name_; }

    // For one more connection.
    void next(Script script) {
        const std::lock_guard lock(mutex_);
        scripts_.push_back(std::move(script));
    }
    // For all after those; at first a close without a word.
    void standing(Script script) {
        const std::lock_guard lock(mutex_);
        standing_ = std::move(script);
    }

    // The requests whose head came, once no script is running any more.
    [[nodiscard]] std::vector<Request> requests();
    [[nodiscard]] Request lastRequest() {
        const std::vector<Request> all = requests();
        return all.empty() ? Request{} : all.back();
    }

private:
    void acceptAll();
    void play(FileDescriptor socket, Script script, std::size_t number);

    FileDescriptor listener_;
    std::string name_;
    std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<Script> scripts_;
    Script standing_ = [](Peer&) {};
    std::map<std::size_t, Request> recorded_;  // by the number of the connection
    std::map<std::size_t, int> open_;          // sockets of running scripts
    std::list<std::thread> players_;
    bool ending_ = false;
    std::thread acceptor_;
};

// A complete reply.
[[nodiscard]] std::string ok(std::string_view body);

// Scripts: read the whole request, then send this or (close) nothing.
[[nodiscard]] ScriptedServer::Script answer(std::string raw);

}  // namespace testsupport
