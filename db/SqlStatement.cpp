#include "SqlStatement.h"

#include "QueryBindings.h"
#include "SqlException.h"

namespace kelp {
namespace db {

SqlStatement::SqlStatement(MYSQL_STMT* stmt, std::recursive_mutex& mutex)
    : stmt_(stmt), mutex_(mutex) {}

SqlStatement::~SqlStatement() {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    if (resultStored_) mysql_stmt_free_result(stmt_);
    mysql_stmt_close(stmt_);
}

void SqlStatement::fail(const char* message) {
    lastError_ = mysql_stmt_error(stmt_);
    throw SqlException(mysql_stmt_errno(stmt_), message, lastError_);
}

void SqlStatement::executeAndStoreEx(QueryBindings& bindings) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    if (mysql_stmt_bind_param(stmt_, bindings.params())) fail("Binding query parameters failed");
    if (mysql_stmt_bind_result(stmt_, bindings.results())) fail("Binding results failed");
    if (mysql_stmt_execute(stmt_)) fail("Executing query failed");
    if (mysql_stmt_store_result(stmt_)) fail("Storing result failed");
    resultStored_ = true;
}

uint64_t SqlStatement::executeUpdateEx(QueryBindings& bindings) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    if (mysql_stmt_bind_param(stmt_, bindings.params())) fail("Binding update parameters failed");
    if (mysql_stmt_execute(stmt_)) fail("Executing update failed");
    return mysql_stmt_affected_rows(stmt_);
}

}  // namespace db
}  // namespace kelp
