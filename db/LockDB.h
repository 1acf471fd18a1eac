#pragma once

#include <string>

#include "RhExport.h"

namespace kelp {
namespace db {

// Named locks kept as rows of the lock table (environment NVLOCKTBL), so that they hold across
// processes and hosts sharing the database. Belongs to its connector; thread-safe like it.
// Database failures leave as DBException.
class RH_EXPORT LockDB {
  public:
    virtual ~LockDB();

    // Takes lock lockId for resource on behalf of actor. True when this call took it; false when
    // someone holds it already (that answer is not logged). Other errors are logged under
    // "LockManager" and thrown.
    virtual bool lockFirstTime(const std::string& lockId, const std::string& resource,
                               const std::string& actor, int type) = 0;

    // Gives lock lockId back. True when a row was removed; false when the lock was not held (or
    // another party raised its counter to 2 or more).
    virtual bool releaseLock(const std::string& lockId) = 0;
};

}  // namespace db
}  // namespace kelp
