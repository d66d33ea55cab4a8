// session_internal.h - the one way in which this room makes a request.
#pragma once

#define CURL_DISABLE_DEPRECATION  // CURLOPT_PUT is part of the requests' shape
#include <curl/curl.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "base/releaser.h"
#include "log/logger.h"
#include "rest/session.h"

using CurlPtr = std::unique_ptr<CURL, Releaser<&curl_easy_cleanup>>;
using HeaderListPtr = std::unique_ptr<curl_slist, Releaser<&curl_slist_free_all>>;

inline constexpr std::size_t PROTOCOL_HEADER_SIZE = 32;  // a header's line and its NUL
inline constexpr std::size_t IDENTITY_HEADER_SIZE = 512;
inline constexpr std::size_t HEADER_SIZE = 256;
inline constexpr int X_TIME = 5;
inline constexpr std::size_t RESPONSE_LIMIT = 64u << 20;  // a longer reply is cut off, which fails the transfer

// One request, from its URL to its verdict: open, its headers in their order, then one of the exchanges. A header that
// can't be made is logged, and the exchange then fails without having been tried.
class TargetRequest {
public:
    enum class Body { None, Some };

    // `body` None: a request without one, which leaves the thread's record alone.
    [[nodiscard]] int open(Body body, const std::string& target, std::string_view request);
    [[gnu::format(printf, 3, 4)]] void header(std::size_t limit, const char* format, ...);
    void protocolHeader() { header(PROTOCOL_HEADER_SIZE, "X-Protocol: %d", 1); }
    void timeHeader() { header(HEADER_SIZE, "X-Time: %d", X_TIME); }
    void backupNoHeader(std::int64_t backupNo) { header(HEADER_SIZE, "X-BackupNo: %ld", backupNo); }

    // Each performs the exchange and stores libcurl's code in *curlStatus. 0 or -1.
    [[nodiscard]] int post(RequestBody body, int* curlStatus);
    [[nodiscard]] int postEmpty(int* curlStatus);
    [[nodiscard]] int put(curl_read_callback callback, void* source, std::uint64_t size, int* curlStatus);

    // 0, or the common rule: a verdict never reached is -1, a negative one is the result.
    [[nodiscard]] int result() const { return errorCode_ > 0 ? -1 : errorCode_; }
    [[nodiscard]] std::int32_t errorCode() const { return errorCode_; }
    [[nodiscard]] int curlCode() const { return curlCode_; }
    [[nodiscard]] const std::string& reply() const { return reply_; }
    [[nodiscard]] std::string takeReply() { return std::move(reply_); }
    [[nodiscard]] const std::string& headerLines() const { return headerLines_; }  // each with its newline

    void logCurlFailure() const;

private:
    [[nodiscard]] int perform(bool optionsAreSet, int* curlStatus);

    ThreadCurlData* threadData_ = nullptr;
    CurlPtr handle_;
    std::string url_;
    std::string headerLines_;
    bool hasAllHeaders_ = true;
    HeaderListPtr headerList_;
    std::string reply_;
    std::int32_t errorCode_ = HEADER_NOT_JUDGED;
    int curlCode_ = 0;
};

// Runs a request whose preparation takes memory: without it the request fails like any other.
template <typename Request>
[[nodiscard]] int failWithoutMemory(Request request) {
    try {
        return request();
    } catch (const std::bad_alloc&) {
        LOG_HERE(0, "Failed to allocate memory");
        return -1;
    }
}

// The callbacks, as libcurl calls them.
std::size_t memoryReadCallback(char* buffer, std::size_t size, std::size_t count, void* threadData);
std::size_t responseWriteCallback(char* bytes, std::size_t size, std::size_t count, void* reply);
std::size_t headerCallback(char* line, std::size_t size, std::size_t count, void* errorCode);
int sockopt_callback(void* clientData, curl_socket_t socket, curlsocktype purpose);

void installSocketCallback(CURL* handle);
[[nodiscard]] CURLcode performRequest(CURL* handle, ThreadCurlData* threadData);
