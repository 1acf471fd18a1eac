// The legacy directory: creating a resource there, and taking over onto a mount a resource that
// a lookup found only there.

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "KSLegacyLinks.h"
#include "KSLogger.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "KSResourceMover.h"
#include "KSStatus.h"

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The canonical form of `path`, or empty when it cannot be resolved.
std::string canonicalOf(const std::string& path) {
    char* canonical = canonicalize_file_name(path.c_str());
    if (canonical == nullptr) return std::string();
    std::string result = canonical;
    free(canonical);
    return result;
}

// True when `dir` is `path` itself or a directory above it (both canonical).
bool isAncestorOrSelf(const std::string& dir, const std::string& path) {
    if (dir.empty()) return false;
    if (dir == "/") return true;
    return path.compare(0, dir.size(), dir) == 0 &&
           (path.size() == dir.size() || path[dir.size()] == '/');
}

}  // namespace

char* KSRepositoryHandler::createToLegacy(const char* resource) {
    if (settings_.legacyDir.empty()) return nullptr;
    std::string name = stripLeadingSlashes(resource);
    if (!isSafeResourceName(name.c_str())) {
        rh_logger.errorLog("createToLegacy: refusing the resource name \"%s\"",
                           resource ? resource : "(null)");
        return nullptr;
    }
    std::string legacyPath = legacyPathOf(*this, name.c_str());
    if (mkdirs(legacyPath.c_str(), 0755) != 0 || !isDirectory(legacyPath)) return nullptr;
    return newText(legacyPath);
}

// The take-over copies the legacy entry (or the target of its link) onto a mount and then
// deletes it with "rm -fr". A legacy link is a plain symbolic link that anyone can point
// anywhere, so only what can be this resource's old directory is taken over: a directory named
// after the resource that is no file system's mount directory, holds neither the repository,
// its legacy directory nor any of its mounts, and lies inside a mount of this repository only
// as the resource's own location there (the legacy directory may itself lie on a mount; its
// entries are allowed). A link to /home, a mount root, the repository or another resource's
// directory is never copied and deleted.
const char* KSRepositoryHandler::takeOverRefusal(const std::string& source,
                                                 const char* resource) const {
    const std::string target = canonicalOf(source);
    if (target.empty()) return "it cannot be resolved";
    if (!isDirectory(target)) return "it is not a directory";
    const size_t slash = target.rfind('/');
    if (slash == std::string::npos || target.compare(slash + 1, std::string::npos, resource) != 0)
        return "its name is not the resource's name";
    if (getMountpoint(target.c_str(), nullptr, nullptr, 0) == target)
        return "it is the mount directory of a file system";
    const std::string legacyDir =
        settings_.legacyDir.empty() ? std::string() : canonicalOf(settings_.legacyDir);
    if (isAncestorOrSelf(target, canonicalPath_) || isAncestorOrSelf(target, legacyDir))
        return "it holds the repository or its legacy directory";
    const bool inLegacyDir = isAncestorOrSelf(legacyDir, target);
    for (const auto& mount : mounts_) {
        const std::string mountDir = canonicalOf(mount->path());
        if (isAncestorOrSelf(target, mountDir)) return "it holds a mount of the repository";
        if (!inLegacyDir && isAncestorOrSelf(mountDir, target) &&
            target != resourceLocation(mountDir, resource))
            return "it lies inside a mount of the repository but is not the resource's location";
    }
    return nullptr;
}

void KSRepositoryHandler::writeToLegacyLog(const char* path) {
    rh_logger.debugLog("Legacy access: %s (repository %s)", path, path_.c_str());
}

// The source of a resource found only in the legacy directory: the legacy entry itself, or the
// target of its link when links are followed. Empty with *status set when there is none.
std::string KSRepositoryHandler::legacySource(const char* resource, int* status, bool* wasLink) {
    *wasLink = false;
    if (settings_.legacyDir.empty()) {
        *status = RESOURCE_STATUS_MISSING;
        return std::string();
    }
    std::string legacyPath = legacyPathOf(*this, resource);
    struct stat st;
    // lstat: a link without a target is still an entry (and erroneous when followed).
    if (::lstat(legacyPath.c_str(), &st) != 0) {
        *status = RESOURCE_STATUS_MISSING;
        return std::string();
    }
    bool isLink = false;
    std::string target;
    if (!checkLink(legacyPath.c_str(), isLink, settings_.followLegacyLinks ? &target : nullptr)) {
        *status = RESOURCE_STATUS_MISSING;
        return std::string();
    }
    if (!isLink) return legacyPath;
    if (!settings_.followLegacyLinks) {
        *status = RESOURCE_STATUS_MISSING;
        return std::string();
    }
    if (target.empty()) {
        *status = RESOURCE_STATUS_ERRONEOUS;
        return std::string();
    }
    *wasLink = true;
    return target;
}

char* KSRepositoryHandler::takeOverFromLegacy(const char* resource, int* status, bool touch,
                                              bool dirty) {
    bool wasLink = false;
    std::string source = legacySource(resource, status, &wasLink);
    if (source.empty()) return nullptr;
    if (const char* why = takeOverRefusal(source, resource)) {
        rh_logger.errorLog(
            "Legacy entry \"%s\" leads to \"%s\", which cannot be the old directory of the "
            "resource %s (%s); it is left untouched.",
            legacyPathOf(*this, resource).c_str(), source.c_str(), resource, why);
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    writeToLegacyLog(source.c_str());
    int index = getActualMountPointForLegacy();
    if (index < 0) {
        if (touch) ::utime(source.c_str(), nullptr);
        *status = RESOURCE_STATUS_FOUND;
        return newText(source);
    }
    // A take-over interrupted before may have staged its copy on another mount than this one.
    for (const auto& other : mounts_)
        discardPartialCopy(partialCopyPath(resourceLocation(other->path(), resource)));
    KSMountPointHandler& mount = *mounts_[index];
    int createStatus = 0;
    std::unique_ptr<char[]> location(mount.createLocation(resource, &createStatus, false));
    if (!location) {
        *status = RESOURCE_STATUS_MISSING;
        return nullptr;
    }
    int moved = moveRes(this, source.c_str(), location.get(), mount.moveFunction(),
                        mount.moveParams().c_str(), settings_.callback.c_str(), resource,
                        path_.c_str(), false);
    if (moved != 0) {
        *status = moveFailureStatus(moved);
        return nullptr;
    }
    std::string legacyPath = legacyPathOf(*this, resource);
    if (wasLink && std::remove(legacyPath.c_str()) != 0) {
        int error = errno;
        rh_logger.errorLog("Legacy link \"%s\" could not be removed. Cause: [%d] %s",
                           legacyPath.c_str(), error, errnoText(error).c_str());
    }
    if (settings_.maintainLegacyLinks) setLink(location.get(), legacyPath.c_str());
    *status = dirty ? RESOURCE_STATUS_DIRTY : RESOURCE_STATUS_FOUND;
    return location.release();
}
