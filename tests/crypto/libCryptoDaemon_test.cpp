// The client's side of each exchange, against a service that says what a test wants.

#include "config/directories.h"
#include "crypto/crypto_fixture.h"

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
        ASSERT_EQ(open(), "0 open");
    }
    std::string open() { return said(CDlibInitCryptWithArchiveKey(&context, &result)); }
    // What the service took, behind the opening of a session.
    std::string requests(std::size_t from = 544) {
        (void)server.requests();  // waits for the script
        return played.substr(std::min(from, played.size()));
    }

    const std::string good = resultRecord(0);
    std::string played;
    ScriptedServer server;
};

TEST_F(Client, OpensASessionOrSaysWhyNot) {
    // The opening, the key, what is said of it.
    const std::tuple<std::string, std::string, const char*> cases[] = {
        {"", "", "-1 short read"},
        {good.substr(0, 79), "", "-1 short read"},
        {resultRecord(-7, "no"), "", "-7 no"},
        {resultRecord(5, "what?"), "", "-1 what?"},
        {resultRecord(INT64_MIN, "far"), "", "-1 far"},
        {good, "", "-1 short read"},
        {good, resultRecord(-9, "later"), "-9 later"},
        {good, good + "12345", "-1 short response"},
        {good, wordRecord(512) + noise(511, 1), "-1 can't get archive key"},
        {good, wordRecord(512) + noise(512, 1), "0 "},
        {good, wordRecord(513) + noise(513, 1), "-1 key too long"},
        {good, wordRecord(UINT32_MAX), "-1 key too long"},
        {good, wordRecord(32) + noise(32, 1), "0 "}};
    for (const auto& [opening, key, outcome] : cases) {
        const bool isOpened = opening == good;
        play({{528, opening}, {isOpened ? 16u : 0u, key}});
        EXPECT_EQ(open(), outcome);
        EXPECT_EQ(context.session == nullptr, *outcome != '0') << outcome;
        EXPECT_EQ(requests(0), requestHead(6) + ticket() + (isOpened ? requestHead(9) : ""));
    }
    EXPECT_TRUE(context.blockSize == 32 && context.session->keyLength == 32);
    EXPECT_EQ(std::memcmp(context.session->key.data() + 32, std::string(480, '\0').data(), 480), 0);
    CDlibClose(&context);
    EXPECT_TRUE(context.session == nullptr && context.blockSize == 0);
}

TEST_F(Client, AsksForTheStatus) {
    for (const auto& [reply, outcome, mask] : {std::tuple{wordRecord(7), "0 ", 7u},
                                               {resultRecord(-4, "bad ticket"), "-4 bad ticket", 99},
                                               {good, "-1 short response", 99}}) {
        play({{528, reply}});
        unsigned got = 99;
        EXPECT_EQ(said(CDgetStatusBitmask(&got, &result)), outcome);
        EXPECT_EQ(got, mask);
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
    for (const std::size_t size : {0, 535, 537}) {
        writeState(portOf(server), size);
        EXPECT_EQ(ask(), "state size " + std::to_string(size) + " != 536");
    }
    std::filesystem::remove(statePath());
    std::filesystem::create_directory(statePath());
    EXPECT_EQ(ask(), "Can't read CryptoDaemon's state: Is a directory");
    std::filesystem::remove(statePath());
    // A service that started later stands in a newer file; an older one is no news.
    for (const auto& [one, word] : {std::pair{&server, "1"}, {&later, "2"}}) {
        writeState(portOf(*one));
        EXPECT_EQ(ask(), word);
    }
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
        return good + raw(length) + token.substr(0, 512) + std::string(4, '\0') + token.substr(512);
    };
    // Around the text: the room, and the length of the token.
    const std::tuple<std::string, int, const char*, int> cases[] = {
        {reply(1024), 1536, "0 ", 1536},
        {reply(1024), 1535, "-1 length too small", 1536},
        {reply(1024), -1, "-1 length too small", 1536},
        {reply(0), 4096, "-1 bad token length 0", 4096},
        {reply(UINT32_MAX), 4096, "-1 bad token length 4294967295", 4096},
        {reply(1024).substr(0, 1623), 4096, "-1 short read", 4096},
        {reply(1024).substr(0, 599), 4096, "-1 short read", 4096},
        {resultRecord(-3, "no"), 4096, "-3 no", 4096}};
    std::string buffer;
    int length = 0;
    const auto getToken = [&] { return said(CDlibGetToken(buffer.data(), &length, &context, &result)); };
    for (const auto& [answer, room, outcome, needed] : cases) {
        openAndPlay({{16, answer}});
        buffer.assign(4096, '\0');
        length = room;
        EXPECT_EQ(getToken(), outcome);
        EXPECT_EQ(length, needed) << outcome;
        EXPECT_EQ(requests(), requestHead(7));
        EXPECT_TRUE(*outcome == '0' ? context.session && buffer.starts_with(token) : !context.session) << outcome;
    }
    EXPECT_EQ(getToken(), "-1 CDlibData not initialized");
}

TEST_F(Client, ShowsATokenWhole) {
    const std::string token = noise(1536, 3);
    const auto openWith = [&](const void* bytes, std::size_t length) {
        return said(CDlibInitCryptWithToken(bytes, length, &context, &result));
    };
    play({{2072, ""}});
    EXPECT_EQ(openWith(token.data(), token.size()), "-1 short read");
    EXPECT_EQ(requests(0), requestHead(8) + ticket() + raw(std::uint32_t{1024}) + token.substr(0, 512) +
                               std::string(4, '\0') + token.substr(512));
    EXPECT_EQ(openWith(token.data(), 512), "-1 length too small");
    EXPECT_EQ(openWith(nullptr, 1536), "-1 NULL pointer");
    server.next([](Peer& peer) { peer.reset(); });
    EXPECT_EQ(openWith(token.data(), token.size()), "-1 Connection reset by peer");
}

TEST_F(Client, ChecksWhatItIsToCipher) {
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, nullptr, &result), -1);
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, nullptr), -1);
    openAndPlay({}, true);
    for (const auto& [op, in, out, outcome] : {std::tuple{4, 31, 64, "-1 dataInBytes < 32"},
                                               {4, 64, 0, "-1 dataOutBytes <= 0"},
                                               {6, 64, 64, "-1 confused about what to do"}}) {
        const std::string data(static_cast<std::size_t>(in), 'x');
        std::string room(static_cast<std::size_t>(out), 'x');
        give(data, &room);
        EXPECT_EQ(said(CDlibCrypt(op, &context, &result)), outcome);
    }
    CDlibClose(&context);
}

TEST_F(Client, SendsChunksInTheirSequence) {
    cipherInService(true);
    const std::string data = noise(65536 + 64 + 1, 9);
    const auto chunk = [&](std::uint32_t number, std::size_t from, std::uint32_t length) {
        return Step{96 + length, chunkRecord(good, number, length) + data.substr(from, length)};
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
    const std::pair<std::string, const char*> cases[] = {
        {chunkRecord(good, 0, 64) + noise(64, 1), "-1 outta sync: 0x0 != 0x1"},
        {chunkRecord(good, 1, 0), "-1 no data"},
        {chunkRecord(good, 1, 96) + noise(96, 1), "-1 bad length 96"},
        {chunkRecord(good, 1, 48) + noise(48, 1), "-1 bad length 48"},
        {chunkRecord(good, 1, 64) + noise(63, 1), "-1 short read"},
        {good.substr(0, 79), "-1 short read"},
        {resultRecord(-8, "worn out") + "12345", "-8 worn out"},
        {resultRecord(0, "fine") + "12345", "0 fine"}};  // its rest isn't waited for long
    for (const auto& [reply, outcome] : cases) {
        openAndPlay({{96 + 64, reply}}, *outcome == '0');
        std::string data = noise(64, 2);
        give(data, &data);
        const auto encrypt = [&] { return said(CDlibCrypt(CDLIB_ENCRYPT, &context, &result)); };
        EXPECT_EQ(encrypt(), outcome);
        EXPECT_EQ(context.dataInBytes, 64u) << "nothing counts as done";
        EXPECT_EQ(encrypt(), "-1 CDlibData not initialized") << "the connection was given up";
    }
}

TEST_F(CryptoTest, CiphersItselfWithEnoughThreadsOrIfThatIsEnabled) {
    const std::filesystem::path capabilities = root / "var/opt/kestrelix/platform_capabilities";
    writeFile(root / "dev/rx9", "");
    for (const auto& [interrupts, capable, isInProcess, text] :
         {std::tuple{"  CPU0  CPU1  CPU7", "", true, "Using software:  found 3 threads"},
          {"CPU0\nCPU1", "dedup\nencryption\n", true, "Using software: enabled"},
          {"", "encryption=no\nno encryption\n", false, "No hardware and no software; only 0 of 2 required threads"}}) {
        forgetCipherPlace();
        writeFile(root / "interrupts", interrupts);
        writeFile(capabilities, capable);
        EXPECT_EQ(cryptoAvailable(root / "interrupts", &result), isInProcess);
        EXPECT_EQ(textOf(result), text);
        std::filesystem::remove(capabilities);
        EXPECT_EQ(cryptoAvailable("/nowhere", &result), isInProcess) << "what was chosen once stays";
    }
    EXPECT_TRUE(root.logged("/dev/rx9 can't do 256-bit, AES ECB encryption/decryption\n")) << "and isn't used";
}

TEST_F(CryptoTest, AsksTheInstalledToolWhenNoConfigurationIsKnown) {
    const std::string known = g_master_ini;
    const std::filesystem::path tool = root / "usr/dq/bin/dqutil";
    for (const auto& [script, inProcess] : {std::pair{"", true},
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
