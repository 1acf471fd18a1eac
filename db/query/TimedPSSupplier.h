#pragma once

#include <memory>
#include <string>

#include "PSSupplier.h"

namespace kelp {
namespace db {

class DBConnectorSql;
class SearchStatementCache;

// Hands out a search's prepared statement from the cache (prepared on the connector's
// connection when needed; the connection is opened when there is none, and switched to utf8mb4
// so that values reach the server as the UTF-8 they are), and registers the statement's time
// limit in QueryTimeLimit just before it executes. The limit ends when release() is called
// after a failed attempt (which also drops the statement from the cache, so the next attempt
// prepares it anew), or when the last copy of the handle's owner goes after a successful one.
// Owner and supplier must be dropped while the connector's mutex is held. Not synchronised.
class TimedPSSupplier : public PSSupplier {
  public:
    TimedPSSupplier(DBConnectorSql& connector, SearchStatementCache& cache, std::string sql,
                    unsigned long timeLimitSeconds);
    ~TimedPSSupplier() override;

    PSHandle create() override;
    void release(SqlStatement* statement) override;

  private:
    struct Running;

    DBConnectorSql& connector_;
    SearchStatementCache& cache_;
    std::string sql_;
    unsigned long timeLimitSeconds_;
    std::shared_ptr<Running> running_;
};

}  // namespace db
}  // namespace kelp
