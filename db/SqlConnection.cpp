#include "SqlConnection.h"

#include <atomic>
#include <vector>

#include "SqlException.h"
#include "SqlQueryLimiter.h"
#include "SqlResult.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

SqlConnection::SqlConnection(MYSQL* handle, std::recursive_mutex& mutex)
    : handle_(handle), mutex_(mutex) {}

SqlConnection::~SqlConnection() {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    if (handle_) mysql_close(handle_);
}

namespace {

std::atomic<SqlConnection::EscapeFunction> g_escape{&mysql_real_escape_string};

}  // namespace

void SqlConnection::setEscapeFunctionForTesting(EscapeFunction function) {
    g_escape.store(function != nullptr ? function : &mysql_real_escape_string);
}

// The client library answers (unsigned long)-1 on an error; taken as a length it would make
// assign() throw std::length_error, which is no database error.
void SqlConnection::escape(const std::string& in, std::string& out) {
    std::vector<char> buffer(in.size() * 2 + 1);
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    unsigned long length = g_escape.load()(handle_, buffer.data(), in.data(), in.size());
    if (length == static_cast<unsigned long>(-1) || length >= buffer.size()) {
        lastError_ = mysql_error(handle_);
        throw SqlException(mysql_errno(handle_), "Escaping string failed", lastError_);
    }
    out.assign(buffer.data(), length);
}

bool SqlConnection::ping() {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return mysql_ping(handle_) == 0;
}

std::unique_ptr<SqlStatement> SqlConnection::prepareStatementEx(const std::string& sql) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    MYSQL_STMT* stmt = mysql_stmt_init(handle_);
    if (!stmt) {
        lastError_ = mysql_error(handle_);
        throw SqlException(mysql_errno(handle_), "Creating statement failed", lastError_);
    }
    if (mysql_stmt_prepare(stmt, sql.data(), sql.size()) != 0) {
        uint32_t code = mysql_stmt_errno(stmt);
        lastError_ = mysql_stmt_error(stmt);
        mysql_stmt_close(stmt);
        throw SqlException(code, "Preparing statement failed", lastError_);
    }
    return std::make_unique<SqlStatement>(stmt, mutex_);
}

std::unique_ptr<SqlResult> SqlConnection::executeQueryEx(const std::string& sql,
                                                         unsigned long timeLimitSeconds) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    SqlQueryLimiter limiter(handle_, timeLimitSeconds);
    limiter.init();
    if (mysql_real_query(handle_, sql.data(), sql.size()) != 0) {
        lastError_ = mysql_error(handle_);
        throw SqlException(mysql_errno(handle_), "Executing raw query failed", lastError_);
    }
    MYSQL_RES* result = mysql_store_result(handle_);
    if (!result) {
        lastError_ = mysql_error(handle_);
        throw SqlException(mysql_errno(handle_), "Storing result for raw query failed", lastError_);
    }
    return std::make_unique<SqlResult>(result);
}

}  // namespace db
}  // namespace kelp
