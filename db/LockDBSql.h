#pragma once

#include <string>

#include "LockDB.h"
#include "PSCache.h"
#include "PsQuery.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// LockDB on MySQL: the lock is the row whose LCKID is the lock id; the table's unique key on
// LCKID lets exactly one of several concurrent inserts win. The table name comes from NVLOCKTBL
// (empty when unset, and then every statement fails to prepare).
class LockDBSql : public LockDB, public PSCache {
  public:
    explicit LockDBSql(DBConnectorSql& connector);

    bool lockFirstTime(const std::string& lockId, const std::string& resource,
                       const std::string& actor, int type) override;
    bool releaseLock(const std::string& lockId) override;

  private:
    std::string table_;
    PsQuery insert_;
    PsQuery delete_;
};

}  // namespace db
}  // namespace kelp
