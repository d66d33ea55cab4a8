// The road to the service: its state file, the connection, and transfers that end.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "base/paths.h"
#include "base/text.h"
#include "config/services.h"
#include "crypto/libCryptoDaemon_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr timeval TRANSFER_LIMIT{60, 0};               // for each wait of a transfer
constexpr std::chrono::milliseconds REST_LIMIT{1000};  // for what follows a good result

// What the service says of itself, as of one version of its file. In network order, as it is used.
struct State {
    std::uint16_t port = 0;
    Ticket ticket{};
    timespec modified{};
};

std::mutex g_stateLock;
State g_known;  // under g_stateLock

bool isOlder(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

int notRunning(CDlibResult* result) {
    return setResult(result, -1, "CryptoDaemon's not running or we're unprivileged");
}

int readState(const std::string& path, State* state, CDlibResult* result) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        return notRunning(result);
    struct stat st;
    std::byte record[wire::STATE_SIZE];
    const int size = static_cast<int>(sizeof record);
    // The size is the descriptor's: behind the name there may be a newer file by now.
    const int got = fstat(file.get(), &st) == -1 ? -1 : safe_read(file.get(), record, size);
    if (got == -1)
        return setResult(result, -1, "Can't read CryptoDaemon's state: %s", strerror(errno));
    const int found = got < size ? got : static_cast<int>(std::min<off_t>(st.st_size, INT_MAX));
    if (found != size)
        return setResult(result, -1, "state size %d != %d", found, size);
    state->modified = st.st_mtim;
    state->port = wire::get<std::uint16_t>(record, wire::STATE_PORT);
    std::memcpy(state->ticket.data(), record + wire::STATE_TICKET, state->ticket.size());
    return 0;
}

// The state as of now. A file that is gone means that the service is gone, whatever was read before.
int currentState(std::uint16_t* port, Ticket* ticket, CDlibResult* result) {
    const std::string path = systemPath(paths::CRYPTO_DAEMON_STATE);
    struct stat st;
    if (stat(path.c_str(), &st) == -1)
        return notRunning(result);
    const std::lock_guard lock(g_stateLock);
    if (g_known.port == 0 || !isOlder(st.st_mtim, g_known.modified)) {
        State fresh;
        if (const int rc = readState(path, &fresh, result); rc != 0)
            return rc;
        g_known = fresh;
    }
    *port = g_known.port;
    *ticket = g_known.ticket;
    return 0;
}

// A signal doesn't end an attempt to connect: it goes on, and its end shows on the socket. 0, or -1 with errno.
int connectTo(int socket, const sockaddr_in& address) {
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return 0;
    if (errno != EINTR)
        return -1;
    pollfd entry{socket, POLLOUT, 0};
    int ready;
    do
        ready = poll(&entry, 1, static_cast<int>(TRANSFER_LIMIT.tv_sec) * 1000);
    while (ready == -1 && errno == EINTR);
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (ready == -1 || (ready > 0 && getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == -1))
        return -1;
    errno = error;
    return error == 0 ? 0 : -1;
}

// One call of a transfer: the bytes done, 0 if the other end closed or time ran out (a short transfer, no error), or -1
// with errno.
template <typename Call>
ssize_t transferSome(Call call) {
    ssize_t n;
    do
        n = call();
    while (n == -1 && errno == EINTR);
    return n == -1 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : n;
}

ssize_t receiveSome(int socket, std::span<std::byte> data) {
    return transferSome([&] { return recv(socket, data.data(), data.size(), 0); });
}

}  // namespace

int setResult(CDlibResult* result, int status, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = vformatString(format, arguments);
    va_end(arguments);
    *result = {};
    result->status = status;
    std::memcpy(result->text, text.data(), std::min(text.size(), sizeof result->text - 1));
    return status;
}

int resultCode(const CDlibResult& result) {
    if (result.status == 0)
        return 0;
    return result.status < 0 && result.status >= INT_MIN ? static_cast<int>(result.status) : -1;
}

int CDlibConnect(FileDescriptor* socket, Ticket* ticket, CDlibResult* result) {
    sockaddr_in address{};
    if (const int rc = currentState(&address.sin_port, ticket, result); rc != 0)
        return rc;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    FileDescriptor made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    // The limit also ends a connect that nobody answers; without delay a chunk's tail isn't held back.
    if (!made.isOpen() ||
        setsockopt(made.get(), SOL_SOCKET, SO_RCVTIMEO, &TRANSFER_LIMIT, sizeof TRANSFER_LIMIT) == -1 ||
        setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &TRANSFER_LIMIT, sizeof TRANSFER_LIMIT) == -1 ||
        setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1)
        return setResult(result, -1, "Can't create socket to CryptoDaemon: %s", strerror(errno));
    if (connectTo(made.get(), address) == -1)
        return setResult(result, -1, "Can't connect to CryptoDaemon: %s", strerror(errno));
    *socket = std::move(made);
    return setResult(result, 0, "connection opened");
}

ssize_t sendAll(int socket, std::span<const std::byte> head, std::span<const std::byte> data) {
    std::size_t done = 0;
    while (done < head.size() + data.size()) {
        const std::size_t headDone = std::min(done, head.size());
        const std::span<const std::byte> headRest = head.subspan(headDone);
        const std::span<const std::byte> dataRest = data.subspan(done - headDone);
        iovec parts[] = {{const_cast<std::byte*>(headRest.data()), headRest.size()},
                         {const_cast<std::byte*>(dataRest.data()), dataRest.size()}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        const ssize_t n = transferSome([&] { return sendmsg(socket, &message, MSG_NOSIGNAL); });
        if (n == -1)
            return -1;
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

ssize_t receiveAll(int socket, std::span<std::byte> data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = receiveSome(socket, data.subspan(done));
        if (n == -1)
            return -1;
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

ssize_t receiveRecord(int socket, std::span<std::byte> record) {
    std::size_t done = 0;
    Clock::time_point restDeadline{};  // set when the result is there
    while (done < record.size()) {
        if (done >= wire::RESULT_SIZE) {
            if (wire::get<std::int64_t>(record.data(), wire::RESULT_STATUS) != 0)
                break;
            if (restDeadline == Clock::time_point{})
                restDeadline = Clock::now() + REST_LIMIT;
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(restDeadline - Clock::now()).count();
            pollfd entry{socket, POLLIN, 0};
            const int ready = left <= 0 ? 0 : poll(&entry, 1, static_cast<int>(left));
            if (ready == -1 && errno == EINTR)
                continue;
            if (ready <= 0)
                break;
        }
        const ssize_t n = receiveSome(socket, record.subspan(done));
        // Once the result is there it is told, whatever becomes of the rest.
        if (n == -1 && done < wire::RESULT_SIZE)
            return -1;
        if (n <= 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}
