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
    // `connector` may be null: one is created on the first attempt and owned.
    KSSemaphoreGlobal(const std::string& name, kelp::db::DBConnector* connector);
    ~KSSemaphoreGlobal() override;

    bool lockResource() override;
    void unlock() override;

private:
    kelp::db::DBConnector* connector_;
    std::unique_ptr<kelp::db::DBConnector> ownConnector_;
};
