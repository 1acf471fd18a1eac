#pragma once

// Moving one gathered candidate to another mount, as every maintenance loop does it: under the
// resource's own lock, only when it was not used since it was gathered, and so that a process
// killed at any moment loses nothing.
//
// Crash safety: the resource is put into the dirty set before its copy starts and taken out
// only when exactly one of origin and destination exists afterwards. A process killed between
// the two leaves a resource that may lie on two mounts (or half on one) marked dirty, so its
// next lookup searches every mount and merges or reports a conflict instead of answering with
// a half-written copy. A mark that does not reach the file (its lock not had) protects nothing,
// so the resource is then left where it is (Refused). The copy itself is staged and renamed into
// place (KSPartialCopy.h), so even an unmarked resource never shows a half copy.

#include <cstdint>
#include <string>

#include "ResourceEntry.h"

class KSRepositoryHandler;
class KSMountPointHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

enum class CandidateMoveResult {
    Moved,     // the resource is on the target and no longer on its old mount
    Stayed,    // moveRes reported no failure bit (e.g. a failed copy command's raw status,
               // see CandidateMove::acceptRawStatus), but the resource did not leave its mount
    Refused,   // the lock could not be had, or the dirty mark could not be written
    Touched,   // used since it was gathered, or dirty: left alone
    Vanished,  // the origin no longer exists
    Conflict,  // the destination holds a different copy; marked dirty
    Failed,    // moveRes reported a failure (bit 8, or any non-zero result when not accepted)
};

// Who moves: selects the log lines written before the move.
enum class MoveActor { CheckOverload, EmptyMount, UnAge };

struct CandidateMove {
    kelp::db::DBConnector* connection = nullptr;
    MoveActor actor = MoveActor::CheckOverload;
    bool verbose = false;
    // Skip a resource whose time stamp differs from the gathered one (touched meanwhile).
    bool checkTime = true;
    // Skip a resource in the dirty set (its copies are waiting for a merge decision).
    bool skipDirty = true;
    // A moveRes result without the conflict (2) or failure (8) bit, such as the raw status of
    // a failed copy command, is no failure: the result is Moved or Stayed by what is on disk.
    // false: any non-zero result is Failed.
    bool acceptRawStatus = true;
};

// True when `location` lies below the mount's directory (whole path components: a resource on
// /data/p10 does not lie on /data/p1).
bool liesOnMount(const KSMountPointHandler& mount, const std::string& location);

// Bytes held by the files below `path` (a file: its own size); links are not followed.
unsigned long long resourceBytes(const std::string& path);

// The ctime text of a candidate's time stamp, with its trailing newline.
std::string timeStampText(int64_t seconds);

// Sends the administrators' warning (KSRepositoryHandler::warnMoveTimeWarning) with `action`
// ("purged", "moved") when `seconds` lies within the repository's warnmoveTime of now.
void warnIfRecentlyUsed(KSRepositoryHandler& repository, const char* action, int64_t seconds);

// Moves `entry` (a resource on some mount of `repository`) to `target`. Never throws for file
// system trouble; database exceptions of the dirty set and the lock pass through. In a dry run
// (repository.plan() not null) the move is recorded in the plan instead, without a lock or a
// log line: Moved, or Touched for a dirty resource that `how` skips, or Vanished for one that
// an earlier step of the plan took away.
CandidateMoveResult moveCandidate(KSRepositoryHandler& repository, const CandidateMove& how,
                                  const ResourceEntry& entry, KSMountPointHandler& target);
