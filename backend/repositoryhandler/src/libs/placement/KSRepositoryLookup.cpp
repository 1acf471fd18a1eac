// Where a resource lives: the repository-wide lookup with its callback, lock, search, merge of
// duplicates and legacy fallback; the lookup on one mount; the information callback; listings.

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KSAssertionException.h"
#include "KSLegacyLinks.h"
#include "KSLogger.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSPlacementSupport.h"
#include "KSRepositoryHandler.h"
#include "KSResourceMover.h"
#include "KSStatus.h"
#include "ShellCommand.h"
#include "SmartSemaphore.h"
#include "repohandler.h"

namespace {

void rightTrim(std::string& text) {
    size_t end = text.find_last_not_of(" \t\r\n\f\v");
    text.erase(end == std::string::npos ? 0 : end + 1);
}

// One step of the physical search.
enum class SearchStep { Continue, Stop };

}  // namespace

// ---- the information callback ----------------------------------------------------------------

std::string KSRepositoryHandler::runInfoCallback(const char* resource, bool c, bool d, bool s) {
    const char* home = std::getenv("TASKD_HOME");
    if (home == nullptr) return std::string();
    ShellCommand command(std::string(home) + "/runjavacmd -c \"getinfo quorra.repohandler." +
                         settings_.callback + " -r ");
    command.insideDoubleQuotes(resource ? resource : "").raw(" -p ").insideDoubleQuotes(path_);
    if (c) command.raw(" -c");
    if (d) command.raw(" -d");
    if (s) command.raw(" -s");
    command.raw("\"");
    std::string answer = command.capture();
    rightTrim(answer);
    return answer;
}

// ---- the repository-wide lookup ---------------------------------------------------------------

// The state of one repository-wide lookup, so that its steps can be separate functions.
struct KSRepositoryHandler::Lookup {
    Lookup(KSRepositoryHandler& repository, const char* name, int* statusOut, bool touchFound)
        : repo(repository), resource(name), status(statusOut), touch(touchFound) {}

    KSRepositoryHandler& repo;
    const char* resource;
    int* status;
    bool touch;
    bool dirty = false;
    bool mountWasDead = false;
    std::string result;
};

namespace {

using Lookup = KSRepositoryHandler::Lookup;

char* giveErroneous(Lookup& lookup) {
    rh_logger.errorLog("Giving back RESOURCE_STATUS_ERRONEOUS because of global error, resource:%s",
                       lookup.resource);
    *lookup.status = RESOURCE_STATUS_ERRONEOUS;
    return nullptr;
}

// Moves the earlier copy into `current` on `mount`: the resolver command when configured,
// otherwise the careful move. 0 when merged.
int mergeDuplicate(Lookup& lookup, KSMountPointHandler& mount, const std::string& current) {
    const KSRepositoryHandler::Settings& settings = lookup.repo.settings();
    if (settings.resolver.empty()) {
        return moveRes(&lookup.repo, lookup.result.c_str(), current.c_str(), mount.moveFunction(),
                       mount.moveParams().c_str(), settings.callback.c_str(), lookup.resource,
                       lookup.repo.path().c_str(), false);
    }
    const char* home = std::getenv("TASKD_HOME");
    if (home == nullptr) {
        rh_logger.errorLog("The resolver %s cannot run: TASKD_HOME is not set",
                           settings.resolver.c_str());
        return RESOURCE_STATUS_CONFLICT;
    }
    ShellCommand command(std::string(home) + "/runjavacmd -c \"0 quorra.repohandler." +
                         settings.resolver + " -r ");
    command.insideDoubleQuotes(lookup.resource)
        .raw(" -f ")
        .insideDoubleQuotes(lookup.result)
        .raw(" -t ")
        .insideDoubleQuotes(current)
        .raw("\"");
    return command.run() == 0 ? 0 : RESOURCE_STATUS_CONFLICT;
}

// A duplicate was found on `mount` at `current`. Stop when the conflict cannot be resolved.
SearchStep resolveConflict(Lookup& lookup, KSMountPointHandler& mount, int mountFlags,
                           const std::string& current) {
    bool isDirectory = false;
    const char* why = nullptr;
    if (isDir(lookup.result.c_str(), &isDirectory, nullptr) != 0)
        why = "result isDir check problem";
    else if (!isDirectory)
        why = "result isn't a directory";
    else if (mountFlags & MOUNT_HARDFULL)
        why = "mount is full, above the hardFullLimit";
    if (why != nullptr) {
        rh_logger.errorLog(
            "There is a conflict in getLocation, which couldn't be resolved (%s). Giving back: %s",
            why, lookup.result.c_str());
        *lookup.status = RESOURCE_STATUS_CONFLICT;
        return SearchStep::Stop;
    }
    int merged = mergeDuplicate(lookup, mount, current);
    if (merged != 0) {
        rh_logger.errorLog(
            "There is a conflict in getLocation, which couldn't be fully resolved (moveRes "
            "couldn't move everything, there are different files). Giving back: %s",
            lookup.result.c_str());
        *lookup.status = moveFailureStatus(merged);
        return SearchStep::Stop;
    }
    const KSRepositoryHandler::Settings& settings = lookup.repo.settings();
    if (settings.maintainLegacyLinks)
        setLink(current.c_str(), legacyPathOf(lookup.repo, lookup.resource).c_str());
    clearEmptyHash(lookup.result.c_str());
    lookup.result = current;
    return SearchStep::Continue;
}

// Visits the mounts in configuration order. A clean resource stops at the first hit; a dirty
// one is searched everywhere and its copies merged onto the last mount that holds one.
// Returns false (status already set) when the lookup must end with the current result as is.
bool searchMounts(Lookup& lookup, bool* erroneous) {
    for (auto& mount : lookup.repo.mounts()) {
        int mountStatus = 0;
        int mountFlags = 0;
        std::unique_ptr<char[]> found(
            mount->getLocation(lookup.resource, &mountStatus, &mountFlags, lookup.touch, true));
        // A dirty resource may be in the middle of an interrupted move: a staged copy that never
        // got renamed into place is incomplete by construction, and the lock is held here.
        if (lookup.dirty && !(mountFlags & MOUNT_DEAD)) {
            const std::string location = resourceLocation(mount->path(), lookup.resource);
            if (discardPartialCopy(partialCopyPath(location)) && !found)
                clearEmptyHash(location.c_str());
        }
        if (mountStatus & RESOURCE_STATUS_ERRONEOUS) {
            *erroneous = true;
            return false;
        }
        if (!found) {
            if (mountFlags & MOUNT_DEAD) lookup.mountWasDead = true;
            continue;
        }
        if (lookup.result.empty()) {
            lookup.result = found.get();
            if (!lookup.dirty) return true;
            continue;
        }
        if (resolveConflict(lookup, *mount, mountFlags, found.get()) == SearchStep::Stop)
            return false;
    }
    return true;
}

}  // namespace

char* KSRepositoryHandler::getLocation(kelp::db::DBConnector* connection, const char* resource,
                                       int* status, bool touch, bool lock, bool useCallback,
                                       bool onlyIfDirty) {
    int localStatus = 0;
    if (status == nullptr) status = &localStatus;
    if (unusable_) {
        rh_logger.errorLog(
            "Whole repository: %s is missing! Giving back global error status for resource %s",
            path_.c_str(), resource ? resource : "(null)");
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    if (refuseUnsafeName(resource, "getLocation")) {
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    std::string name = stripLeadingSlashes(resource);
    Lookup lookup(*this, name.c_str(), status, touch);
    lookup.dirty = dirtyFlags_.isDirty(connection, lookup.resource, true);
    if (onlyIfDirty && !lookup.dirty) {
        *status = RESOURCE_STATUS_NOT_PRESENT;
        return nullptr;
    }
    bool hasCallback = !settings_.callback.empty();
    if (useCallback && hasCallback && (settings_.authoritativeMode || !lookup.dirty)) {
        std::string answer = runInfoCallback(lookup.resource, false, false, false);
        if (!answer.empty() || settings_.authoritativeMode) {
            *status = answer.empty() ? RESOURCE_STATUS_NOT_PRESENT : RESOURCE_STATUS_FOUND;
            return answer.empty() ? nullptr : newText(answer);
        }
    }
    std::optional<SmartSemaphore> semaphore;
    if (lock && !lockResourceInto(semaphore, *this, lookup.resource, connection)) {
        *status = RESOURCE_STATUS_LOCK_FAILED;
        return nullptr;
    }
    if (settings_.authoritativeMode && hasCallback)
        rh_logger.infoLog(
            "In Godmode, checking the physical mounts, which is STRANGE (but possible when "
            "resource is dirty), repository=%s resource=%s",
            path_.c_str(), lookup.resource);

    return searchAndSettle(lookup, connection);
}

// The search under the lock, then the dirty flag and the legacy fallback.
char* KSRepositoryHandler::searchAndSettle(Lookup& lookup, kelp::db::DBConnector* connection) {
    bool erroneous = false;
    if (!searchMounts(lookup, &erroneous))
        return erroneous ? giveErroneous(lookup) : newText(lookup.result);
    if (lookup.dirty && !lookup.mountWasDead) {
        dirtyFlags_.setDirty(connection, lookup.resource, false);
        lookup.dirty = false;
    }
    if (!lookup.result.empty()) {
        *lookup.status = lookup.dirty ? RESOURCE_STATUS_DIRTY : RESOURCE_STATUS_FOUND;
        return newText(lookup.result);
    }
    return takeOverFromLegacy(lookup.resource, lookup.status, lookup.touch, lookup.dirty);
}

// ---- the lookup on one named mount ---------------------------------------------------------

char* KSRepositoryHandler::getLocationOnMount(kelp::db::DBConnector* connection,
                                              const char* resource, const char* mountName,
                                              int* status, bool lock, bool touch) {
    int localStatus = 0;
    if (status == nullptr) status = &localStatus;
    if (mountName == nullptr) {
        rh_logger.errorLog(
            "mountName is NULL for repository: %s! Giving back ERRONEOUS status for resource %s",
            path_.c_str(), resource ? resource : "(null)");
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    if (unusable_) {
        rh_logger.errorLog(
            "Whole repository: %s is missing! Giving back global missing status for resource %s",
            path_.c_str(), resource ? resource : "(null)");
        *status = RESOURCE_STATUS_MISSING;
        return nullptr;
    }
    if (refuseUnsafeName(resource, "getLocationOnMount")) {
        *status = RESOURCE_STATUS_ERRONEOUS;
        return nullptr;
    }
    std::string name = stripLeadingSlashes(resource);
    std::optional<SmartSemaphore> semaphore;
    if (lock && !lockResourceInto(semaphore, *this, name.c_str(), connection)) {
        *status = RESOURCE_STATUS_LOCK_FAILED;
        return nullptr;
    }
    KSMountPointHandler* mount = findMountByName(*this, mountName);
    if (mount == nullptr) {
        rh_logger.errorLog(
            "Giving back RESOURCE_STATUS_MISSING because mount cannot be found, repo:%s, mount:%s",
            path_.c_str(), mountName);
        *status = RESOURCE_STATUS_MISSING;
        return nullptr;
    }
    int flags = 0;
    char* found = mount->getLocation(name.c_str(), status, &flags, touch, false);
    if (found != nullptr) return found;
    if (flags & MOUNT_DEAD) {
        rh_logger.infoLog(
            "Giving back RESOURCE_STATUS_MISSING because mount is dead, repo:%s, mount:%s",
            path_.c_str(), mountName);
        *status = RESOURCE_STATUS_MISSING;
    } else if (!(*status & RESOURCE_STATUS_ERRONEOUS)) {
        *status = RESOURCE_STATUS_NOT_PRESENT;
    } else {
        rh_logger.errorLog(
            "Giving back RESOURCE_STATUS_ERRONEOUS because of global error, resource:%s",
            name.c_str());
        *status = RESOURCE_STATUS_ERRONEOUS;
    }
    return nullptr;
}

// ---- listings and path mapping ---------------------------------------------------------------

int KSRepositoryHandler::getLocations(kelp::db::DBConnector* connection, const char* resource,
                                      std::list<std::string>* locations, bool lock,
                                      bool includeLegacy) {
    if (locations == nullptr || unusable_) return -RESOURCE_STATUS_ERRONEOUS;
    if (refuseUnsafeName(resource, "getLocations")) return -RESOURCE_STATUS_ERRONEOUS;
    std::string name = stripLeadingSlashes(resource);
    std::optional<SmartSemaphore> semaphore;
    if (lock && !lockResourceInto(semaphore, *this, name.c_str(), connection))
        return -RESOURCE_STATUS_LOCK_FAILED;
    int count = 0;
    for (auto& mount : mounts_) {
        int mountStatus = 0;
        int mountFlags = 0;
        std::unique_ptr<char[]> found(
            mount->getLocation(name.c_str(), &mountStatus, &mountFlags, false, true));
        if (!found) continue;
        locations->push_back(found.get());
        ++count;
    }
    if (includeLegacy && !settings_.legacyDir.empty()) {
        std::string legacyPath = legacyPathOf(*this, name.c_str());
        struct stat st;
        if (::lstat(legacyPath.c_str(), &st) == 0) {
            locations->push_back(legacyPath);
            ++count;
        }
    }
    return count;
}

char* KSRepositoryHandler::getMountFromPath(kelp::db::DBConnector*, const char* path) {
    if (path == nullptr || *path != '/') return nullptr;
    std::unique_ptr<char, decltype(&std::free)> normal(normalize_file_name(path), &std::free);
    if (!normal) return nullptr;
    KSMountPointHandler* mount = findMountHolding(*this, normal.get());
    return mount ? newText(mount->path()) : nullptr;
}

char* KSRepositoryHandler::getMountPathForDirectory(kelp::db::DBConnector* connection,
                                                    const char* directory) {
    if (unusable_ || refuseUnsafeName(directory, "getMountPathForDirectory")) return nullptr;
    std::string name = stripLeadingSlashes(directory);
    if (!settings_.callback.empty()) {
        std::string answer = runInfoCallback(name.c_str(), false, true, false);
        if (!answer.empty()) return newText(answer);
        if (settings_.authoritativeMode) return nullptr;
    }
    int status = 0;
    std::unique_ptr<char[]> location(
        getLocation(connection, name.c_str(), &status, false, false, false, false));
    if (!location) return nullptr;
    KSMountPointHandler* mount = findMountHolding(*this, location.get());
    return mount ? newText(mount->path()) : nullptr;
}

namespace {

bool isHashLevel(const std::string& name) {
    static const char kAlphabet[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
    return name.size() == 2 && std::strchr(kAlphabet, name[0]) && std::strchr(kAlphabet, name[1]);
}

bool isDirectoryEntry(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Collects the names below the three hash levels of one mount. Only directories named like
// hash levels are entered, so the mount's own files are never taken for resources.
void collectMountResources(const std::string& mountPath, int kind, std::set<std::string>& out) {
    std::list<std::string> level1;
    listDir(mountPath.c_str(), &level1, false, false);
    for (const std::string& a : level1) {
        if (!isHashLevel(a) || !isDirectoryEntry(mountPath + "/" + a)) continue;
        std::list<std::string> level2;
        listDir((mountPath + "/" + a).c_str(), &level2, false, false);
        for (const std::string& b : level2) {
            std::string ab = mountPath + "/" + a + "/" + b;
            if (!isHashLevel(b) || !isDirectoryEntry(ab)) continue;
            std::list<std::string> level3;
            listDir(ab.c_str(), &level3, false, false);
            for (const std::string& c : level3) {
                std::string abc = ab + "/" + c;
                if (!isHashLevel(c) || !isDirectoryEntry(abc)) continue;
                std::list<std::string> names;
                listDir(abc.c_str(), &names, false, false);
                for (const std::string& name : names)
                    if (!isPartialCopy(name) && isDirectoryEntry(abc + "/" + name) == (kind == 1))
                        out.insert(name);
            }
        }
    }
}

void collectLegacyResources(const std::string& legacyDir, int kind, std::set<std::string>& out) {
    std::list<std::string> names;
    listDir(legacyDir.c_str(), &names, false, false);
    for (const std::string& name : names) {
        struct stat st;
        std::string entry = legacyDir + "/" + name;
        bool isDirectory = ::stat(entry.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        bool isLink = ::lstat(entry.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
        if (kind == 1 ? (isDirectory || isLink) : !isDirectory && !isLink) out.insert(name);
    }
}

}  // namespace

char** KSRepositoryHandler::listResources(int kind, long* count, bool includeLegacy) {
    std::set<std::string> names;
    if (!unusable_ && (kind == 1 || kind == 2)) {
        for (auto& mount : mounts_) {
            if (mount->checkStatus(true) & MOUNT_DEAD) continue;
            collectMountResources(mount->path(), kind, names);
        }
        if (includeLegacy && !settings_.legacyDir.empty())
            collectLegacyResources(settings_.legacyDir, kind, names);
    }
    if (count != nullptr) *count = static_cast<long>(names.size());
    char** list = new char*[names.size() + 1];
    size_t i = 0;
    for (const std::string& name : names) list[i++] = newText(name);
    list[i] = nullptr;
    return list;
}
