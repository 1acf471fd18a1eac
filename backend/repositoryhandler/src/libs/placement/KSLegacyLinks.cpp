#include "KSLegacyLinks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "KSLogger.h"
#include "KSPathUtils.h"

bool checkLink(const char* path, bool& isLink, std::string* target) {
    struct stat st;
    if (path == nullptr || lstat(path, &st) != 0) {
        const int error = path == nullptr ? EINVAL : errno;
        rh_logger.errorLog("Path to \"%s\" could not be stat-ed. Cause: [%d] %s",
                           path == nullptr ? "" : path, error, errnoText(error).c_str());
        return false;
    }
    if (!S_ISLNK(st.st_mode)) {
        isLink = false;
        return true;
    }
    isLink = true;
    if (target != nullptr) {
        char resolved[PATH_MAX];
        if (realpath(path, resolved) != nullptr) {
            *target = resolved;
        } else {
            const int error = errno;
            rh_logger.errorLog("Path \"%s\" could not be resolved. Cause: [%d] %s", path, error,
                               errnoText(error).c_str());
            target->clear();
        }
    }
    return true;
}

// The new link is made beside the old one and renamed over it: a process (or another server of a
// shared legacy directory) following the link at that moment finds the old target or the new
// one, never no link at all.
bool setLink(const char* target, const char* linkPath) {
    if (target == nullptr || linkPath == nullptr) {
        rh_logger.errorLog("Link to \"%s\" could not be created at \"%s\". Cause: [%d] %s",
                           target == nullptr ? "" : target, linkPath == nullptr ? "" : linkPath,
                           EINVAL, errnoText(EINVAL).c_str());
        return false;
    }
    struct stat st;
    if (lstat(linkPath, &st) == 0 && !S_ISLNK(st.st_mode)) {
        rh_logger.errorLog("Path '%s' exists and is not a link.", linkPath);
        return false;
    }
    static std::atomic<unsigned> sequence{0};
    const std::string beside = std::string(linkPath) + ".new." + std::to_string(getpid()) + "." +
                               std::to_string(sequence.fetch_add(1));
    int error = 0;
    if (symlink(target, beside.c_str()) != 0) {
        error = errno;
    } else if (rename(beside.c_str(), linkPath) != 0) {
        error = errno;
        unlink(beside.c_str());
    } else {
        return true;
    }
    rh_logger.errorLog("Link to \"%s\" could not be created at \"%s\". Cause: [%d] %s", target,
                       linkPath, error, errnoText(error).c_str());
    return false;
}
