#include "support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace testsupport {

static constexpr std::size_t READ_SIZE = 65536;

std::string Request::path() const {
    const std::size_t start = line.find(' ') + 1;
    return line.substr(start, line.rfind(' ') - start);
}

std::string Request::header(std::string_view name) const {
    for (const std::string& text : headers)
        if (text.starts_with(name) && text.substr(name.size(), 1) == ":")
            return text.substr(std::min(text.size(), text.find_first_not_of(' ', name.size() + 1)));
    return "";
}

std::string Request::ownHeaders() const {
    std::string own;
    for (const std::string& text : headers)
        if (text.starts_with("X-"))
            own += (own.empty() ? "" : "|") + text;
    return own;
}

bool Peer::fill() {
    char bytes[READ_SIZE];
    const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, 0);
    buffer_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return got > 0;
}

bool Peer::readLine(std::string* line) {
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n")) == std::string::npos)
        if (!fill())
            return false;
    *line = buffer_.substr(0, end);
    buffer_.erase(0, end + 2);
    return true;
}

bool Peer::readBytes(std::size_t count, std::string* text) {
    bool more = true;
    while (more && buffer_.size() < count)
        more = fill();
    text->append(buffer_, 0, count);
    buffer_.erase(0, count);
    return more;
}

bool Peer::readHead() {
    request_ = {};
    if (!readLine(&request_.line))
        return false;
    std::string line;
    while (readLine(&line) && !line.empty())
        request_.headers.push_back(line);
    record_(request_);
    return line.empty();
}

bool Peer::readChunks() {
    for (std::string line; readLine(&line);) {
        std::string chunk;
        const std::size_t size = std::strtoul(line.c_str(), nullptr, 16);
        if (!readBytes(size, &chunk) || !readLine(&line))
            break;
        if (size == 0)
            return true;
        request_.body += chunk;
    }
    return false;
}

bool Peer::readBody() {
    if (request_.header("Expect") == "100-continue" && !send("HTTP/1.1 100 Continue\r\n\r\n"))
        return false;
    const std::size_t length = std::strtoul(request_.header("Content-Length").c_str(), nullptr, 10);
    const bool chunked = request_.header("Transfer-Encoding") == "chunked";
    request_.isComplete = chunked ? readChunks() : readBytes(length, &request_.body);
    record_(request_);
    return request_.isComplete;
}

std::string Peer::readSome(std::size_t most) {
    if (buffer_.empty() && !fill())
        return "";
    const std::string taken = buffer_.substr(0, most);
    buffer_.erase(0, taken.size());
    return taken;
}

bool Peer::send(std::string_view raw) {
    while (!raw.empty()) {
        const ssize_t sent = ::send(socket_.get(), raw.data(), raw.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        raw.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void Peer::reset() {
    const linger atOnce{1, 0};
    (void)setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

void Peer::waitForEnd() {
    while (!readSome(READ_SIZE).empty()) {
    }
}

ScriptedServer::ScriptedServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    for (const char* variable : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"})
        (void)unsetenv(variable);
    // A request without a body reads standard input, which in the daemon is empty too.
    if (std::freopen("/dev/null", "r", stdin) == nullptr)
        throw std::runtime_error("can't open /dev/null");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.get(), generic, size) == -1 || listen(listener_.get(), 64) == -1 ||
        getsockname(listener_.get(), generic, &size) == -1)
        throw std::runtime_error("can't listen on loopback");
    name_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    acceptor_ = std::thread([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        for (const auto& [number, socket] : open_)
            (void)shutdown(socket, SHUT_RDWR);
    }
    (void)shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (std::thread& player : players_)
        player.join();
}

void ScriptedServer::acceptAll() {
    for (std::size_t number = 0;; ++number) {
        FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const std::lock_guard lock(mutex_);
        if (!socket.isOpen() || ending_)
            return;
        open_[number] = socket.get();
        Script script = standing_;
        if (!scripts_.empty()) {
            script = std::move(scripts_.front());
            scripts_.pop_front();
        }
        players_.emplace_back(&ScriptedServer::play, this, std::move(socket), std::move(script), number);
    }
}

void ScriptedServer::play(FileDescriptor socket, Script script, std::size_t number) {
    Peer peer(std::move(socket), [this, number](const Request& request) {
        const std::lock_guard lock(mutex_);
        recorded_[number] = request;
    });
    script(peer);
    const std::lock_guard lock(mutex_);
    open_.erase(number);
    peer.socket_.reset();
    idle_.notify_all();
}

std::vector<Request> ScriptedServer::requests() {
    std::unique_lock lock(mutex_);
    if (!idle_.wait_for(lock, std::chrono::seconds(10), [this] { return open_.empty(); }))
        throw std::runtime_error("a script didn't end");
    std::vector<Request> list;
    for (const auto& [number, request] : recorded_)
        list.push_back(request);
    return list;
}

std::string ok(std::string_view body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

ScriptedServer::Script answer(std::string raw) {
    return [raw = std::move(raw)](Peer& peer) {
        if (peer.readRequest())
            peer.send(raw);
    };
}

}  // namespace testsupport
