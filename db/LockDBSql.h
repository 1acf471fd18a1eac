#pragma once

#include <string>

#include "LockDB.h"
#include "PSCache.h"
#include "PsQuery.h"

namespace kelp {
namespace db {

class DBConnectorSql;

// LockDB on MySQL: the lock is the row whose LCKID is the lock id's storage key; the table's
// unique key on LCKID lets exactly one of several concurrent inserts win. LCKACTOR holds the
// actor, which the lock's own statements compare so that a repeated statement never acts on
// another holder's row. The table name comes from NVLOCKTBL (empty when unset, and then every
// statement fails to prepare). The change records live in the table of the same name with "CHG"
// appended, keyed by the same storage keys.
class LockDBSql : public LockDB, public PSCache {
  public:
    explicit LockDBSql(DBConnectorSql& connector);

    bool lockFirstTime(const std::string& lockId, const std::string& resource,
                       const std::string& actor, int type) override;
    bool releaseLock(const std::string& lockId) override;
    bool releaseLockOf(const std::string& lockId, const std::string& actor) override;
    bool lockHolder(const std::string& lockId, std::string& actor) override;
    std::vector<Row> locksWithPrefix(const std::string& prefix) override;
    bool changeRecord(const std::string& lockId, ChangeRecord& record) override;
    void recordChange(const std::string& lockId, const ChangeRecord& record) override;

    // Longest id (in bytes) stored as it is; the key column must hold this many bytes.
    static constexpr size_t kMaxKeyBytes = 255;
    // The LCKID under which lockId is stored: lockId itself when it has at most kMaxKeyBytes
    // bytes; otherwise its first bytes (at most 190, cut before a UTF-8 continuation byte), "#"
    // and the 64 hexadecimal digits of its SHA-256 digest, at most kMaxKeyBytes bytes in all.
    // Two ids share a key only if their digests collide, or if a short id spells out the
    // digest of a long one that begins like it: neither happens in practice.
    static std::string storageKey(const std::string& lockId);

  private:
    bool holderOfKey(const std::string& key, std::string& actor);
    bool deleteOwnRow(const std::string& key, const std::string& actor);

    std::string table_;
    std::string changeTable_;
    PsQuery insert_;
    PsQuery deleteOwn_;
    PsQuery holder_;
    PsQuery listPrefix_;
    PsQuery readChange_;
    PsQuery writeChange_;
};

}  // namespace db
}  // namespace kelp
