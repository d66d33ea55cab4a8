// What each request puts on the wire, to the byte.

#include "bandwidth/blockOut.h"
#include "rest/blocks.h"
#include "rest/files.h"
#include "rest/lifecycle.h"
#include "support/hashed_backup.h"
#include "support/scripted_server.h"

namespace {

using namespace testsupport;

constexpr std::string_view PREFIX = "/cgi-bin/vaultServer/";

std::span<const std::byte> bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text));
}

// The record of a block at an offset of its backup, as a list delivers it.
hashReferenceInfo listed(std::string_view data, std::int64_t offset) {
    hashReferenceInfo record{};
    static_cast<hashValue&>(record) = recordOf(data);
    record.fileOffset = offset;
    return record;
}

// The same as a target reads it.
std::string onWire(const hashReferenceInfo& record) {
    const auto little = [](std::uint64_t word) { return std::string(reinterpret_cast<const char*>(&word), 8); };
    return std::string("sha512\0\0", 8) + little(record.hashedLength) +
           std::string(reinterpret_cast<const char*>(record.digest), sizeof record.digest) +
           little(static_cast<std::uint64_t>(record.fileOffset));
}

class Requests : public ::testing::Test {
protected:
    testsupport::TestRoot root;
    ScriptedServer server;
    int curl = -1;
};

TEST_F(Requests, HaveExactlyTheirHeadersInTheirOrder) {
    const hashReferenceInfo batch[] = {listed("first", 0), listed("second block", 1 << 20)};
    const std::string& to = server.name();
    const std::string file = root / "hactar_12";
    writeFile(file, "plain file");
    std::uint64_t word = 0;
    std::int64_t count = 0;
    std::optional<std::string> reply;
    const std::string ubi("ubi\0", 4);
    const auto check = [&](std::uint64_t number) { return postBackupCheck(to, ubi, number, &word, &word, &curl); };
    const std::string asked = onWire(batch[0]) + onWire(batch[1]);
    ASSERT_EQ(asked.size(), 176u);
    const RequestBody blocks[] = {{bytesOf("first").data(), 5}, {nullptr, 0}};
    // `headers` are the lines joined by '|'.
    const auto expect = [&](const std::string& line, const std::string& headers, const std::string& body,
                            const std::string& raw, std::int64_t result, const auto& call) {
        SCOPED_TRACE(line + " " + headers);
        const std::size_t before = server.requests().size();
        server.next(answer(ok(raw)));
        curl = -1;
        EXPECT_EQ(call(), result);
        EXPECT_EQ(curl, 0);
        ASSERT_EQ(server.requests().size(), before + 1) << "one request each";
        const Request request = server.lastRequest();
        const std::size_t blank = line.find(' ') + 1;
        EXPECT_EQ(request.line, line.substr(0, blank) + std::string(PREFIX) + line.substr(blank) + " HTTP/1.1");
        EXPECT_EQ(request.ownHeaders(), headers);
        EXPECT_TRUE(request.isComplete && request.body == body);
        const bool isChunked = line == "POST backup-block-count";
        EXPECT_EQ(request.header("Content-Length"), isChunked ? "" : std::to_string(body.size()));
        EXPECT_EQ(request.header("Expect"), isChunked || line.starts_with("PUT") ? "100-continue" : "");
    };
    expect("POST backup-check", "X-Amt:4|X-Protocol: 1", ubi, std::string(16, '\2'), 0x0202020202020202,
           [&] { return check(0); });
    expect("POST backup-check", "X-Amt:4|X-Protocol: 1|X-BackupNo: 4294967297", ubi, std::string(16, '\0'), 0,
           [&] { return check(4294967297); });
    expect("POST start-backup", "X-Time: 5|X-Amt:6|X-Protocol: 1|X-ReserveSize:77", "<doc/>", "123\n", 123,
           [&] { return startBackup(to, "<doc/>", 77, &curl, false); });
    expect("POST start-backup", "X-Time: 5|X-Amt:6|X-Protocol: 1|X-ReserveSize:0|X-Force: FORCE", "<doc/>", "abc", 0,
           [&] { return startBackup(to, "<doc/>", 0, &curl, true); });
    expect("POST backup-block-count", "X-Protocol: 1|X-BackupNo: 9", "", "12345678 and more", 0,
           [&] { return postBlockCount(to, 9, &curl, &count); });
    expect("POST backup-block-count", "X-Protocol: 1", "", "12345678", 0,
           [&] { return postBlockCount(to, 0, &curl, &count); });
    expect("POST end-backup", "X-Amt:7|X-BackupUUID: u_1_2|X-Protocol: 1", "Failed:", "", 0,
           [&] { return endBackup(to, "u_1_2", "Failed:", &curl); });
    expect("POST end-backup", "X-Amt:7|X-Protocol: 1", "Failed:", "", 0,
           [&] { return endBackup(to, "", "Failed:", &curl); });
    expect("POST post-check-offset", "X-Expect:2|X-BackupNo: 31|X-Protocol: 1", asked, "10", 0,
           [&] { return postCheckOffset(to, batch, &reply, 31, &curl); });
    expect("POST post-check-offset", "X-Expect:2|X-Protocol: 1", asked, "01", 0,
           [&] { return postCheckOffset(to, batch, &reply, 0, &curl); });
    expect("PUT multiblock", "X-Offset: 1|X-Time: 5|X-BackupNo: 31|X-BackupSize: 8|X-ClusterAmt: 2|X-Protocol: 1",
           "the body", "", 0, [&] { return putMultiBlocks(to, bytesOf("the body"), 2, 31, &curl); });
    expect("PUT b-sha512-5-" + hashValueHex(batch[0]), "X-Protocol: 1|X-Offset: 0|X-Time: 5|X-BackupNo: 31", "first",
           "", 2, [&] { return putBlocks(to, blocks, batch, 1, 31, &curl); });
    expect("PUT f-" + file, "X-Protocol: 1|X-BackupNo: 31|X-ElapsedTime: 66", "plain file", "", 0,
           [&] { return putFile(to, file, 31, &curl, 66); });
    EXPECT_EQ(count, 0x3837363534333231);
    EXPECT_EQ(reply, "01");
}

TEST_F(Requests, ABlockThatIsNotWhatItsNameSaysIsNotSentWhenItIsVerified) {
    const hashReferenceInfo records[] = {listed("first", 0), listed("second", 5)};
    const RequestBody blocks[] = {{bytesOf("First").data(), 5}, {bytesOf("second").data(), 6}};
    server.standing(answer(ok("")));
    EXPECT_EQ(putBlocks(server.name(), blocks, records, 1, 3, &curl), 2);
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(root.logged("Hash given does not match calculated hash"));
    server.next(answer("HTTP/1.1 503 Service Unavailable\r\n\r\n"));
    EXPECT_EQ(putBlocks(server.name(), blocks, records, 0, 3, &curl), 2) << "lost blocks show at the next checkpoint";
    EXPECT_EQ(server.requests().size(), 2u);
}

TEST_F(Requests, ThatCannotBePutTogetherAreNotMade) {
    const std::string longest(512 - sizeof "X-BackupUUID: ", 'u');
    hashValue huge = recordOf("x");
    huge.hashedLength = std::uint64_t{1} << 31;
    std::byte window[16];
    server.standing(answer(ok("")));
    EXPECT_EQ(endBackup(server.name(), longest + "x", "m", &curl), -1);
    EXPECT_EQ(endBackup(server.name(), "u\r\nX-Force: FORCE", "m", &curl), -1) << "an identity is data";
    EXPECT_EQ(putMultiBlocks(server.name(), {}, 0, 3, &curl), -1);
    EXPECT_EQ(putFile(server.name(), root / "missing", 1, &curl, 0), -1);
    EXPECT_TRUE(root.logged("Error opening: No such file or directory"));
    EXPECT_EQ(putLargeBlock(server.name(), huge, window, 1, &curl, nullptr), -1);
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(endBackup(server.name(), longest, "m", &curl), 0);
}

TEST_F(Requests, AFileIsSentAsAnnouncedOrFails) {
    const std::string path = root / "f";
    const std::string content = randomBytes(3 << 20, 5);
    // Sends `size` bytes of the content; once the request has begun, `upset` is done.
    const auto put = [&](std::size_t size, const std::function<void()>& upset) {
        std::string surplus;
        writeFile(path, content.substr(0, size));
        server.next([&](Peer& peer) {
            peer.readHead();
            upset();
            peer.readBody();
            peer.send(ok(""));
            surplus = peer.readSome(100);
        });
        const int result = putFile(server.name(), path, 1, &curl, 0);
        const Request request = server.lastRequest();
        EXPECT_EQ(request.header("Content-Length"), std::to_string(size));
        EXPECT_EQ(request.isComplete && request.body == content.substr(0, size) && surplus.empty(), curl == 0) << size;
        return result;
    };
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, content.size()})
        EXPECT_TRUE(put(size, [] {}) == 0 && curl == 0) << size;
    EXPECT_TRUE(put(100, [&] { writeFile(path, content); }) == 0 && curl == 0) << "it grows";
    (void)put(content.size(), [&] { std::filesystem::resize_file(path, 1 << 20); });
    EXPECT_EQ(curl, 42) << "aborted by the read side";
}

class LargeBlocks : public HashedBackup {
protected:
    int put(const std::string& block, std::size_t window, std::mutex* lock = nullptr) {
        std::vector<std::byte> buffer(window);
        return putLargeBlock(server.name(), recordOf(block), buffer, 31, &curl, lock);
    }

    ScriptedServer server;
    int curl = -1;
};

TEST_F(LargeBlocks, GoThroughAWindowOfAnySize) {
    const std::string block = randomBytes(100000, 1);
    makeBackup(7, {"before", block, "after"});
    server.standing(answer(ok("")));
    for (const std::size_t size : {100000, 250000, 50000, 30000, 99999, 7000}) {
        SCOPED_TRACE(size);
        root.clearLog();
        EXPECT_TRUE(put(block, size) == 0 && curl == 0);
        const Request request = server.lastRequest();
        EXPECT_TRUE(request.isComplete && request.body == block);
        EXPECT_EQ(request.path(), std::string(PREFIX) + "b-sha512-100000-" + hashValueHex(recordOf(block)));
        EXPECT_EQ(request.ownHeaders(), "X-Protocol: 1|X-Offset: 1|X-Time: 5|X-BackupNo: 31");
        EXPECT_EQ(request.header("Content-Length"), "100000");
    }
    // One context reads all windows: the file is opened once.
    EXPECT_TRUE(root.logged("Data buffered (100000 bytes), transfer 7000 bytes") &&
                root.logged("Data found in buffer, transfer 2000 bytes"));
    // Each window is read under the lock.
    std::mutex lock;
    lock.lock();
    auto sending = std::async(std::launch::async, [&] { return put(block, 7000, &lock); });
    EXPECT_EQ(sending.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    lock.unlock();
    EXPECT_EQ(sending.get(), 0);
    EXPECT_TRUE(lock.try_lock()) << "held around reads only";
    lock.unlock();
}

// 4096 bytes in each of two seconds, the rest in the third, whatever the body is read from.
TEST_F(LargeBlocks, AndAllOtherBodiesTakeTheirTimeWhenTheBandwidthIsSmall) {
    const std::string data(9000, 'b');
    makeBackup(7, {data});
    writeFile(root / "file", data);
    server.standing(answer(ok("")));
    ASSERT_TRUE(createBandwidthTable() == 0 && parseBlockOutPeriods("=4096") == 0);
    const std::function<int()> puts[] = {[&] { return putMultiBlocks(server.name(), bytesOf(data), 1, 1, &curl); },
                                         [&] { return put(data, data.size()); },
                                         [&] { return putFile(server.name(), root / "file", 1, &curl, 0); }};
    for (const auto& send : puts) {
        getThreadCurlData()->lastSecond = 0;  // a limit takes effect with the next second
        timeval start, end;
        ASSERT_EQ(gettimeofday(&start, nullptr), 0);
        EXPECT_EQ(send(), 0);
        ASSERT_EQ(gettimeofday(&end, nullptr), 0);
        EXPECT_EQ(end.tv_sec - start.tv_sec, 2) << server.lastRequest().line;
        EXPECT_EQ(server.lastRequest().body, data);
    }
    detachBandwidthTable();
}

TEST_F(LargeBlocks, WhoseDataCannotBeReadFailTheTransfer) {
    const std::string block = randomBytes(100000, 1);
    makeBackup(7, {block});
    std::filesystem::resize_file(fileOf(7), 4 + 60000);
    server.standing(answer(ok("")));
    for (const auto& [data, sent] : {std::pair(block, 50000u), {"unknown", 0u}}) {
        (void)put(data, 50000);
        EXPECT_EQ(curl, 42);
        EXPECT_EQ(server.lastRequest().body, block.substr(0, sent)) << "what was there";
    }
    EXPECT_TRUE(root.logged("readHashedContents failed") && root.logged("Sent: 50000"));
}

}  // namespace
