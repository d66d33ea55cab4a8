#include "rest/lifecycle.h"

#include <cstdio>
#include <cstring>

#include "config/directories.h"
#include "config/ini.h"
#include "config/services.h"
#include "log/logger.h"
#include "rest/session_internal.h"

namespace {

constexpr std::size_t SMALLEST_CHECK_REPLY = 16;    // number and status
constexpr std::size_t CHECK_REPLY_PROPERTIES = 24;  // and properties
constexpr std::size_t CHECK_REPLY_CRC = 4;

RequestBody bodyOf(std::string_view text) {
    return {reinterpret_cast<const std::byte*>(text.data()), text.size()};
}

template <typename T>
T wordAt(const std::string& reply, std::size_t offset) {
    T word;
    std::memcpy(&word, reply.data() + offset, sizeof word);
    return word;
}

// The checksum covers the reply up to itself: the three words and as many bytes as the identity has.
int checkChecksum(const std::string& reply, std::size_t amt) {
    const std::size_t covered = CHECK_REPLY_PROPERTIES + amt;
    if (reply.size() < covered + CHECK_REPLY_CRC) {
        LOG_HERE(0,
                 "Checksum required, but the response is too small to contain one. Set [Replication] RequireChecksum=0 "
                 "if querying a system that does not support checksumed responses.");
        return -1;
    }
    const std::uint32_t calculated = crc32_buffer(reinterpret_cast<const unsigned char*>(reply.data()), covered);
    const auto sent = wordAt<std::uint32_t>(reply, covered);
    LOG_HERE(4, "Checksum results. Sent: %u Calculated: %u", sent, calculated);
    if (sent != calculated) {
        LOG_HERE(0, "Checksum does not match in response. Sent: %u Calculated: %u", sent, calculated);
        return -1;
    }
    return 0;
}

std::int64_t readCheckReply(const std::string& reply, std::size_t amt, std::uint64_t* status,
                            std::uint64_t* properties) {
    LOG_HERE(4, "Amt size:%zd", static_cast<ssize_t>(amt));
    LOG_HERE(4, "Protocol Three Size:%lu", amt + CHECK_REPLY_PROPERTIES + CHECK_REPLY_CRC);
    LOG_HERE(4, "response payload size: %zd", static_cast<ssize_t>(reply.size()));
    if (ini_get_int("Replication", "RequireChecksum", 0, g_master_ini) == 1 && checkChecksum(reply, amt) == -1)
        return -1;
    if (reply.size() < SMALLEST_CHECK_REPLY) {
        LOG_HERE(0, "Response from target is too small for any supported protocol version. Size: %zd",
                 static_cast<ssize_t>(reply.size()));
        return -1;
    }
    *status = wordAt<std::uint64_t>(reply, 8);
    if (reply.size() < CHECK_REPLY_PROPERTIES) {
        *properties = 0;
        LOG_HERE(1, "Target does not support providing backup properties, local block elimination is not supported.");
    } else {
        *properties = wordAt<std::uint64_t>(reply, 16);
        LOG_HERE(1, "Backup properties on target is %lu", *properties);
    }
    return wordAt<std::int64_t>(reply, 0);
}

}  // namespace

std::int64_t postBackupCheck(const std::string& url, std::string_view identity, std::uint64_t backupNoOnTarget,
                             std::uint64_t* status, std::uint64_t* properties, int* curlStatus) {
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, "backup-check") == -1)
        return -1;
    request.header(HEADER_SIZE, "X-Amt:%lu", identity.size());
    request.protocolHeader();
    if (backupNoOnTarget != 0)
        request.header(HEADER_SIZE, "X-BackupNo: %lu", backupNoOnTarget);
    if (request.post(bodyOf(identity), curlStatus) == -1)
        return -1;
    if (request.errorCode() != HEADER_GOOD) {
        request.logCurlFailure();
        return -1;
    }
    return readCheckReply(request.reply(), identity.size(), status, properties);
}

std::int64_t startBackup(const std::string& url, std::string_view metadata, std::uint64_t reserveSize, int* curlStatus,
                         bool force) {
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, "start-backup") == -1)
        return -1;
    request.timeHeader();
    request.header(HEADER_SIZE, "X-Amt:%lu", metadata.size());
    request.protocolHeader();
    request.header(HEADER_SIZE, "X-ReserveSize:%lu", reserveSize);
    if (force)
        request.header(HEADER_SIZE, "X-Force: FORCE");
    if (request.post(bodyOf(metadata), curlStatus) == -1)
        return -1;
    if (request.errorCode() != HEADER_GOOD) {
        request.logCurlFailure();
        return request.result();
    }
    if (request.reply().empty()) {
        LOG_HERE(0, "ERROR: Unexpected response payload size:%zd, expected size>0, curl_easy_perform:%d.\n",
                 static_cast<ssize_t>(0), request.curlCode());
        return -1;
    }
    long number = 0;
    (void)sscanf(request.reply().c_str(), "%ld", &number);  // text that is no number leaves 0, which is a refusal
    LOG_HERE(4, "Return:%ld", number);
    return number;
}

int postBlockCount(const std::string& url, std::uint64_t backupNoOnTarget, int* curlStatus, std::int64_t* count) {
    LOG_HERE(4, "postBlockCount");
    TargetRequest request;
    if (request.open(TargetRequest::Body::None, url, "backup-block-count") == -1)
        return -1;
    request.protocolHeader();
    if (backupNoOnTarget != 0)
        request.header(HEADER_SIZE, "X-BackupNo: %lu", backupNoOnTarget);
    if (request.postEmpty(curlStatus) == -1)
        return -1;
    LOG_HERE(4, "stat.errorCode:%d", request.errorCode());
    int result = 0;
    if (request.errorCode() != HEADER_GOOD) {
        request.logCurlFailure();
        result = request.result();
    } else if (request.reply().size() < sizeof *count) {
        LOG_HERE(0, "ERROR: Unexpected response payload size:%zd, expected size>=%zu, curl_easy_perform:%d.\n",
                 static_cast<ssize_t>(request.reply().size()), sizeof *count, request.curlCode());
        result = -1;
    } else {
        *count = wordAt<std::int64_t>(request.reply(), 0);
    }
    LOG_HERE(4, "Return:%d", result);
    return result;
}

int endBackup(const std::string& url, const std::string& identity, std::string_view message, int* curlStatus) {
    TargetRequest request;
    if (request.open(TargetRequest::Body::Some, url, "end-backup") == -1)
        return -1;
    request.header(HEADER_SIZE, "X-Amt:%lu", message.size());
    request.header(IDENTITY_HEADER_SIZE, "X-BackupUUID: %s", identity.c_str());
    request.protocolHeader();
    return request.post(bodyOf(message), curlStatus) == -1 ? -1 : request.result();
}
