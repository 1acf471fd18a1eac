#pragma once

// Lock rows of this process that nobody holds any more but that may still be in the lock table:
// a take whose insert ended in an error after the server may have run it (the reply lost, and
// the connector's repetition found the server away, so the caller was told "not locked"), and a
// release that failed while the server was away (a scoped lock's destructor cannot report it).
// Each row carries the token of its take (KSLockToken), which no caller holds: deleting it by
// lock id and that token removes that row only, never a lock taken since, and may be repeated
// any number of times. The process deletes them at its next use of the lock table, when the
// server is back (KSSemaphoreGlobal calls flush before it takes and after it gives back a lock).
//
// A row is deleted only through a connector to the same database as the one it was written
// through: entries remember the database settings of the environment (MYSQL_HOST,
// MYSQL_TCP_PORT, MYSQL_UNIX_PORT, DBNAME, NVLOCKTBL, CONF) and flush passes over the others.
// At most kMaxEntries are kept (the oldest go first: their rows stay, as without the list).
//
// Process-wide; thread-safe. A forked child inherits the list; deleting by token twice is
// harmless.

#include <cstddef>
#include <string>

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSLockReleaseQueue {
  public:
    static constexpr size_t kMaxEntries = 1024;

    // Remembers the row of `lockId` with the actor `token` for deletion.
    static void add(const std::string& lockId, const std::string& token);
    // Deletes the remembered rows of this environment's database through `connector` (not
    // null); an entry whose delete fails stays for the next flush. Never throws.
    static void flush(kelp::db::DBConnector* connector);
    // Entries waiting (all databases).
    static size_t size();
};
