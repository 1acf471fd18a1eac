#pragma once

#include <string>

#include "PSCache.h"
#include "PsQuery.h"
#include "QueryResult.h"
#include "RefcountDB.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// RefcountDB on MySQL. Counting is done by the server in single statements, so referrers on
// different connections never lose an update. Table names from REFCOUNTTBL (default "REFCOUNT")
// and OBJECTTBL (default "OBJECTFILE").
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
};

}  // namespace db
}  // namespace kelp
