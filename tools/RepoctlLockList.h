#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class KSRepositoryHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// The locks of one repository as they stand: lock files "$LOCK_VAR/semaphore_<id>" ("." when
// LOCK_VAR is unset) and, for a shared repository, rows of the lock table (NVLOCKTBL). A lock
// belongs to the repository when its id is one the library forms from the repository's lock
// scope (toResourceID): "KSRepositoryHandler-<scope>-<resource>" for a resource, the same with
// an empty resource for the maintenance lock, and the dirty file's lock.
//
// Lock ids are not unambiguous across repositories: "KSRepositoryHandler-_a_repo-x-y" is the
// lock of resource "x-y" in /a/repo and of resource "y" in /a/repo-x. A site whose repository
// paths are prefixes of one another followed by "-" should give them a repositoryId.
//
// Reading and removing never remove a lock that was taken after it was listed (see remove()).
// Not thread-safe; one owner.
class RepoctlLockList {
  public:
    struct Lock {
        bool row = false;      // a lock-table row; else a lock file
        std::string id;        // the lock id, "KSRepositoryHandler-..."
        std::string what;      // "resource", "maintenance" or "dirtySet"
        std::string resource;  // the resource held, for "resource"
        std::string file;      // the lock file's path (files)
        long long since = 0;   // taken at, seconds since the epoch
        long long age = 0;     // seconds
        std::string holder;    // rows: the holder's token (LCKACTOR)
        std::string liveness;  // rows: KSLockToken::describe of the holder; files: "unknown"
        ino_t inode = 0;       // files: the file listed, by inode and modification time
        long sinceNanos = 0;
    };

    explicit RepoctlLockList(KSRepositoryHandler& repo);

    // Reads the lock files, and for a shared repository the lock rows through `connector`
    // (not owned; null: rows are not read). False with error() set when the lock directory or
    // the table could not be read; the locks read before are kept.
    bool load(kelp::db::DBConnector* connector);
    const std::string& error() const { return error_; }
    const std::vector<Lock>& locks() const { return locks_; }
    const std::string& lockDirectory() const { return lockDirectory_; }

    // Removes a listed lock, but only the take that was listed: a lock file that was released
    // and taken again since, or a row with another holder, stays. False with `why` set when the
    // lock was not removed.
    static bool remove(const Lock& lock, kelp::db::DBConnector* connector, std::string& why);

  private:
    // Classifies `id`; false when it is not a lock of this repository.
    bool classify(const std::string& id, Lock& lock) const;
    void loadFiles();
    void loadRows(kelp::db::DBConnector* connector);

    std::string resourcePrefix_;
    std::string dirtyId_;
    std::string lockDirectory_;
    std::vector<Lock> locks_;
    std::string error_;
};
