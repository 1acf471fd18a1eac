#include <memory>

#include "KSAssertionException.h"
#include "KSException.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "SmartSemaphore.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSRepositoryLocks";

}  // namespace

// The lock outlives this call: release-on-destruction is cleared before anything can fail, so
// the semaphore object goes away and its lock file or lock row stays until unlockResource.
int KSRepositoryHandler::lockResource(kelp::db::DBConnector* connection, const char* resource) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    if (refuseEmptyName(resource, "lockResource")) return 0;
    std::unique_ptr<char[]> id(toResourceID(lockScope().c_str(), resource));
    SmartSemaphore semaphore(settings_.isShared, id.get(), connection);
    semaphore.semaphore()->setReleaseOnDestruction(false);
    // SmartSemaphore::lock logs and answers false for every failure, the time-out included.
    if (semaphore.lock()) return 1;
    rh_logger.errorLog("The resource \"%s\" could not be locked.", id.get());
    return 0;
}

// The lock identity is the only key: whoever took the lock, this call gives it back.
int KSRepositoryHandler::unlockResource(kelp::db::DBConnector* connection, const char* resource) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    // The empty name would release a running maintenance pass's repository lock.
    if (refuseEmptyName(resource, "unlockResource")) return 0;
    std::unique_ptr<char[]> id(toResourceID(lockScope().c_str(), resource));
    SmartSemaphore semaphore(settings_.isShared, id.get(), connection);
    semaphore.semaphore()->setReleaseOnDestruction(false);
    semaphore.semaphore()->setLocked(true);
    try {
        semaphore.unlock();
    } catch (const KSException&) {
        rh_logger.errorLog("The resource \"%s\" could not be unlocked.", id.get());
        return 0;
    }
    return 1;
}

int KSRepositoryHandler::isDirty(kelp::db::DBConnector* connection, const char* resource) {
    if (refuseEmptyName(resource, "isDirty")) return 0;
    return dirtyFlags_.isDirty(connection, resource, false) ? 1 : 0;
}

bool KSRepositoryHandler::setDirty(kelp::db::DBConnector* connection, const char* resource,
                                   bool dirty) {
    if (refuseEmptyName(resource, "setDirty")) return true;
    return dirtyFlags_.setDirty(connection, resource, dirty);
}
