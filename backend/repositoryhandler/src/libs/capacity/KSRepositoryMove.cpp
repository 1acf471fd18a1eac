// Moving resources between the mounts of a repository: the move loops of the overload check,
// the emptying of a whole mount and bringing a resource back onto a fast mount.

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "KSCandidateMove.h"
#include "KSClock.h"
#include "KSException.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSNomoveHandler.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "KSStateFile.h"
#include "SmartSemaphore.h"

namespace {

constexpr uint32_t kStopped = 0xFFFFFFFFu;
constexpr unsigned kSecondsPerDay = 86400;
constexpr uint32_t kEmptyingBatch = 1000;

void say(bool verbose, const std::string& text) {
    if (verbose) puts(text.c_str());
}

// Reads the "movetime" of the move state: a whole number of days whose seconds fit the move
// time. Anything else is logged as what it is and leaves the default.
bool parseMoveTimeDays(const char* text, long* days) {
    errno = 0;
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0') {
        rh_logger.errorLog("movetime is not an integer: %s", text);
        return false;
    }
    if (value < 0) {
        rh_logger.errorLog("movetime is negative: %s", text);
        return false;
    }
    if (errno != 0 || value > static_cast<long>(UINT32_MAX / kSecondsPerDay)) {
        rh_logger.errorLog("movetime is too large: %s", text);
        return false;
    }
    *days = value;
    return true;
}

// Move state of a mount: "lasthash" (where the last incomplete pass stopped) and "movetime"
// (days). No state is kept when VAR is not set.
class MoveState {
  public:
    explicit MoveState(const std::string& file) : file_(file) {
        if (!file_.empty()) properties_.load(file_.c_str());
    }
    KSProperties& properties() { return properties_; }
    void save() {
        if (file_.empty()) return;
        if (KSStateFile::replace(file_, properties_.text()) != KSStateFile::Result::kReplaced)
            rh_logger.errorLog("Could not write move state %s: %s", file_.c_str(), strerror(errno));
    }

  private:
    std::string file_;
    KSProperties properties_;
};

}  // namespace

int KSRepositoryHandler::moveResourcesFromMount(kelp::db::DBConnector* connection,
                                                KSMountPointHandler* mount, KSNomoveHandler* nomove,
                                                bool verbose, unsigned collectNum) {
    int targetIndex = getActualMountPointForMove(mount, verbose);
    if (targetIndex < 0) return 0;

    ResourceSet candidates;
    mount->counters() = KSMountPointHandler::WalkCounters();
    uint32_t found =
        mount->getOldestResources(connection, candidates, nomove, collectNum, nullptr, "", 0);
    rh_logger.infoLog("Checkoverload checked %d resources (place 0), repo:%s, mount:%s",
                      static_cast<int>(mount->counters().checked), path_.c_str(),
                      mount->path().c_str());
    if (found == 0 || found == kStopped) {
        if (verbose) printf("no old resource found on mount %s\n", mount->path().c_str());
        return 0;
    }

    CandidateMove how;
    how.connection = connection;
    how.verbose = verbose;
    int moved = 0;
    for (const ResourceEntry& entry : candidates) {
        if (checkoverloadStopped || !(mount->checkStatus(false) & MOUNT_MOVE)) break;
        KSMountPointHandler& target = *mounts_[targetIndex];
        CandidateMoveResult result = moveCandidate(*this, how, entry, target);
        if (result == CandidateMoveResult::Failed) {
            if (nomove != nullptr) {
                nomove->setNomove(entry.name.c_str(), true);
                say(verbose, "Move failed (Maybe out of space?) - marked as nomove");
            }
        } else if (result == CandidateMoveResult::Moved) {
            if (nomove != nullptr) nomove->setNomove(entry.name.c_str(), false);
            say(verbose, "Move succeeded");
            ++moved;
        } else if (result == CandidateMoveResult::Stayed) {
            say(verbose, "Move did not complete, the resource stays on its mount");
        }
        targetIndex = getActualMountPointForMove(mount, verbose);
        if (verbose)
            printf("(moveLimit=%f, used=%f)\n", mount->config().moveLimit, mount->usedPercentage());
        if (targetIndex < 0) break;
    }
    return moved;
}

namespace {

// The new move time after a pass that left the mount too full: the youngest age whose older
// data, summed from the oldest age down, exceeds twice the space still to be freed; never
// shorter than the no-move time.
int newMoveTimeDays(KSMountPointHandler& mount, const std::map<int, double>& ageMap,
                    unsigned nomoveTime) {
    const int nomoveDays = static_cast<int>(nomoveTime / kSecondsPerDay);
    long toFree = 0;
    struct statvfs figures;
    if (mount.fileSystemFigures(&figures) != 0 ||
        blocksToFree(mount.path().c_str(), mount.config().cleanLimit, &toFree, &figures) != 0)
        rh_logger.errorLog("blocksToFree statvfs error");
    const double wanted = 2.0 * static_cast<double>(toFree);
    double sum = 0.0;
    for (auto it = ageMap.rbegin(); it != ageMap.rend(); ++it) {
        sum += it->second;
        if (sum > wanted) return it->first > nomoveDays ? it->first : nomoveDays;
    }
    return nomoveDays;
}

}  // namespace

int KSRepositoryHandler::moveResourcesNew(kelp::db::DBConnector* connection,
                                          KSMountPointHandler* mount) {
    if (getActualMountPointForMove(mount, false) < 0) {
        rh_logger.infoLog("No mount to move resources to (at the beginning)");
        return 1;
    }
    mount->counters().checked = 0;
    unsigned moveTime = mount->config().moveHorizon;
    MoveState state(mount->lastMoveFile());
    std::string resumeHash;
    if (const char* hash = state.properties().getProperty("lasthash")) {
        resumeHash = hash;
        state.properties().remove("lasthash");
    }
    if (const char* text = state.properties().getProperty("movetime")) {
        long days = 0;
        if (parseMoveTimeDays(text, &days)) moveTime = static_cast<unsigned>(days * kSecondsPerDay);
    }
    if (settings_.nomoveTime > moveTime) {
        rh_logger.infoLog(
            "Using nomoveTime:%d sec instead of planned moveTime:%d sec for 'old "
            "enough moving'",
            static_cast<int>(settings_.nomoveTime), static_cast<int>(moveTime));
        moveTime = settings_.nomoveTime;
    }

    std::map<int, double> ageMap;
    int result = mount->moveResourcesNewInner(connection, resumeHash, moveTime, ageMap);
    if (result == -1) {
        rh_logger.errorLog("moveResourcesNewInner returned error");
    } else if (result == 3) {
        rh_logger.infoLog("Checkoverload was stopped before finishing by rc stop or manual kill");
    } else if (result == 1 || result == 2) {
        int days = newMoveTimeDays(*mount, ageMap, settings_.nomoveTime);
        if (plan_ != nullptr)
            plan_->notes.push_back("the move time of " + mount->path() + " would become " +
                                   std::to_string(days) + " days");
        else
            moveTimeWarning(mount, days);
        state.properties().setProperty("movetime", std::to_string(days).c_str());
    } else if (result == 0) {
        state.properties().remove("movetime");
    }
    if (!resumeHash.empty()) state.properties().setProperty("lasthash", resumeHash.c_str());
    if (plan_ == nullptr) state.save();  // a dry run leaves the move state as it is
    return 0;
}

namespace {

KSMountPointHandler* findMount(KSRepositoryHandler::MountList& mounts, std::string name) {
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    for (auto& mount : mounts)
        if (mount->path() == name) return mount.get();
    return nullptr;
}

}  // namespace

namespace {

// The emptying's messages go to the log and, when verbose, to standard output as well.
void report(bool verbose, bool error, const std::string& text) {
    if (error)
        rh_logger.errorLog("%s", text.c_str());
    else
        rh_logger.infoLog("%s", text.c_str());
    say(verbose, text);
}

// A candidate the emptying could not move is not tried again in this run. A failed copy
// command counts as a move but leaves the origin, so what is left decides, not the result:
// otherwise the emptying would meet the same resource for ever.
void settleEmptyingMove(CandidateMoveResult result, const ResourceEntry& entry,
                        KSNomoveHandler& nomove, bool verbose, const KSMaintenancePlan* plan) {
    struct stat st;
    const bool stillHere = maintenanceLstat(plan, entry.path, &st) == 0;
    if (result == CandidateMoveResult::Vanished && !stillHere) {
        rh_logger.infoLog("EmptyMount skips %s as it seems to have been removed already\n",
                          entry.path.c_str());
    } else if (result == CandidateMoveResult::Failed) {
        nomove.setNomove(entry.name.c_str(), true);
        report(verbose, true, "Nospaceleft? EmptyMount couldn't move - marked as nomove");
    } else if (stillHere) {
        nomove.setNomove(entry.name.c_str(), true);
        report(verbose, true, "Nospaceleft? EmptyMount couldn't move");
    }
}

// "Finished." only when the mount is known to hold no resource: a mount that went dead
// meanwhile cannot be looked at, so its resources count as left behind.
int finishEmptying(KSMountPointHandler& source, kelp::db::DBConnector* connection, bool verbose) {
    ResourceSet left;
    uint32_t remaining = source.getRandomResources(connection, left, nullptr, 1);
    if (checkoverloadStopped || remaining != 0) {
        report(verbose, true, "Not all resources could be moved");
        return 1;
    }
    report(verbose, false, "Finished.");
    return 0;
}

}  // namespace

int KSRepositoryHandler::moveAllResourcesFromMount(kelp::db::DBConnector* connection,
                                                   const char* mountName, bool verbose) {
    KSMountPointHandler* source = findMount(mounts_, mountName != nullptr ? mountName : "");
    if (source == nullptr) {
        report(verbose, true,
               std::string("Source mount \"") + (mountName ? mountName : "") +
                   "\" could not be found in repository.");
        return -1;
    }
    std::unique_ptr<char[]> id(toResourceID(lockScope().c_str(), ""));
    // The repository lock keeps the emptying and the overload check apart. A dry run changes
    // nothing and takes no lock.
    SmartSemaphore repositoryLock(settings_.isShared, plan_ ? nullptr : id.get(), connection);
    if (plan_ == nullptr && !repositoryLock.lock()) {
        report(verbose, true, "The repository \"" + path_ + "\" could not be locked.");
        return -1;
    }
    if (source->checkStatus(false) & MOUNT_DEAD) {
        report(verbose, true, "EmptyMount: source mount " + source->path() + " is unmounted");
        return -1;
    }
    progress_.reset();
    for (size_t i = 0; i < mounts_.size(); ++i)
        if (mounts_[i].get() == source) progress_.mountIndex = static_cast<int>(i);
    source->restartRandomOrder();
    KSNomoveHandler nomove;
    CandidateMove how;
    how.connection = connection;
    how.actor = MoveActor::EmptyMount;
    how.verbose = verbose;
    how.checkTime = false;  // everything goes, used or not
    how.skipDirty = false;  // the move merges a dirty resource onto its other copy
    for (bool first = true; !checkoverloadStopped; first = false) {
        ResourceSet batch;
        uint32_t found = source->getRandomResources(connection, batch, &nomove, kEmptyingBatch);
        if (found == 0 || found == kStopped) {
            if (first) report(verbose, false, "no movable resource found");
            break;
        }
        for (const ResourceEntry& entry : batch) {
            if (checkoverloadStopped) break;
            int targetIndex = getActualMountPointForMove(source, verbose);
            if (targetIndex < 0 || targetIndex >= static_cast<int>(mounts_.size())) {
                report(verbose, true, "Could not find target mount for data moving.");
                return finishEmptying(*source, connection, verbose);
            }
            settleEmptyingMove(moveCandidate(*this, how, entry, *mounts_[targetIndex]), entry,
                               nomove, verbose, plan_);
        }
    }
    return finishEmptying(*source, connection, verbose);
}

char* KSRepositoryHandler::unAge(kelp::db::DBConnector* connection, const char* resource) {
    initMPHandlers();  // the mount types are known once the mounts are set up
    if (!hasNonFastMount()) return nullptr;
    if (resource == nullptr || !isSafeResourceName(resource)) {
        rh_logger.errorLog("unAge: No location for resource %s", resource ? resource : "(null)");
        return nullptr;
    }
    int status = 0;
    std::unique_ptr<char[]> location(
        getLocation(connection, resource, &status, false, false, false, false));
    if (!location) {
        rh_logger.errorLog("unAge: No location for resource %s", resource);
        return nullptr;
    }
    KSMountPointHandler* target = nullptr;
    for (auto& mount : mounts_) {
        if (!mount->config().fast) continue;
        if (mount->checkStatus(true) & (MOUNT_SWITCH | MOUNT_FULL | MOUNT_DEAD)) continue;
        if (liesOnMount(*mount, location.get())) return nullptr;
        target = mount.get();
    }
    if (target == nullptr) return nullptr;

    int createStatus = 0;
    std::unique_ptr<char[]> created(target->createLocation(resource, &createStatus, false));
    ResourceEntry entry;
    entry.path = location.get();
    entry.name = resource;
    CandidateMove how;
    how.connection = connection;
    how.actor = MoveActor::UnAge;
    how.checkTime = false;
    how.skipDirty = false;
    how.acceptRawStatus = false;
    if (moveCandidate(*this, how, entry, *target) != CandidateMoveResult::Moved) return nullptr;
    std::string destination = resourceLocation(target->path(), resource);
    char* result = new char[destination.size() + 1];
    memcpy(result, destination.c_str(), destination.size() + 1);
    return result;
}
