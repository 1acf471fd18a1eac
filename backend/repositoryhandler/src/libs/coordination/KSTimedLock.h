#pragma once

// One resource's lock as the maintenance takes it: SmartSemaphore's wait (a row of the lock
// table for shared repositories, a lock file otherwise, up to 30 seconds with a growing,
// jittered back-off). A lock that cannot be had (timeout or error) is a refusal, never an
// exception: it is reported and the maintenance skips the resource and goes on. Errors of the
// release are logged rather than lost. The destructor releases a held lock.
//
// One object is used by one thread; non-copyable.

#include <string>

#include "SmartSemaphore.h"

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSTimedLock {
  public:
    // The lock of `resource` in the repository at `repository` (toResourceID of the two).
    // `connector` is used only when `global`; it may be null (the semaphore then makes its own).
    KSTimedLock(bool global, const std::string& repository, const std::string& resource,
                kelp::db::DBConnector* connector);
    ~KSTimedLock();
    KSTimedLock(const KSTimedLock&) = delete;
    KSTimedLock& operator=(const KSTimedLock&) = delete;

    // true when held. A refusal logs the error "The resource \"<id>\" could not be locked."
    // (after SmartSemaphore's own line for an exception) and prints it when `verbose`.
    bool acquire(bool verbose);
    // Releases a held lock; exceptions are logged as "SmartSemaphore.unlock() : ..." and
    // swallowed. Safe to call twice.
    void release();
    bool held() const { return held_; }
    const std::string& id() const { return id_; }

  private:
    static std::string lockId(const std::string& repository, const std::string& resource);

    std::string id_;
    SmartSemaphore semaphore_;
    bool held_ = false;
};
