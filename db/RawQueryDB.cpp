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
#include "ReferenceMatcher.h"
#include "SearchStatementCache.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlResult.h"
#include "SqlStatement.h"
#include "TimedPSSupplier.h"

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

bool passesRechecks(const BuiltQuery& built, const Row& row) {
    for (const Recheck& recheck : built.rechecks) {
        ReferenceEntity entity;
        if (row[recheck.column]) entity.values[recheck.node.tag] = *row[recheck.column];
        if (!ReferenceMatcher::matches(recheck.node, entity)) return false;
    }
    return true;
}

}  // namespace

QueryAnswer RawQueryDB::find(const QueryMapping& mapping, const QueryRequest& request,
                             unsigned long timeLimitSeconds) {
    BuiltQuery built = QuerySqlBuilder(mapping).build(request);
    std::vector<Row> rows = fetchRows(built.sql, built, built.columnCount, timeLimitSeconds);
    QueryAnswer answer;
    answer.unusedKeys = built.unusedKeys;
    uint64_t skipped = 0;
    for (Row& row : rows) {
        if (!built.limitedInSql) {
            if (!passesRechecks(built, row)) continue;
            if (skipped < request.offset) {
                ++skipped;
                continue;
            }
            if (request.limit > 0 && answer.rows.size() >= request.limit) break;
        }
        Row out;
        for (int column : built.returnColumns)
            out.push_back(column < 0 ? std::nullopt : std::move(row[column]));
        answer.rows.push_back(std::move(out));
    }
    return answer;
}

std::string RawQueryDB::explain(const QueryMapping& mapping, const QueryRequest& request) {
    BuiltQuery built = QuerySqlBuilder(mapping).build(request);
    std::vector<Row> rows = fetchRows("EXPLAIN FORMAT=JSON " + built.sql, built, 1, 0);
    return rows.empty() || !rows[0][0] ? std::string() : *rows[0][0];
}

// Runs sql with the values of built bound and reads columnCount columns of every row as text.
std::vector<Row> RawQueryDB::fetchRows(const std::string& sql, const BuiltQuery& built,
                                       size_t columnCount, unsigned long timeLimitSeconds) {
    constexpr size_t kBufferSize = 256;
    std::lock_guard<std::recursive_mutex> guard(connector_.sql().mutex());
    const size_t paramCount = built.params.size();
    QueryBindings bindings(static_cast<int>(paramCount), static_cast<int>(columnCount));
    std::vector<MYSQL_TIME> moments(paramCount);
    std::vector<unsigned long long> counts(paramCount);
    for (size_t i = 0; i < paramCount; ++i) {
        const BoundValue& value = built.params[i];
        const int index = static_cast<int>(i);
        if (value.type == BoundValue::Type::Text) {
            bindings.bindString(index, value.text);
        } else if (value.type == BoundValue::Type::Count) {
            counts[i] = value.count;
            bindings.bindParam(index, MYSQL_TYPE_LONGLONG, &counts[i], sizeof counts[i], nullptr,
                               nullptr, UNSIGNED_VALUE);
        } else {
            moments[i] = toMysqlTime(value.type, value.micros);
            bindings.bindParam(index, fieldType(value.type), &moments[i], sizeof moments[i],
                               nullptr, nullptr, SIGNED_VALUE);
        }
    }
    std::vector<std::vector<char>> buffers(columnCount, std::vector<char>(kBufferSize));
    std::vector<std::unique_ptr<QueryResult>> results;
    for (size_t i = 0; i < columnCount; ++i) {
        results.push_back(std::make_unique<QueryResult>(MYSQL_TYPE_STRING, buffers[i].data(),
                                                        kBufferSize, SIGNED_VALUE));
        bindings.bindResult(static_cast<int>(i), *results[i]);
    }

    TimedPSSupplier supplier(connector_, *statements_, sql, timeLimitSeconds);
    PSHandle handle = connector_.executeQuery(supplier, bindings);
    std::vector<Row> rows;
    while (true) {
        int status = handle.statement->fetch();
        if (status == MYSQL_NO_DATA) break;
        if (status == 1)
            throw DBException(std::string("Fetching a row failed: ") +
                                  mysql_stmt_error(handle.statement->handle()),
                              mysql_stmt_errno(handle.statement->handle()));
        Row row;
        for (size_t i = 0; i < columnCount; ++i)
            row.push_back(
                columnValue(*handle.statement, *results[i], buffers[i], static_cast<unsigned>(i)));
        rows.push_back(std::move(row));
    }
    return rows;
}

std::unique_ptr<SqlResult> RawQueryDB::run(const std::string& sql, unsigned long timeLimitSeconds) {
    return connector_.connectionEx().executeQueryEx(sql, timeLimitSeconds);
}

}  // namespace db
}  // namespace kelp
