// Encrypted files on their way to a target, with the real key service.

#include "rest/files.h"
#include "support/hashed_backup.h"
#include "support/key_service.h"
#include "support/scripted_server.h"

namespace {

using namespace testsupport;

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

    TestRoot root;
    lab::Process service = startKeyService(root);
    ScriptedServer server;
    std::string path = root / "hactar_12";
    std::string content = randomBytes(3 << 20, 5);
    int curl = -1;
};

TEST_F(EncryptedFiles, ArriveAsTheyWereBeforeEncryption) {
    for (const bool inService : {false, true})
        for (const std::size_t size : {std::size_t{0}, std::size_t{32}, std::size_t{65536 + 32}, content.size()}) {
            cipherInService(inService);
            writeFile(path, sealed(content.substr(0, size)));
            server.next(answer(ok("")));
            EXPECT_EQ(put(), 0);
            EXPECT_EQ(curl, 0);
            const Request request = server.lastRequest();
            EXPECT_EQ(request.path(), "/cgi-bin/vaultServer/f-" + path);
            EXPECT_EQ(request.ownHeaders(), "X-Protocol: 1|X-SRCENC: 1|X-BackupNo: 31|X-ElapsedTime: 66");
            EXPECT_EQ(request.header("Content-Length"), std::to_string(size));
            EXPECT_TRUE(request.isComplete && request.body == content.substr(0, size)) << size;
        }
}

TEST_F(EncryptedFiles, ThatCannotBeOpenedMakeNoRequest) {
    server.standing(answer(ok("")));
    const std::string good = sealed(content.substr(0, 320));
    const auto expect = [&](const char* log) { EXPECT_TRUE(put() == -1 && root.logged(log)) << log; };
    expect("Failed to open:/");
    writeFile(path, good.substr(0, 1535));
    expect("read failed");
    std::string damaged = good;
    damaged[1000] ^= 1;
    writeFile(path, damaged);
    expect("Error:the token is damaged");
    writeFile(path, good);
    service.stop(SIGTERM);
    expect("Error:CryptoDaemon's not running or we're unprivileged");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(EncryptedFiles, ThatChangeOnTheWayAreSentAsAnnouncedOrFailTheTransfer) {
    const std::string good = sealed(content);
    const auto expect = [&](const char* what, bool inService, const std::string& file, int code, const char* log,
                            const std::function<void()>& upset) {
        cipherInService(inService);
        writeFile(path, file);
        server.next([&](Peer& peer) {
            peer.readHead();
            upset();
            peer.readBody();
            peer.send(ok(""));
        });
        (void)put();
        const Request request = server.lastRequest();
        EXPECT_EQ(curl, code) << what;
        EXPECT_EQ(request.isComplete, code == 0) << what;
        EXPECT_TRUE(content.starts_with(request.body) && root.logged(log)) << what << ": all of it decrypted";
    };
    expect("grows", false, good.substr(0, 1600), 0, "", [&] { writeFile(path, good); });
    expect("no unit at the end", false, good + content.substr(0, 42), ABORTED, "dataInBytes not zero; decrypt failed",
           [] {});
    expect("cut", false, good, ABORTED, "EOF", [&] { std::filesystem::resize_file(path, 1 << 20); });
    expect("service gone", true, good, ABORTED, "input encryption header: Kestrelix encrypted",
           [&] { service.stop(SIGKILL); });
}

}  // namespace
