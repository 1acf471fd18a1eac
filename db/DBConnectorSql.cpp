#include "DBConnectorSql.h"

#include "DBException.h"
#include "DbSyslog.h"
#include "LockDBSql.h"
#include "MiscDBSql.h"
#include "ObjectDBSql.h"
#include "QueryBindings.h"
#include "RawPSSupplier.h"
#include "RawQueryDB.h"
#include "RefcountDBSql.h"
#include "SessionDBSql.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlStatement.h"
#include "StudyDBSql.h"

namespace kelp {
namespace db {

namespace {

const char kIdent[] = "DBConnector";

// The server rolled the statement back to break a deadlock (or a lock wait of the same kind);
// running it again may well succeed.
bool isDeadlock(uint32_t code) {
    return code == 1213 || code == 1614 || code == 3058 || code == 3132;
}

// The connection is gone: closed by the server (4031), server gone away (2006), connection lost
// during the query (2013).
bool isConnectionLost(uint32_t code) {
    return code == 4031 || code == 2006 || code == 2013;
}

// The supplier of work that brings its own statements: nothing to create or give back.
class NoStatementSupplier : public PSSupplier {
  public:
    PSHandle create() override { return PSHandle(); }
    void release(SqlStatement*) override {}
};

}  // namespace

DBConnectorSql::DBConnectorSql(std::unique_ptr<Sql> sql) : sql_(std::move(sql)) {}

DBConnectorSql::~DBConnectorSql() = default;

SqlConnection& DBConnectorSql::connectionEx() {
    std::lock_guard<std::recursive_mutex> guard(sql_->mutex());
    if (!connection_) connection_ = sql_->getConnectionEx();
    return *connection_;
}

SqlConnection& DBConnectorSql::openConnection() {
    try {
        return connectionEx();
    } catch (const SqlException& e) {
        throw DBException(e.what());
    }
}

template <class Facet>
Facet* DBConnectorSql::facet(FacetSlot<Facet>& slot) {
    return slot.get([this] {
        openConnection();
        return std::make_unique<Facet>(*this);
    });
}

RefcountDB* DBConnectorSql::refcountDB() {
    return facet(refcount_);
}

LockDB* DBConnectorSql::lockDB() {
    return facet(lock_);
}

SessionDB* DBConnectorSql::sessionDB() {
    return facet(session_);
}

StudyDB* DBConnectorSql::studyDB() {
    return facet(study_);
}

ObjectDB* DBConnectorSql::objectDB() {
    return facet(object_);
}

MiscDB* DBConnectorSql::miscDB() {
    return facet(misc_);
}

RawQueryDB* DBConnectorSql::createRawQuery() {
    openConnection();
    return new RawQueryDB(*this);
}

DBConnector* DBConnectorSql::forThread() {
    return new DBConnectorSql(std::make_unique<Sql>(*sql_));
}

// Statements must not outlive the connection they were prepared on, so every facet's caches go
// before the connection does.
void DBConnectorSql::reset() {
    std::lock_guard<std::recursive_mutex> guard(sql_->mutex());
    if (!connection_ || connection_->ping()) return;
    resetStatementCaches();
    connection_.reset();
}

void DBConnectorSql::resetStatementCaches() {
    PSCache* caches[] = {refcount_.peek(), study_.peek(), object_.peek(),
                         misc_.peek(),     lock_.peek(),  session_.peek()};
    for (PSCache* cache : caches) {
        if (cache) cache->reset();
    }
}

// Decides what a failed attempt calls for (the 20th failure is settled before this is asked).
DBConnectorSql::Recovery DBConnectorSql::classify(const SqlException& e) {
    if (isDeadlock(e.code())) return Recovery::Retry;
    std::lock_guard<std::recursive_mutex> guard(sql_->mutex());
    // An error that names no lost connection may still come from one: the ping tells.
    bool lost = isConnectionLost(e.code()) || (connection_ && !connection_->ping());
    if (lost) return Recovery::Reconnect;
    return e.code() != 0 ? Recovery::Fail : Recovery::RetryUnknown;
}

// One attempt per turn, each under the Sql's mutex: create the statement, run step on it. A
// SqlException is logged (when logCaught), the statement given back, and then, in this order:
//   1. the 20th failure ends the call with DBException(text, code), whatever it was;
//   2. a deadlock is retried after a random pause (the mutex is let go for the pause);
//   3. a lost connection is reset and retried at once, on a new connection;
//   4. any other server error ends the call at once, leaving the connection as it is;
//   5. an error without a code (environment, client library) on a live connection is retried
//      after a random pause, in case it was a connection failing in a way not yet seen.
// Exceptions other than SqlException pass through untouched.
//
// A deadlock means the server rolled the statement back, so its repetition is harmless. A lost
// connection (or an error without a code) after create() handed out the statement is different:
// the server may have run and committed the statement and only its reply was lost. The record
// notes it, so that the caller of a statement that is not safe to run twice can tell its own
// earlier effect from somebody else's (see LockDBSql).
template <class Result, class Step>
Result DBConnectorSql::runWithRetry(PSSupplier& supplier, const char* operation, bool logCaught,
                                    RetryRecord* record, Step step) {
    RetryRecord local;
    RetryRecord& seen = record != nullptr ? *record : local;
    seen = RetryRecord();
    for (unsigned long attempt = 1;; ++attempt) {
        seen.attempts = attempt;
        std::unique_lock<std::recursive_mutex> lock(sql_->mutex());
        PSHandle handle;
        bool sent = false;
        try {
            handle = supplier.create();
            sent = true;
            return step(handle);
        } catch (const SqlException& e) {
            if (logCaught) {
                dbSyslog(kIdent, "DBConnectorSql::%s: SqlException caught: %s", operation,
                         e.what());
            }
            supplier.release(handle.statement);
            handle = PSHandle();
            if (attempt == kMaxAttempts) throw DBException(e.what(), e.code());
            switch (classify(e)) {
                case Recovery::Retry:
                    dbSyslog(kIdent, "DBConnectorSql::%s: Retry query [%lu]", operation, attempt);
                    lock.unlock();
                    randomSleep();
                    break;
                case Recovery::Reconnect:
                    if (sent) seen.mayHaveRunBefore = true;
                    dbSyslog(kIdent, "DBConnectorSql::%s: Connection lost - reconnect", operation);
                    reset();
                    break;
                case Recovery::Fail:
                    throw DBException(e.what(), e.code());
                case Recovery::RetryUnknown:
                    if (sent) seen.mayHaveRunBefore = true;
                    dbSyslog(kIdent,
                             "DBConnectorSql::%s: Potential connection lost (error code 0) - "
                             "retry [%lu]",
                             operation, attempt);
                    lock.unlock();
                    randomSleep();
                    break;
            }
        }
    }
}

PSHandle DBConnectorSql::executeQuery(PSSupplier& supplier, QueryBindings& bindings) {
    return runWithRetry<PSHandle>(supplier, "executeQuery", true, nullptr, [&](PSHandle& handle) {
        handle.statement->executeAndStoreEx(bindings);
        return handle;
    });
}

PSHandle DBConnectorSql::executeQuery(const std::string& sql, QueryBindings& bindings) {
    RawPSSupplier supplier(*this, sql);
    PSHandle handle = executeQuery(supplier, bindings);
    handle.owner = std::shared_ptr<SqlStatement>(handle.statement);
    return handle;
}

uint64_t DBConnectorSql::executeUpdate(PSSupplier& supplier, QueryBindings& bindings, bool logError,
                                       RetryRecord* record) {
    return runWithRetry<uint64_t>(supplier, "executeUpdate", logError, record,
                                  [&](PSHandle& handle) {
                                      uint64_t rows = handle.statement->executeUpdateEx(bindings);
                                      supplier.release(handle.statement);
                                      return rows;
                                  });
}

uint64_t DBConnectorSql::executeUpdate(const std::string& sql, QueryBindings& bindings,
                                       bool logError) {
    RawPSSupplier supplier(*this, sql);
    return executeUpdate(supplier, bindings, logError);
}

uint64_t DBConnectorSql::executeAttempts(bool logError, const std::function<uint64_t()>& work) {
    NoStatementSupplier supplier;
    return runWithRetry<uint64_t>(supplier, "executeUpdate", logError, nullptr,
                                  [&](PSHandle&) { return work(); });
}

}  // namespace db
}  // namespace kelp
