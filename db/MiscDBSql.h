#pragma once

#include "MiscDB.h"
#include "PSCache.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// MiscDB on MySQL. Registers no statements yet: each operation added to MiscDB registers its
// PsQuery in the constructor, before init(), and runs it through this PSCache.
class MiscDBSql : public MiscDB, public PSCache {
  public:
    explicit MiscDBSql(DBConnectorSql& connector);
};

}  // namespace db
}  // namespace kelp
