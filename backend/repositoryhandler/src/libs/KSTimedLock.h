#pragma once

// One resource's lock as the maintenance takes it: a row of the lock table for shared
// repositories, a lock file otherwise, waited for up to 30 seconds with a growing, jittered
// back-off. A lock that cannot be had (timeout or error) is a refusal, never an exception:
// the maintenance skips the resource and goes on. The destructor releases a held lock.
//
// One object is used by one thread; non-copyable.

#include <memory>
#include <string>

class KSSemaphore;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSTimedLock {
  public:
    // `id` is the lock identity (toResourceID of repository and resource). `connector` is used
    // only when `global`; it may be null (the semaphore then makes its own).
    KSTimedLock(bool global, const std::string& id, kelp::db::DBConnector* connector);
    ~KSTimedLock();
    KSTimedLock(const KSTimedLock&) = delete;
    KSTimedLock& operator=(const KSTimedLock&) = delete;

    // true when held. Exceptions are logged as "SmartSemaphore.lock() : ..." and give false.
    bool acquire();
    // Releases a held lock; exceptions are logged as "SmartSemaphore.unlock() : ..." and
    // swallowed. Safe to call twice.
    void release();
    bool held() const { return held_; }

  private:
    std::unique_ptr<KSSemaphore> semaphore_;
    bool held_ = false;
};
