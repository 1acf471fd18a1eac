#pragma once

#include <memory>

namespace kelp {
namespace db {

class SqlStatement;

// A statement handed out by a supplier, with shared ownership of whatever keeps it alive (the
// thread's statement cache, or the statement itself when it belongs to the holder). statement is
// valid while owner (or the supplier's own arrangement) keeps it.
struct PSHandle {
    SqlStatement* statement = nullptr;
    std::shared_ptr<void> owner;
};

// Hands a statement to the connector's retry loop. create() is called under the connection's
// mutex once per attempt; release() after a failed attempt (and after a successful update) with
// the statement create() gave, or null when create() itself failed.
class PSSupplier {
  public:
    virtual ~PSSupplier() = default;
    // Throws SqlException when no statement can be had (no connection, a failing prepare).
    virtual PSHandle create() = 0;
    virtual void release(SqlStatement* statement) = 0;
};

}  // namespace db
}  // namespace kelp
