#pragma once

#include "MysqlCompat.h"

namespace kelp {
namespace db {

// Registers a running text query in the table QueryTimeLimit (this connection's id, the time it
// must end by, status 'R'), where a server-side watchdog looks for queries to stop, and removes
// the row again on destruction. A limit of 0 seconds, or a failed insert, leaves the limiter
// inactive: the query then simply runs without a limit. The caller holds the connection's mutex
// for the limiter's whole life. Never throws.
class SqlQueryLimiter {
  public:
    SqlQueryLimiter(MYSQL* handle, unsigned long seconds);
    // Waits, in steps of 5 ms, while the watchdog handles this connection's row (a row exists
    // that is no longer 'R'); gives up at the first failing statement.
    ~SqlQueryLimiter();
    SqlQueryLimiter(const SqlQueryLimiter&) = delete;
    SqlQueryLimiter& operator=(const SqlQueryLimiter&) = delete;

    // Inserts the limit row; active when that succeeded.
    void init();
    // Whether any row of this connection exists. Inactive: false; a failing query deactivates.
    bool hasLimit();
    // Deletes this connection's running row; true when one was removed. Inactive: true; a
    // failing delete deactivates and answers false.
    bool deleteLimit();
    bool isActive() const { return active_; }

  private:
    MYSQL* handle_;
    unsigned long seconds_;
    bool active_ = false;
};

}  // namespace db
}  // namespace kelp
