#include "KSResourceDeleter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <string>

#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSResourceMover.h"
#include "KSStatus.h"

namespace {

int removeOne(const char* path, bool isDirectory) {
    if ((isDirectory ? rmdir(path) : unlink(path)) == 0) return 0;
    const int error = errno;
    rh_logger.errorLog("The resource \"%s\" could not be removed. Error code is %d - %s", path,
                       error, errnoText(error).c_str());
    return RESOURCE_STATUS_ERRONEOUS;
}

}  // namespace

int deleteRes(const char* path, const std::string& callback, const char* shortName,
              const char* repositoryName) {
    // lstat would follow a link named with a trailing slash, so the slashes go; the root, all
    // slashes, is left empty and refused.
    std::string own = path == nullptr ? std::string() : std::string(path);
    while (!own.empty() && own.back() == '/') own.pop_back();
    if (own.empty()) return RESOURCE_STATUS_ERRONEOUS;
    path = own.c_str();
    struct stat st;
    // lstat, so that a link is removed itself and its target is never entered.
    if (lstat(path, &st) != 0) return errno == ENOENT ? 0 : RESOURCE_STATUS_ERRONEOUS;
    const bool isDirectory = S_ISDIR(st.st_mode);
    if (isDirectory) {
        std::list<std::string> entries;
        listDir(path, &entries, true, false);
        const std::string base = std::string(path) + "/";
        for (const std::string& entry : entries) {
            const int result =
                deleteRes((base + entry).c_str(), std::string(), shortName, repositoryName);
            if (result != 0) return result;
        }
    }
    const int result = removeOne(path, isDirectory);
    if (result == 0 && !callback.empty()) {
        moveCallback(callback.c_str(), nullptr, shortName, repositoryName, path);
    }
    return result;
}
