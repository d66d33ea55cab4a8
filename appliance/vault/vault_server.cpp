// vaultServer - a replication target: stores blocks, rebuilds backups, and tells how far it is.
//
// All requests lie under /cgi-bin/vaultServer/. A malformed request, or one about a backup that isn't known, gets "405
// Bad Request"; a vault in maintenance (the file /var/run/vaultMaintenance exists) answers "503 Service Unavailable";
// whatever fails on this side is "500 Internal Server Error".

#include <getopt.h>
#include <malloc.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <thread>

#include "common/hactar.h"
#include "foundation/directories.h"
#include "foundation/logger.h"
#include "foundation/paths.h"
#include "foundation/services.h"
#include "foundation/signals.h"
#include "vault/block_store.h"
#include "vault/listener.h"
#include "vault/rebuilder.h"
#include "vault/target_catalogue.h"

namespace vault {
namespace {

namespace fs = std::filesystem;
using httplib::ContentReader;
using httplib::Request;
using httplib::Response;

constexpr std::uint64_t BODY_LIMIT = std::uint64_t{1} << 30;  // bytes of a request that is kept in memory
constexpr std::size_t CHECK_RECORD = 88;
constexpr std::size_t BLOCK_HEADER = 84;
constexpr int BAD_REQUEST = 405;
constexpr int UNAVAILABLE = 503;

// A request that breaks the protocol.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

template <typename T>
T numberAt(std::string_view bytes, std::size_t offset) {
    T number;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

template <typename T>
void append(std::string* bytes, const T& number) {
    bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

std::uint64_t headerNumber(const Request& request, const char* name, std::uint64_t missing) {
    if (!request.has_header(name))
        return missing;
    const std::string text = request.get_header_value(name);
    std::size_t used = 0;
    std::uint64_t number = 0;
    try {
        number = std::stoull(text, &used);
    } catch (const std::logic_error&) {
        used = 0;
    }
    if (used == 0 || used != text.size())
        throw BadRequest(std::string("header ") + name + " is no number");
    return number;
}

BlockKey keyAt(std::string_view record, std::uint64_t length, std::size_t digestAt) {
    if (std::memcmp(record.data(), "sha512\0", 8) != 0)
        throw BadRequest("unknown hash type");
    BlockKey key{};
    key.length = length;
    std::memcpy(key.digest.data(), record.data() + digestAt, key.digest.size());
    return key;
}

// Receives a body; `arrived` sees what is there after each piece.
template <typename Arrived>
std::string wholeBody(const ContentReader& reader, std::size_t announced, Arrived arrived) {
    std::string body;
    body.reserve(std::min<std::size_t>(announced, BODY_LIMIT));
    bool tooLong = false;
    if (!reader([&](const char* bytes, std::size_t count) {
            tooLong = body.size() + count > BODY_LIMIT;
            if (!tooLong) {
                body.append(bytes, count);
                arrived(std::string_view(body));
            }
            return !tooLong;
        }))
        throw BadRequest(tooLong ? "the body is too long" : "the body was cut off");
    return body;
}

std::string wholeBody(const ContentReader& reader) {
    return wholeBody(reader, 0, [](std::string_view) {});
}

// The blocks of a multiblock body, each checked as soon as it has arrived, while the next is still on its way.
class BlockParser {
public:
    struct Block {
        Reference reference;
        std::size_t offset;  // of its data in the body
    };

    void take(std::string_view body) {
        while (body.size() - done_ >= BLOCK_HEADER) {
            const std::string_view rest = body.substr(done_);
            const std::uint32_t length = numberAt<std::uint32_t>(rest, 8);
            if (length > rest.size() - BLOCK_HEADER)
                return;
            const BlockKey key = keyAt(rest, length, 12);
            if (sha512(std::as_bytes(std::span(rest.substr(BLOCK_HEADER, length)))) != key.digest)
                throw BadRequest("a block doesn't have the digest announced: " + toHex(key.digest));
            blocks_.push_back({{key, numberAt<std::uint64_t>(rest, 76)}, done_ + BLOCK_HEADER});
            done_ += BLOCK_HEADER + length;
        }
    }
    [[nodiscard]] std::size_t done() const { return done_; }
    [[nodiscard]] const std::vector<Block>& blocks() const { return blocks_; }

private:
    std::size_t done_ = 0;  // bytes of the body that were taken
    std::vector<Block> blocks_;
};

class Vault {
public:
    Vault(TargetCatalogue& catalogue, BlockStore& store, Rebuilder& rebuilder, std::chrono::milliseconds delay)
        : catalogue_(catalogue), store_(store), rebuilder_(rebuilder), delay_(delay) {}

    void route(Listener& listener) {
        on(listener, "backup-check", &Vault::backupCheck);
        on(listener, "start-backup", &Vault::startBackup);
        on(listener, "end-backup", &Vault::endBackup);
        on(listener, "backup-block-count", &Vault::blockCount);
        on(listener, "post-check-offset", &Vault::checkBlocks);
        on(listener, "multiblock", &Vault::manyBlocks);
        on(listener, "b-([^-/]+)-([0-9]+)-([0-9A-Fa-f]+)", &Vault::oneBlock);
        on(listener, "f-(/.*)", &Vault::file);
    }

private:
    using Handler = void (Vault::*)(const Request&, Response&, const ContentReader&);

    void on(Listener& listener, const std::string& name, Handler handler) {
        const auto guarded = [this, handler](const Request& request, Response& response, const ContentReader& reader) {
            answer(handler, request, response, reader);
        };
        listener.Post("/cgi-bin/vaultServer/" + name, guarded);
        listener.Put("/cgi-bin/vaultServer/" + name, guarded);
    }

    void answer(Handler handler, const Request& request, Response& response, const ContentReader& reader) {
        LOG_HERE(4, "%s %s", request.method.c_str(), request.path.c_str());
        std::this_thread::sleep_for(delay_);
        try {
            if (fs::exists(systemPath("/var/run/vaultMaintenance"))) {
                response.status = UNAVAILABLE;
                return;
            }
            if (headerNumber(request, "X-Protocol", 1) != 1)
                throw BadRequest("unknown protocol");
            (this->*handler)(request, response, reader);
        } catch (const BadRequest& e) {
            LOG_HERE(0, "%s: %s", request.path.c_str(), e.what());
            response.status = BAD_REQUEST;
        } catch (const std::exception& e) {
            LOG_HERE(0, "%s: %s", request.path.c_str(), e.what());
            response.status = 500;
        }
    }

    // The backup that a request is about; it must be one that is being built.
    std::uint64_t buildingBackup(const Request& request) {
        const std::uint64_t number = headerNumber(request, "X-BackupNo", 0);
        {
            const std::lock_guard guard(knownLock_);
            if (known_.contains(number))
                return number;
        }
        const BackupState state = catalogue_.find("", static_cast<std::int64_t>(number));
        if (state.number == 0)
            throw BadRequest("no such backup: " + std::to_string(number));
        const std::lock_guard guard(knownLock_);
        known_.insert(number);
        return number;
    }

    void backupCheck(const Request& request, Response& response, const ContentReader& reader) {
        const std::string body = wholeBody(reader);
        const BackupState state = catalogue_.find(std::string(body.c_str()),
                                                  static_cast<std::int64_t>(headerNumber(request, "X-BackupNo", 0)));
        std::string reply;
        append(&reply, state.number);
        append(&reply, state.status);
        append(&reply, state.properties);
        reply += body;
        append(&reply, crc32_buffer(reinterpret_cast<const unsigned char*>(reply.data()), reply.size()));
        response.set_content(reply, "application/octet-stream");
    }

    void startBackup(const Request& request, Response& response, const ContentReader& reader) {
        std::int64_t number = 0;
        switch (catalogue_.start(wholeBody(reader), request.has_header("X-Force"), &number)) {
            case Refusal::OutOfOrder:
                response.set_header("Warning",
                                    "Failed to process metaData, tried to insert out of order backup sequence.");
                break;
            case Refusal::CannotProcess:
                response.set_header("Warning", "Failed to process metaData");
                break;
            case Refusal::None:
                break;
        }
        response.set_content(std::to_string(number), "text/plain");
    }

    void endBackup(const Request& request, Response&, const ContentReader& reader) {
        const std::string message = wholeBody(reader);
        catalogue_.giveUp(request.get_header_value("X-BackupUUID"), message.c_str());
    }

    void blockCount(const Request& request, Response& response, const ContentReader& reader) {
        (void)wholeBody(reader);
        std::string reply;
        append(&reply, static_cast<std::int64_t>(store_.uniqueBlocks(buildingBackup(request))));
        response.set_content(reply, "application/octet-stream");
    }

    void checkBlocks(const Request& request, Response& response, const ContentReader& reader) {
        const std::uint64_t count = headerNumber(request, "X-Expect", 0);
        const std::string body = wholeBody(reader);
        if (body.size() % CHECK_RECORD != 0 || body.size() / CHECK_RECORD != count)
            throw BadRequest("the body doesn't hold the announced records");
        std::vector<Reference> references;
        references.reserve(count);
        for (std::string_view rest = body; !rest.empty(); rest.remove_prefix(CHECK_RECORD))
            references.push_back(
                {keyAt(rest, numberAt<std::uint64_t>(rest, 8), 16), numberAt<std::uint64_t>(rest, 80)});
        const std::uint64_t number = request.has_header("X-BackupNo") ? buildingBackup(request) : 0;
        std::string reply;
        for (const bool held : store_.refer(number, references))
            reply += held ? '1' : '0';
        response.set_content(reply, "application/octet-stream");
    }

    void manyBlocks(const Request& request, Response&, const ContentReader& reader) {
        const std::uint64_t number = buildingBackup(request);
        BlockParser parser;
        const std::string body = wholeBody(reader, headerNumber(request, "X-BackupSize", 0),
                                           [&](std::string_view arrived) { parser.take(arrived); });
        if (parser.done() != body.size())
            throw BadRequest("a block is cut off");
        if (parser.blocks().size() != headerNumber(request, "X-ClusterAmt", parser.blocks().size()))
            throw BadRequest("the body doesn't hold the announced blocks");
        std::vector<std::pair<BlockKey, std::span<const std::byte>>> blocks;
        std::vector<Reference> references;
        for (const BlockParser::Block& block : parser.blocks()) {
            const BlockKey& key = block.reference.block;
            blocks.emplace_back(key, std::as_bytes(std::span(body).subspan(block.offset, key.length)));
            references.push_back(block.reference);
        }
        store_.store(blocks);
        (void)store_.refer(number, references);
    }

    void oneBlock(const Request& request, Response&, const ContentReader& reader) {
        BlockKey key{};
        const std::uint64_t number = buildingBackup(request);
        if (request.matches[1] != "sha512" || !fromHex(request.matches[3].str(), &key.digest))
            throw BadRequest("not a block name");
        try {
            key.length = std::stoull(request.matches[2]);
        } catch (const std::out_of_range&) {
            throw BadRequest("not a block name");
        }
        if (key.length <= PACKED_LIMIT)
            smallBlock(key, wholeBody(reader));
        else
            largeBlock(key, reader);
        const Reference reference{key, headerNumber(request, "X-Offset", 0)};
        (void)store_.refer(number, {&reference, 1});
    }

    void smallBlock(const BlockKey& key, const std::string& body) {
        const std::pair<BlockKey, std::span<const std::byte>> block(key, std::as_bytes(std::span(body)));
        if (body.size() != key.length || sha512(block.second) != key.digest)
            throw BadRequest("the block isn't the one announced");
        store_.store({&block, 1});
    }

    void largeBlock(const BlockKey& key, const ContentReader& reader) {
        IncomingBlock incoming = store_.receive(key);
        const bool whole = reader([&](const char* bytes, std::size_t count) {
            incoming.add(bytes, count);
            return true;
        });
        if (!whole || !incoming.matches())
            throw BadRequest("the block isn't the one announced");
        store_.store(incoming);
    }

    // The final metadata file of a backup: kept, and the backup built from it.
    void file(const Request& request, Response&, const ContentReader& reader) {
        const std::uint64_t number = buildingBackup(request);
        const fs::path place = rebuilder_.hactarPath(static_cast<std::int64_t>(number));
        const fs::path temporary = place.string() + ".incoming";
        FILE* const out = fopen(temporary.c_str(), "wbe");
        if (out == nullptr)
            throw std::runtime_error("can't write " + temporary.string());
        bool written = true;
        const bool whole = reader([&](const char* bytes, std::size_t count) {
            written = written && fwrite(bytes, 1, count, out) == count;
            return written;
        });
        written = fclose(out) == 0 && written;
        if (!written)
            throw std::runtime_error("can't write " + temporary.string());
        if (!whole)
            throw BadRequest("the file was cut off");
        fs::rename(temporary, place);
        rebuilder_.build(static_cast<std::int64_t>(number));
    }

    TargetCatalogue& catalogue_;
    BlockStore& store_;
    Rebuilder& rebuilder_;
    std::chrono::milliseconds delay_;  // before each answer: a target that is far away
    std::mutex knownLock_;
    std::unordered_set<std::uint64_t> known_;  // backups that the catalogue has confirmed
};

// Bodies of megabytes come one behind the other: their memory is kept, or most of a request is the kernel clearing
// pages.
void keepFreedMemory() {
    constexpr int KEPT = 256 << 20;
    (void)mallopt(M_MMAP_THRESHOLD, KEPT);
    (void)mallopt(M_TRIM_THRESHOLD, KEPT);
}

int serve(int port, bool discard, std::chrono::milliseconds delay) {
    keepFreedMemory();
    TargetCatalogue catalogue;
    const fs::path device = catalogue.deviceDirectory();
    BlockStore store(device / "store", discard);
    Rebuilder rebuilder(catalogue, store, device);
    rebuilder.resume();
    Listener listener;
    Vault vault(catalogue, store, rebuilder, delay);
    vault.route(listener);

    const sigset_t stop = signalSet({SIGTERM, SIGINT});
    std::jthread stopper([&] {
        int number = 0;
        sigwait(&stop, &number);
        listener.stop();
    });
    LOG_HERE(2, "Listening on port %d", port);
    if (!listener.listen("127.0.0.1", port)) {
        LOG_HERE(0, "Can't listen on port %d", port);
        kill(getpid(), SIGTERM);
        return 1;
    }
    return 0;
}

}  // namespace
}  // namespace vault

int main(int argc, char** argv) {
    int port = 0;
    bool discard = false;
    int delayMs = 0;
    const option options[] = {{"port", required_argument, nullptr, 'p'},
                              {"discard", no_argument, nullptr, 'd'},
                              {"delay", required_argument, nullptr, 'l'},
                              {"help", no_argument, nullptr, 'h'},
                              {nullptr, 0, nullptr, 0}};
    for (int key; (key = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (key == 'p') {
            port = atoi(optarg);
        } else if (key == 'd') {
            discard = true;
        } else if (key == 'l') {
            delayMs = std::max(0, atoi(optarg));
        } else {
            fprintf(stderr, "Usage: vaultServer --port N [--discard] [--delay MS]\n");
            return key == 'h' ? 0 : 2;
        }
    }
    if (port <= 0 || port > 65535) {
        fprintf(stderr, "vaultServer: --port needs a number from 1 to 65535\n");
        return 2;
    }
    const sigset_t stop = signalSet({SIGTERM, SIGINT});
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // before any thread: one thread waits for them
    set_program_name("vaultServer");
    if (init_application() == -1 || OpenProgramLog("vaultServer", 1) == -1)
        return 1;
    try {
        return vault::serve(port, discard, std::chrono::milliseconds(delayMs));
    } catch (const std::exception& e) {
        LOG_HERE(0, "vaultServer can't go on: %s", e.what());
        fprintf(stderr, "vaultServer: %s\n", e.what());
        return 1;
    }
}
