#include "rest/blocks.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "block/hash_context.h"
#include "hash/hashed_contents.h"
#include "log/logger.h"
#include "rest/session_internal.h"

namespace {

constexpr int X_OFFSET = 1;

template <typename T>
void put(std::byte* place, const T& value) {
    std::memcpy(place, &value, sizeof value);
}

void writeCheckRecord(const hashReferenceInfo& record, std::byte* place) {
    std::memcpy(place, record.hashType, HASH_TYPE_SIZE);
    put(place + 8, record.hashedLength);
    std::memcpy(place + 16, record.digest, HASH_VALUE_SIZE);
    put(place + 80, record.fileOffset);
}

int askAboutBlocks(const std::string& url, std::span<const hashReferenceInfo> records,
                   std::optional<std::string>* reply, std::int64_t backupNo, int* curlStatus) {
    const int count = static_cast<int>(records.size());
    std::vector<std::byte> body(records.size() * CHECK_RECORD_SIZE);
    for (std::size_t i = 0; i < records.size(); ++i)
        writeCheckRecord(records[i], body.data() + i * CHECK_RECORD_SIZE);
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, "post-check-offset") == -1)
        return -1;
    request.header(HEADER_SIZE, "X-Expect:%d", count);
    if (backupNo > 0)
        request.backupNoHeader(backupNo);
    request.protocolHeader();
    if (request.post({body.data(), body.size()}, curlStatus) == -1)
        return -1;
    const auto size = static_cast<ssize_t>(request.reply().size());
    if (request.errorCode() != HEADER_GOOD) {
        LOG_HERE(0, "Curl failure: curl_easy_perform:%d, stat.errorCode:%d, response payload size:%zd, num:%d",
                 request.curlCode(), request.errorCode(), size, count);
        return request.result();
    }
    if (request.reply().size() != records.size()) {
        LOG_HERE(0, "ERROR: Unexpected response payload size:%zd, expected size:%d, curl_easy_perform:%d.\n", size,
                 count, request.curlCode());
        return -1;
    }
    *reply = request.takeReply();
    return 0;
}

// The name under which one block is sent.
std::string blockRequest(const hashValue& record) {
    std::string request = "b-";
    request.append(record.hashType, strnlen(record.hashType, HASH_TYPE_SIZE));
    request += '-';
    request += std::to_string(static_cast<std::int32_t>(record.hashedLength));
    request += '-';
    request += hashValueHex(record);
    return request;
}

bool hasItsDigest(const RequestBody& block, const hashValue& record) {
    HashContextPtr context;
    if (initializeHashContext(&context) != 0) {
        LOG_HERE(0, "initializeHashContext failed\n");
        return false;
    }
    if (addToHashContext(context.get(), block.data, block.remaining) != 0) {
        LOG_HERE(0, "failed to add data to hash context\n");
        return false;
    }
    if (hashFromHashContext(context.get()) != 0) {
        LOG_HERE(0, "failed to calculate hash\n");
        return false;
    }
    if (std::memcmp(context->digest.data(), record.digest, HASH_VALUE_SIZE) != 0) {
        LOG_HERE(0, "Hash given does not match calculated hash\n");
        return false;
    }
    return true;
}

int putOneBlock(const std::string& url, RequestBody block, const hashReferenceInfo& record, std::int64_t backupNo,
                int* curlStatus) {
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, blockRequest(record)) == -1)
        return -1;
    request.protocolHeader();
    request.header(HEADER_SIZE, "X-Offset: %lu", static_cast<std::uint64_t>(record.fileOffset));
    request.timeHeader();
    request.backupNoHeader(backupNo);
    return request.put(memoryReadCallback, &block, block.remaining, curlStatus);
}

// Read source of a large block: the window is filled when it is empty, up to its end.
struct LargeBlockSource {
    hashValue record;  // looked up anew by each read
    std::span<std::byte> window;
    std::uint64_t length;  // as announced
    std::int32_t sent = 0;
    std::uint64_t windowRemaining = 0;
    HashedContentsPtr context{};  // kept for the transfer: connection, open file and what was read ahead
};

void logReadFailure(const LargeBlockSource& source) {
    LOG_HERE(0, "readHashedContents failed");
    LOG_HERE(0, "Sent: %d", source.sent);
    LOG_HERE(0, "TotalSize:%lu", source.length);
    LOG_HERE(0, "Max: %lu", source.window.size());
    LOG_HERE(0, "hashID %lu", source.record.hashID);
    LOG_HERE(0, "SISoffset: %lu", source.record.SISoffset);
}

// Reads the next piece to the window's end, so that what is left of it always lies behind the same point.
bool refill(LargeBlockSource* source, std::mutex* readLock) {
    const std::uint64_t left = source->length - static_cast<std::uint64_t>(source->sent);
    const std::uint64_t chunk = std::min<std::uint64_t>(source->window.size(), left);
    std::unique_lock<std::mutex> guard;
    if (readLock != nullptr)
        guard = std::unique_lock(*readLock);
    const std::int64_t got =
        readHashedContents(&source->context, &source->record, source->window.last(chunk), source->sent);
    if (got < 1 || static_cast<std::uint64_t>(got) != chunk) {
        logReadFailure(*source);
        return false;
    }
    source->windowRemaining = chunk;
    return true;
}

std::size_t hashedReadCallback(char* buffer, std::size_t size, std::size_t count, void* threadData) {
    auto* const data = static_cast<ThreadCurlData*>(threadData);
    auto* const source = static_cast<LargeBlockSource*>(data->userData);
    if (source == nullptr) {
        LOG_HERE(0, "userData NULL confirmed, failure immenent");
        return CURL_READFUNC_ABORT;
    }
    try {
        const timeval now = paceStart(data);
        if (source->windowRemaining == 0) {
            if (static_cast<std::uint64_t>(source->sent) == source->length)
                return 0;
            if (!refill(source, data->readLock))
                return CURL_READFUNC_ABORT;
        }
        const std::size_t n =
            std::min({source->windowRemaining, static_cast<std::uint64_t>(size * count), data->remainingB});
        std::memcpy(buffer, source->window.data() + (source->window.size() - source->windowRemaining), n);
        source->windowRemaining -= n;
        source->sent += static_cast<std::int32_t>(n);
        paceSpend(data, n, now);
        return n;
    } catch (const std::exception& e) {
        LOG_HERE(0, "Reading a large block failed: %s", e.what());
        return CURL_READFUNC_ABORT;
    }
}

}  // namespace

void writeBlockHeader(const hashReferenceInfo& record, std::span<std::byte> header) {
    std::memcpy(header.data(), record.hashType, HASH_TYPE_SIZE);
    put(header.data() + 8, static_cast<std::uint32_t>(record.hashedLength));
    std::memcpy(header.data() + 12, record.digest, HASH_VALUE_SIZE);
    put(header.data() + 76, record.fileOffset);
}

int postCheckOffset(const std::string& url, std::span<const hashReferenceInfo> records,
                    std::optional<std::string>* reply, std::int64_t backupNo, int* curlStatus) {
    return failWithoutMemory([&] { return askAboutBlocks(url, records, reply, backupNo, curlStatus); });
}

int putMultiBlocks(const std::string& url, std::span<const std::byte> body, std::int64_t blockCount,
                   std::int64_t backupNo, int* curlStatus) {
    if (blockCount == 0) {
        LOG_HERE(0, "putMultiBlocks: nothing to send");
        return -1;
    }
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, "multiblock") == -1)
        return -1;
    request.header(HEADER_SIZE, "X-Offset: %d", X_OFFSET);
    request.timeHeader();
    request.backupNoHeader(backupNo);
    request.header(HEADER_SIZE, "X-BackupSize: %lu", body.size());
    request.header(HEADER_SIZE, "X-ClusterAmt: %ld", blockCount);
    request.protocolHeader();
    LOG_HERE(4, "Options:\n%s", request.headerLines().c_str());
    RequestBody source{body.data(), body.size()};
    if (request.put(memoryReadCallback, &source, body.size(), curlStatus) == -1)
        return -1;
    return request.result();
}

std::int64_t putBlocks(const std::string& url, std::span<const RequestBody> sendInfo,
                       std::span<const hashReferenceInfo> records, int verifyHash, std::int64_t backupNo,
                       int* curlStatus) {
    LOG_HERE(4, "Starting putBlocks(5)\n");
    for (std::size_t i = 0; i < sendInfo.size(); ++i) {
        if (sendInfo[i].remaining == 0) {
            LOG_HERE(4, "No need to send block\n");
            continue;
        }
        if (verifyHash == 1 && !hasItsDigest(sendInfo[i], records[i]))
            break;
        if (putOneBlock(url, sendInfo[i], records[i], backupNo, curlStatus) == -1)
            break;
    }
    LOG_HERE(4, "Return from putBlocks(5)\n");
    return static_cast<std::int64_t>(sendInfo.size());
}

int putLargeBlock(const std::string& url, const hashValue& record, std::span<std::byte> window, std::int64_t backupNo,
                  int* curlStatus, std::mutex* readLock) {
    LOG_HERE(4, "Starting putLargeBlock(4)\n");
    LOG_HERE(4, "Max:%d", static_cast<int>(window.size()));
    LOG_HERE(4, "Remaining:%d", static_cast<int>(record.hashedLength));
    if (record.hashedLength > INT32_MAX) {
        LOG_HERE(0, "A block of %lu bytes is too long to be sent", record.hashedLength);
        return -1;
    }
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, blockRequest(record)) == -1)
        return -1;
    request.protocolHeader();
    request.header(HEADER_SIZE, "X-Offset: %d", X_OFFSET);
    request.timeHeader();
    request.backupNoHeader(backupNo);
    getThreadCurlData()->readLock = readLock;  // made by the request above
    LargeBlockSource source{record, window, record.hashedLength};
    if (request.put(hashedReadCallback, &source, source.length, curlStatus) == -1)
        return -1;
    LOG_HERE(6, "Return from putLargeBlock(4)\n");
    return request.result();
}
