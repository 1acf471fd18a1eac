#include "TimedPSSupplier.h"

#include <cstring>

#include "DBConnectorSql.h"
#include "SearchStatementCache.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlQueryLimiter.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

struct TimedPSSupplier::Running {
    std::unique_ptr<SqlQueryLimiter> limiter;
};

TimedPSSupplier::TimedPSSupplier(DBConnectorSql& connector, SearchStatementCache& cache,
                                 std::string sql, unsigned long timeLimitSeconds)
    : connector_(connector),
      cache_(cache),
      sql_(std::move(sql)),
      timeLimitSeconds_(timeLimitSeconds) {}

TimedPSSupplier::~TimedPSSupplier() = default;

PSHandle TimedPSSupplier::create() {
    SqlConnection& connection = connector_.connectionEx();
    MYSQL* handle = connection.handle();
    if (std::strcmp(mysql_character_set_name(handle), "utf8mb4") != 0 &&
        mysql_set_character_set(handle, "utf8mb4") != 0)
        throw SqlException(mysql_errno(handle), "Setting the character set failed",
                           mysql_error(handle));
    SqlStatement& statement = cache_.get(connection, sql_);
    auto running = std::make_shared<Running>();
    running->limiter = std::make_unique<SqlQueryLimiter>(handle, timeLimitSeconds_);
    running->limiter->init();
    running_ = running;
    PSHandle out;
    out.statement = &statement;
    out.owner = running;
    return out;
}

void TimedPSSupplier::release(SqlStatement*) {
    running_.reset();
}

}  // namespace db
}  // namespace kelp
