// fake_target.h - a target that keeps blocks in memory and can be told to fail.
#pragma once

#include "rest/blocks.h"
#include "support/hashed_backup.h"
#include "support/scripted_server.h"

namespace testsupport {

inline constexpr const char* HANG_UP = "";
inline constexpr const char* AS_EVER = "as ever";

class FakeTarget {
public:
    FakeTarget() {
        server_.standing([this](Peer& peer) {
            if (peer.readRequest())
                peer.send(replyTo(peer.request()));
        });
    }

    [[nodiscard]] const std::string& name() const { return server_.name(); }

    // The last segment of a request's path, of single blocks only "b-LENGTH".
    static std::string nameOf(const Request& request) {
        const std::string path = request.path();
        const std::string name = path.substr(path.rfind('/') + 1);
        return name.starts_with("b-sha512-") ? "b-" + name.substr(9, name.find('-', 9) - 9) : name;
    }
    [[nodiscard]] std::vector<Request> requests() { return server_.requests(); }

    // What it holds and what it does; for the test's thread, once no request is being answered.
    struct State {
        std::set<std::string> blocks;  // the data that it holds
        // Replies by name, nothing being done: HANG_UP has none, AS_EVER is the usual one.
        std::map<std::string, std::deque<std::string>> instead;
        std::deque<std::int64_t> countErrors;                 // added to the next counts
        std::deque<std::size_t> keeps;                        // of the next multiblocks: new blocks kept, the rest lost
        std::function<void(const std::string&)> beforeReply;  // by name, in the connection's thread
    };
    State* operator->() {
        (void)server_.requests();
        return &state_;
    }

private:
    // Takes the first of a queue, if there is one.
    template <typename T>
    static std::optional<T> next(std::deque<T>& queue) {
        if (queue.empty())
            return {};
        const T first = queue.front();
        queue.pop_front();
        return first;
    }

    std::string replyTo(const Request& request) {
        const std::string name = nameOf(request);
        if (state_.beforeReply)
            state_.beforeReply(name);
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(request.header("X-BackupNo"), name == "backup-check" ? "" : "31");
        if (const auto reply = next(state_.instead[name]); reply && *reply != AS_EVER)
            return *reply;
        if (name == "post-check-offset")
            return ok(whichAreHere(request.body));
        if (name == "backup-block-count")
            return ok(count());
        if (name == "multiblock")
            return storeAll(request), ok("");
        EXPECT_TRUE(request.path().ends_with("-" + hashValueHex(recordOf(request.body))));
        state_.blocks.insert(request.body);
        return ok("");
    }

    std::string whichAreHere(const std::string& body) const {
        std::set<std::string> digests;
        for (const std::string& block : state_.blocks)
            digests.insert(digestOf(block));
        std::string reply;
        for (std::size_t at = 0; at < body.size(); at += CHECK_RECORD_SIZE)
            reply += digests.contains(body.substr(at + 16, HASH_VALUE_SIZE)) ? '1' : '0';
        return reply;
    }

    static std::string digestOf(const std::string& block) {
        const hashValue record = recordOf(block);
        return {reinterpret_cast<const char*>(record.digest), sizeof record.digest};
    }

    void storeAll(const Request& request) {
        const std::size_t room = state_.blocks.size() + next(state_.keeps).value_or(INT_MAX);
        int number = 0;
        std::string block;
        for (std::size_t at = 0; at < request.body.size(); at += BLOCK_HEADER_SIZE + block.size(), ++number) {
            ASSERT_LE(at + BLOCK_HEADER_SIZE, request.body.size());
            std::uint32_t length = 0;
            std::memcpy(&length, request.body.data() + at + 8, sizeof length);
            block = request.body.substr(at + BLOCK_HEADER_SIZE, length);
            EXPECT_EQ(request.body.substr(at + 12, HASH_VALUE_SIZE), digestOf(block));
            if (state_.blocks.size() < room)
                state_.blocks.insert(block);
        }
        EXPECT_EQ(request.header("X-ClusterAmt"), std::to_string(number));
    }

    std::string count() {
        const auto number = static_cast<std::int64_t>(state_.blocks.size()) + next(state_.countErrors).value_or(0);
        return {reinterpret_cast<const char*>(&number), sizeof number};
    }

    std::mutex mutex_;
    State state_;
    ScriptedServer server_;  // last: it ends its scripts before what they use goes
};

}  // namespace testsupport
