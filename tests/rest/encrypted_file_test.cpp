// Encrypted files on their way to a target, with the real key service.

#include "rest/files.h"
#include "support/hashed_backup.h"
#include "support/key_service.h"
#include "support/root.h"
#include "support/scripted_server.h"
#include "support/test.h"

namespace {

using testsupport::answer;
using testsupport::ok;
using testsupport::sealed;

constexpr int ABORTED = 42;  // libcurl's code for a read side that gave up

class EncryptedFiles : public ::testing::Test {
protected:
    int put() {
        curl = -1;
        return putEncryptedFile(server.name(), path, 31, &curl, 66);
    }
    void cipherInService(bool inService) {
        root.masterIni(std::string("[Configuration Options]\n  inlineCryption=") + (inService ? "no" : "yes") + "\n");
    }

    testsupport::TestRoot root;
    lab::Process service = startKeyService(root);
    testsupport::ScriptedServer server;
    std::string path = root / "hactar_12";
    std::string content = testsupport::randomBytes(3 << 20, 5);
    int curl = -1;
};

TEST_F(EncryptedFiles, ArriveAsTheyWereBeforeEncryption) {
    for (const bool inService : {false, true}) {
        cipherInService(inService);
        for (const std::size_t size : {std::size_t{0}, std::size_t{32}, std::size_t{65536 + 32}, content.size()}) {
            SCOPED_TRACE(size);
            testsupport::writeFile(path, sealed(content.substr(0, size)));
            server.next(answer(ok("")));
            EXPECT_EQ(put(), 0);
            EXPECT_EQ(curl, 0);
            const testsupport::Request request = server.lastRequest();
            EXPECT_EQ(request.path(), "/cgi-bin/vaultServer/f-" + path);
            EXPECT_EQ(request.ownHeaders(), "X-Protocol: 1|X-SRCENC: 1|X-BackupNo: 31|X-ElapsedTime: 66");
            EXPECT_EQ(request.header("Content-Length"), std::to_string(size));
            EXPECT_TRUE(request.isComplete && request.body == content.substr(0, size));
        }
    }
}

TEST_F(EncryptedFiles, ThatCannotBeOpenedMakeNoRequest) {
    server.standing(answer(ok("")));
    const std::string good = sealed(content.substr(0, 320));
    EXPECT_EQ(put(), -1);
    EXPECT_TRUE(root.logged("Failed to open:" + path));
    testsupport::writeFile(path, good.substr(0, 1535));
    EXPECT_EQ(put(), -1);
    EXPECT_TRUE(root.logged("read failed"));
    std::string damaged = good;
    damaged[1000] ^= 1;
    testsupport::writeFile(path, damaged);
    EXPECT_EQ(put(), -1);
    EXPECT_TRUE(root.logged("Failed CDlibInitCryptWithToken") && root.logged("Error:the token is damaged"));
    testsupport::writeFile(path, good);
    service.stop(SIGTERM);
    EXPECT_EQ(put(), -1);
    EXPECT_TRUE(root.logged("Error:CryptoDaemon's not running or we're unprivileged"));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(EncryptedFiles, ThatGoWrongOnTheWayFailTheTransfer) {
    const std::string good = sealed(content);
    const auto expect = [&](const char* what, bool inService, std::size_t surplus, const std::function<void()>& upset,
                            const char* log) {
        SCOPED_TRACE(what);
        cipherInService(inService);
        testsupport::writeFile(path, good + content.substr(0, surplus));
        server.next([&](testsupport::Peer& peer) {
            peer.readHead();
            upset();
            peer.readBody();
            peer.send(ok(""));
        });
        (void)put();
        EXPECT_EQ(curl, ABORTED);
        const testsupport::Request request = server.lastRequest();
        EXPECT_FALSE(request.isComplete);
        EXPECT_TRUE(content.starts_with(request.body)) << "nothing but what was decrypted";
        EXPECT_TRUE(root.logged(log));
    };
    expect(
        "a last piece of no unit", false, 42, [] {}, "dataInBytes not zero; decrypt failed");
    expect(
        "cut", false, 0, [this] { std::filesystem::resize_file(path, 1 << 20); }, "EOF");
    expect(
        "service gone", true, 0, [this] { service.stop(SIGKILL); }, "input encryption header: Kestrelix encrypted");
    // One that grows is sent as announced.
    service = startKeyService(root);
    testsupport::writeFile(path, good.substr(0, 1536 + 64));
    server.next([&](testsupport::Peer& peer) {
        peer.readHead();
        testsupport::writeFile(path, good);
        peer.readBody();
        peer.send(ok(""));
    });
    EXPECT_EQ(put(), 0);
    EXPECT_EQ(curl, 0);
    EXPECT_TRUE(server.lastRequest().body == content.substr(0, 64));
}

}  // namespace
