#include "RawQueryDB.h"

#include <mutex>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlResult.h"

namespace kelp {
namespace db {

RawQueryDB::RawQueryDB(DBConnectorSql& connector) : connector_(connector) {}

RawQueryDB::~RawQueryDB() = default;

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

std::unique_ptr<SqlResult> RawQueryDB::run(const std::string& sql, unsigned long timeLimitSeconds) {
    return connector_.connectionEx().executeQueryEx(sql, timeLimitSeconds);
}

}  // namespace db
}  // namespace kelp
