// Removal of resources, resource status, time properties and emptying a whole repository.

#include <sys/stat.h>
#include <utime.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "KSLegacyLinks.h"
#include "KSLogger.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "KSResourceDeleter.h"
#include "KSStatus.h"
#include "SmartSemaphore.h"

namespace {

// The part of a removal shared by removeResource and removeResourceOnMount.
struct Removal {
    int result = 0;
    bool removed = false;

    void add(int status) {
        result |= status;
        removed = true;
    }
    int finish() const { return removed ? result : RESOURCE_STATUS_MISSING; }
};

bool lstatExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// The start shared by both removals: the resource lock (kept in `semaphore`, when asked for) and
// the merge of a dirty resource. A dirty resource is merged first; one that stays dirty (a
// mount is dead) is never removed, so that a copy on the dead mount cannot come back later as
// the only copy. The result to give back at once, or -1 to go on.
int startRemoval(KSRepositoryHandler& repository, kelp::db::DBConnector* connection,
                 const std::string& name, bool lock, bool useCallback,
                 std::optional<SmartSemaphore>& semaphore) {
    if (lock && !lockResourceInto(semaphore, repository, name.c_str(), connection))
        return RESOURCE_STATUS_LOCK_FAILED;
    KSDirtyFlagHandler& dirtyFlags = repository.dirtyFlags();
    if (!dirtyFlags.isDirty(connection, name.c_str(), true)) return -1;
    std::unique_ptr<char[]> location(repository.getLocation(connection, name.c_str(), nullptr,
                                                            false, false, useCallback, false));
    return dirtyFlags.isDirty(connection, name.c_str(), true) ? RESOURCE_STATUS_DIRTY : -1;
}

}  // namespace

int KSRepositoryHandler::checkResourceStatus(kelp::db::DBConnector* connection,
                                             const char* resource) {
    if (refuseUnsafeName(resource, "checkResourceStatus")) return RESOURCE_STATUS_ERRONEOUS;
    int status = 0;
    std::unique_ptr<char[]> location(
        getLocation(connection, resource, &status, false, true, true, false));
    return status;
}

bool KSRepositoryHandler::getTimeProperties(kelp::db::DBConnector* connection, const char* resource,
                                            struct utimbuf* times) {
    if (times == nullptr || refuseUnsafeName(resource, "getTimeProperties")) return false;
    std::unique_ptr<char[]> location(
        getLocation(connection, resource, nullptr, false, false, true, false));
    if (!location) return false;
    struct stat st;
    if (myStat(location.get(), &st) != 0) return false;
    times->actime = st.st_atime;
    times->modtime = st.st_mtime;
    return true;
}

bool KSRepositoryHandler::setTimeProperties(kelp::db::DBConnector* connection, const char* resource,
                                            const struct utimbuf* times) {
    if (refuseUnsafeName(resource, "setTimeProperties")) return false;
    std::unique_ptr<char[]> location(
        getLocation(connection, resource, nullptr, false, false, true, false));
    if (!location) return false;
    return ::utime(location.get(), times) != -1;
}

// Removes the resource's legacy entry: a link (and, when links are used, the resolved target)
// and a real directory. True when there was anything to remove.
// A legacy link may point anywhere (it is a plain symbolic link an operator can edit). Its
// target is deleted with the resource only when it is that resource's own directory: named
// after the resource and lying inside one of the repository's mounts or its legacy directory.
// Anything else (a link to "/" or "/etc") must never turn a removal into a deletion elsewhere.
bool KSRepositoryHandler::isOwnResourceDirectory(const std::string& target,
                                                 const char* resource) const {
    const size_t slash = target.rfind('/');
    if (slash == std::string::npos || target.compare(slash + 1, std::string::npos, resource) != 0)
        return false;
    auto inside = [&target](const std::string& root) {
        char* canonical = canonicalize_file_name(root.c_str());
        if (canonical == nullptr) return false;
        std::string prefix = canonical;
        free(canonical);
        if (prefix != "/") prefix += '/';
        return target.size() > prefix.size() && target.compare(0, prefix.size(), prefix) == 0;
    };
    for (const auto& mount : mounts_)
        if (inside(mount->path())) return true;
    return !settings_.legacyDir.empty() && inside(settings_.legacyDir);
}

bool KSRepositoryHandler::removeFromLegacy(const char* resource, bool useCallback, int* result) {
    bool acted = false;
    std::string legacyPath = legacyPathOf(*this, resource);
    std::string callback = useCallback ? settings_.callback : std::string();
    if (settings_.followLegacyLinks || settings_.maintainLegacyLinks) {
        bool isLink = false;
        std::string target;
        if (lstatExists(legacyPath) && checkLink(legacyPath.c_str(), isLink, &target) && isLink) {
            acted = true;
            if (std::remove(legacyPath.c_str()) != 0) {
                int error = errno;
                rh_logger.errorLog("Legacy link \"%s\" could not be removed. Cause: [%d] %s",
                                   legacyPath.c_str(), error, errnoText(error).c_str());
                *result |= RESOURCE_STATUS_DIRTY;
            } else if (!target.empty() && exists(target.c_str())) {
                if (isOwnResourceDirectory(target, resource)) {
                    *result |= deleteRes(target.c_str(), callback, resource, path_.c_str());
                } else {
                    rh_logger.errorLog(
                        "Legacy link \"%s\" points outside the repository's resources (%s); "
                        "its target is left alone.",
                        legacyPath.c_str(), target.c_str());
                    *result |= RESOURCE_STATUS_ERRONEOUS;
                }
            }
        }
    }
    if (lstatExists(legacyPath)) {
        acted = true;
        *result |= deleteRes(legacyPath.c_str(), callback, resource, path_.c_str());
    }
    return acted;
}

int KSRepositoryHandler::removeResource(kelp::db::DBConnector* connection, const char* resource,
                                        bool lock, bool useCallback) {
    if (refuseUnsafeName(resource, "removeResource")) return RESOURCE_STATUS_ERRONEOUS;
    std::string name = stripLeadingSlashes(resource);
    std::optional<SmartSemaphore> semaphore;
    int early = startRemoval(*this, connection, name, lock, useCallback, semaphore);
    if (early >= 0) return early;
    bool hasLegacy = !settings_.legacyDir.empty();
    if (mounts_.empty() && !hasLegacy) return RESOURCE_STATUS_MISSING;
    Removal removal;
    for (auto& mount : mounts_) {
        // What an interrupted copy left goes with the resource (first, so that the removal can
        // clear the hash levels it leaves empty).
        discardPartialCopy(partialCopyPath(resourceLocation(mount->path(), name.c_str())));
        int result = mount->removeResource(name.c_str(), useCallback);
        if (!(result & RESOURCE_STATUS_MISSING)) removal.add(result);
    }
    if (hasLegacy) {
        int legacyResult = 0;
        if (removeFromLegacy(name.c_str(), useCallback, &legacyResult)) removal.add(legacyResult);
    }
    return removal.finish();
}

int KSRepositoryHandler::removeResourceOnMount(kelp::db::DBConnector* connection,
                                               const char* resource, const char* mountName,
                                               bool lock, bool useCallback) {
    if (refuseUnsafeName(resource, "removeResourceOnMount")) return RESOURCE_STATUS_ERRONEOUS;
    if (mountName == nullptr) {
        rh_logger.errorLog(
            "mountName is NULL for repository: %s! Giving back ERRONEOUS status for resource %s",
            path_.c_str(), resource);
        return RESOURCE_STATUS_ERRONEOUS;
    }
    std::string name = stripLeadingSlashes(resource);
    std::optional<SmartSemaphore> semaphore;
    int early = startRemoval(*this, connection, name, lock, useCallback, semaphore);
    if (early >= 0) return early;
    KSMountPointHandler* mount = findMountByName(*this, mountName);
    if (mount == nullptr) {
        rh_logger.errorLog(
            "Giving back RESOURCE_STATUS_MISSING because mount cannot be found, repo:%s, mount:%s",
            path_.c_str(), mountName);
        return RESOURCE_STATUS_MISSING;
    }
    bool hasLegacy = !settings_.legacyDir.empty();
    Removal removal;
    int result = mount->removeResource(name.c_str(), useCallback);
    if (!(result & RESOURCE_STATUS_MISSING))
        removal.add(result);
    else if (!hasLegacy)
        return RESOURCE_STATUS_MISSING;
    if (hasLegacy) {
        int legacyResult = 0;
        if (removeFromLegacy(name.c_str(), useCallback, &legacyResult)) removal.add(legacyResult);
    }
    return removal.finish();
}

namespace {

// Owns a listResources result, so that a removal that throws (a database lock) leaks nothing.
class ResourceNames {
  public:
    ResourceNames(KSRepositoryHandler& repository, int kind)
        : names_(repository.listResources(kind, &count_, true)) {}
    ~ResourceNames() {
        if (names_ == nullptr) return;
        for (long i = 0; i < count_; ++i) delete[] names_[i];
        delete[] names_;
    }
    ResourceNames(const ResourceNames&) = delete;
    ResourceNames& operator=(const ResourceNames&) = delete;
    long count() const { return names_ != nullptr ? count_ : 0; }
    const char* operator[](long i) const { return names_[i]; }

  private:
    long count_ = 0;
    char** names_;
};

}  // namespace

void KSRepositoryHandler::makeEmpty(kelp::db::DBConnector* connection) {
    dirtyFlags_.clearDirtySet(connection);
    giveBackMounts();
    const ResourceNames directories(*this, 1);
    const ResourceNames files(*this, 2);
    for (long i = 0; i < directories.count(); ++i)
        removeResource(connection, directories[i], true, true);
    for (long i = 0; i < files.count(); ++i) removeResource(connection, files[i], true, true);
}
