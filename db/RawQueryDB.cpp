#include "RawQueryDB.h"

#include <algorithm>
#include <mutex>

#include "BuiltQuery.h"
#include "DBConnectorSql.h"
#include "DBException.h"
#include "DicomTime.h"
#include "QueryBindings.h"
#include "QueryResult.h"
#include "QuerySqlBuilder.h"
#include "SearchStatementCache.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlResult.h"
#include "SqlStatement.h"
#include "TimedPSSupplier.h"
#include "ValueMatcher.h"

namespace kelp {
namespace db {

RawQueryDB::RawQueryDB(DBConnectorSql& connector)
    : connector_(connector), statements_(std::make_unique<SearchStatementCache>(32)) {}

RawQueryDB::~RawQueryDB() {
    std::lock_guard<std::recursive_mutex> guard(connector_.sql().mutex());
    statements_.reset();
}

size_t RawQueryDB::executeQuery(const std::string& sql, unsigned long timeLimitSeconds,
                                std::vector<std::vector<SqlField>>& rows) {
    std::lock_guard<std::recursive_mutex> guard(connector_.sql().mutex());
    std::unique_ptr<SqlResult> result;
    try {
        result = run(sql, timeLimitSeconds);
    } catch (const SqlException& e) {
        // A connection that died since the last statement is replaced once. A query that fails
        // on a live connection is the caller's error, and a connection that could not be opened
        // has already had its connect retries: neither is run twice.
        if (!connector_.connection()) throw DBException(e.what(), e.code());
        connector_.reset();
        if (connector_.connection()) throw DBException(e.what(), e.code());
        try {
            result = run(sql, timeLimitSeconds);
        } catch (const SqlException& again) {
            throw DBException(again.what(), again.code());
        }
    }
    size_t count = 0;
    while (result->fetch()) {
        rows.emplace_back();
        result->getRecord(rows.back());
        ++count;
    }
    return count;
}

namespace {

using Row = std::vector<std::optional<std::string>>;

// The client library's form of a moment, clamped to the years the server's temporal types hold.
MYSQL_TIME toMysqlTime(BoundValue::Type type, int64_t micros) {
    const int64_t first = DicomTime::daysFromCivil(1, 1, 1) * DicomTime::kMicrosPerDay;
    const int64_t last = DicomTime::daysFromCivil(10000, 1, 1) * DicomTime::kMicrosPerDay - 1;
    if (type != BoundValue::Type::Time) micros = std::min(std::max(micros, first), last);
    MYSQL_TIME out{};
    int64_t day = DicomTime::dayOf(micros);
    int64_t clock = micros - day * DicomTime::kMicrosPerDay;
    if (type != BoundValue::Type::Time) {
        int year;
        unsigned month, mday;
        DicomTime::civilFromDays(day, year, month, mday);
        out.year = static_cast<unsigned>(year);
        out.month = month;
        out.day = mday;
    }
    if (type != BoundValue::Type::Date) {
        out.hour = static_cast<unsigned>(clock / (3600 * DicomTime::kMicrosPerSecond));
        out.minute = static_cast<unsigned>(clock / DicomTime::kMicrosPerMinute % 60);
        out.second = static_cast<unsigned>(clock / DicomTime::kMicrosPerSecond % 60);
        out.second_part = static_cast<unsigned long>(clock % DicomTime::kMicrosPerSecond);
    }
    out.time_type = type == BoundValue::Type::Date   ? MYSQL_TIMESTAMP_DATE
                    : type == BoundValue::Type::Time ? MYSQL_TIMESTAMP_TIME
                                                     : MYSQL_TIMESTAMP_DATETIME;
    return out;
}

enum_field_types fieldType(BoundValue::Type type) {
    switch (type) {
        case BoundValue::Type::Date:
            return MYSQL_TYPE_DATE;
        case BoundValue::Type::Time:
            return MYSQL_TYPE_TIME;
        case BoundValue::Type::DateTime:
            return MYSQL_TYPE_DATETIME;
        case BoundValue::Type::Count:
            return MYSQL_TYPE_LONGLONG;
        case BoundValue::Type::Text:
            break;
    }
    return MYSQL_TYPE_STRING;
}

// The value of column index of the current row; a value longer than its buffer is fetched again
// whole.
std::optional<std::string> columnValue(SqlStatement& statement, QueryResult& result,
                                       std::vector<char>& buffer, unsigned index) {
    if (result.isNull()) return std::nullopt;
    if (result.length() <= buffer.size()) return std::string(buffer.data(), result.length());
    std::string whole(result.length(), '\0');
    unsigned long length = 0;
    MYSQL_BIND bind{};
    bind.buffer_type = MYSQL_TYPE_STRING;
    bind.buffer = &whole[0];
    bind.buffer_length = whole.size();
    bind.length = &length;
    if (mysql_stmt_fetch_column(statement.handle(), &bind, index, 0) != 0)
        throw DBException(
            std::string("Fetching a long value failed: ") + mysql_stmt_error(statement.handle()),
            mysql_stmt_errno(statement.handle()));
    return whole;
}

// Writes number as exactly digits decimal digits (more when it needs more).
void appendDigits(std::string& out, unsigned long number, int digits) {
    char text[24];
    int length = 0;
    do {
        text[length++] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number > 0 || length < digits);
    while (length > 0) out += text[--length];
}

// A date, time or date-time as DICOM text: DA "20240131", TM "101500.000000",
// DT "20240131101500.000000".
std::string dicomText(const MYSQL_TIME& moment, BoundValue::Type type) {
    std::string out;
    out.reserve(24);
    if (moment.neg) out += '-';
    if (type != BoundValue::Type::Time) {
        appendDigits(out, moment.year, 4);
        appendDigits(out, moment.month, 2);
        appendDigits(out, moment.day, 2);
    }
    if (type != BoundValue::Type::Date) {
        appendDigits(out, moment.hour, 2);
        appendDigits(out, moment.minute, 2);
        appendDigits(out, moment.second, 2);
        out += '.';
        appendDigits(out, moment.second_part, 6);
    }
    return out;
}

}  // namespace

QueryAnswer RawQueryDB::find(const QueryMapping& mapping, const QueryRequest& request,
                             unsigned long timeLimitSeconds) {
    BuiltQuery built = QuerySqlBuilder(mapping).build(request);
    std::vector<Row> rows = fetchRows(built.sql, built, built.columnTypes, timeLimitSeconds);
    std::vector<std::pair<ValueMatcher, size_t>> rechecks;
    for (const Recheck& recheck : built.rechecks)
        rechecks.emplace_back(ValueMatcher(recheck.node), recheck.column);
    auto passes = [&rechecks](const Row& row) {
        for (const auto& [matcher, column] : rechecks) {
            const std::optional<std::string>& value = row[column];
            if (!matcher.matches(value ? &*value : nullptr)) return false;
        }
        return true;
    };
    // The selected columns are usually the return keys in order: then rows are answered whole.
    bool inOrder = built.returnColumns.size() == built.columnCount;
    for (size_t i = 0; inOrder && i < built.returnColumns.size(); ++i)
        inOrder = built.returnColumns[i] == static_cast<int>(i);

    QueryAnswer answer;
    answer.unusedKeys = built.unusedKeys;
    answer.rows.reserve(rows.size());
    uint64_t skipped = 0;
    for (Row& row : rows) {
        if (!built.limitedInSql) {
            if (!passes(row)) continue;
            if (skipped < request.offset) {
                ++skipped;
                continue;
            }
            if (request.limit > 0 && answer.rows.size() >= request.limit) break;
        }
        if (inOrder) {
            answer.rows.push_back(std::move(row));
            continue;
        }
        Row out;  // values are copied: two return keys may share a column
        out.reserve(built.returnColumns.size());
        for (int column : built.returnColumns)
            out.push_back(column < 0 ? std::nullopt : row[column]);
        answer.rows.push_back(std::move(out));
    }
    return answer;
}

std::string RawQueryDB::explain(const QueryMapping& mapping, const QueryRequest& request) {
    BuiltQuery built = QuerySqlBuilder(mapping).build(request);
    std::vector<Row> rows =
        fetchRows("EXPLAIN FORMAT=JSON " + built.sql, built, {BoundValue::Type::Text}, 0);
    return rows.empty() || !rows[0][0] ? std::string() : *rows[0][0];
}

// Runs sql with the values of built bound and reads every row: one column per entry of
// columnTypes, each as text (dates and times written as DICOM text).
std::vector<Row> RawQueryDB::fetchRows(const std::string& sql, const BuiltQuery& built,
                                       const std::vector<BoundValue::Type>& columnTypes,
                                       unsigned long timeLimitSeconds) {
    constexpr size_t kBufferSize = 256;
    const size_t columnCount = columnTypes.size();
    std::lock_guard<std::recursive_mutex> guard(connector_.sql().mutex());
    const size_t paramCount = built.params.size();
    QueryBindings bindings(static_cast<int>(paramCount), static_cast<int>(columnCount));
    // Typed values need a buffer each; most values of a long search are texts, bound in place.
    const size_t typedCount = static_cast<size_t>(std::count_if(
        built.params.begin(), built.params.end(),
        [](const BoundValue& value) { return value.type != BoundValue::Type::Text; }));
    std::vector<MYSQL_TIME> moments;
    std::vector<unsigned long long> counts;
    moments.reserve(typedCount);  // no reallocation below: the bindings point into both
    counts.reserve(typedCount);
    for (size_t i = 0; i < paramCount; ++i) {
        const BoundValue& value = built.params[i];
        const int index = static_cast<int>(i);
        if (value.type == BoundValue::Type::Text) {
            bindings.bindString(index, value.text);
        } else if (value.type == BoundValue::Type::Count) {
            unsigned long long& count = counts.emplace_back(value.count);
            bindings.bindParam(index, MYSQL_TYPE_LONGLONG, &count, sizeof count, nullptr, nullptr,
                               UNSIGNED_VALUE);
        } else {
            MYSQL_TIME& moment = moments.emplace_back(toMysqlTime(value.type, value.micros));
            bindings.bindParam(index, fieldType(value.type), &moment, sizeof moment, nullptr,
                               nullptr, SIGNED_VALUE);
        }
    }
    // Text columns arrive in a buffer of their own; dates and times as MYSQL_TIME.
    std::vector<std::vector<char>> buffers(columnCount);
    std::vector<MYSQL_TIME> fetchedMoments(columnCount);
    std::vector<std::unique_ptr<QueryResult>> results;
    results.reserve(columnCount);
    for (size_t i = 0; i < columnCount; ++i) {
        if (columnTypes[i] == BoundValue::Type::Text) {
            buffers[i].resize(kBufferSize);
            results.push_back(std::make_unique<QueryResult>(MYSQL_TYPE_STRING, buffers[i].data(),
                                                            kBufferSize, SIGNED_VALUE));
        } else {
            results.push_back(std::make_unique<QueryResult>(
                fieldType(columnTypes[i]), &fetchedMoments[i], sizeof(MYSQL_TIME), SIGNED_VALUE));
        }
        bindings.bindResult(static_cast<int>(i), *results[i]);
    }

    TimedPSSupplier supplier(connector_, *statements_, sql, timeLimitSeconds);
    PSHandle handle = connector_.executeQuery(supplier, bindings);
    std::vector<Row> rows;
    rows.reserve(static_cast<size_t>(mysql_stmt_num_rows(handle.statement->handle())));
    while (true) {
        int status = handle.statement->fetch();
        if (status == MYSQL_NO_DATA) break;
        if (status == 1)
            throw DBException(std::string("Fetching a row failed: ") +
                                  mysql_stmt_error(handle.statement->handle()),
                              mysql_stmt_errno(handle.statement->handle()));
        Row& row = rows.emplace_back();
        row.reserve(columnCount);
        for (size_t i = 0; i < columnCount; ++i) {
            if (columnTypes[i] == BoundValue::Type::Text) {
                row.push_back(columnValue(*handle.statement, *results[i], buffers[i],
                                          static_cast<unsigned>(i)));
            } else if (results[i]->isNull()) {
                row.emplace_back();
            } else {
                row.push_back(dicomText(fetchedMoments[i], columnTypes[i]));
            }
        }
    }
    return rows;
}

std::unique_ptr<SqlResult> RawQueryDB::run(const std::string& sql, unsigned long timeLimitSeconds) {
    return connector_.connectionEx().executeQueryEx(sql, timeLimitSeconds);
}

}  // namespace db
}  // namespace kelp
