// The grammar of a schedule. Blanks and commas stand between tokens, blanks also before numbers, which are decimal,
// octal or hexadecimal:
//
//   attach:ID                    use the segment with this id
//   default                      no limits
//   =LIMIT at the very start     what every hour has that no period names (otherwise: no limit)
//   =LIMIT                       from here on, the limit of periods without one of their own; at first 4096
//   [DAYS:]HOURS[=LIMIT]         a period; DAYS: alone is whole days
//
// A range is N or N-M and wraps around. LIMIT takes a suffix k, m or g.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "bandwidth/blockOut_internal.h"
#include "log/logger.h"

namespace {

constexpr std::string_view ATTACH = "attach:";
constexpr std::string_view DEFAULT = "default";

struct Range {
    unsigned long first;
    unsigned long last;
    std::string_view text;
    [[nodiscard]] bool isWithin(int count) const {
        return first < static_cast<unsigned long>(count) && last < static_cast<unsigned long>(count);
    }
};

constexpr Range ALL_DAYS = {0, BANDWIDTH_DAYS - 1, "0-6"};
constexpr Range ALL_HOURS = {0, BANDWIDTH_HOURS - 1, "0-23"};

// Reads a NUL-terminated schedule from left to right.
class Reader {
public:
    explicit Reader(const char* text) : at_(text) {}

    [[nodiscard]] const char* rest() const { return at_; }
    [[nodiscard]] bool atEnd() const { return *at_ == '\0'; }
    void skipBlanks() { at_ += std::strspn(at_, " \t\r\n"); }
    void skipSeparators() { at_ += std::strspn(at_, " \t\r\n,"); }
    [[nodiscard]] bool take(char c) {
        if (*at_ != c)
            return false;
        ++at_;
        return true;
    }
    [[nodiscard]] bool numberFollows() {
        skipBlanks();
        return isdigit(static_cast<unsigned char>(*at_)) != 0;
    }

    // A number that no letter or digit follows; with `suffixed` one of k, m, g may. Too large a number is the largest.
    std::optional<std::uint64_t> number(bool suffixed) {
        if (!numberFollows())
            return std::nullopt;
        char* end = nullptr;
        errno = 0;
        std::uint64_t value = std::strtoull(at_, &end, 0);
        if (suffixed)
            value = scaled(value, &end);
        if (isalnum(static_cast<unsigned char>(*end)) != 0)
            return std::nullopt;
        at_ = end;
        return value;
    }

    std::optional<Range> range() {
        skipBlanks();
        const char* const start = at_;
        const std::optional<std::uint64_t> first = number(false);
        std::optional<std::uint64_t> last = first;
        if (first && take('-'))
            last = number(false);
        if (!last)
            return std::nullopt;
        return Range{*first, *last, std::string_view(start, static_cast<std::size_t>(at_ - start))};
    }

private:
    static std::uint64_t scaled(std::uint64_t value, char** end) {
        unsigned shift = 0;
        switch (tolower(static_cast<unsigned char>(**end))) {
            case 'k':
                shift = 10;
                break;
            case 'm':
                shift = 20;
                break;
            case 'g':
                shift = 30;
                break;
            default:
                return value;
        }
        ++*end;
        return value > (ULLONG_MAX >> shift) ? ULLONG_MAX : value << shift;
    }

    const char* at_;
};

// A limit too large for the type is still a limit.
std::optional<std::uint64_t> readLimit(Reader* reader) {
    const std::optional<std::uint64_t> limit = reader->number(true);
    if (!limit)
        return std::nullopt;
    return std::clamp(*limit, LEAST_BANDWIDTH, NO_BANDWIDTH_LIMIT - 1);
}

bool isWithin(const Range& range, int count, const char* what) {
    if (range.isWithin(count))
        return true;
    LOG_HERE(0, "%s '%.*s' must be 0-%d\n", what, static_cast<int>(range.text.size()), range.text.data(), count - 1);
    return false;
}

void setPeriod(BandwidthTable* table, const Range& days, const Range& hours, std::uint64_t limit) {
    for (unsigned long day = days.first;; day = (day + 1) % BANDWIDTH_DAYS) {
        for (unsigned long hour = hours.first;; hour = (hour + 1) % BANDWIDTH_HOURS) {
            (*table)[day][hour] = limit;
            if (hour == hours.last)
                break;
        }
        if (day == days.last)
            break;
    }
}

// One period, its own limit included.
int readPeriod(Reader* reader, std::uint64_t currentLimit, BandwidthTable* table) {
    const char* const token = reader->rest();
    std::optional<Range> hours = reader->range();
    Range days = ALL_DAYS;
    if (hours && reader->take(':')) {
        days = *hours;
        hours = reader->numberFollows() ? reader->range() : ALL_HOURS;
    }
    if (!hours) {
        LOG_HERE(0, "Bad blockout token: '%s'\n", token);
        return -1;
    }
    const bool daysAreGood = isWithin(days, BANDWIDTH_DAYS, "Weekdays");
    const bool hoursAreGood = isWithin(*hours, BANDWIDTH_HOURS, "Hours");
    std::uint64_t limit = currentLimit;
    if (reader->take('=')) {
        const std::optional<std::uint64_t> own = readLimit(reader);
        if (!own) {
            LOG_HERE(0, "Bandwidth limit must follow '=': '%s'\n", reader->rest());
            return -1;
        }
        limit = *own;
    }
    if (!daysAreGood || !hoursAreGood)
        return -1;
    setPeriod(table, days, *hours, limit);
    return 0;
}

int readTokens(Reader* reader, BandwidthTable* table) {
    std::uint64_t currentLimit = LEAST_BANDWIDTH;
    for (reader->skipSeparators(); !reader->atEnd(); reader->skipSeparators()) {
        if (reader->take('=')) {
            const std::optional<std::uint64_t> limit = readLimit(reader);
            if (!limit) {
                LOG_HERE(0, "Bandwidth limit must follow '=': '%s'\n", reader->rest());
                return -1;
            }
            currentLimit = *limit;
        } else if (readPeriod(reader, currentLimit, table) == -1) {
            return -1;
        }
    }
    return 0;
}

void attachFrom(const char* text) {
    const char* const digits = text + ATTACH.size();
    char* end = nullptr;
    errno = 0;
    const long id = std::strtol(digits, &end, 0);
    if (id != -1 && end != digits && *end == '\0' && errno == 0 && id >= INT_MIN && id <= INT_MAX) {
        attachBandwidthTable(static_cast<int>(id));
    } else {
        LOG_HERE(0, "Shared memory id (integer) must follow attach: '%s'\n", digits);
        detachBandwidthTable();
    }
}

}  // namespace

int parseBlockOutPeriods(const char* text) {
    BandwidthHandle* const handle = getBandwidthHandle();
    if (handle == nullptr) {
        LOG_HERE(0, "Failed to get bandwidth thread handle.");
        return -1;
    }
    Reader reader(text);
    reader.skipBlanks();
    BandwidthTable table;
    if (std::string_view(reader.rest()).starts_with(ATTACH)) {
        attachFrom(reader.rest());
        if (handle->readOnly != 0)
            return 0;
        fillBandwidthTable(&table, NO_BANDWIDTH_LIMIT);
        publishBandwidthTable(table, *handle);
        return -1;
    }
    if (handle->readOnly != 0)
        return -1;
    const bool isDefault = std::string_view(reader.rest()).starts_with(DEFAULT);
    std::optional<std::uint64_t> defaultLimit = NO_BANDWIDTH_LIMIT;
    if (reader.take('=')) {
        defaultLimit = readLimit(&reader);
        if (!defaultLimit)
            LOG_HERE(0, "Bad default bandwidth: '%s'\n", reader.rest());
    }
    fillBandwidthTable(&table, defaultLimit.value_or(NO_BANDWIDTH_LIMIT));
    int result = defaultLimit ? 0 : -1;
    if (result == 0 && !isDefault && readTokens(&reader, &table) == -1) {
        fillBandwidthTable(&table, NO_BANDWIDTH_LIMIT);
        result = -1;
    }
    publishBandwidthTable(table, *handle);
    return result;
}
