#include "SearchStatementCache.h"

#include "SqlConnection.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

SearchStatementCache::~SearchStatementCache() {
    clear();
}

void SearchStatementCache::clear() {
    entries_.clear();
    connection_ = nullptr;
    threadId_ = 0;
}

SqlStatement& SearchStatementCache::get(SqlConnection& connection, const std::string& sql) {
    const unsigned long threadId = mysql_thread_id(connection.handle());
    if (&connection != connection_ || threadId != threadId_) {
        clear();
        connection_ = &connection;
        threadId_ = threadId;
    }
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first == sql) {
            entries_.splice(entries_.begin(), entries_, it);
            return *entries_.front().second;
        }
    }
    std::unique_ptr<SqlStatement> statement = connection.prepareStatementEx(sql);
    entries_.emplace_front(sql, std::move(statement));
    while (entries_.size() > capacity_) entries_.pop_back();
    return *entries_.front().second;
}

void SearchStatementCache::drop(const std::string& sql) {
    entries_.remove_if([&](const auto& entry) { return entry.first == sql; });
}

}  // namespace db
}  // namespace kelp
