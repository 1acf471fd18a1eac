#include "KSCandidateMove.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <list>
#include <memory>
#include <string>

#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSLegacyLinks.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSMountPointHandler.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSResourceMover.h"
#include "KSTimedLock.h"

namespace {

void logMove(KSRepositoryHandler& repository, const CandidateMove& how, const ResourceEntry& entry,
             const std::string& destination) {
    const char* from = entry.path.c_str();
    const char* to = destination.c_str();
    switch (how.actor) {
        case MoveActor::CheckOverload: {
            const std::string when = timeStampText(entry.time);
            rh_logger.operInfoLog("checkoverload system - - - - - - - - - - - moves+%s+to+%s", from,
                                  to);
            rh_logger.infoLog("CheckOverload moves %s to %s", from, to);
            rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s",
                              when.c_str());
            warnIfRecentlyUsed(repository, "moved", entry.time);
            if (how.verbose) {
                printf("CheckOverload moves %s to %s\n", from, to);
                printf("CheckOverload: Last access/modification time of the resource: %s\n",
                       when.c_str());
            }
            return;
        }
        case MoveActor::EmptyMount:
            rh_logger.infoLog("EmptyMount moves %s to %s", from, to);
            if (how.verbose) printf("EmptyMount moves %s to %s\n", from, to);
            return;
        case MoveActor::UnAge:
            rh_logger.infoLog("unAge moves %s to %s", from, to);
            return;
    }
}

// Leaves the dirty mark only where two copies (or a half one) may remain.
void settleDirtyMark(KSRepositoryHandler& repository, const CandidateMove& how,
                     const ResourceEntry& entry, const std::string& destination, bool wasDirty) {
    if (wasDirty) return;
    bool origin = exists(entry.path.c_str());
    bool copy = exists(destination.c_str());
    if (origin != copy) repository.dirtyFlags().setDirty(how.connection, entry.name.c_str(), false);
}

int mountIndexOf(KSRepositoryHandler& repository, const KSMountPointHandler* mount,
                 const std::string& location) {
    const KSRepositoryHandler::MountList& mounts = repository.mounts();
    for (size_t i = 0; i < mounts.size(); ++i)
        if (mount != nullptr ? mounts[i].get() == mount : liesOnMount(*mounts[i], location))
            return static_cast<int>(i);
    return -1;
}

// The dry run's move: the same checks that need no lock, the effect recorded in the plan.
CandidateMoveResult planMove(KSRepositoryHandler& repository, const CandidateMove& how,
                             const ResourceEntry& entry, KSMountPointHandler& target,
                             KSMaintenancePlan& plan) {
    if (!plan.exists(entry.path)) return CandidateMoveResult::Vanished;
    if (how.skipDirty && repository.dirtyFlags().isDirty(how.connection, entry.name.c_str(), false))
        return CandidateMoveResult::Touched;
    const int from = mountIndexOf(repository, nullptr, entry.path);
    const int to = mountIndexOf(repository, &target, std::string());
    const std::string fromPath = from < 0 ? std::string() : repository.mounts()[from]->path();
    plan.recordMove(entry, fromPath, from, resourceLocation(target.path(), entry.name.c_str()),
                    target.path(), to);
    repository.progress().moved++;
    repository.progress().bytes += plan.steps.back().bytes;
    return CandidateMoveResult::Moved;
}

}  // namespace

bool liesOnMount(const KSMountPointHandler& mount, const std::string& location) {
    const std::string& root = mount.path();
    return location.size() > root.size() && location.compare(0, root.size(), root) == 0 &&
           location[root.size()] == '/';
}

std::string timeStampText(int64_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    char buffer[64];
    if (ctime_r(&t, buffer) == nullptr) return "?\n";
    return buffer;
}

void warnIfRecentlyUsed(KSRepositoryHandler& repository, const char* action, int64_t seconds) {
    time_t t = static_cast<time_t>(seconds);
    if (t > KSClock::now() - static_cast<time_t>(repository.settings().warnmoveTime))
        repository.warnMoveTimeWarning(action, &t);
}

unsigned long long resourceBytes(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return 0;
    if (!S_ISDIR(st.st_mode))
        return S_ISREG(st.st_mode) ? static_cast<unsigned long long>(st.st_size) : 0;
    std::list<std::string> names;
    listDir(path.c_str(), &names, false, false);
    unsigned long long total = 0;
    for (const std::string& name : names) total += resourceBytes(path + "/" + name);
    return total;
}

CandidateMoveResult moveCandidate(KSRepositoryHandler& repository, const CandidateMove& how,
                                  const ResourceEntry& entry, KSMountPointHandler& target) {
    if (KSMaintenancePlan* plan = repository.plan())
        return planMove(repository, how, entry, target, *plan);
    KSTimedLock lock(repository.settings().isShared, repository.lockScope(), entry.name,
                     how.connection);
    if (!lock.acquire(how.verbose)) return CandidateMoveResult::Refused;
    // A resource removed since it was gathered has changed as much as a touched one, and the
    // maintenance reports it the same way.
    const bool vanished = !exists(entry.path.c_str());
    if (how.checkTime && (vanished || lastAccess(entry.path.c_str(), nullptr) != entry.time)) {
        if (how.verbose) printf("Resource touched while checking: %s\n", entry.path.c_str());
        return vanished ? CandidateMoveResult::Vanished : CandidateMoveResult::Touched;
    }
    if (vanished) return CandidateMoveResult::Vanished;
    KSDirtyFlagHandler& dirty = repository.dirtyFlags();
    bool wasDirty = dirty.isDirty(how.connection, entry.name.c_str(), false);
    if (wasDirty && how.skipDirty) return CandidateMoveResult::Touched;

    std::string destination = resourceLocation(target.path(), entry.name.c_str());
    // Reserved, so that no clean-up of the level takes it away before the copy is in it.
    prepareHashLevels(target.path(), destination.substr(0, destination.rfind('/') + 1),
                      entry.name.c_str());
    logMove(repository, how, entry, destination);
    // Marked before the first byte is copied; see the header.
    // A mark that did not reach the file protects nothing: the resource stays where it is.
    if (!wasDirty && !dirty.setDirty(how.connection, entry.name.c_str(), true)) {
        clearEmptyHash(destination.c_str());
        return CandidateMoveResult::Refused;
    }
    const unsigned long long bytes = resourceBytes(entry.path);

    int result;
    try {
        result =
            moveRes(&repository, entry.path.c_str(), destination.c_str(), target.moveFunction(),
                    target.moveParams().c_str(), repository.settings().callback.c_str(),
                    entry.name.c_str(), repository.path().c_str(), how.verbose);
    } catch (const KSAssertionException&) {
        // Removed by somebody else between the check above and the move.
        settleDirtyMark(repository, how, entry, destination, wasDirty);
        return CandidateMoveResult::Vanished;
    }
    if (result & 2) {
        if (how.verbose) puts("Conflict prevented resource move");
        return CandidateMoveResult::Conflict;  // stays dirty: both copies wait for a decision
    }
    settleDirtyMark(repository, how, entry, destination, wasDirty);
    const bool onTarget = exists(destination.c_str()) && !exists(entry.path.c_str());
    // The levels prepared for a copy that did not happen.
    if (!exists(destination.c_str())) clearEmptyHash(destination.c_str());
    if ((result & 8) || (result != 0 && !how.acceptRawStatus)) return CandidateMoveResult::Failed;
    // Whatever moveRes answered, the disk decides whether the resource moved.
    if (!onTarget) return CandidateMoveResult::Stayed;

    clearEmptyHash(entry.path.c_str());
    repository.progress().moved++;
    repository.progress().bytes += bytes;
    const KSRepositoryHandler::Settings& settings = repository.settings();
    if (settings.maintainLegacyLinks && !settings.legacyDir.empty())
        setLink(destination.c_str(), (settings.legacyDir + "/" + entry.name).c_str());
    return CandidateMoveResult::Moved;
}
