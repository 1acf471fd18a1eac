#pragma once

#include <string>

#include "PSCache.h"
#include "PsQuery.h"
#include "SessionDB.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// SessionDB on MySQL. The table name comes from SESSIONTBL (empty when unset).
class SessionDBSql : public SessionDB, public PSCache {
  public:
    explicit SessionDBSql(DBConnectorSql& connector);

    bool checkSession(const std::string& sessionId, const std::string& ipAddress, int& priority,
                      bool& flag) override;

  private:
    std::string table_;
    PsQuery select_;
};

}  // namespace db
}  // namespace kelp
