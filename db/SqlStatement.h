#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "MysqlCompat.h"

namespace kelp {
namespace db {

class QueryBindings;

// One server-side prepared statement. Owns the MYSQL_STMT handle; destruction frees a stored
// result and closes the handle under the connection's mutex. Execution takes that mutex too.
// Failures throw SqlException with the statement's error number, a fixed message naming the step
// and the client library's text. Not for use by two threads at once (the connector keeps one per
// thread). Non-copyable.
class SqlStatement {
  public:
    SqlStatement(MYSQL_STMT* stmt, std::recursive_mutex& mutex);
    ~SqlStatement();
    SqlStatement(const SqlStatement&) = delete;
    SqlStatement& operator=(const SqlStatement&) = delete;

    // Binds parameters and results, executes and stores the whole result set on the client; the
    // caller then reads rows with fetch() into the buffers of the bound QueryResults.
    void executeAndStoreEx(QueryBindings& bindings);

    // Binds parameters and executes a statement without rows; returns the affected (found) rows.
    uint64_t executeUpdateEx(QueryBindings& bindings);

    // mysql_stmt_fetch: 0 for a row, MYSQL_NO_DATA at the end, MYSQL_DATA_TRUNCATED when a bound
    // buffer was too small, 1 on error.
    int fetch() { return mysql_stmt_fetch(stmt_); }

    MYSQL_STMT* handle() { return stmt_; }
    const std::string& lastError() const { return lastError_; }

  private:
    [[noreturn]] void fail(const char* message);

    MYSQL_STMT* stmt_;
    bool resultStored_ = false;
    std::string lastError_;
    std::recursive_mutex& mutex_;
};

}  // namespace db
}  // namespace kelp
