// crypto_fixture.h - a root with a state file, a service of scripts, and records as text.
#pragma once

#include <arpa/inet.h>

#include "crypto/libCryptoDaemon_internal.h"
#include "support/bytes.h"
#include "support/root.h"
#include "support/scripted_server.h"

namespace testsupport {

template <typename T>
std::string raw(T value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

// A result record, and a request's head.
inline std::string resultRecord(std::int64_t status, std::string text = "") {
    text.resize(64);
    return std::string(8, '\0') + raw(status) + text;
}
inline std::string requestHead(std::uint64_t operation) {
    return std::string(8, '\0') + raw(operation);
}
inline std::string chunkRecord(const std::string& head, std::uint32_t sequence, std::uint32_t length) {
    std::string record = head;
    record.resize(80);
    return record + raw(sequence) + std::string(8, '\0') + raw(length);
}
inline std::string wordRecord(std::uint32_t word) {
    return resultRecord(0) + raw(word) + std::string(4, '\0');
}

inline std::string take(Peer& peer, std::size_t count) {
    std::string bytes;
    for (std::string some; bytes.size() < count && !(some = peer.readSome(count - bytes.size())).empty();)
        bytes += some;
    return bytes;
}

inline std::string textOf(const CDlibResult& result) {
    return {result.text, strnlen(result.text, sizeof result.text)};
}

class CryptoTest : public ::testing::Test {
protected:
    CryptoTest() {
        forgetCipherPlace();
        writeFile(root / "var/opt/kestrelix/platform_capabilities", "replication\n encryption \n");
    }

    static std::string ticket() { return noise(512, 77); }
    void writeState(std::uint16_t port, std::size_t size = 536) const {
        std::string state = std::string(4, '\0') + ticket() + std::string(4, '\0') + raw(htons(port));
        state.resize(size);
        writeFile(statePath(), state);
    }
    [[nodiscard]] std::filesystem::path statePath() const { return root / "var/run/cryptoDaemonState"; }
    static std::uint16_t portOf(const ScriptedServer& server) {
        return static_cast<std::uint16_t>(std::stoi(server.name().substr(server.name().find(':') + 1)));
    }
    void cipherInService(bool inService) {
        root.masterIni(std::string("[Configuration Options]\n  inlineCryption=") + (inService ? "false" : "true") +
                       "\n");
    }

    // A call's code, and the text of the result.
    std::string said(int code) { return std::to_string(code) + " " + textOf(result); }
    // What the context is to cipher, and where to.
    void give(const std::string& in, std::string* out) {
        context.nextDataInPtr = bytesOf(in).data();
        context.nextDataOutPtr = roomOf(*out).data();
        context.dataInBytes = in.size();
        context.dataOutBytes = out->size();
    }
    // Ciphers all of `in`; what came out.
    std::string crypt(int op, const std::string& in) {
        std::string out(in.size(), '\0');
        give(in, &out);
        EXPECT_EQ(CDlibCrypt(op, &context, &result), 0) << textOf(result);
        out.resize(out.size() - context.dataOutBytes);
        return out;
    }

    TestRoot root;
    CryptContext context;
    CDlibResult result{};
};

}  // namespace testsupport
