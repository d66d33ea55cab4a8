#include "rest/session.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "bandwidth/blockOut.h"
#include "base/job_gate.h"
#include "base/text.h"
#include "log/logger.h"
#include "log/thread_record.h"
#include "rest/session_internal.h"

namespace {

constexpr suseconds_t MICROSECONDS = 1000000;

pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_key;
bool g_keyMade = false;

void makeKey() {
    g_keyMade = pthread_key_create(&g_key, std::free) == 0;
    if (!g_keyMade)
        LOG_HERE(0, "Failed to create thread curl data key.");
}

template <typename T>
bool set(CURL* handle, CURLoption option, T value) {
    return curl_easy_setopt(handle, option, value) == CURLE_OK;
}

// What a header line says, and what is told of it on the log.
struct JudgedLine {
    std::string_view line;
    std::int32_t verdict;
};
constexpr std::string_view LINE_500 = "HTTP/1.1 500 Internal Server Error\r\n";
constexpr std::string_view LINE_405 = "HTTP/1.1 405 Bad Request\r\n";
constexpr std::string_view LINE_503 = "HTTP/1.1 503 Service Unavailable\r\n";
constexpr JudgedLine WARNINGS[] = {
    {"Warning: Failed to process metaData, tried to insert out of order backup sequence.\r\n", HEADER_OUT_OF_ORDER},
    {"Warning: Failed to process metaData\r\n", HEADER_CANNOT_PROCESS},
};

// The peer's words may hold anything: control characters don't reach the log.
void logLine(int level, std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    std::string text(line);
    std::ranges::replace_if(
        text, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    LOG_HERE(level, "%s", text.c_str());
}

std::int32_t judge(std::string_view line) {
    if (line == LINE_405) {
        LOG_HERE(0, "Failed Query");
        LOG_HERE(3, "HTTP/1.1 405 Bad Request\r\n");
        return HEADER_BAD_REQUEST;
    }
    if (line == LINE_503) {
        LOG_HERE(0, "Failed Query");
        LOG_HERE(3, "HTTP/1.1 503 Service Unavailable\r\n");
        logLine(0, line);
        return HEADER_UNAVAILABLE;
    }
    for (const JudgedLine& known : WARNINGS) {
        if (line == known.line) {
            logLine(0, line);
            return known.verdict;
        }
    }
    if (line.starts_with("Warning:"))
        logLine(0, line);
    return HEADER_GOOD;
}

}  // namespace

ThreadCurlData* getThreadCurlData() {
    if (pthread_once(&g_keyOnce, makeKey) != 0) {
        LOG_HERE(0, "Failed to malloc thread curl data struct.");
        return nullptr;
    }
    if (!g_keyMade)
        return nullptr;
    if (void* known = pthread_getspecific(g_key); known != nullptr)
        return static_cast<ThreadCurlData*>(known);
    MallocPtr<ThreadCurlData> made(static_cast<ThreadCurlData*>(std::calloc(1, sizeof(ThreadCurlData))));
    if (!made) {
        LOG_HERE(0, "Failed to malloc thread curl data value.");
        return nullptr;
    }
    if (keepThreadRecord(g_key, made.get()) == -1)
        return nullptr;
    return made.release();
}

timeval paceStart(ThreadCurlData* data) {
    passJobGate();  // a body that is on its way stops at its next piece
    timeval now;
    (void)gettimeofday(&now, nullptr);  // can't fail with a good pointer
    // A clock that was set back can come here again in a second that is used up; an allowance of 0 would pass for the
    // end of the body.
    if (now.tv_sec != data->lastSecond || data->remainingB == 0) {
        data->lastSecond = now.tv_sec;
        data->remainingB = threadBandwidthLimit(time(nullptr));
    }
    return now;
}

void paceSpend(ThreadCurlData* data, std::uint64_t sent, timeval now) {
    data->remainingB -= sent;
    if (data->remainingB != 0)
        return;
    while (now.tv_sec == data->lastSecond) {
        usleep(static_cast<useconds_t>(MICROSECONDS - now.tv_usec));
        (void)gettimeofday(&now, nullptr);
    }
}

std::size_t memoryReadCallback(char* buffer, std::size_t size, std::size_t count, void* threadData) {
    auto* const data = static_cast<ThreadCurlData*>(threadData);
    auto* const body = static_cast<RequestBody*>(data->userData);
    const timeval now = paceStart(data);
    const std::size_t n = std::min({static_cast<std::uint64_t>(size * count), body->remaining, data->remainingB});
    std::memcpy(buffer, body->data, n);
    body->data += n;
    body->remaining -= n;
    paceSpend(data, n, now);
    return n;
}

std::size_t responseWriteCallback(char* bytes, std::size_t size, std::size_t count, void* reply) {
    auto* const text = static_cast<std::string*>(reply);
    const std::size_t n = size * count;
    if (n > RESPONSE_LIMIT - text->size()) {
        LOG_HERE(0, "The reply is longer than %zu bytes, cut off", RESPONSE_LIMIT);
        return static_cast<std::size_t>(-1);
    }
    try {
        text->append(bytes, n);
    } catch (const std::exception&) {
        return static_cast<std::size_t>(-1);
    }
    return n;
}

// The first bad verdict of a response stands; a good line only takes the place of none.
std::size_t headerCallback(char* line, std::size_t size, std::size_t count, void* errorCodeOut) {
    auto* const errorCode = static_cast<std::int32_t*>(errorCodeOut);
    const std::string_view text(line, size * count);
    if (text == LINE_500) {
        LOG_HERE(0, "Failed Query");
        LOG_HERE(3, "HTTP/1.1 500 Internal Server Error");
        return 0;
    }
    const std::int32_t verdict = judge(text);
    if (*errorCode == HEADER_NOT_JUDGED || (*errorCode == HEADER_GOOD && verdict != HEADER_GOOD))
        *errorCode = verdict;
    return text.size();
}

const char* curlText(int curlCode) {
    return curl_easy_strerror(static_cast<CURLcode>(curlCode));
}

CURLcode performRequest(CURL* handle, ThreadCurlData*) {
    if (handle == nullptr)
        return CURLE_BAD_FUNCTION_ARGUMENT;
    passJobGate();
    return curl_easy_perform(handle);
}

int TargetRequest::open(Body body, const std::string& target, std::string_view request) {
    if (body == Body::Some) {
        threadData_ = getThreadCurlData();
        if (threadData_ == nullptr) {
            LOG_HERE(0, "Failed to get thread specific curl data.");
            return -1;
        }
    }
    handle_.reset(curl_easy_init());
    if (!handle_) {
        LOG_HERE(0, "Failed curl_easy_init()");
        return -1;
    }
    url_ = target;
    url_ += "/cgi-bin/vaultServer/";
    url_ += request;
    LOG_HERE(4, "Query: %s\n", url_.c_str());
    return 0;
}

void TargetRequest::header(std::size_t limit, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string line = vformatString(format, arguments);
    va_end(arguments);
    const bool fits = !line.empty() && line.size() < limit;
    // Identities come from other systems: one with a line break in it must not become two headers.
    const bool isOneLine = line.find_first_of("\r\n") == std::string::npos;
    curl_slist* const list = fits && isOneLine ? curl_slist_append(headerList_.get(), line.c_str()) : nullptr;
    if (list == nullptr) {
        LOG_HERE(0, "%s",
                 !fits        ? "Message too long for buffer"
                 : !isOneLine ? "A header with a line break is not sent"
                              : "Failed to allocate memory");
        hasAllHeaders_ = false;
        return;
    }
    (void)headerList_.release();  // the list is the longer one now
    headerList_.reset(list);
    headerLines_ += line + '\n';
}

int TargetRequest::post(RequestBody body, int* curlStatus) {
    CURL* const handle = handle_.get();
    threadData_->userData = &body;
    const bool isSet = set(handle, CURLOPT_POST, 1L) && set(handle, CURLOPT_READFUNCTION, &memoryReadCallback) &&
                       set(handle, CURLOPT_READDATA, threadData_) &&
                       set(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.remaining)) &&
                       set(handle, CURLOPT_WRITEFUNCTION, &responseWriteCallback) &&
                       set(handle, CURLOPT_WRITEDATA, &reply_);
    return perform(isSet, curlStatus);
}

int TargetRequest::postEmpty(int* curlStatus) {
    CURL* const handle = handle_.get();
    const bool isSet = set(handle, CURLOPT_POST, 1L) && set(handle, CURLOPT_WRITEFUNCTION, &responseWriteCallback) &&
                       set(handle, CURLOPT_WRITEDATA, &reply_);
    return perform(isSet, curlStatus);
}

int TargetRequest::put(curl_read_callback callback, void* source, std::uint64_t size, int* curlStatus) {
    CURL* const handle = handle_.get();
    threadData_->userData = source;
    const bool isSet = set(handle, CURLOPT_UPLOAD, 1L) && set(handle, CURLOPT_PUT, 1L) &&
                       set(handle, CURLOPT_READFUNCTION, callback) && set(handle, CURLOPT_READDATA, threadData_) &&
                       set(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
    return perform(isSet, curlStatus);
}

int TargetRequest::perform(bool optionsAreSet, int* curlStatus) {
    CURL* const handle = handle_.get();
    errorCode_ = HEADER_NOT_JUDGED;
    if (!hasAllHeaders_)
        return -1;
    if (!optionsAreSet || !set(handle, CURLOPT_URL, url_.c_str()) ||
        !set(handle, CURLOPT_HTTPHEADER, headerList_.get()) || !set(handle, CURLOPT_HEADERFUNCTION, &headerCallback) ||
        !set(handle, CURLOPT_HEADERDATA, &errorCode_)) {
        LOG_HERE(0, "Failed to set the options of a request");
        return -1;
    }
    installSocketCallback(handle);
    const CURLcode code = performRequest(handle, threadData_);
    if (threadData_ != nullptr)
        threadData_->userData = nullptr;  // the source goes with the request
    curlCode_ = static_cast<int>(code);
    *curlStatus = curlCode_;
    if (code != CURLE_OK)
        LOG_HERE(4, "curl_easy_perform res:%d, %s", curlCode_, curl_easy_strerror(code));
    return 0;
}

void TargetRequest::logCurlFailure() const {
    LOG_HERE(0, "Curl failure: curl_easy_perform:%d, stat.errorCode:%d, response payload size:%zd", curlCode_,
             errorCode_, static_cast<ssize_t>(reply_.size()));
}
