#pragma once

#include <functional>
#include <string>
#include <vector>

#include "VerifyFinding.h"

class KSRepositoryHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// The lock side of `repoctl verify`: the repository's lock files in $LOCK_VAR ("." when unset)
// and, for a shared repository, its rows of the lock table.
//
// - A lock of this repository (its resources, its maintenance lock, its dirty file's lock)
//   older than `olderThanSeconds` is reported as stale. The locks and their ages are those that
//   `repoctl locks` lists (RepoctlLockList: files aged by their modification time, rows by the
//   database's clock), so `repoctl locks --older-than D --remove` acts on what verify reported.
// - A lock that belongs to this repository under another lock scope shows servers (or
//   processes) that do not exclude each other: its id is formed from the repository's path
//   while this server locks by `repositoryId` or the other way round, from its canonical path
//   where the path given differs, or it names a resource that lies on this repository's mounts
//   under a scope that is not this repository's. The last is the case of a server that mounts
//   the share at another path; it can be seen only while such a lock is held.
//
// Nothing is changed. One object per check; not thread-safe.
class VerifyLockCheck {
  public:
    // `isResourceHere(name)`: whether a resource of that name lies on a live mount of the
    // repository.
    VerifyLockCheck(KSRepositoryHandler& repository, long long olderThanSeconds,
                    std::function<bool(const std::string&)> isResourceHere);

    // Appends what it finds: the stale locks, then the locks of other scopes. `connector` (not
    // owned) reads the lock table; null: only lock files are read. A lock directory or table that
    // cannot be read throws std::runtime_error or kelp::db::DBException, after the findings of
    // what could be read are appended.
    void check(kelp::db::DBConnector* connector, std::vector<VerifyFinding>& findings);

    unsigned long long filesSeen() const { return filesSeen_; }
    unsigned long long rowsSeen() const { return rowsSeen_; }

  private:
    void checkAges(kelp::db::DBConnector* connector, std::vector<VerifyFinding>& findings);
    void checkScopeOfFiles(std::vector<VerifyFinding>& findings);
    void checkScopeOfRows(kelp::db::DBConnector* connector, std::vector<VerifyFinding>& findings);
    // The other scope of this repository that `lockId` was formed from; empty when it is one of
    // this scope or of no scope of this repository.
    std::string otherScopeOf(const std::string& lockId) const;
    void reportScope(const std::string& lockId, const std::string& path, long long age,
                     const std::string& what, const std::string& scope,
                     std::vector<VerifyFinding>& findings) const;

    KSRepositoryHandler& repository_;
    long long olderThan_;
    std::function<bool(const std::string&)> isResourceHere_;
    std::string ownPrefix_;
    std::string ownDirtyLock_;
    // Other scopes this repository is known under: (prefix of their resource locks, scope).
    std::vector<std::pair<std::string, std::string>> otherPrefixes_;
    std::vector<std::pair<std::string, std::string>> otherDirtyLocks_;
    unsigned long long filesSeen_ = 0;
    unsigned long long rowsSeen_ = 0;
};
