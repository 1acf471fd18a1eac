#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "VerifyFinding.h"

class KSRepositoryHandler;
class KSMountPointHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// Checks one repository the way fsck checks a file system (`repoctl verify`): walks every live
// mount's hash levels, the dirty set, the legacy directory and the repository's locks, and
// lists what is wrong by kind (VerifyFinding.h). The walk opens directories with O_NOATIME and
// only lstat-s, so it ages no resource and follows no link out of a mount.
//
// What looks wrong in a running repository may be a move or a lookup half done: a resource on
// two mounts, a dirty name without a copy. Such a finding is confirmed under the resource's own
// lock (the lock every move and merge holds) before it is reported; when the lock cannot be had
// within 30 seconds the resource is left out and a note says so.
//
// With `repair`, each finding the library itself can settle safely is settled by the library's
// own operations and the action recorded in the finding:
// - a duplicate is marked dirty and looked up with the lock, so the lookup merges the copies
//   onto the last mount that holds one (or, when they differ, keeps the name dirty so every
//   lookup sees both copies);
// - copies of a dirty resource where one only lacks entries of another (a move or merge that
//   stopped between files) are looked up with the lock, which merges them; copies that hold an
//   entry differently are left, as no merge can join them;
// - a stale dirty name is looked up with the lock, which clears the mark when every mount
//   could be searched;
// - a dangling or foreign legacy link is re-pointed, under the resource's lock, at the one copy
//   on a mount, by the library's atomic replacement of links;
// - an empty hash level is removed under the mount's hash-level lock, unless a creator has
//   reserved or filled it meanwhile (the protocol of clearEmptyHash).
// Nothing else is changed and nothing is ever deleted: misplaced directories, stray files,
// conflicting or staged copies, stale locks and lock-scope differences are reported for the
// operator.
//
// One object per run, used by one thread; progress() may be read from another.
class RepositoryVerifier {
  public:
    struct Options {
        long long olderThanSeconds = 86400;  // locks older than this are stale
        bool repair = false;
        // Recognises an entry at resource level (below the three hash levels) that a move makes
        // while staging its copy: true, with *resource set to the resource it stages (empty when
        // the entry does not tell). Such an entry is not judged as a resource; one that is still
        // there under its resource's lock is reported as a partial copy. Unset: no entry is
        // taken for a staged copy.
        std::function<bool(const std::string& entry, std::string* resource)> stagedCopy;
    };

    // Figures of the run so far; written by the run, readable from any thread.
    struct Progress {
        std::atomic<unsigned long long> mountsDone{0};
        std::atomic<unsigned long long> resources{0};
        std::atomic<unsigned long long> hashLevels{0};
        std::atomic<unsigned long long> found{0};
        std::atomic<unsigned long long> repaired{0};
    };

    // What was looked at, for the summary.
    struct Counts {
        unsigned long long mounts = 0;
        unsigned long long resources = 0;
        unsigned long long hashLevels = 0;
        unsigned long long dirtyNames = 0;
        unsigned long long legacyEntries = 0;
        unsigned long long lockFiles = 0;
        unsigned long long lockRows = 0;
    };

    RepositoryVerifier(KSRepositoryHandler& repository, Options options);

    // Runs every check, then the repairs when asked. A lock table that cannot be read throws
    // kelp::db::DBException (the checks before it have run; their findings stay).
    void run();

    const std::vector<VerifyFinding>& findings() const { return findings_; }
    // Mounts that were dead and not walked.
    const std::vector<std::string>& deadMounts() const { return deadMounts_; }
    // What could not be checked, in words.
    const std::vector<std::string>& notes() const { return notes_; }
    const Counts& counts() const { return counts_; }
    Progress& progress() { return progress_; }

  private:
    // Sorts the mounts into live and dead and reads the dirty set afresh.
    void prepare();
    void walkMount(KSMountPointHandler& mount, size_t index);
    void walkLevel(KSMountPointHandler& mount, size_t index, const std::string& levels, int depth);
    void judgeResourceEntry(KSMountPointHandler& mount, size_t index, const std::string& levels,
                            const std::string& entry);
    void settleCopies();
    void settleStagedCopies();
    void checkDirtySet();
    void checkLegacyLinks();
    void judgeLegacyLink(const std::string& name, const std::string& path);
    void checkLocks();
    void repairAll();
    void repairDuplicate(VerifyFinding& finding);
    void repairPartialCopy(VerifyFinding& finding);
    void repairStaleDirty(VerifyFinding& finding);
    void repairLink(VerifyFinding& finding);
    void repairEmptyLevel(VerifyFinding& finding);

    // Live mounts holding `name`, in configuration order.
    std::vector<std::string> copiesOf(const std::string& name) const;
    bool isResourceHere(const std::string& name) const;
    static VerifyFinding makeFinding(VerifyKind kind, const std::string& name,
                                     const std::string& path, const std::string& detail,
                                     std::vector<std::string> locations = {});
    void add(VerifyFinding finding);
    // In the order of VerifyKind, each kind in the order found.
    void sortFindings();

    KSRepositoryHandler& repository_;
    Options options_;
    kelp::db::DBConnector* connector_ = nullptr;
    std::vector<KSMountPointHandler*> liveMounts_;
    std::vector<std::string> deadMounts_;
    std::vector<std::string> canonicalMounts_;  // of liveMounts_, same order
    std::vector<std::string> dirtySnapshot_;
    // Names seen on more than one live mount during the walk.
    std::map<std::string, std::vector<std::string>> multipleCopies_;
    // Entries the stagedCopy recogniser took for staged copies: (path, resource or "").
    std::vector<std::pair<std::string, std::string>> stagedCopies_;
    std::vector<VerifyFinding> findings_;
    std::vector<std::string> notes_;
    Counts counts_;
    Progress progress_;
};
