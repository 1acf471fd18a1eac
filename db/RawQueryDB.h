#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BuiltQuery.h"
#include "QueryRequest.h"
#include "RhExport.h"
#include "SqlField.h"

namespace kelp {
namespace db {

class DBConnectorSql;
class QueryMapping;
class SearchStatementCache;
class SqlResult;

// Runs searches built from DICOM matching keys, and free-form text queries, on its connector's
// connection. Made by DBConnector::createRawQuery() and owned by the caller; must not outlive
// the connector. Thread-safe like the connector: a call holds the connector's mutex throughout.
class RH_EXPORT RawQueryDB {
  public:
    explicit RawQueryDB(DBConnectorSql& connector);
    virtual ~RawQueryDB();
    RawQueryDB(const RawQueryDB&) = delete;
    RawQueryDB& operator=(const RawQueryDB&) = delete;

    // Runs sql as a plain text query, with a server-side time limit of timeLimitSeconds (0: none),
    // and appends its rows to rows, each a vector of fields in column order. Returns the number
    // of rows appended. Replaces a connection that was lost, once (a connection that cannot be
    // opened is not tried again); throws DBException(text, code) on failure.
    size_t executeQuery(const std::string& sql, unsigned long timeLimitSeconds,
                        std::vector<std::vector<SqlField>>& rows);

    // Runs the search request describes, through the tables and columns of mapping (see
    // QuerySqlBuilder), as a prepared statement with every value bound, with a server-side time
    // limit of timeLimitSeconds (0: none), through the connector's retry loop. Rows that SQL
    // could only approximate are re-checked in memory before offset and limit are applied.
    // Throws DBException for a key that cannot be matched as given (the text names the key) and
    // for server errors.
    QueryAnswer find(const QueryMapping& mapping, const QueryRequest& request,
                     unsigned long timeLimitSeconds);

    // The server's plan for the search request describes (EXPLAIN FORMAT=JSON of the statement
    // find would run, with the same values bound): which index each table is read through.
    // Throws like find.
    std::string explain(const QueryMapping& mapping, const QueryRequest& request);

  private:
    std::vector<std::vector<std::optional<std::string>>> fetchRows(
        const std::string& sql, const BuiltQuery& built,
        const std::vector<BoundValue::Type>& columnTypes, unsigned long timeLimitSeconds);
    std::unique_ptr<SqlResult> run(const std::string& sql, unsigned long timeLimitSeconds);

    DBConnectorSql& connector_;
    std::unique_ptr<SearchStatementCache> statements_;
};

}  // namespace db
}  // namespace kelp
