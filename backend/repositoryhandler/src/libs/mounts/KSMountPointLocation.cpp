// Resources on one mount: finding, preparing and removing their hashed locations.

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "KSLogger.h"
#include "KSMountPointHandler.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "KSResourceDeleter.h"
#include "KSStatus.h"

namespace {

constexpr int kMkdirsAttempts = 5;

// The three hash levels of `name` below `mountPath`, with a trailing slash.
std::string hashLevelsOf(const std::string& mountPath, const std::string& name) {
    std::unique_ptr<char[]> hashed(createHash(name.c_str()));
    return mountPath + "/" + std::string(hashed.get(), 9);
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The levels are reserved for `name`, so that no clean-up removes them before the caller has
// created the resource (see clearEmptyHash).
bool makeLevelsWithRetries(const std::string& mount, const std::string& levels,
                           const std::string& name, int* savedErrno) {
    for (int attempt = 0; attempt < kMkdirsAttempts; ++attempt) {
        errno = 0;
        if (prepareHashLevels(mount, levels, name.c_str())) return true;
        *savedErrno = errno;
    }
    return false;
}

void logMkdirsFailure(const std::string& directory, int error) {
    rh_logger.errorLog("Error occurred while creating directory \"%s\". Error code is %d - %s",
                       directory.c_str(), error, errnoText(error).c_str());
}

}  // namespace

char* KSMountPointHandler::getLocation(const char* resource, int* status, int* mountFlags,
                                       bool touch, bool useMountStatus) {
    int localStatus = 0;
    if (status == nullptr) status = &localStatus;
    const char* name = resource;
    while (name != nullptr && *name == '/') ++name;
    if (!isSafeResourceName(name)) {
        rh_logger.errorLog("Refusing the resource name \"%s\" on mount %s: not a single name",
                           resource ? resource : "(null)", path_.c_str());
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    uint32_t flags = 0;
    if (useMountStatus) {
        flags = checkStatus(true);
        if (mountFlags != nullptr) *mountFlags = static_cast<int>(flags);
    } else {
        if (repository_ != nullptr && !repository_->mountHandlersInitialised())
            repository_->initMPHandlers();
        if (!exists((path_ + "/repositorypart.cfg").c_str())) flags = MOUNT_DEAD;
    }
    if (flags == MOUNT_DEAD) {
        *status = RESOURCE_STATUS_MISSING;
        return nullptr;
    }
    std::string location = resourceLocation(path_, name);
    if (::access(location.c_str(), F_OK) != 0) {
        *status = errno == ENOENT ? RESOURCE_STATUS_NOT_PRESENT : RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    if (touch) {
        ::utime(location.c_str(), nullptr);
        if (config_.countSize && !dedicated_) touchHashedDirs(location.c_str());
    }
    writeToLog(location.c_str());
    *status = RESOURCE_STATUS_FOUND;
    return newText(location);
}

char* KSMountPointHandler::createLocation(const char* resource, int* status, bool dirty) {
    int localStatus = 0;
    if (status == nullptr) status = &localStatus;
    if (checkStatus(true) == MOUNT_DEAD) {
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    std::string name = checkedResourceName(resource);
    std::string levels = hashLevelsOf(path_, name);
    int error = 0;
    if (!makeLevelsWithRetries(path_, levels, name, &error)) {
        logMkdirsFailure(levels, error);
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    std::string location = levels + name;
    *status = dirty ? RESOURCE_STATUS_DIRTY : RESOURCE_STATUS_FOUND;
    if (config_.countSize && !dedicated_) touchHashedDirs(location.c_str());
    return newText(location);
}

char* KSMountPointHandler::createDirectory(const char* name, int* status, bool dirty,
                                           bool exclusive) {
    int localStatus = 0;
    if (status == nullptr) status = &localStatus;
    std::unique_ptr<char[]> location(createLocation(name, status, dirty));
    if (!location) return nullptr;
    if (::mkdir(location.get(), 0755) == 0) return location.release();
    int error = errno;
    if (error == EEXIST && !exclusive && isDirectory(location.get())) return location.release();
    if (error == EEXIST) {
        rh_logger.errorLog("The directory \"%s\" exists already.", location.get());
    } else {
        logMkdirsFailure(location.get(), error);
    }
    *status = RESOURCE_STATUS_ERRONEOUS;
    return nullptr;
}

int KSMountPointHandler::removeResource(const char* resource, bool useCallback) {
    int status = 0;
    int flags = 0;
    std::unique_ptr<char[]> location(getLocation(resource, &status, &flags, true, true));
    if (!location) return RESOURCE_STATUS_MISSING;
    std::string callback;
    std::string repositoryName;
    if (repository_ != nullptr) {
        if (useCallback) callback = repository_->settings().callback;
        repositoryName = repository_->path();
    }
    std::string name = stripLeadingSlashes(resource);
    int result = deleteRes(location.get(), callback, name.c_str(), repositoryName.c_str());
    if (result == 0) clearEmptyHash(location.get());
    return result;
}
