#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "MysqlCompat.h"

namespace kelp {
namespace db {

class SqlResult;
class SqlStatement;

// One open server connection. Owns the MYSQL handle and closes it on destruction. Every call
// that talks to the server takes the recursive mutex of the Sql that opened it, so the
// connection may be shared by threads; statements made here share the same mutex.
// Non-copyable, non-movable (statements keep a reference to the mutex it refers to).
class SqlConnection {
  public:
    SqlConnection(MYSQL* handle, std::recursive_mutex& mutex);
    ~SqlConnection();
    SqlConnection(const SqlConnection&) = delete;
    SqlConnection& operator=(const SqlConnection&) = delete;

    // out := in escaped for use inside a quoted SQL literal on this connection. An error of
    // the client library throws SqlException ("Escaping string failed"); out is then
    // unchanged.
    void escape(const std::string& in, std::string& out);

    // The client library call behind escape(). With a buffer of twice the input length plus one
    // the real one does not fail, so tests put a failing one in its place to reach the error
    // path; null puts mysql_real_escape_string back. Not for production use.
    using EscapeFunction = unsigned long (*)(MYSQL*, char*, const char*, unsigned long);
    static void setEscapeFunctionForTesting(EscapeFunction function);

    // True when the server answers. Never throws for a server error.
    bool ping();

    // A server-side prepared statement for sql, owned by the caller. Throws SqlException
    // ("Creating statement failed" / "Preparing statement failed"); no handle is left open.
    std::unique_ptr<SqlStatement> prepareStatementEx(const std::string& sql);

    // Runs a plain text query and returns its stored rows, owned by the caller. A non-zero
    // timeLimitSeconds registers the query in QueryTimeLimit for the server-side watchdog while it
    // runs (see SqlQueryLimiter). Throws SqlException ("Executing raw query failed" / "Storing
    // result for raw query failed").
    std::unique_ptr<SqlResult> executeQueryEx(const std::string& sql,
                                              unsigned long timeLimitSeconds);

    MYSQL* handle() { return handle_; }
    std::recursive_mutex& mutex() { return mutex_; }
    const std::string& lastError() const { return lastError_; }

  private:
    MYSQL* handle_;
    std::string lastError_;
    std::recursive_mutex& mutex_;
};

}  // namespace db
}  // namespace kelp
