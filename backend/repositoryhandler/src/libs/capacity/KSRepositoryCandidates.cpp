// Gathering the oldest resources of the whole repository for the overload check.

#include <iterator>

#include "KSLogger.h"
#include "KSRepositoryHandler.h"

namespace {
constexpr uint32_t kStopped = 0xFFFFFFFFu;
}

int KSRepositoryHandler::getGlobalOldestResources(kelp::db::DBConnector* connection,
                                                  ResourceSet& result, KSNomoveHandler* nomove,
                                                  unsigned collectNum, bool deleteOld,
                                                  ResourceSet* ownSet, int mountIndex) {
    checkRepositoryStatus();
    for (size_t i = 0; i < mounts_.size(); ++i) {
        KSMountPointHandler& mount = *mounts_[i];
        if (mount.status() & MOUNT_DEAD) continue;
        if (checkoverloadStopped) return -1;
        mount.counters() = KSMountPointHandler::WalkCounters();
        ResourceSet* own = (deleteOld && static_cast<int>(i) == mountIndex) ? ownSet : nullptr;
        uint32_t found = mount.getOldestResources(connection, result, nomove,
                                                  static_cast<uint32_t>(result.size()) + collectNum,
                                                  own, std::string(), 0);
        rh_logger.infoLog("Checkoverload checked %d resources (place 2), repo:%s, mount:%s",
                          static_cast<int>(mount.counters().checked), path_.c_str(),
                          mount.path().c_str());
        if (found == kStopped && checkoverloadStopped) return -1;
    }
    if (checkoverloadStopped) return -1;
    if (result.size() <= collectNum) return static_cast<int>(result.size());
    // Keep the collectNum oldest and, deliberately, the single newest entry as well.
    result.erase(std::next(result.begin(), collectNum), std::prev(result.end()));
    return static_cast<int>(result.size());
}
