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

    // false when the lock was not obtained within 30 seconds or the attempt failed (logged).
    bool lock();
    // Releases a held lock; the semaphore's exception (KSIOException, or a database error for a
    // global one) passes to the caller.
    void unlock();
    // The semaphore, or null when the name was null. Owned by this object.
    KSSemaphore* semaphore() { return semaphore_.get(); }

  private:
    std::unique_ptr<KSSemaphore> semaphore_;
};
