// cryptoDaemon - the key service: holds the archive key, opens sessions, wraps the keys of files in tokens.
//
// Clients find it by the state file, which holds the port and the ticket that every opening must show. Who can read
// that file can use the keys.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <openssl/rand.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/paths.h"
#include "base/signals.h"
#include "config/directories.h"
#include "config/program_log.h"
#include "config/services.h"
#include "cryptoDaemon/server.h"
#include "log/logger.h"

namespace keyservice {
namespace {

constexpr const char* KEY_FILE = "/var/opt/kestrelix/cryptoDaemon.key";

// The state file, there as long as this object.
class StateFile {
public:
    StateFile(std::uint16_t port, const Ticket& ticket) : path_(systemPath(paths::CRYPTO_DAEMON_STATE)) {
        std::byte record[wire::STATE_SIZE] = {};
        std::memcpy(record + wire::STATE_TICKET, ticket.data(), ticket.size());
        wire::put(record, wire::STATE_PORT, htons(port));
        const std::string temporary = path_ + ".new";
        (void)unlink(temporary.c_str());  // left behind by a death
        const FileDescriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.isOpen() || fchmod(file.get(), 0600) == -1 ||
            safe_write(file.get(), record, sizeof record) != sizeof record ||
            rename(temporary.c_str(), path_.c_str()) == -1)
            throw std::runtime_error("can't write " + path_ + ": " + strerror(errno));
    }
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;
    ~StateFile() { (void)unlink(path_.c_str()); }

private:
    std::string path_;
};

int serve(std::uint16_t port, const sigset_t& stopSignals) {
    const FileDescriptor stop(signalfd(-1, &stopSignals, SFD_CLOEXEC));
    if (!stop.isOpen())
        throw std::runtime_error(std::string("can't wait for signals: ") + strerror(errno));
    const KeyStore keys(systemPath(KEY_FILE));
    Ticket ticket;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(ticket.data()), static_cast<int>(ticket.size())) != 1)
        throw std::runtime_error("the cryptographic library can't make random numbers");
    Server server(keys, ticket, port);
    // Last: who finds it can connect.
    const StateFile state(server.port(), ticket);
    LOG_HERE(2, "Listening on port %d", server.port());
    server.run(stop.get());
    LOG_HERE(2, "Ended by a signal");
    return 0;
}

int usage(int status) {
    fprintf(status == 0 ? stdout : stderr, "Usage: cryptoDaemon [--port N]\n");
    return status;
}

}  // namespace
}  // namespace keyservice

int main(int argc, char** argv) {
    long port = 0;
    const option options[] = {
        {"port", required_argument, nullptr, 'p'}, {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
    for (int key; (key = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        char* end = nullptr;
        if (key == 'p' && (port = strtol(optarg, &end, 10)) >= 0 && port <= 65535 && end != optarg && *end == '\0')
            continue;
        return keyservice::usage(key == 'h' ? 0 : 2);
    }
    const rlimit none{0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);  // no dump of this process may hold its keys
    const sigset_t stop = signalSet({SIGTERM, SIGINT});
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // read from a descriptor instead
    set_program_name("cryptoDaemon");
    if (init_application() == -1 || OpenProgramLog("cryptoDaemon", 1) == -1)
        return 1;
    try {
        return keyservice::serve(static_cast<std::uint16_t>(port), stop);
    } catch (const std::exception& e) {
        LOG_HERE(0, "cryptoDaemon can't go on: %s", e.what());
        fprintf(stderr, "cryptoDaemon: %s\n", e.what());
        return 1;
    }
}
