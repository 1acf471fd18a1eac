#pragma once

#include <string>

#include "PSSupplier.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// Prepares a free SQL text anew for each attempt, on the connector's connection (opened when
// there is none). The statement it hands out is held by nobody: release() deletes it, or the
// caller takes it over after a successful query. Used for statements that are run once.
class RawPSSupplier : public PSSupplier {
  public:
    RawPSSupplier(DBConnectorSql& connector, std::string sql);
    PSHandle create() override;
    void release(SqlStatement* statement) override;

  private:
    DBConnectorSql& connector_;
    std::string sql_;
};

}  // namespace db
}  // namespace kelp
