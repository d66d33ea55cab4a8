// vaultServer - a replication target: stores blocks, rebuilds backups, and tells how far it is.
//
// All requests lie under /cgi-bin/vaultServer/. A malformed request, or one with work for a backup that isn't being
// built, gets "405 Bad Request"; a vault in maintenance (the file /var/run/vaultMaintenance exists) answers "503
// Service Unavailable"; whatever fails on this side is "500 Internal Server Error".

#include <getopt.h>
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

#include "base/paths.h"
#include "base/signals.h"
#include "bookkeeping/common.h"
#include "common/hactar.h"
#include "config/directories.h"
#include "config/program_log.h"
#include "config/services.h"
#include "log/logger.h"
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
constexpr std::size_t KEPT_LIMIT = std::size_t{64} << 20;     // bytes that a thread keeps for its next request
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

// Receives a body piece by piece.
template <typename Take>
void receive(const ContentReader& reader, Take take) {
    std::size_t received = 0;
    bool tooLong = false;
    if (!reader([&](const char* bytes, std::size_t count) {
            received += count;
            tooLong = received > BODY_LIMIT;
            if (!tooLong)
                take(std::string_view(bytes, count));
            return !tooLong;
        }))
        throw BadRequest(tooLong ? "the body is too long" : "the body was cut off");
}

std::string wholeBody(const ContentReader& reader) {
    std::string body;
    receive(reader, [&](std::string_view piece) { body += piece; });
    return body;
}

// The blocks of a multiblock body. Each piece is hashed as it arrives, while it is in the processor's cache and the
// next is still on its way; what is kept of it goes to `kept`, null for nothing.
class BlockParser {
public:
    explicit BlockParser(std::string* kept) : kept_(kept) {
        if (kept_ != nullptr)
            kept_->clear();
    }

    void take(std::string_view piece) {
        while (!piece.empty())
            piece.remove_prefix(digest_ ? takeData(piece) : takeHeader(piece));
    }
    [[nodiscard]] bool isWhole() const { return !digest_ && header_.empty(); }
    [[nodiscard]] const std::vector<Reference>& references() const { return references_; }

    // With their data, once the body is whole.
    [[nodiscard]] std::vector<std::pair<BlockKey, std::span<const std::byte>>> blocks() const {
        std::vector<std::pair<BlockKey, std::span<const std::byte>>> blocks;
        std::size_t offset = 0;
        for (const Reference& reference : references_) {
            const std::size_t length = kept_ != nullptr ? reference.block.length : 0;
            if (kept_ != nullptr)
                blocks.emplace_back(reference.block, std::as_bytes(std::span(*kept_).subspan(offset, length)));
            else
                blocks.emplace_back(reference.block, std::span<const std::byte>());
            offset += length;
        }
        return blocks;
    }

private:
    std::size_t takeHeader(std::string_view piece) {
        const std::size_t taken = std::min(piece.size(), BLOCK_HEADER - header_.size());
        header_ += piece.substr(0, taken);
        if (header_.size() < BLOCK_HEADER)
            return taken;
        left_ = numberAt<std::uint32_t>(header_, 8);
        references_.push_back({keyAt(header_, left_, 12), numberAt<std::uint64_t>(header_, 76)});
        header_.clear();
        digest_.emplace();
        if (left_ == 0)
            endBlock();
        return taken;
    }

    std::size_t takeData(std::string_view piece) {
        const std::size_t taken = std::min(piece.size(), left_);
        digest_->add(piece.data(), taken);
        if (kept_ != nullptr)
            kept_->append(piece.data(), taken);
        left_ -= taken;
        if (left_ == 0)
            endBlock();
        return taken;
    }

    void endBlock() {
        const Sha512& announced = references_.back().block.digest;
        if (digest_->finish() != announced)
            throw BadRequest("a block doesn't have the digest announced: " + toHex(announced));
        digest_.reset();
    }

    std::string* kept_;
    std::string header_;                  // what is there of the next block's header
    std::optional<Sha512Stream> digest_;  // of the block that is arriving
    std::size_t left_ = 0;                // bytes of it that are still to come
    std::vector<Reference> references_;
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
            // The body of a refused request must not be taken for the next request.
            bool asked = false;
            bool whole = false;
            const ContentReader tracked(
                [&](httplib::ContentReceiver receiver) {
                    asked = true;
                    return whole = reader(std::move(receiver));
                },
                nullptr);
            answer(handler, request, response, tracked);
            if (!asked)
                whole = reader([](const char*, std::size_t) { return true; });
            if (!whole)
                Listener::closeAfterReply();
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
        const BackupState state = number == 0 ? BackupState() : catalogue_.find("", static_cast<std::int64_t>(number));
        if (state.number == 0 || (state.status & ST_BUILDING) == 0)
            throw BadRequest("not a backup that is being built: " + std::to_string(number));
        return number;
    }

    // A body whose length the header `X-Amt` tells.
    static std::string announcedBody(const Request& request, const ContentReader& reader) {
        std::string body = wholeBody(reader);
        expect(request, "X-Amt", body.size());
        return body;
    }

    static void expect(const Request& request, const char* name, std::uint64_t count) {
        if (headerNumber(request, name, ~count) != count)
            throw BadRequest(std::string("the body isn't what ") + name + " says");
    }

    void backupCheck(const Request& request, Response& response, const ContentReader& reader) {
        const std::string body = announcedBody(request, reader);
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
        switch (catalogue_.start(announcedBody(request, reader), request.has_header("X-Force"), &number)) {
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
        const std::string message = announcedBody(request, reader);
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
        // Of this thread: with fresh memory for each request, clearing its pages would cost a tenth of the time.
        thread_local std::string kept;
        BlockParser parser(store_.discards() ? nullptr : &kept);
        std::uint64_t size = 0;
        receive(reader, [&](std::string_view piece) {
            size += piece.size();
            parser.take(piece);
        });
        expect(request, "X-BackupSize", size);
        if (!parser.isWhole())
            throw BadRequest("a block is cut off");
        expect(request, "X-ClusterAmt", parser.references().size());
        store_.store(parser.blocks());
        (void)store_.refer(number, parser.references());
        if (kept.capacity() > KEPT_LIMIT)
            kept = std::string();
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
};

int serve(int port, bool discard, std::chrono::milliseconds delay) {
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
