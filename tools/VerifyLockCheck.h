#pragma once

#include <functional>
#include <string>
#include <vector>

#include "VerifyFinding.h"

class KSRepositoryHandler;

// The lock side of `repoctl verify`: the repository's lock files in $LOCK_VAR ("." when unset)
// and, for a shared repository, its rows of the lock table.
//
// - A lock of this repository (its resources, its maintenance lock, its dirty file's lock)
//   older than `olderThanSeconds` is reported as stale. Lock files are aged by their
//   modification time (they are created and never written), rows by the database's clock.
// - A lock that belongs to this repository under another lock scope shows servers (or
//   processes) that do not exclude each other: its id is formed from the repository's path
//   while this server locks by `repositoryId` or the other way round, from its canonical path
//   where the path given differs, or it names a resource that lies on this repository's mounts
//   under a scope that is not this repository's. The last is the case of a server that mounts
//   the share at another path; it can be seen only while such a lock is held.
//
// Nothing is changed: stale locks are for `repoctl locks --remove`, a scope difference for the
// operator. One object per check; not thread-safe.
class VerifyLockCheck {
  public:
    // `isResourceHere(name)`: whether a resource of that name lies on a live mount of the
    // repository.
    VerifyLockCheck(KSRepositoryHandler& repository, long long olderThanSeconds,
                    std::function<bool(const std::string&)> isResourceHere);

    // Appends what it finds. A lock table that cannot be read throws kelp::db::DBException.
    void checkFiles(std::vector<VerifyFinding>& findings);
    void checkRows(std::vector<VerifyFinding>& findings);

    unsigned long long filesSeen() const { return filesSeen_; }
    unsigned long long rowsSeen() const { return rowsSeen_; }

  private:
    // What a lock id tells about this repository.
    struct Reading {
        bool ours = false;       // formed from this repository's scope
        std::string otherScope;  // non-empty: formed from that other scope of this repository
    };
    Reading read(const std::string& lockId) const;
    void judge(const std::string& lockId, const std::string& path, long long age,
               VerifyKind staleKind, const char* what, std::vector<VerifyFinding>& findings);

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
