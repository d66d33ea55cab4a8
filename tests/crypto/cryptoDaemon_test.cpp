// The cipher and the whole road, with the real key service and the openssl command as the judge.

#include "base/paths.h"
#include "base/run_command.h"
#include "crypto/crypto.h"
#include "crypto/crypto_fixture.h"
#include "support/key_service.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Service : public CryptoTest {
protected:
    void open(bool inService) {
        cipherInService(inService);
        ASSERT_EQ(said(CDlibInitCryptWithArchiveKey(&context, &result)), "0 session opened");
        ASSERT_EQ(context.session->doOurOwnCryption, !inService);
    }
    std::string openWith(const std::string& token) {
        return said(CDlibInitCryptWithToken(token.data(), token.size(), &context, &result));
    }
    std::string token() {
        std::string bytes(4096, '\0');
        int length = 4096;
        EXPECT_EQ(said(CDlibGetToken(bytes.data(), &length, &context, &result)), "0 ");
        return bytes.substr(0, static_cast<std::size_t>(length));
    }
    std::string openssl(const char* direction, const std::string& in) {
        writeFile(root / "in", in);
        const std::string key = hexOf(std::span(context.session->key).first(32)), path = root / "in";
        EXPECT_EQ(runCommand("openssl enc -aes-256-ecb -nopad " + (direction + (" -K " + key)) + " -in " + path +
                             " -out " + (root / "out").string()),
                  0);
        return readFile(root / "out");
    }
    // A connection of our own, to say what the client's library wouldn't; sets the ticket.
    FileDescriptor connectRaw() {
        FileDescriptor socket;
        Ticket bytes;
        EXPECT_EQ(CDlibConnect(&socket, &bytes, &result), 0);
        t.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return socket;
    }
    // Descriptors and threads that the service has.
    [[nodiscard]] std::size_t holdings() const {
        std::size_t count = 0;
        for (const char* kind : {"fd", "task"})
            for ([[maybe_unused]] const auto& entry :
                 fs::directory_iterator("/proc/" + std::to_string(service.pid()) + "/" + kind))
                ++count;
        return count;
    }
    void expectAlive() {
        unsigned mask = 0;
        EXPECT_EQ(CDgetStatusBitmask(&mask, &result), 0) << textOf(result);
        EXPECT_TRUE(mask & CDLIB_STATUS_READY);
    }

    std::string t;  // the ticket
    lab::Process service = startKeyService(root);
};

TEST_F(Service, BothPlacesAndOpensslAgreeAndATokenOpensWhatWasWritten) {
    const std::string plain = noise(200000, 4).substr(0, 199968);
    open(false);
    const std::string sealed = crypt(CDLIB_ENCRYPT, plain);
    EXPECT_TRUE(openssl("-e", plain) == sealed && openssl("-d", sealed) == plain);
    EXPECT_TRUE(crypt(CDLIB_ENCRYPT, plain.substr(0, 64)) == sealed.substr(0, 64)) << "a session goes on";
    EXPECT_TRUE(crypt(CDLIB_DECRYPT, sealed.substr(3200, 96)) == plain.substr(3200, 96)) << "from any unit";
    const std::string kept = token();
    ASSERT_EQ(kept.size(), 1536u);
    // Another file has another key.
    open(true);
    EXPECT_FALSE(crypt(CDLIB_ENCRYPT, plain.substr(0, 64)) == sealed.substr(0, 64));
    // The token is good behind a restart, and in both places.
    service.stop(SIGTERM);
    EXPECT_FALSE(fs::exists(statePath()));
    service = startKeyService(root);
    for (const bool inService : {true, false}) {
        cipherInService(inService);
        ASSERT_EQ(openWith(kept), "0 session opened");
        EXPECT_TRUE(crypt(CDLIB_DECRYPT, sealed) == plain && crypt(CDLIB_ENCRYPT, plain) == sealed);
    }
    // It is an entry of a tar file, with content of 1024 bytes.
    writeFile(root / "token.tar", kept + std::string(1024, '\0'));
    EXPECT_EQ(runCommand("cd " + root.path().string() + " && LC_ALL=C tar -tvf token.tar >list 2>/dev/null"), 0);
    EXPECT_THAT(readFile(root / "list"), ::testing::ContainsRegex(" 1024 .* Kestrelix encrypted TAR v1"));
    EXPECT_EQ(kept[156], 'E');
}

TEST_F(Service, RefusesATokenThatIsNotItsOwnToTheByte) {
    open(true);
    const std::string good = token();
    for (const std::size_t at : {0, 130, 156, 511, 512, 520, 540, 548, 579, 580, 595, 596, 1535}) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 1);
        EXPECT_THAT(openWith(bad), ::testing::MatchesRegex("-1 .+")) << at;
    }
    EXPECT_EQ(openWith(good.substr(0, 1504)), "-1 bad token length");
    EXPECT_EQ(openWith(good), "0 session opened");
    // Another appliance.
    const std::string first = root.path();
    const TestRoot other;
    lab::Process otherService = startKeyService(other);
    EXPECT_EQ(openWith(good), "-1 the token was made with another archive key");
    overrideSystemRoot(first);
}

TEST_F(Service, KeepsItsFilesPrivateAndItsKeyWhole) {
    const fs::path key = root / "var/opt/kestrelix/cryptoDaemon.key";
    for (const fs::path& file : {key, statePath()})
        EXPECT_EQ(fs::status(file).permissions(), static_cast<fs::perms>(0600)) << file;
    EXPECT_THROW((void)startKeyService(root), std::runtime_error) << "one service a root";
    service.stop(SIGTERM);
    for (const auto& [mode, size] : {std::pair{0640, 32u}, {0600, 31u}}) {
        writeFile(key, noise(size, 1));
        fs::permissions(key, static_cast<fs::perms>(mode));
        EXPECT_THROW((void)startKeyService(root), std::runtime_error) << size;
    }
    EXPECT_EQ(readFile(key), noise(31, 1)) << "a damaged key is not replaced";
}

TEST_F(Service, AnswersRequestsInPiecesAndRefusesBadOnes) {
    (void)connectRaw();
    const std::string opening = requestHead(6) + t;
    const std::string value = requestHead(3) + t + raw(std::uint64_t{5});
    const std::string chunk = chunkRecord(requestHead(4), 1, 32) + noise(32, 1);
    // The number: bytes of good replies.
    const std::tuple<std::string, std::size_t, const char*> cases[] = {
        {requestHead(6) + noise(512, 1), 0, "bad ticket"},
        {requestHead(10) + noise(512, 1), 0, "bad ticket"},
        {chunk, 0, "there is no session"},
        {requestHead(9), 0, "there is no session"},
        {requestHead(7), 0, "there is no session"},
        {opening + opening, 80, "the session is open already"},
        {opening + chunkRecord(requestHead(4), 1, 65568) + noise(200000, 1), 80, "bad chunk length"},
        {opening + chunkRecord(requestHead(4), 1, 48), 80, "bad chunk length"},
        {opening + chunkRecord(requestHead(5), 1, 0), 80, "bad chunk length"},
        {value + chunk + chunk, 80 + 128, "out of sequence"},
        {requestHead(8) + t + raw(UINT32_MAX), 0, "bad token length"},
        {noise(100000, 3), 0, "this is no request"},
        {requestHead(1) + t + noise(32, 1), 0, "this service has no administration"},
        {requestHead(13), 0, "unknown operation"}};
    for (const auto& [request, before, text] : cases) {
        const FileDescriptor socket = connectRaw();
        // In small pieces at first, then at once.
        const std::span<const std::byte> bytes = bytesOf(request);
        const std::size_t slow = std::min<std::size_t>(bytes.size(), 20);
        for (std::size_t i = 0; i < slow; ++i)
            ASSERT_EQ(sendAll(socket.get(), bytes.subspan(i, 1)), 1);
        (void)sendAll(socket.get(), bytes.subspan(slow));  // may be cut short by the refusal
        std::string reply(before + 81, '\0');
        reply.resize(static_cast<std::size_t>(std::max<ssize_t>(receiveAll(socket.get(), roomOf(reply)), 0)));
        ASSERT_GE(reply.size(), before) << text;
        EXPECT_EQ(reply.substr(before), resultRecord(-1, text)) << "the refusal is the last";
    }
    // The same value gives the same key, another one another.
    std::string replies[3];
    for (std::uint64_t i = 0; i < 3; ++i) {
        const FileDescriptor socket = connectRaw();
        ASSERT_GT(sendAll(socket.get(), bytesOf(requestHead(3) + t + raw(5 + i / 2) + chunk)), 0);
        replies[i].resize(80 + 128);
        EXPECT_EQ(receiveAll(socket.get(), roomOf(replies[i])), 208);
    }
    EXPECT_TRUE(replies[0] == replies[1] && replies[0] != replies[2]);
    expectAlive();
}

TEST_F(Service, OutlivesClientsThatGoInTheMiddle) {
    expectAlive();
    const std::size_t before = holdings();
    (void)connectRaw();
    // Of a ticket, of a chunk, and with a reply that nobody fetches.
    const std::string chunk = chunkRecord(requestHead(4), 1, 65536) + noise(65536, 1);
    for (const std::string& sent : {t.substr(1), requestHead(6) + t + chunk.substr(1), requestHead(6) + t + chunk})
        for (int i = 0; i < 10; ++i) {
            const FileDescriptor client = connectRaw();
            EXPECT_EQ(sendAll(client.get(), bytesOf(sent)), static_cast<ssize_t>(sent.size()));
        }
    expectAlive();
    EXPECT_TRUE(comesTrue([&] { return holdings() <= before; }));
}

// While a session lasts the service has its key, and nobody once it has ended.
TEST_F(Service, AKeyGoesWithItsSession) {
    const std::string process = "/proc/" + std::to_string(service.pid());
    const FileDescriptor memory(::open((process + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    if (!memory.isOpen())
        GTEST_SKIP() << "needs the right to look into the service";
    open(false);
    const std::string key(reinterpret_cast<const char*>(context.session->key.data()), 32);
    const auto hasKey = [&] {
        std::ifstream maps(process + "/maps");
        for (std::string line; std::getline(maps, line);) {
            unsigned long from = 0, to = 0;
            char rights[5] = "";
            (void)sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, rights);
            std::string bytes(rights[1] == 'w' && to - from <= 64 << 20 ? to - from : 0, '\0');
            (void)!pread(memory.get(), bytes.data(), bytes.size(), static_cast<off_t>(from));
            if (bytes.find(key) != std::string::npos)
                return true;
        }
        return false;
    };
    EXPECT_TRUE(hasKey());
    EXPECT_EQ(crypt(CDLIB_ENCRYPT, noise(64, 1)).size(), 64u);
    CDlibClose(&context);
    EXPECT_TRUE(comesTrue([&] { return !hasKey(); }));
}

TEST_F(Service, ThatDiesInTheMiddleIsAFailureAndNoHang) {
    open(true);
    service.signal(SIGSTOP);
    auto failing = std::async(std::launch::async, [this] {
        std::string data = noise(1 << 20, 1);
        give(data, &data);
        return CDlibCrypt(CDLIB_ENCRYPT, &context, &result);
    });
    EXPECT_EQ(failing.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    service.stop(SIGKILL);
    EXPECT_EQ(failing.get(), -1);
    EXPECT_TRUE(textOf(result) == "short read" || textOf(result) == "short write") << textOf(result);
    EXPECT_EQ(said(CDlibInitCryptWithArchiveKey(&context, &result)),
              "-1 Can't connect to CryptoDaemon: Connection refused")
        << "its state file is still there";
}

TEST_F(CryptoTest, ChunksAreCutToWholeUnitsAndKeysAreChecked) {
    const std::string keyBytes = noise(32, 1), plain = noise(32, 2) + " and more";
    const auto* const key = reinterpret_cast<const unsigned char*>(keyBytes.data());
    std::string data = plain;
    const auto cipher = [&](auto function, std::size_t room, int keyLength) {
        std::size_t in = data.size();
        const int code = function(data.data(), &room, data.data(), &in, key, keyLength);
        EXPECT_TRUE(code == -1 || in == room);
        return code == -1 ? -1 : static_cast<int>(room);
    };
    EXPECT_EQ(cipher(softwareEncryptChunk, 1000, 32), 32);
    EXPECT_TRUE(data.substr(0, 32) != plain.substr(0, 32) && data.ends_with(" and more"));
    EXPECT_EQ(cipher(softwareDecryptChunk, 31, 32), 0);
    EXPECT_EQ(cipher(softwareDecryptChunk, 32, 40), 32) << "the first 32 bytes of a key count";
    EXPECT_EQ(data, plain);
    EXPECT_EQ(cipher(softwareDecryptChunk, 32, 31) + cipher(softwareEncryptChunk, 32, -1), -2);
    EXPECT_TRUE(root.logged("softwareDecryptChunk: bad key length 31\n"));
    EXPECT_TRUE(root.logged("softwareEncryptChunk: bad key length -1\n"));
    EXPECT_EQ(data, plain);
}

}  // namespace
}  // namespace testsupport
