#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace kelp {
namespace db {

class DBConnectorSql;
class SqlStatement;
struct PsQuery;

// The prepared statements of one facet for one thread: slot i holds the statement of the
// PsQuery whose id is i, prepared on first use on the connector's connection. Statements are
// deleted by reset() and on destruction, which must happen before the connection they were
// prepared on goes (the connector's reset sees to it). Used by one thread at a time, under the
// connection's mutex. Non-copyable.
class StatementCache {
  public:
    StatementCache(DBConnectorSql& connector, size_t slots);
    ~StatementCache();
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;

    // The statement of query, prepared now if its slot is empty (opening the connector's
    // connection if there is none). Throws SqlException from connecting or preparing, and
    // std::bad_function_call for a query without a text function. The statement stays owned here.
    SqlStatement* getPS(const PsQuery& query);

    // Deletes every statement.
    void reset();

  private:
    DBConnectorSql& connector_;
    std::vector<std::unique_ptr<SqlStatement>> slots_;
};

}  // namespace db
}  // namespace kelp
