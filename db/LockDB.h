#pragma once

#include <cstdint>
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
    // What the last writer of a file shared between servers recorded beside the file's lock
    // (the change table, named after the lock table with "CHG" appended): see
    // KSDirtyFlagHandler for the protocol that uses it.
    struct ChangeRecord {
        uint64_t counter = 0;    // writes recorded so far
        std::string content;     // fingerprint of what the last writer writes (or wrote)
        std::string previous;    // fingerprint of the content that write replaces
        std::string path;        // the file's path as the last writer sees it
        std::string host;        // the last writer's host name
    };

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

    // The change record kept under lockId; false when there is none. Errors are logged under
    // "LockManager" and thrown (a missing change table among them).
    virtual bool changeRecord(const std::string& lockId, ChangeRecord& record) = 0;
    // Creates or replaces the change record of lockId (safe to repeat: it sets values). The
    // caller holds lock lockId. Errors are logged under "LockManager" and thrown.
    virtual void recordChange(const std::string& lockId, const ChangeRecord& record) = 0;
};

}  // namespace db
}  // namespace kelp
