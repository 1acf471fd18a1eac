#pragma once

#include <string>

#include "PSCache.h"
#include "PsQuery.h"
#include "QueryResult.h"
#include "RefcountDB.h"

namespace kelp {
namespace db {

class DBConnectorSql;
class QueryBindings;

// RefcountDB on MySQL. Counting is done by the server, so referrers on different connections
// never lose an update; updates that are not safe to run twice (counting, the removal lock,
// object row deletes) run once even when the connector repeats them after a lost reply. Table names
// from REFCOUNTTBL (default "REFCOUNT") and OBJECTTBL (default "OBJECTFILE").
class RefcountDBSql : public RefcountDB, public PSCache {
  public:
    explicit RefcountDBSql(DBConnectorSql& connector);

    uint64_t addEntry(const std::string& id, const std::string& type,
                      const std::string& referrer) override;
    uint64_t createEntry(const std::string& id, const std::string& type,
                         const std::string& referrer) override;
    uint64_t removeEntry(const std::string& id, const std::string& type,
                         const std::string& referrer) override;
    uint64_t createLockEntryInDB(const std::string& id, const std::string& type) override;
    uint64_t removeLockEntryFromDB(const std::string& id, const std::string& type) override;
    uint64_t removeObjectFromDatabase(const std::string& objectId) override;
    bool isObjectFileInDatabase(const std::string& objectId) override;
    bool entriesExist(const std::string& id, const std::string& type) override;
    int64_t countEntries(const std::string& id, const std::string& type) override;
    int64_t countEntry(const std::string& id, const std::string& type,
                       const std::string& referrer) override;
    size_t listEntries(const std::string& id, const std::string& type,
                       std::list<std::string>& entries, std::string& text) override;

  private:
    void registerStatements();
    void registerOnceStatements();
    // Runs an update that must take effect once even when the connector repeats it after a
    // lost reply (see the definition); returns its found rows.
    uint64_t updateOnce(const PsQuery& query, std::initializer_list<const std::string*> params);
    // One attempt of updateOnce, on the connection, under its mutex. Throws SqlException.
    uint64_t onceAttempt(const PsQuery& query, std::initializer_list<const std::string*> params,
                         const std::string& token, bool repeated);
    // Executes a statement of this facet on the connection, without retrying.
    uint64_t runEx(const PsQuery& query, QueryBindings& bindings);
    // The row count kept in token's row; false when no such row is committed.
    bool tokenRowCount(const std::string& token, uint64_t& rows);
    // Runs an update whose parameters are all strings.
    uint64_t update(const PsQuery& query, std::initializer_list<const std::string*> params);
    // Runs a query whose parameters are all strings and fetches its first row, its one result
    // column into column; returns the fetch status (0, MYSQL_NO_DATA, MYSQL_DATA_TRUNCATED, 1).
    // The caller holds the connection's mutex through the call, so the fetch reads its results.
    int fetchFirst(const PsQuery& query, std::initializer_list<const std::string*> params,
                   QueryResult& column);
    // Whether a query whose parameters are all strings yields a row (into a 256-byte buffer).
    bool hasRow(const PsQuery& query, std::initializer_list<const std::string*> params);
    // The single integer a query yields (0 for no row or NULL).
    int64_t fetchCount(const PsQuery& query, std::initializer_list<const std::string*> params);
    // "REFERRER=COUNTER" for every row of the item in the reference table.
    std::list<std::string> readReferrers(const std::string& id, const std::string& type);

    std::string refTable_;
    std::string objectTable_;
    PsQuery addRef_;
    PsQuery createRef_;
    PsQuery decrementRef_;
    PsQuery deleteRef_;
    PsQuery sumCounters_;
    PsQuery counterOf_;
    PsQuery anyPositive_;
    PsQuery objectExists_;
    PsQuery deleteObject_;
    PsQuery createLock_;
    PsQuery deleteLock_;
    PsQuery listReferrers_;
    PsQuery begin_;
    PsQuery commit_;
    PsQuery rollback_;
    PsQuery insertToken_;
    PsQuery tokenRows_;
    PsQuery deleteToken_;
};

}  // namespace db
}  // namespace kelp
