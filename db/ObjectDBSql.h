#pragma once

#include "ObjectDB.h"
#include "PSCache.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// ObjectDB on MySQL. Registers no statements yet: each operation added to ObjectDB registers its
// PsQuery in the constructor, before init(), and runs it through this PSCache.
class ObjectDBSql : public ObjectDB, public PSCache {
  public:
    explicit ObjectDBSql(DBConnectorSql& connector);
};

}  // namespace db
}  // namespace kelp
