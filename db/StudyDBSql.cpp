#include "StudyDBSql.h"

namespace kelp {
namespace db {

StudyDB::~StudyDB() = default;

StudyDBSql::StudyDBSql(DBConnectorSql& connector) : PSCache(connector) {
    init();
}

}  // namespace db
}  // namespace kelp
