#pragma once

#include <string>
#include <vector>

// One thing `repoctl verify` found wrong in a repository, and what --repair did about it.

// The kinds of damage, in the order verify reports them.
enum class VerifyKind {
    kDuplicate,       // a resource on more than one mount, not in the dirty set
    kStaleDirty,      // a name in the dirty set that exists nowhere
    kMisplaced,       // a directory under a hash prefix that is not its name's
    kEmptyHashLevel,  // a hash level with nothing in it (and no reservation running)
    kNotDirectory,    // a file, link or other non-directory where only directories belong
    kDanglingLink,    // a legacy link whose target does not exist
    kForeignLink,     // a legacy link pointing anywhere but its resource's location on a mount
    kStaleLockFile,   // a lock file of the repository older than the given age
    kStaleLockRow,    // a lock row of the repository older than the given age
    kPartialCopy,     // copies of a dirty resource that differ, or a staged copy left over
    kLockScope,       // locks of this repository taken under another lock scope
};

constexpr int kVerifyKindCount = static_cast<int>(VerifyKind::kLockScope) + 1;

// The kind's name in the output ("duplicate", "staleDirty", ...).
const char* verifyKindName(VerifyKind kind);

struct VerifyRepair {
    bool attempted = false;
    bool done = false;   // the damage is gone after the action
    std::string action;  // what was done, or why nothing was: one line
};

struct VerifyFinding {
    VerifyKind kind = VerifyKind::kDuplicate;
    std::string name;                    // resource name or lock id; may be empty
    std::string path;                    // the file, directory, link or lock file concerned
    std::vector<std::string> locations;  // copies of the resource, where several matter
    std::string detail;                  // one line for people
    long long ageSeconds = -1;           // locks: their age; -1 otherwise
    VerifyRepair repair;
};
