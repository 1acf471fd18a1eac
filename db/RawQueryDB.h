#pragma once

#include <memory>
#include <string>
#include <vector>

#include "RhExport.h"
#include "SqlField.h"

namespace kelp {
namespace db {

class DBConnectorSql;
class SqlResult;

// Runs free-form text queries on its connector's connection. Made by
// DBConnector::createRawQuery() and owned by the caller; must not outlive the connector. The
// builder of SQL from DICOM-style matching keys belongs here. Thread-safe like the connector.
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

  private:
    std::unique_ptr<SqlResult> run(const std::string& sql, unsigned long timeLimitSeconds);

    DBConnectorSql& connector_;
};

}  // namespace db
}  // namespace kelp
