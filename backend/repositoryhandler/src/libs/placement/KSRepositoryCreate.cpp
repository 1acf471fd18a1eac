// Giving new resources their place: the mount choices and the creation of locations.

#include <cstdio>
#include <memory>
#include <string>

#include "KSLegacyLinks.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "KSResourceMover.h"
#include "KSStatus.h"
#include "SmartSemaphore.h"

namespace {

// Among the mounts without any bit of `exclude`, the least used one (earlier wins ties).
int leastUsedMount(const KSRepositoryHandler::MountList& mounts, uint32_t exclude,
                   const KSMountPointHandler* skip) {
    int best = -1;
    float bestUsed = 0;
    for (size_t i = 0; i < mounts.size(); ++i) {
        KSMountPointHandler& mount = *mounts[i];
        if (&mount == skip || (mount.status() & exclude)) continue;
        float used = mount.getUsedPercentage();
        if (best < 0 || used < bestUsed) {
            best = static_cast<int>(i);
            bestUsed = used;
        }
    }
    return best;
}

int firstMountWithout(const KSRepositoryHandler::MountList& mounts, uint32_t exclude) {
    for (size_t i = 0; i < mounts.size(); ++i)
        if (!(mounts[i]->status() & exclude)) return static_cast<int>(i);
    return -1;
}

// Mounts are filled one after the other up to their switch limit; once all have passed it,
// new resources are spread by usage.
int chooseForNewResource(const KSRepositoryHandler::MountList& mounts, int repositoryStatus,
                         uint32_t orderedExclude) {
    if (repositoryStatus & MOUNT_CLEAN) return -1;
    if (repositoryStatus & MOUNT_SWITCH)
        return leastUsedMount(mounts, MOUNT_DEAD | MOUNT_FULL, nullptr);
    return firstMountWithout(mounts, orderedExclude);
}

const char* skipReason(uint32_t flags) {
    if (flags & MOUNT_FULL) return "full";
    if (flags & MOUNT_DEAD) return "unmounted";
    return "above it's clean limit";
}

}  // namespace

int KSRepositoryHandler::getActualMountPoint() {
    int status = checkRepositoryStatus();
    return chooseForNewResource(mounts_, status, MOUNT_DEAD | MOUNT_FULL | MOUNT_SWITCH);
}

int KSRepositoryHandler::getActualMountPointForMove(KSMountPointHandler* source, bool verbose) {
    int status = checkRepositoryStatus();
    if (status & MOUNT_CLEAN) {
        if (verbose) std::printf("Cannot find target mount: repository is full.");
        return -1;
    }
    if (mounts_.empty()) {
        if (verbose) std::printf("No suitable mount found.");
        return -1;
    }
    const uint32_t unusable = MOUNT_FULL | MOUNT_CLEAN | MOUNT_DEAD;
    for (size_t i = 0; i < mounts_.size(); ++i) {
        KSMountPointHandler& mount = *mounts_[i];
        if (&mount == source) continue;
        if (mount.status() & unusable) {
            if (verbose)
                std::printf("Skipping mount %s, as it is %s.\n", mount.path().c_str(),
                            skipReason(mount.status()));
            continue;
        }
        if (!(mount.status() & MOUNT_SWITCH)) return static_cast<int>(i);
    }
    int best = leastUsedMount(mounts_, unusable, source);
    if (best < 0 && verbose) std::printf("No suitable mount found.");
    return best;
}

int KSRepositoryHandler::getActualMountPointForLegacy() {
    int status = checkRepositoryStatus();
    if ((status & MOUNT_CLEAN) || mounts_.empty()) return -1;
    for (size_t i = 0; i < mounts_.size(); ++i) {
        KSMountPointHandler& mount = *mounts_[i];
        if (mount.status() & (MOUNT_DEAD | MOUNT_FULL)) continue;
        if (IsOnTheSameMount(mount.path().c_str(), settings_.legacyDir.c_str()))
            return static_cast<int>(i);
    }
    return chooseForNewResource(mounts_, status, MOUNT_DEAD | MOUNT_SWITCH);
}

// The common part of createLocation and createDirectory, run under the resource lock after the
// lookup found nothing: choose a mount, mark the resource dirty while a mount is dead, and let
// `prepare` make the location on the chosen mount.
template <typename Prepare>
static char* placeNewResource(KSRepositoryHandler& repo, kelp::db::DBConnector* connection,
                              const std::string& name, int* status, bool noDirty,
                              bool reportToCallback, Prepare prepare) {
    int index = repo.getActualMountPoint();
    int repositoryStatus = repo.repositoryStatus();
    bool dirty = false;
    if ((repositoryStatus & REPOSITORY_INCOMPLETE) && !noDirty) {
        repo.dirtyFlags().setDirty(connection, name.c_str(), true);
        dirty = true;
    }
    if (index < 0) {
        std::string state = (repositoryStatus & REPOSITORY_MISSING) ? "missing" : "full";
        if (!(repositoryStatus & REPOSITORY_MISSING) && (repositoryStatus & REPOSITORY_INCOMPLETE))
            state += " and incomplete";
        rh_logger.errorLog("The repository \"%s\" is %s", repo.path().c_str(), state.c_str());
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    char* location = prepare(*repo.mounts()[index], dirty);
    if (location == nullptr) return nullptr;
    const KSRepositoryHandler::Settings& settings = repo.settings();
    if (settings.maintainLegacyLinks) setLink(location, legacyPathOf(repo, name.c_str()).c_str());
    if (reportToCallback && !settings.callback.empty())
        moveCallback(settings.callback.c_str(), location, name.c_str(), repo.path().c_str(),
                     nullptr);
    return location;
}

char* KSRepositoryHandler::createLocation(kelp::db::DBConnector* connection, const char* resource,
                                          int* status, int* existed, bool noDirty) {
    int localStatus = 0;
    int localExisted = 0;
    if (status == nullptr) status = &localStatus;
    if (existed == nullptr) existed = &localExisted;
    std::string name = checkedResourceName(resource);
    std::optional<SmartSemaphore> semaphore;
    if (!lockResourceInto(semaphore, *this, name.c_str(), connection)) {
        *status = RESOURCE_STATUS_LOCK_FAILED;
        return nullptr;
    }
    *existed = 0;
    char* found = getLocation(connection, name.c_str(), status, false, false, true, false);
    if (found != nullptr) {
        *existed = 1;
        return found;
    }
    return placeNewResource(*this, connection, name, status, noDirty, true,
                            [&](KSMountPointHandler& mount, bool dirty) {
                                return mount.createLocation(name.c_str(), status, dirty);
                            });
}

char* KSRepositoryHandler::createDirectory(kelp::db::DBConnector* connection, const char* resource,
                                           int* status, int* secondStatus, bool useCallback,
                                           bool noDirty, bool exclusive) {
    int localStatus = 0;
    int localSecond = 0;
    if (status == nullptr) status = &localStatus;
    if (secondStatus == nullptr) secondStatus = &localSecond;
    std::string name = checkedResourceName(resource);
    std::optional<SmartSemaphore> semaphore;
    if (!lockResourceInto(semaphore, *this, name.c_str(), connection)) {
        *status = RESOURCE_STATUS_LOCK_FAILED;
        return nullptr;
    }
    *secondStatus = 0;
    std::unique_ptr<char[]> found(
        getLocation(connection, name.c_str(), status, false, false, useCallback, false));
    if (found) {
        *secondStatus = 1;
        if (!exclusive) return found.release();
        rh_logger.errorLog("The resource \"%s\" exists already at \"%s\".", name.c_str(),
                           found.get());
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    return placeNewResource(*this, connection, name, status, noDirty, useCallback,
                            [&](KSMountPointHandler& mount, bool dirty) {
                                return mount.createDirectory(name.c_str(), status, dirty, true);
                            });
}
