// pg_result.cpp - rows of a statement: fields by column name, and text made safe for statements.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "database/pghelper_internal.h"

using namespace pghelper;

namespace pghelper {

PgResultPtr makeResult(RowsPtr rows, std::string query) {
    PgResultPtr result(new pgResult);
    result->rows = std::move(rows);
    result->query = std::move(query);
    return result;
}

}  // namespace pghelper

namespace {

// The number of a column, -1 if there is none of that name. Of equal names the first counts.
int columnNumber(pgResult& result, const char* column) {
    if (column == nullptr) {
        LOG_HERE(0, "Invalid null column name\n");
        return -1;
    }
    if (!result.rows) {
        LOG_HERE(0, "Cannot fetch column numbers for null query result!\n");
        return -1;
    }
    auto& names = result.columnNames;
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i] == column)
            return static_cast<int>(i);
    for (const int count = PQnfields(result.rows.get()); static_cast<int>(names.size()) < count;) {
        names.emplace_back(PQfname(result.rows.get(), static_cast<int>(names.size())));
        if (names.back() == column)
            return static_cast<int>(names.size()) - 1;
    }
    LOG_HERE(0, "Invalid column name: '%s'\n", column);
    return -1;
}

// The text of a field, owned by the result; null for NULL, for a row or column that isn't there, and for no result.
const char* getTextValue(const pgResult* result, int row, const char* column) {
    if (result == nullptr) {
        LOG_HERE(0, "Cannot fetch value for null query result!\n");
        return nullptr;
    }
    // The names learned are a cache behind an unchanging result.
    const int number = columnNumber(const_cast<pgResult&>(*result), column);
    if (number == -1 || PQgetisnull(result->rows.get(), row, number) != 0)
        return nullptr;
    return PQgetvalue(result->rows.get(), row, number);
}

// Reads a field with a function of the strtol family; what can't be read is logged and gives 0.
template <typename Number, typename Parse>
Number numberValue(const pgResult* result, int row, const char* column, const char* function, Parse parse) {
    const char* text = getTextValue(result, row, column);
    if (text == nullptr)
        return Number{};
    char* end = nullptr;
    errno = 0;
    const Number number = parse(text, &end);
    if (end == text && errno == 0)
        errno = EINVAL;
    if (errno == 0)
        return number;
    LOG_HERE(0, "Could not retrieve value for row %d, col %s: %s(%.32s) failed with errno %d: %s\n", row, column,
             function, text, errno, std::strerror(errno));
    return Number{};
}

}  // namespace

int pgClear(pgResult* result) {
    const SignalMask mask;
    delete result;
    return 0;
}

int pgStatus(const pgResult* result) {
    const SignalMask mask;
    if (result == nullptr)
        return -1;
    const ExecStatusType status = PQresultStatus(result->rows.get());
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_COPY_IN ? 0 : -1;
}

int pgTuples(const pgResult* result) {
    if (result == nullptr) {
        LOG_HERE(0, "Cannot return tuple count for null query result!\n");
        return 0;
    }
    return PQntuples(result->rows.get());
}

int pgAffected(const pgResult* result) {
    if (result == nullptr) {
        LOG_HERE(0, "Cannot return affected row count for null query result!\n");
        return 0;
    }
    return result->rows ? std::atoi(PQcmdTuples(result->rows.get())) : 0;
}

const char* pgSVal(const pgResult* result, int row, const char* column) {
    return getTextValue(result, row, column);
}

std::string pgSDup(const pgResult* result, int row, const char* column) {
    const char* text = getTextValue(result, row, column);
    return text != nullptr ? text : "";
}

bool pgBVal(const pgResult* result, int row, const char* column) {
    const char* text = getTextValue(result, row, column);
    if (text == nullptr)
        return false;
    for (const char* word : {"t", "true", "y", "yes", "on", "1"})
        if (std::strcmp(text, word) == 0)
            return true;
    for (const char* word : {"f", "false", "n", "no", "off", "0"})
        if (std::strcmp(text, word) == 0)
            return false;
    LOG_HERE(0, "Could not retrieve value for row %d, col %s: invalid value(%.32s) in result\n", row, column, text);
    return false;
}

double pgDVal(const pgResult* result, int row, const char* column) {
    return numberValue<double>(result, row, column, "strtod", [](const char* t, char** e) { return strtod(t, e); });
}

unsigned long pgUVal(const pgResult* result, int row, const char* column) {
    return numberValue<unsigned long>(result, row, column, "strtoul",
                                      [](const char* t, char** e) { return strtoul(t, e, 10); });
}

long long pgLLVal(const pgResult* result, int row, const char* column) {
    return numberValue<long long>(result, row, column, "strtoll",
                                  [](const char* t, char** e) { return strtoll(t, e, 10); });
}

long pgIVal(const pgResult* result, int row, const char* column) {
    return numberValue<long>(result, row, column, "strtol", [](const char* t, char** e) { return strtol(t, e, 10); });
}

bool pgIsNull(const pgResult* result, int row, const char* column) {
    return getTextValue(result, row, column) == nullptr;
}

int pgAEscape(std::string* escaped, std::string_view text) {
    const SignalMask mask;
    // A connection lost within a transaction still knows its encoding, and escaping talks to nobody.
    if ((pgResourcePtr == nullptr || !pgResourcePtr->conn) && ensureConnected() == -1)
        return -1;
    std::string buffer(text.size() * 2 + 1, '\0');
    int error = 0;
    const std::size_t length =
        PQescapeStringConn(pgResourcePtr->conn.get(), buffer.data(), text.data(), text.size(), &error);
    if (error != 0)
        return -1;
    buffer.resize(length);
    *escaped = std::move(buffer);
    return 0;
}

int pgEscape(char* destination, std::size_t size, std::string_view text) {
    std::string escaped;
    if (pgAEscape(&escaped, text) == -1 || escaped.size() >= size)
        return -1;
    std::memcpy(destination, escaped.c_str(), escaped.size() + 1);
    return 0;
}
