#include "MiscDBSql.h"

namespace kelp {
namespace db {

MiscDB::~MiscDB() = default;

MiscDBSql::MiscDBSql(DBConnectorSql& connector) : PSCache(connector) {
    init();
}

}  // namespace db
}  // namespace kelp
