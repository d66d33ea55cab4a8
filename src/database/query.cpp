// pg_query.cpp - statements: plain text, and prepared ones with typed parameters.
//
// A format is scanned once into its codes, the arguments are read along the codes into texts, and only then are the
// comparisons with NULL rewritten. The rewritten format is the key of the statement store, so a format whose nullable
// arguments are now NULL and now not has several prepared statements.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "database/pghelper_internal.h"

namespace pghelper {
namespace {

// One code of a format, at [begin, end) of its text, the percent sign included.
struct Code {
    TypeCode type;
    bool nullable;
    std::size_t begin;
    std::size_t end;
};

// A value to bind. Arguments of nullable codes have a flag ahead of them.
struct Argument {
    bool isNull = false;
    std::string text;
};

bool typeOf(char conversion, int longs, int shorts, TypeCode* type) {
    if (shorts > 1 || longs > 2 || (shorts > 0 && longs > 0))
        return false;
    const bool plain = longs == 0 && shorts == 0;
    switch (conversion) {
        case 'd':
            *type = shorts > 0 ? TYPE_SHORT : longs == 0 ? TYPE_INT : longs == 1 ? TYPE_LONG : TYPE_LONGLONG;
            return true;
        case 'u':
            *type = shorts > 0 ? TYPE_USHORT : longs == 0 ? TYPE_UINT : longs == 1 ? TYPE_ULONG : TYPE_ULONGLONG;
            return true;
        case 'f':
            *type = longs == 0 ? TYPE_FLOAT : TYPE_DOUBLE;
            return shorts == 0 && longs < 2;
        case 's':
            *type = TYPE_TEXT;
            return plain;
        case 'c':
            *type = TYPE_CHAR;
            return plain;
        case 'z':
            *type = TYPE_IGNORED;
            return plain;
        default:
            return false;
    }
}

// Finds the codes of a format. False (logged) for a code that there isn't.
bool scanFormat(const std::string& format, std::vector<Code>* codes) {
    for (std::size_t at = format.find('%'); at != std::string::npos; at = format.find('%', at)) {
        std::size_t next = at + 1;
        if (format[next] == '%') {
            at = next + 1;
            continue;
        }
        const bool nullable = format[next] == 'n';
        if (nullable)
            ++next;
        const std::size_t modifiers = next;
        int longs = 0;
        int shorts = 0;
        for (; format[next] == 'l' || format[next] == 'h'; ++next)
            ++(format[next] == 'l' ? longs : shorts);
        TypeCode type = TYPE_TEXT;
        if (!typeOf(format[next], longs, shorts, &type)) {
            LOG_HERE(0, "Invalid format code: %%%c\n", format[next]);
            if (next != modifiers)
                LOG_HERE(0, "Modifier was: %c\n", format[modifiers]);
            else
                LOG_HERE(0, "No modifier for format code\n");
            return false;
        }
        codes->push_back({type, nullable, at, next + 1});
        at = next + 1;
    }
    return true;
}

// Reads the arguments along the codes, one entry for each flag and one for each value.
std::vector<Argument> readArguments(const std::vector<Code>& codes, va_list arguments) {
    std::vector<Argument> values;
    for (const Code& code : codes) {
        bool isNull = false;
        if (code.nullable) {
            isNull = va_arg(arguments, int) > 0;
            values.push_back({isNull, ""});
        }
        Argument value{isNull, ""};
        switch (code.type) {
            case TYPE_TEXT: {
                const char* text = va_arg(arguments, const char*);
                value.isNull = isNull || text == nullptr;
                value.text = value.isNull ? "" : text;
                break;
            }
            case TYPE_CHAR:
                value.text = formatString("%c", va_arg(arguments, int));
                break;
            case TYPE_SHORT:
                value.text = formatString("%hd", static_cast<short>(va_arg(arguments, int)));
                break;
            case TYPE_USHORT:
                value.text = formatString("%hu", static_cast<unsigned short>(va_arg(arguments, int)));
                break;
            case TYPE_INT:
                value.text = formatString("%d", va_arg(arguments, int));
                break;
            case TYPE_UINT:
                value.text = formatString("%u", va_arg(arguments, unsigned));
                break;
            case TYPE_LONG:
                value.text = formatString("%ld", va_arg(arguments, long));
                break;
            case TYPE_ULONG:
                value.text = formatString("%lu", va_arg(arguments, unsigned long));
                break;
            case TYPE_FLOAT:
                value.text = formatString("%f", va_arg(arguments, double));
                break;
            case TYPE_DOUBLE:
                value.text = formatString("%lf", va_arg(arguments, double));
                break;
            case TYPE_LONGLONG:
                value.text = formatString("%lld", va_arg(arguments, long long));
                break;
            case TYPE_ULONGLONG:
                value.text = formatString("%llu", va_arg(arguments, unsigned long long));
                break;
            case NULL_FLAG:
            case TYPE_IGNORED:
                (void)va_arg(arguments, void*);
                break;
        }
        values.push_back(std::move(value));
    }
    return values;
}

// Where the operator in front of a code begins: '=' or '!=' with blanks behind it. npos for any other text.
std::size_t comparisonStart(const std::string& format, std::size_t codeBegin, bool* equal) {
    if (codeBegin == 0)
        return std::string::npos;
    const std::size_t at = format.find_last_not_of(" \t", codeBegin - 1);
    if (at == std::string::npos || format[at] != '=')
        return std::string::npos;
    const char before = at > 0 ? format[at - 1] : ' ';
    *equal = before != '!';
    if (before == '<' || before == '>')
        return std::string::npos;
    return *equal ? at : at - 1;
}

// "= NULL" is never true in SQL: a comparison with an argument that is NULL becomes the test that was meant. The two
// %z consume the flag and the value.
std::string transformNullComparisons(const std::string& format, const std::vector<Code>& codes,
                                     const std::vector<Argument>& arguments) {
    std::string output;
    std::size_t copied = 0;
    std::size_t argument = 0;
    for (const Code& code : codes) {
        const bool isNull = code.nullable && arguments[argument].isNull;
        argument += code.nullable ? 2 : 1;
        bool equal = true;
        const std::size_t start = isNull ? comparisonStart(format, code.begin, &equal) : std::string::npos;
        if (start == std::string::npos)
            continue;
        output.append(format, copied, start - copied);
        if (!output.empty() && output.back() != ' ' && output.back() != '\t')
            output += ' ';
        output += equal ? "IS NULL %z%z" : "IS NOT NULL %z%z";
        copied = code.end;
    }
    output.append(format, copied);
    LOG_HERE(5, "Input format string:  %s\n", format.c_str());
    LOG_HERE(5, "Output format string: %s\n", output.c_str());
    return output;
}

// Appends text of a format outside its codes: "%%" stands for one percent sign.
void appendLiteral(std::string_view text, std::string* statement) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        *statement += text[i];
        if (text[i] == '%')
            ++i;
    }
}

// A format with a code that there isn't goes out as it stands.
QueryRecord translate(const std::string& format, bool isValid) {
    QueryRecord record{format, "", {}, 0};
    std::vector<Code> codes;
    if (!isValid || !scanFormat(format, &codes)) {
        record.statement = format;
        return record;
    }
    std::size_t copied = 0;
    for (const Code& code : codes) {
        appendLiteral(std::string_view(format).substr(copied, code.begin - copied), &record.statement);
        copied = code.end;
        if (code.nullable)
            record.typeCodes.push_back(NULL_FLAG);
        record.typeCodes.push_back(code.type);
        if (code.type != TYPE_IGNORED)
            record.statement += formatString("$%d", ++record.parameterCount);
    }
    appendLiteral(std::string_view(format).substr(copied), &record.statement);
    return record;
}

// Translates a format and adds it to the store. Returns its index, or -1.
int prepareQuery(pgResource& resource, const std::string& format, bool isValid) {
    LOG_HERE(5, "Query not in cache, preparing...\n");
    QueryRecord record = translate(format, isValid);
    LOG_HERE(5, "Parameter count: %d, query string: %s\n", record.parameterCount, record.statement.c_str());
    const int index = static_cast<int>(resource.queries.size());
    if (resource.preparedEnabled) {
        LOG_HERE(5, "Storing as a prepared statement\n");
        const RowsPtr rows(PQprepare(resource.conn.get(), std::to_string(index).c_str(), record.statement.c_str(),
                                     record.parameterCount, nullptr));
        if (PQresultStatus(rows.get()) != PGRES_COMMAND_OK) {
            LOG_HERE(0, "Postgres error: %s.", PQerrorMessage(resource.conn.get()));
            return -1;
        }
    }
    resource.queries.push_back(std::move(record));
    return index;
}

// The index of a format in the store, from the newest; prepared now if it isn't there.
int findQuery(pgResource& resource, const std::string& format, bool isValid) {
    for (std::size_t i = resource.queries.size(); i-- > 0;)
        if (resource.queries[i].format == format)
            return static_cast<int>(i);
    return prepareQuery(resource, format, isValid);
}

// What goes to the server, along the codes of the record; borrows the texts.
std::vector<const char*> storeParams(const QueryRecord& record, const std::vector<Argument>& arguments) {
    std::vector<const char*> values;
    for (std::size_t i = 0; i < record.typeCodes.size(); ++i) {
        if (record.typeCodes[i] != NULL_FLAG && record.typeCodes[i] != TYPE_IGNORED)
            values.push_back(arguments[i].isNull ? nullptr : arguments[i].text.c_str());
    }
    if (log_level >= 6) {
        std::string line = formatString("Query parameters [%d]: ", record.parameterCount);
        for (std::size_t i = 0; i < values.size(); ++i)
            line += values[i] != nullptr ? formatString("$%d: \"%s\"  ", static_cast<int>(i + 1), values[i])
                                         : formatString("$%d: (null)  ", static_cast<int>(i + 1));
        log_message(6, "%s\n", line.c_str());
    }
    return values;
}

PgResultPtr executeQuery(pgResource& resource, int index, const std::vector<Argument>& arguments) {
    const QueryRecord& record = resource.queries[static_cast<std::size_t>(index)];
    const std::vector<const char*> values = storeParams(record, arguments);
    PGconn* conn = resource.conn.get();
    const int count = static_cast<int>(values.size());
    RowsPtr rows(
        resource.preparedEnabled
            ? PQexecPrepared(conn, std::to_string(index).c_str(), count, values.data(), nullptr, nullptr, 0)
            : PQexecParams(conn, record.statement.c_str(), count, nullptr, values.data(), nullptr, nullptr, 0));
    const ExecStatusType status = PQresultStatus(rows.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        return makeResult(std::move(rows), record.statement);
    LOG_HERE(0, "Execution of statement with index %d failed: %s.", index, PQerrorMessage(conn));
    LOG_HERE(0, "Query string was: %s\n", record.statement.c_str());
    return nullptr;
}

}  // namespace

PgResultPtr executeTextQuery(const char* statement) {
    if (ensureConnected() == -1)
        return nullptr;
    PGconn* conn = pgResourcePtr->conn.get();
    RowsPtr rows(PQexec(conn, statement));
    const ExecStatusType status = PQresultStatus(rows.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_COPY_IN)
        return makeResult(std::move(rows), statement);
    LOG_HERE(0, "Execution of statement failed: %s.", PQerrorMessage(conn));
    LOG_HERE(0, "Query string was: %s\n", statement);
    return nullptr;
}

}  // namespace pghelper

using namespace pghelper;

PgResultPtr pgExec(const char* statement) {
    const SignalMask mask;
    PgResultPtr result = executeTextQuery(statement);
    if (!result)
        LOG_HERE(0, "executeTextQuery returned null result\n");
    return result;
}

PgResultPtr pgVExec(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string statement = vformatString(format, arguments);
    va_end(arguments);
    if (statement.empty()) {
        LOG_HERE(0, "Out of memory\n");
        return nullptr;
    }
    return pgExec(statement.c_str());
}

PgResultPtr pgQuery(const char* format, ...) {
    const SignalMask mask;
    if (format == nullptr || *format == '\0') {
        LOG_HERE(0, "Null format string\n");
        return nullptr;
    }
    if (ensureConnected() == -1)
        return nullptr;
    const std::string text = format;
    std::vector<Code> codes;
    std::vector<Argument> arguments;
    std::string key = text;
    const bool isValid = scanFormat(text, &codes);
    if (isValid) {
        va_list list;
        va_start(list, format);
        arguments = readArguments(codes, list);
        va_end(list);
        key = transformNullComparisons(text, codes, arguments);
    }
    const int index = findQuery(*pgResourcePtr, key, isValid);
    return index == -1 ? nullptr : executeQuery(*pgResourcePtr, index, arguments);
}

int pgServerVersion() {
    const SignalMask mask;
    if (pgResourcePtr != nullptr && pgResourcePtr->serverVersion != 0)
        return pgResourcePtr->serverVersion;
    const PgResultPtr result = pgExec("SHOW server_version;");
    const char* text = pgSVal(result.get(), 0, "server_version");
    int major = 0;
    int minor = 0;
    int patch = 0;
    if (text == nullptr || sscanf(text, "%d.%d.%d", &major, &minor, &patch) != 3)
        major = minor = patch = 0;
    const int version = major * 65536 + minor * 256 + patch;
    if (pgResourcePtr != nullptr)
        pgResourcePtr->serverVersion = version;
    LOG_HERE(3, "PostgreSQL version %06x\n", static_cast<unsigned>(version));
    return version;
}

int columnExists(const char* table, const char* column) {
    const SignalMask mask;
    if (ensureConnected() == -1)
        return -1;
    for (const ColumnAnswer& answer : pgResourcePtr->columnExistsCache)
        if (answer.table == table && answer.column == column)
            return answer.exists;
    const PgResultPtr result = pgQuery(
        "SELECT COUNT(*) FROM pg_catalog.pg_class c, pg_catalog.pg_namespace n, pg_catalog.pg_attribute a WHERE "
        "a.attnum > 0 AND NOT a.attisdropped AND a.attrelid = c.oid AND c.relnamespace = n.oid AND n.nspname = 'dq' "
        "AND c.relname = %s AND a.attname = %s",
        table, column);
    if (pgTuples(result.get()) != 1)
        return -1;
    const int exists = pgIVal(result.get(), 0, "count") > 0 ? 1 : 0;
    if (pgResourcePtr->columnExistsCache.size() >= COLUMN_CACHE_SIZE)
        LOG_HERE(3, "CEC table overflow\n");
    else
        pgResourcePtr->columnExistsCache.push_back({table, column, exists});
    return exists;
}
