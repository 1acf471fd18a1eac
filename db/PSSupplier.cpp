#include "CachedPSSupplier.h"
#include "DBConnectorSql.h"
#include "PSCache.h"
#include "RawPSSupplier.h"
#include "SqlConnection.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

RawPSSupplier::RawPSSupplier(DBConnectorSql& connector, std::string sql)
    : connector_(connector), sql_(std::move(sql)) {}

PSHandle RawPSSupplier::create() {
    PSHandle handle;
    handle.statement = connector_.connectionEx().prepareStatementEx(sql_).release();
    return handle;
}

void RawPSSupplier::release(SqlStatement* statement) {
    delete statement;
}

PSHandle CachedPSSupplier::create() {
    return cache_.getPS(query_);
}

}  // namespace db
}  // namespace kelp
