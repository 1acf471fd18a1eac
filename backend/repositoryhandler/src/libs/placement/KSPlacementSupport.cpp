#include "KSPlacementSupport.h"

#include <cstring>
#include <memory>

#include "KSAssertionException.h"
#include "KSLogger.h"
#include "KSMountPointHandler.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSPlacementSupport";

}  // namespace

char* newText(const std::string& text) {
    char* copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

std::string stripLeadingSlashes(const char* resource) {
    if (resource == nullptr) return std::string();
    while (*resource == '/') ++resource;
    return std::string(resource);
}

KSMountPointHandler* findMountByName(KSRepositoryHandler& repository, const char* mountName) {
    std::string wanted = repository.path();
    if (mountName != nullptr && *mountName != '\0') wanted += std::string("/") + mountName;
    for (auto& mount : repository.mounts())
        if (mount->path() == wanted) return mount.get();
    return nullptr;
}

KSMountPointHandler* findMountHolding(KSRepositoryHandler& repository, const std::string& path) {
    for (auto& mount : repository.mounts()) {
        const std::string& mountPath = mount->path();
        if (path.compare(0, mountPath.size(), mountPath) != 0) continue;
        if (path.size() == mountPath.size() || path[mountPath.size()] == '/') return mount.get();
    }
    return nullptr;
}

std::string legacyPathOf(const KSRepositoryHandler& repository, const char* resource) {
    return repository.settings().legacyDir + "/" + resource;
}

int moveFailureStatus(int moveResult) {
    if (moveResult == RESOURCE_STATUS_CONFLICT || moveResult == RESOURCE_STATUS_ERRONEOUS)
        return moveResult;
    return RESOURCE_STATUS_CONFLICT;
}

std::string resourceLockId(const KSRepositoryHandler& repository, const char* resource) {
    std::unique_ptr<char[]> id(toResourceID(repository.lockScope().c_str(), resource));
    return id ? std::string(id.get()) : std::string();
}

bool lockResourceInto(std::optional<SmartSemaphore>& semaphore, KSRepositoryHandler& repository,
                      const char* resource, kelp::db::DBConnector* connection) {
    std::string lockId = resourceLockId(repository, resource);
    semaphore.emplace(repository.isShared(), lockId.c_str(), connection);
    if (semaphore->lock()) return true;
    rh_logger.errorLog("The resource \"%s\" could not be locked.", lockId.c_str());
    return false;
}

bool refuseUnsafeName(const char* resource, const char* operation) {
    if (isSafeResourceName(stripLeadingSlashes(resource).c_str())) return false;
    rh_logger.errorLog("%s: refusing the resource name \"%s\", which is not a single name",
                       operation, resource ? resource : "(null)");
    return true;
}

bool refuseEmptyName(const char* resource, const char* operation) {
    if (resource == nullptr || resource[0] != '\0') return false;
    rh_logger.errorLog("%s: refusing the empty resource name", operation);
    return true;
}

std::string checkedResourceName(const char* resource) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    std::string subDirectory = stripLeadingSlashes(resource);
    if (subDirectory.find('/') != std::string::npos)
        throw KSAssertionException("subDirectory.find( '/' ) == string::npos", __LINE__,
                                   kSourceFile);
    if (!isSafeResourceName(subDirectory.c_str()))
        throw KSAssertionException("isSafeResourceName( subDirectory )", __LINE__, kSourceFile);
    return subDirectory;
}
