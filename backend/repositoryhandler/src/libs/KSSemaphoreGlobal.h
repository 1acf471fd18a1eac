#pragma once

// A named lock held across every process that uses the same database: a row of the lock table
// (kelp::db::LockDB). Waiting is the same as for KSSemaphore.

#include <memory>
#include <string>

#include "KSSemaphore.h"

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSSemaphoreGlobal : public KSSemaphore {
  public:
    // `connector` may be null: one is created on first use (a lock attempt or a release) and
    // owned. Not owned otherwise; it must outlive this object.
    KSSemaphoreGlobal(const std::string& name, kelp::db::DBConnector* connector);
    ~KSSemaphoreGlobal() override;

    // One attempt: inserts the lock row. KSException when no connector can be made; database
    // errors pass as kelp::db::DBException.
    bool lockResource() override;
    // Deletes the lock row if this object holds the lock.
    void unlock() override;

  private:
    kelp::db::DBConnector* connector();

    kelp::db::DBConnector* connector_;
    std::unique_ptr<kelp::db::DBConnector> ownConnector_;
};
