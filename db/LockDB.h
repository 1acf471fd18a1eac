#pragma once

#include <string>
#include <vector>

#include "RhExport.h"

namespace kelp {
namespace db {

// Named locks kept as rows of the lock table (environment NVLOCKTBL), so that they hold across
// processes and hosts sharing the database. Belongs to its connector; thread-safe like it.
// Database failures leave as DBException.
//
// The actor names the holder. Callers that may lose a reply (every caller: the connector repeats
// a statement whose connection was lost) give each lock they take an actor no other holder can
// have; then taking and releasing are safe to repeat: a repeated take recognises its own row,
// and a release removes only the row of its own actor. Lock ids of any length are accepted: an
// id longer than the table's key column is stored under a fixed-width digest key (see
// LockDBSql::storageKey).
class RH_EXPORT LockDB {
  public:
    virtual ~LockDB();

    // Takes lock lockId for resource on behalf of actor. True when the lock is now held by actor:
    // this call inserted the row, or (when the connector had to repeat the insert after a lost
    // reply) the row it met is actor's own. False when someone else holds it (that answer is not
    // logged). Other errors are logged under "LockManager" and thrown.
    virtual bool lockFirstTime(const std::string& lockId, const std::string& resource,
                               const std::string& actor, int type) = 0;

    // Gives lock lockId back, whoever holds it: reads the holder's actor, then deletes the row
    // of that id and that actor, so a repetition of the delete can never remove a lock taken
    // after the read. True when a row was removed; false when the lock was not held, was taken
    // anew between the read and the delete, or another party raised its counter to 2 or more.
    virtual bool releaseLock(const std::string& lockId) = 0;

    // Gives back the lock lockId that actor holds; a row of another actor is left alone. True
    // when actor's row is gone by this call (also when a repeated delete found it already gone
    // after its first run was answered by a lost reply); false when actor held no such row or
    // its counter is 2 or more.
    virtual bool releaseLockOf(const std::string& lockId, const std::string& actor) = 0;

    // The actor of the row holding lockId ("" for a NULL actor); false when the lock is free.
    virtual bool lockHolder(const std::string& lockId, std::string& actor) = 0;

    // One row of the lock table as an operator sees it.
    struct Row {
        std::string lockId;    // the whole id (LCKRESOURCE), however long
        std::string actor;     // "" for a NULL actor
        long long ageSeconds;  // since the lock was taken, by the database's clock; -1 unknown
    };
    // Every row whose whole id begins with `prefix` (compared byte for byte), in id order.
    virtual std::vector<Row> locksWithPrefix(const std::string& prefix) = 0;
};

}  // namespace db
}  // namespace kelp
