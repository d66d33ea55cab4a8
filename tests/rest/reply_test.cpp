// What becomes of every kind of reply, honest or not.

#include "config/services.h"
#include "rest/blocks.h"
#include "rest/lifecycle.h"
#include "support/root.h"
#include "support/scripted_server.h"

namespace {

using namespace testsupport;

constexpr int WRITE_ERROR = 23, PARTIAL_FILE = 18, GOT_NOTHING = 52;  // libcurl's codes
constexpr std::string_view CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr std::string_view OUT_OF_ORDER =
    "Warning: Failed to process metaData, tried to insert out of order backup sequence.\r\n";

class Replies : public ::testing::Test {
protected:
    std::int64_t check(std::string_view identity) {
        curl = -1;
        return postBackupCheck(server.name(), identity, 0, &status, &properties, &curl);
    }

    TestRoot root;
    ScriptedServer server;
    int curl = -1;
    std::uint64_t status = 1, properties = 1;
};

TEST_F(Replies, AreJudgedByTheirExactHeaderLines) {
    const std::string end = "Content-Length: 0\r\n\r\n";
    const std::string good = "HTTP/1.1 200 OK\r\n";
    const std::string e500 = "HTTP/1.1 500 Internal Server Error\r\n", e405 = "HTTP/1.1 405 Bad Request\r\n";
    const std::string e503 = "HTTP/1.1 503 Service Unavailable\r\n", interim(CONTINUE), outOfOrder(OUT_OF_ORDER);
    const std::string cannot = "Warning: Failed to process metaData\r\n";
    // end-backup has no reply of its own to check: the verdict alone.
    const auto expect = [&](const char* what, const std::string& raw, int result, int curlCode) {
        server.next(answer(raw));
        EXPECT_EQ(endBackup(server.name(), "u", "Failed:", &curl), result) << what;
        EXPECT_EQ(curl, curlCode) << what;
    };
    expect("good", good + end, 0, 0);
    expect("405 as targets spell it", e405 + end, -3, 0);
    expect("405 as the standard spells it", "HTTP/1.1 405 Method Not Allowed\r\n" + end, 0, 0);
    expect("503", e503 + end, -4, 0);
    expect("503 after an interim reply", interim + e503 + end, -4, 0);
    expect("500 as the first line", e500 + end, -1, WRITE_ERROR);
    expect("500 after an interim reply", interim + e500 + end, 0, WRITE_ERROR);
    expect("out of order", good + outOfOrder + end, -5, 0);
    expect("can't process", good + cannot + end, -6, 0);
    expect("the first bad verdict wins", good + cannot + outOfOrder + end, -6, 0);
    expect("a bad status wins over a warning", e503 + cannot + end, -4, 0);
    expect("a good line clears nothing", e503 + "X-Fine: yes\r\n" + end, -4, 0);
    expect("a longer warning is another one", good + "Warning: Failed to process metaData!\r\n" + end, 0, 0);
    expect("a warning in a body is no header", ok(cannot), 0, 0);
    expect("warning of 64 KiB", good + "Warning:" + std::string(65536, 'w') + "\r\n" + end, 0, 0);
    expect("warning with zero bytes", good + std::string("Warning: a\0b\r\n", 14) + end, 0, 8);
    expect("warning that moves the cursor", good + "Warning: \x1b[2Jgone\r\n" + end, 0, 0);
    expect("no HTTP", "SSH-2.0-OpenSSH\r\n", -1, 1);
    expect("chunks that end too early", good + "Transfer-Encoding: chunked\r\n\r\n5\r\nab", 0, PARTIAL_FILE);
    EXPECT_TRUE(root.logged("Warning: ?[2Jgone")) << "what a peer sends doesn't steer a terminal";
}

TEST_F(Replies, WithAVerdictKeepTheirPayloadOut) {
    const std::string body = "Content-Length: 16\r\n\r\n" + std::string(16, '\1');
    server.standing(answer("HTTP/1.1 200 OK\r\n" + std::string(OUT_OF_ORDER) + body));
    std::int64_t count = 44;
    EXPECT_EQ(startBackup(server.name(), "<doc/>", 0, &curl, false), -5) << "the worker pauses the instance";
    EXPECT_EQ(check("u"), -1) << "a check has one kind of failure";
    EXPECT_EQ(postBlockCount(server.name(), 1, &curl, &count), -5);
    EXPECT_TRUE(count == 44 && status == 1);
}

TEST_F(Replies, ToABackupCheckComeInThreeForms) {
    std::string words(24, '\0');
    words[0] = 9, words[9] = 4, words[17] = 6;
    const std::string covered = words + "identity";
    const auto crcOf = [](const std::string& text) {
        return crc32_buffer(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    };
    const auto raw = [](std::uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    const auto crc = crcOf(covered);
    const auto expect = [&](const char* what, int required, const std::string& reply, std::int64_t result,
                            std::uint64_t expected, const char* logged, const char* identity = "identity") {
        root.masterIni("[Replication]\nRequireChecksum=" + std::to_string(required) + "\n");
        root.clearLog();
        status = properties = 1;
        server.next(answer(ok(reply)));
        EXPECT_EQ(check(identity), result) << what;
        EXPECT_EQ(status, result == -1 ? 1u : 0x400u) << what;
        EXPECT_TRUE(properties == expected && root.logged(logged)) << what;
    };
    expect("too small", 0, words.substr(0, 15), -1, 1, "too small for any supported protocol version. Size: 15");
    expect("no properties", 0, words.substr(0, 16), 9, 0, "local block elimination is not supported");
    expect("almost properties", 0, words.substr(0, 23), 9, 0, "does not support providing backup properties");
    expect("properties", 0, words, 9, 0x600, "Backup properties on target is 1536");
    expect("a checksum that nobody asked for", 0, covered + raw(~crc), 9, 0x600, "Protocol Three Size:36");
    expect("a checksum that is right", 1, covered + raw(crc), 9, 0x600, "Checksum results.");
    expect("a checksum that is wrong", 1, covered + raw(crc ^ 1), -1, 1, "Checksum does not match in response.");
    expect("no room for a checksum", 1, words, -1, 1, "Set [Replication] RequireChecksum=0");
    expect("a byte short of it", 1, covered + raw(crc).substr(0, 3), -1, 1, "too small to contain one");
    expect("only 1 asks for it", 2, covered + raw(~crc), 9, 0x600, "");
    expect("an empty identity", 1, words + raw(crcOf(words)), 9, 0x600, "Protocol Three Size:28", "");
    expect("bytes behind the checksum", 1, covered + raw(crc) + "more", 9, 0x600, "Checksum results.");
}

TEST_F(Replies, OfTheWrongLengthAreRefused) {
    const hashReferenceInfo batch[3] = {};
    std::optional<std::string> answered;
    std::int64_t count = 44;
    for (const char* const reply : {"", "10", "1000", "1234567"}) {
        server.standing(answer(ok(reply)));
        EXPECT_EQ(postCheckOffset(server.name(), batch, &answered, 1, &curl), -1);
        EXPECT_EQ(postBlockCount(server.name(), 1, &curl, &count), -1);
    }
    EXPECT_TRUE(!answered && count == 44);
    EXPECT_TRUE(root.logged("ERROR: Unexpected response payload size:4, expected size:3, curl_easy_perform:0."));
    server.standing(answer(ok("")));
    EXPECT_EQ(startBackup(server.name(), "<doc/>", 0, &curl, false), -1);
}

TEST_F(Replies, CutAtAnyByteNeverPassForWhole) {
    const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 24\r\n\r\n" + std::string(24, '\1');
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        server.next(answer(whole.substr(0, size)));
        EXPECT_EQ(check("u") >= 0 && curl == 0, size == whole.size()) << size;
    }
    server.next([&](Peer& peer) {
        peer.readRequest();
        peer.send(whole.substr(0, 50));
        peer.reset();
    });
    (void)check("u");
    EXPECT_NE(curl, 0);
}

TEST_F(Replies, WithoutEndAreCutOff) {
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"headers", ok, "X-Fill: " + std::string(1000, 'f') + "\r\n"},
        {"one header", ok + "X-Fill: ", std::string(1000, 'f')},
        {"body", ok + "\r\n", std::string(1 << 16, 'b')}};
    for (const auto& [what, head, part] : cases) {
        server.next([&](Peer& peer) {
            for (bool goesOn = peer.readRequest() && peer.send(head); goesOn;)
                goesOn = peer.send(part);
        });
        (void)check("u");
        EXPECT_NE(curl, 0) << what;
    }
    EXPECT_EQ(curl, WRITE_ERROR);
    EXPECT_TRUE(root.logged("The reply is longer than 67108864 bytes, cut off"));
}

TEST_F(Replies, ThatComeBeforeTheBodyWasSentAreHeard) {
    const std::vector<std::byte> body(4 << 20);
    const auto early = [](std::string raw) {
        return [raw](Peer& peer) {
            peer.readHead();
            peer.send(raw);
            peer.waitForEnd();
        };
    };
    server.next(early("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_EQ(putMultiBlocks(server.name(), body, 1, 1, &curl), -4);
    server.next(early(std::string(CONTINUE) + "HTTP/1.1 500 Internal Server Error\r\n\r\n"));
    EXPECT_EQ(putMultiBlocks(server.name(), body, 1, 1, &curl), 0);
    EXPECT_EQ(curl, WRITE_ERROR) << "so both results must be looked at";
}

TEST_F(Replies, OfATargetThatHangsUpWhileItReadsAreFailures) {
    const std::vector<std::byte> body(4 << 20);
    for (const std::size_t size : {0u, 1u, 3000000u}) {
        server.next([size](Peer& peer) {
            peer.readHead();
            peer.send(CONTINUE);
            for (std::size_t left = size, got = 1; left > 0 && got > 0; left -= got)
                got = peer.readSome(left).size();
        });
        (void)putMultiBlocks(server.name(), body, 1, 1, &curl);
        EXPECT_NE(curl, 0) << size;
    }
    EXPECT_EQ(endBackup("127.0.0.1:1", "u", "m", &curl), -1) << "nobody there";
    EXPECT_EQ(curl, 7);
}

TEST_F(Replies, AreWaitedForAsLongAsTheTargetIsSilent) {
    std::optional<ScriptedServer> silent(std::in_place);
    std::promise<void> wasAsked;
    silent->next([&](Peer& peer) {
        peer.readRequest();
        wasAsked.set_value();
        peer.waitForEnd();
    });
    auto waiting = std::async([&, name = silent->name()] { return endBackup(name, "u", "m", &curl); });
    wasAsked.get_future().wait();
    silent.reset();
    EXPECT_EQ(waiting.get(), -1);
    EXPECT_EQ(curl, GOT_NOTHING);
}

}  // namespace
