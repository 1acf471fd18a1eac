#pragma once

#include "PSCache.h"
#include "StudyDB.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// StudyDB on MySQL. Registers no statements yet: each operation added to StudyDB registers its
// PsQuery in the constructor, before init(), and runs it through this PSCache.
class StudyDBSql : public StudyDB, public PSCache {
  public:
    explicit StudyDBSql(DBConnectorSql& connector);
};

}  // namespace db
}  // namespace kelp
