#include "ObjectDBSql.h"

namespace kelp {
namespace db {

ObjectDB::~ObjectDB() = default;

ObjectDBSql::ObjectDBSql(DBConnectorSql& connector) : PSCache(connector) {
    init();
}

}  // namespace db
}  // namespace kelp
