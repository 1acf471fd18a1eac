#pragma once

#include <list>
#include <memory>
#include <string>
#include <utility>

namespace kelp {
namespace db {

class SqlConnection;
class SqlStatement;

// The prepared statements of recent searches, by SQL text, on one server connection. A search's
// text depends only on its shape (which keys, how many UIDs), not on its values, so repeated
// searches skip the prepare round trip. When the connector's connection changes (it was lost
// and replaced), every statement is dropped first: a statement belongs to the connection it was
// prepared on. Holds at most capacity statements, dropping the least recently used.
// Not synchronised: used under the connector's mutex.
class SearchStatementCache {
  public:
    explicit SearchStatementCache(size_t capacity) : capacity_(capacity) {}
    ~SearchStatementCache();
    SearchStatementCache(const SearchStatementCache&) = delete;
    SearchStatementCache& operator=(const SearchStatementCache&) = delete;

    // The statement of sql on connection, prepared now when it is not cached. Throws
    // SqlException when the prepare fails. The reference is valid until the next get() or drop().
    SqlStatement& get(SqlConnection& connection, const std::string& sql);
    // Forgets sql's statement (after a failed execution: the next attempt prepares it anew).
    void drop(const std::string& sql);
    size_t size() const { return entries_.size(); }

  private:
    void clear();

    size_t capacity_;
    // The connection the statements belong to: its object and its server thread id, so that a
    // new connection at the address of an old one is still seen as new.
    SqlConnection* connection_ = nullptr;
    unsigned long threadId_ = 0;
    std::list<std::pair<std::string, std::unique_ptr<SqlStatement>>> entries_;  // most recent first
};

}  // namespace db
}  // namespace kelp
