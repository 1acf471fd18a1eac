#include "TimedPSSupplier.h"

#include <cstring>

#include "DBConnectorSql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlQueryLimiter.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

// Declared so that the limit row goes before the statement is closed.
struct TimedPSSupplier::Running {
    std::unique_ptr<SqlStatement> statement;
    std::unique_ptr<SqlQueryLimiter> limiter;
};

TimedPSSupplier::TimedPSSupplier(DBConnectorSql& connector, std::string sql,
                                 unsigned long timeLimitSeconds)
    : connector_(connector), sql_(std::move(sql)), timeLimitSeconds_(timeLimitSeconds) {}

TimedPSSupplier::~TimedPSSupplier() = default;

PSHandle TimedPSSupplier::create() {
    SqlConnection& connection = connector_.connectionEx();
    MYSQL* handle = connection.handle();
    if (std::strcmp(mysql_character_set_name(handle), "utf8mb4") != 0 &&
        mysql_set_character_set(handle, "utf8mb4") != 0)
        throw SqlException(mysql_errno(handle), "Setting the character set failed",
                           mysql_error(handle));
    auto running = std::make_shared<Running>();
    running->statement = connection.prepareStatementEx(sql_);
    running->limiter = std::make_unique<SqlQueryLimiter>(handle, timeLimitSeconds_);
    running->limiter->init();
    running_ = running;
    PSHandle out;
    out.statement = running->statement.get();
    out.owner = running;
    return out;
}

void TimedPSSupplier::release(SqlStatement*) {
    running_.reset();
}

}  // namespace db
}  // namespace kelp
