#include "StatementCache.h"

#include "DBConnectorSql.h"
#include "PsQuery.h"
#include "SqlConnection.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

StatementCache::StatementCache(DBConnectorSql& connector, size_t slots)
    : connector_(connector), slots_(slots) {}

StatementCache::~StatementCache() {
    reset();
}

SqlStatement* StatementCache::getPS(const PsQuery& query) {
    std::unique_ptr<SqlStatement>& slot = slots_.at(static_cast<size_t>(query.id));
    if (slot) return slot.get();
    SqlConnection& connection = connector_.connectionEx();
    slot = connection.prepareStatementEx(query.text());
    return slot.get();
}

void StatementCache::reset() {
    for (auto& slot : slots_) slot.reset();
}

}  // namespace db
}  // namespace kelp
