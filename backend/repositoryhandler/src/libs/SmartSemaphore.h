#pragma once

// The lock of one resource (or one repository, or one dirty file): a database lock for shared
// repositories, a lock file otherwise. lock() waits up to 30 seconds with a growing, jittered
// back-off and never throws; the destructor releases a held lock.

#include <memory>

#include "KSSemaphore.h"

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class SmartSemaphore {
public:
    // A null name creates no semaphore: lock() then fails.
    SmartSemaphore(bool global, const char* name, kelp::db::DBConnector* connector);
    ~SmartSemaphore();
    SmartSemaphore(const SmartSemaphore&) = delete;
    SmartSemaphore& operator=(const SmartSemaphore&) = delete;

    bool lock();
    void unlock();
    KSSemaphore* semaphore() { return semaphore_.get(); }

private:
    std::unique_ptr<KSSemaphore> semaphore_;
};
