// The client's side of each exchange, against a service that says what a test wants.

#include "config/directories.h"
#include "crypto/crypto_fixture.h"
#include "support/test.h"

namespace testsupport {
namespace {

class Client : public CryptoTest {
protected:
    Client() { writeState(portOf(server)); }

    struct Step {
        std::size_t bytes;  // of the client, taken before the reply
        std::string reply;
    };
    // The next connection gets these replies; what it sent is in `played` after what.
    void play(const std::vector<Step>& steps, bool staysOpen = false) {
        played.clear();
        server.next([this, steps, staysOpen](Peer& peer) {
            for (const Step& step : steps) {
                played += take(peer, step.bytes);
                peer.send(step.reply);
            }
            if (staysOpen)
                peer.waitForEnd();
        });
    }
    // A session with a key of 32 bytes, and then the steps.
    void openAndPlay(std::vector<Step> steps, bool staysOpen = false) {
        steps.insert(steps.begin(), {{528, resultRecord(0, "open")}, {16, wordRecord(32) + noise(32, 1)}});
        play(steps, staysOpen);
        ASSERT_EQ(open(), 0);
    }
    int open() { return CDlibInitCryptWithArchiveKey(&context, &result); }
    // What the service took, behind the opening of a session.
    std::string requests(std::size_t from = 544) {
        (void)server.requests();  // waits for the script
        return played.substr(std::min(from, played.size()));
    }

    std::string played;
    ScriptedServer server;
};

TEST_F(Client, OpensASessionOrSaysWhyNot) {
    const std::string good = resultRecord(0);
    const struct {
        const char* what;
        std::string opening, key;
        int code;
        const char* text;
    } cases[] = {
        {"no word", "", "", -1, "short read"},
        {"a byte too few", good.substr(0, 79), "", -1, "short read"},
        {"refused", resultRecord(-7, "no"), "", -7, "no"},
        {"no negative status", resultRecord(5, "what?"), "", -1, "what?"},
        {"a status of 64 bits", resultRecord(INT64_MIN, "far"), "", -1, "far"},
        {"no key", good, "", -1, "short read"},
        {"key refused", good, resultRecord(-9, "later"), -9, "later"},
        {"no key length", good, good + "12345", -1, "short response"},
        {"key cut off", good, wordRecord(512) + noise(511, 1), -1, "can't get archive key"},
        {"longest key", good, wordRecord(512) + noise(512, 1), 0, ""},
        {"key too long", good, wordRecord(513) + noise(513, 1), -1, "key too long"},
        {"key absurdly long", good, wordRecord(UINT32_MAX), -1, "key too long"},
        {"usual key", good, wordRecord(32) + noise(32, 1), 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const bool isOpened = c.opening == good;
        play({{528, c.opening}, {isOpened ? 16u : 0u, c.key}});
        EXPECT_EQ(open(), c.code);
        EXPECT_EQ(textOf(result), c.text);
        EXPECT_EQ(context.session == nullptr, c.code != 0);
        EXPECT_EQ(requests(0), requestHead(6) + ticket() + (isOpened ? requestHead(9) : ""));
    }
    EXPECT_EQ(context.blockSize, 32u);
    EXPECT_EQ(context.session->keyLength, 32);
    EXPECT_EQ(std::memcmp(context.session->key.data() + 32, std::string(480, '\0').data(), 480), 0);
    CDlibClose(&context);
    EXPECT_TRUE(context.session == nullptr && context.blockSize == 0);
}

TEST_F(Client, AsksForTheStatus) {
    const struct {
        std::string reply;
        int code;
        const char* text;
        unsigned mask;
    } cases[] = {{wordRecord(7), 0, "", 7},
                 {resultRecord(-4, "bad ticket"), -4, "bad ticket", 99},
                 {resultRecord(0), -1, "short response", 99},
                 {"", -1, "short read", 99}};
    for (const auto& c : cases) {
        play({{528, c.reply}});
        unsigned mask = 99;
        EXPECT_EQ(CDgetStatusBitmask(&mask, &result), c.code);
        EXPECT_EQ(textOf(result), c.text);
        EXPECT_EQ(mask, c.mask);
        EXPECT_EQ(requests(0), requestHead(10) + ticket());
    }
}

TEST_F(Client, FindsTheServiceByItsState) {
    unsigned mask = 0;
    const auto ask = [&] { return CDgetStatusBitmask(&mask, &result) == 0 ? std::to_string(mask) : textOf(result); };
    ScriptedServer later;
    for (const auto& [one, word] : {std::pair{&server, 1u}, {&later, 2u}})
        one->standing([reply = wordRecord(word)](Peer& peer) {
            (void)take(peer, 528);
            peer.send(reply);
        });
    EXPECT_EQ(ask(), "1");
    std::filesystem::remove(statePath());
    EXPECT_EQ(ask(), "CryptoDaemon's not running or we're unprivileged") << "though the port is known";
    for (const std::size_t size : {0, 535, 537, 100000}) {
        writeState(portOf(server), size);
        EXPECT_EQ(ask(), "state size " + std::to_string(size) + " != 536");
    }
    std::filesystem::remove(statePath());
    std::filesystem::create_directory(statePath());
    EXPECT_EQ(ask(), "Can't read CryptoDaemon's state: Is a directory");
    std::filesystem::remove(statePath());
    // A service that started later stands in a newer file; an older one is no news.
    writeState(portOf(server));
    EXPECT_EQ(ask(), "1");
    writeState(portOf(later));
    EXPECT_EQ(ask(), "2");
    writeState(portOf(server));
    std::filesystem::last_write_time(statePath(),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_EQ(ask(), "2");
    writeState(1);
    EXPECT_EQ(ask(), "Can't connect to CryptoDaemon: Connection refused");
}

TEST_F(Client, TakesATokenOrClosesTheSession) {
    const std::string token = noise(1536, 5);
    const auto reply = [&](std::uint32_t length) {
        return resultRecord(0) + raw(length) + token.substr(0, 512) + std::string(4, '\0') + token.substr(512);
    };
    const struct {
        const char* what;
        std::string reply;
        int room, code;
        const char* text;
        int length;
    } cases[] = {
        {"fits", reply(1024), 1536, 0, "", 1536},
        {"a byte short", reply(1024), 1535, -1, "length too small", 1536},
        {"no room", reply(1024), -1, -1, "length too small", 1536},
        {"empty", reply(0), 4096, -1, "bad token length 0", 4096},
        {"absurd", reply(UINT32_MAX), 4096, -1, "bad token length 4294967295", 4096},
        {"cut off", reply(1024).substr(0, 1623), 4096, -1, "short read", 4096},
        {"no header", reply(1024).substr(0, 599), 4096, -1, "short read", 4096},
        {"refused", resultRecord(-3, "no"), 4096, -3, "no", 4096},
    };
    std::string buffer(4096, '\0');
    int length = 4096;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        openAndPlay({{16, c.reply}});
        buffer.assign(4096, '\0');
        length = c.room;
        EXPECT_EQ(CDlibGetToken(buffer.data(), &length, &context, &result), c.code);
        EXPECT_EQ(textOf(result), c.text);
        EXPECT_EQ(length, c.length);
        EXPECT_EQ(context.session == nullptr, c.code != 0);
        EXPECT_EQ(requests(), requestHead(7));
        EXPECT_EQ(buffer.starts_with(token), c.code == 0);
    }
    EXPECT_EQ(CDlibGetToken(buffer.data(), &length, &context, &result), -1);
    EXPECT_EQ(textOf(result), "CDlibData not initialized");
}

TEST_F(Client, ShowsATokenWhole) {
    const std::string token = noise(1536, 3);
    const auto openWith = [&](const void* bytes, std::size_t length) {
        EXPECT_EQ(CDlibInitCryptWithToken(bytes, length, &context, &result), -1);
        return textOf(result);
    };
    play({{2072, ""}});
    EXPECT_EQ(openWith(token.data(), token.size()), "short read");
    EXPECT_EQ(requests(0), requestHead(8) + ticket() + raw(std::uint32_t{1024}) + token.substr(0, 512) +
                               std::string(4, '\0') + token.substr(512));
    EXPECT_EQ(openWith(token.data(), 512), "length too small");
    EXPECT_EQ(openWith(nullptr, 1536), "NULL pointer");
    server.next([](Peer& peer) { peer.reset(); });
    EXPECT_EQ(openWith(token.data(), token.size()), "Connection reset by peer");
}

TEST_F(Client, ChecksWhatItIsToCipher) {
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, nullptr, &result), -1);
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, nullptr), -1);
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, &result), -1);
    EXPECT_EQ(textOf(result), "CDlibData not initialized");
    openAndPlay({}, true);
    std::string data(64, 'x'), part(31, 'x'), none;
    const struct {
        int op;
        const std::string* in;
        std::string* out;
        const char* text;
    } cases[] = {{4, &part, &data, "dataInBytes < 32"},
                 {4, &data, &none, "dataOutBytes <= 0"},
                 {6, &data, &data, "confused about what to do"}};
    for (const auto& c : cases) {
        give(*c.in, c.out);
        EXPECT_EQ(CDlibCrypt(c.op, &context, &result), -1);
        EXPECT_EQ(textOf(result), c.text);
    }
    CDlibClose(&context);
}

TEST_F(Client, SendsChunksInTheirSequence) {
    cipherInService(true);
    const std::string data = noise(65536 + 64 + 1, 9);
    const auto chunk = [&](std::uint32_t number, std::size_t from, std::uint32_t length) {
        return Step{96 + length, chunkRecord(resultRecord(0), number, length) + data.substr(from, length)};
    };
    openAndPlay({chunk(1, 0, 65536), chunk(2, 65536, 64), chunk(3, 0, 64)});
    EXPECT_TRUE(root.logged("CDlibInit returned with doOurOwnCryption set at: 0"));
    EXPECT_EQ(crypt(CDLIB_DECRYPT, data), data.substr(0, 65600));
    EXPECT_EQ(context.dataInBytes, 1u);
    EXPECT_EQ(crypt(CDLIB_ENCRYPT, data.substr(0, 65)), data.substr(0, 64));
    EXPECT_EQ(context.dataInBytes, 1u) << "the rest stays";
    EXPECT_EQ(requests(), chunkRecord(requestHead(5), 1, 65536) + data.substr(0, 65536) +
                              chunkRecord(requestHead(5), 2, 64) + data.substr(65536, 64) +
                              chunkRecord(requestHead(4), 3, 64) + data.substr(0, 64));
}

TEST_F(Client, RefusesAChunkThatIsNotTheAnswer) {
    cipherInService(true);
    const std::string good = resultRecord(0);
    const struct {
        std::string reply;
        int code;
        const char* text;
    } cases[] = {
        {chunkRecord(good, 0, 64) + noise(64, 1), -1, "outta sync: 0x0 != 0x1"},
        {chunkRecord(good, 1, 0), -1, "no data"},
        {chunkRecord(good, 1, 96) + noise(96, 1), -1, "bad length 96"},
        {chunkRecord(good, 1, 48) + noise(48, 1), -1, "bad length 48"},
        {chunkRecord(good, 1, 64) + noise(63, 1), -1, "short read"},
        {good.substr(0, 79), -1, "short read"},
        {resultRecord(-8, "worn out") + "12345", -8, "worn out"},
        {resultRecord(0, "fine") + "12345", 0, "fine"},  // its rest isn't waited for long
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        openAndPlay({{96 + 64, c.reply}}, c.code == 0);
        std::string data = noise(64, 2);
        give(data, &data);
        EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, &result), c.code);
        EXPECT_EQ(textOf(result), c.text);
        EXPECT_EQ(context.dataInBytes, 64u) << "nothing counts as done";
        EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, &result), -1) << "the connection was given up";
        EXPECT_EQ(textOf(result), "CDlibData not initialized");
    }
}

TEST_F(CryptoTest, CiphersItselfWithEnoughThreadsOrIfThatIsEnabled) {
    const struct {
        const char *interrupts, *capabilities;
        bool isInProcess;
        const char* text;
    } cases[] = {
        {"  CPU0  CPU1  CPU7", "", true, "Using software:  found 3 threads"},
        {"CPU0\nCPU1", "dedup\nencryption\n", true, "Using software: enabled"},
        {"", "encryption=no\nno encryption\n", false, "No hardware and no software; only 0 of 2 required threads"},
    };
    const std::filesystem::path capabilities = root / "var/opt/kestrelix/platform_capabilities";
    writeFile(root / "dev/rx9", "");
    for (const auto& c : cases) {
        forgetCipherPlace();
        writeFile(root / "interrupts", c.interrupts);
        writeFile(capabilities, c.capabilities);
        EXPECT_EQ(cryptoAvailable(root / "interrupts", &result), c.isInProcess);
        EXPECT_EQ(textOf(result), c.text);
        std::filesystem::remove(capabilities);
        EXPECT_EQ(cryptoAvailable("/nowhere", &result), c.isInProcess) << "what was chosen once stays";
    }
    EXPECT_TRUE(root.logged("/dev/rx9 can't do 256-bit, AES ECB encryption/decryption\n")) << "and isn't used";
}

TEST_F(CryptoTest, AsksTheInstalledToolWhenNoConfigurationIsKnown) {
    const std::string known = g_master_ini;
    const std::filesystem::path tool = root / "usr/dq/bin/dqutil";
    for (const auto& [script, inProcess] : {std::pair{"", true},
                                            {"echo true", true},
                                            {"echo ' yes indeed'", true},
                                            {"echo false", false},
                                            {"exit 0", false},
                                            {"[ $# = 5 ] && [ \"$3\" = inlineCryption ] && echo y", true}}) {
        if (*script != '\0') {
            writeFile(tool, std::string("#!/bin/sh\n") + script + "\n");
            std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
        }
        g_master_ini.clear();
        CDlibData data;
        CDlibInit(&data, &result);
        g_master_ini = known;
        EXPECT_EQ(data.doOurOwnCryption, inProcess) << script;
    }
}

}  // namespace
}  // namespace testsupport
