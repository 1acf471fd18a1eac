#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "DBConnector.h"
#include "FacetSlot.h"
#include "PSSupplier.h"
#include "RetryRecord.h"

namespace kelp {
namespace db {

class LockDBSql;
class MiscDBSql;
class ObjectDBSql;
class PSCache;
class QueryBindings;
class RefcountDBSql;
class SessionDBSql;
class Sql;
class SqlConnection;
class SqlException;
class StudyDBSql;

// The MySQL connector. Owns one Sql, at most one open SqlConnection and its facets. Statements
// run through a retry loop that survives deadlocks (retried after a random pause) and lost
// connections (retried at once on a fresh connection), up to 20 attempts; any other server error
// ends the call on its first occurrence as DBException(text, code).
//
// Thread-safe: every execution holds the Sql's recursive mutex for its whole duration.
class DBConnectorSql : public DBConnector {
  public:
    // Takes ownership of sql.
    explicit DBConnectorSql(std::unique_ptr<Sql> sql);
    ~DBConnectorSql() override;

    RefcountDB* refcountDB() override;
    LockDB* lockDB() override;
    SessionDB* sessionDB() override;
    StudyDB* studyDB() override;
    ObjectDB* objectDB() override;
    MiscDB* miscDB() override;
    RawQueryDB* createRawQuery() override;
    DBConnector* forThread() override;
    void reset() override;

    // Runs a statement with rows and returns it with its result stored and bound to bindings; the
    // caller fetches rows from handle.statement while handle.owner keeps it alive. Logs every
    // caught SqlException.
    PSHandle executeQuery(PSSupplier& supplier, QueryBindings& bindings);
    // The same for a free SQL text, prepared for this call; the returned handle owns the
    // statement.
    PSHandle executeQuery(const std::string& sql, QueryBindings& bindings);

    // Runs a statement without rows; returns the found rows. logError false keeps the caught
    // SqlException lines (not the retry and reconnect lines) out of the log. A non-null record
    // is filled with what the retry loop saw, also when the call ends in DBException; a caller
    // whose statement is not safe to repeat reads it to judge a failure of a repeated attempt.
    uint64_t executeUpdate(PSSupplier& supplier, QueryBindings& bindings, bool logError,
                           RetryRecord* record = nullptr);
    uint64_t executeUpdate(const std::string& sql, QueryBindings& bindings, bool logError);

    // Runs work, which executes several statements on this connector's connection (statements
    // from PSCache::getPS, run with their ...Ex calls, e.g. a transaction), through the retry
    // loop as if it were one update: each attempt holds the Sql's mutex throughout, and a
    // SqlException out of work is logged (when logError), classified and retried like a
    // statement's, with work called again from its start. work must leave no transaction open
    // when it throws. Returns what work returned.
    uint64_t executeAttempts(bool logError, const std::function<uint64_t()>& work);

    // The open connection, opened now if there is none. Throws SqlException. Call under
    // sql().mutex() when the connection is then used.
    SqlConnection& connectionEx();
    // connectionEx() for the facet accessors: SqlException becomes DBException(text) (code 0).
    SqlConnection& openConnection();
    // The connection if one is open, else null.
    SqlConnection* connection() { return connection_.get(); }

    Sql& sql() { return *sql_; }
    // Number of threads whose statements each facet keeps.
    size_t cacheLimit() const { return kCacheLimit; }

    static constexpr unsigned long kMaxAttempts = 20;

  private:
    enum class Recovery { Retry, Reconnect, Fail, RetryUnknown };

    template <class Result, class Step>
    Result runWithRetry(PSSupplier& supplier, const char* operation, bool logCaught,
                        RetryRecord* record, Step step);
    Recovery classify(const SqlException& e);
    template <class Facet>
    Facet* facet(FacetSlot<Facet>& slot);
    void resetStatementCaches();

    static constexpr size_t kCacheLimit = 16;

    // Declared so that facets (whose statements live on the connection) go first, then the
    // connection, then the Sql whose mutex both use.
    std::unique_ptr<Sql> sql_;
    std::unique_ptr<SqlConnection> connection_;
    FacetSlot<RefcountDBSql> refcount_;
    FacetSlot<StudyDBSql> study_;
    FacetSlot<ObjectDBSql> object_;
    FacetSlot<MiscDBSql> misc_;
    FacetSlot<LockDBSql> lock_;
    FacetSlot<SessionDBSql> session_;
};

}  // namespace db
}  // namespace kelp
