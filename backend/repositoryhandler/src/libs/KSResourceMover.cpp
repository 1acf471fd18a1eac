#include "KSResourceMover.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>

#include "KSAssertionException.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "ShellCommand.h"

namespace {

const char kAssertFile[] = "backend/repositoryhandler/src/libs/KSRepositoryHandler";

const char* orNull(const char* text) {
    return text == nullptr ? "(null)" : text;
}

bool hasCallback(const char* callback) {
    return callback != nullptr && callback[0] != '\0';
}

int compareTrees(const char* origin, const char* destination) {
    return ShellCommand("diff -q -r '")
        .insideSingleQuotes(origin)
        .raw("' '")
        .insideSingleQuotes(destination)
        .raw("'")
        .run();
}

int removeTree(const char* path) {
    return ShellCommand("rm -fr '").insideSingleQuotes(path).raw("'").run();
}

void restoreTimes(const char* path, const struct stat& kept) {
    struct utimbuf times;
    times.actime = kept.st_atime;
    times.modtime = kept.st_mtime;
    utime(path, &times);
}

bool isSymlink(const char* path) {
    struct stat st;
    return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

// True when destination names the very directory `origin` (one mount reached under two
// paths): moving entry by entry would then remove every file as "already at the destination".
// Directories cannot be hard-linked, so equal device and inode numbers mean the same directory.
// An origin that is itself a link is not a directory here (see moveOntoExisting).
bool isSameDirectory(const char* origin, const char* destination) {
    struct stat own, other;
    return lstat(origin, &own) == 0 && S_ISDIR(own.st_mode) && stat(destination, &other) == 0 &&
           other.st_dev == own.st_dev && other.st_ino == own.st_ino;
}

// Destination exists and origin is a plain file or a link: drop the origin only when both are
// equal.
int moveOntoExistingFile(const char* origin, const char* destination, bool verbose) {
    if (compareTrees(origin, destination) != 0) {
        const std::string message =
            std::string("The resource \"") + origin + "\" conflicts with \"" + destination + "\".";
        if (verbose) printf("%s\n", message.c_str());
        rh_logger.errorLog("%s", message.c_str());
        return RESOURCE_STATUS_CONFLICT;
    }
    removeTree(origin);
    return 0;
}

// Destination exists and origin is a directory: move entry by entry, then drop the origin.
int moveIntoExistingDirectory(KSRepositoryHandler* repository, const char* origin,
                              const char* destination, KSMoveFunction copy, const char* copyParams,
                              const char* shortName, const char* repositoryName, bool verbose) {
    std::list<std::string> entries;
    listDir(origin, &entries, true, false);
    const std::string from = std::string(origin) + "/";
    const std::string to = std::string(destination) + "/";
    for (const std::string& entry : entries) {
        // Only the top level reports to the study callback.
        const int result = moveRes(repository, (from + entry).c_str(), (to + entry).c_str(), copy,
                                   copyParams, "", shortName, repositoryName, verbose);
        if (result != 0) return result;
    }
    if (rmdir(origin) != 0) {
        const int error = errno;
        rh_logger.errorLog("The directory \"%s\" could not be removed. Error code is %d - %s",
                           origin, error, errnoText(error).c_str());
        return RESOURCE_STATUS_ERRONEOUS;
    }
    return 0;
}

// What a first copy did: mountRename's result and, when it failed, the reason in words.
struct FirstCopy {
    int result = 0;
    std::string why;
};

bool isPresent(const char* path) {
    struct stat st;
    return lstat(path, &st) == 0;
}

FirstCopy failedCommand(int status, const ShellCommand& command, const char* what) {
    if (command.refused())
        return {status, std::string(what) + " was refused: a name would leave its quotes"};
    return {status, std::string(what) + " " + ShellCommand::describeStatus(status)};
}

// Copies with cp; a failed copy is removed again unless something stood at the destination
// before (then it is not a first copy).
FirstCopy copyWithCp(const char* origin, const char* destination) {
    const bool existed = isPresent(destination);
    ShellCommand command("cp -rp '");
    command.insideSingleQuotes(origin).raw("' '").insideSingleQuotes(destination).raw("'");
    const int copied = command.run();
    if (copied == 0) return {};
    // Typically the target filled up. The origin is complete and untouched; a half copy left
    // here would be merged file by file by every later lookup and block the resource's removal.
    if (!existed) removeTree(destination);
    return failedCommand(copied, command, "cp -rp");
}

FirstCopy firstCopy(const char* origin, const char* destination, KSMoveFunction copy,
                    const char* copyParams) {
    std::unique_ptr<char[]> parent(baseDir(destination));
    if (!parent) return {-1, "the destination has no parent directory"};
    if (mkdirs(parent.get(), 0755) != 0) {
        const int error = errno;
        return {-1, std::string("the directory \"") + parent.get() +
                        "\" could not be created: " + errnoText(error)};
    }
    if (copy != nullptr) {
        const int result = copy(origin, destination, copyParams);
        if (result == 0) return {};
        return {result, "the copy plug-in returned " + std::to_string(result)};
    }
    FirstCopy copied = copyWithCp(origin, destination);
    if (copied.result != 0) return copied;
    ShellCommand compare("diff -q -r '");
    compare.insideSingleQuotes(origin).raw("' '").insideSingleQuotes(destination).raw("'");
    const int compared = compare.run();
    if (compared != 0) {
        // The copy is wrong: it goes, the origin stays.
        removeTree(destination);
        FirstCopy failed = failedCommand(compared, compare, "diff -q -r");
        failed.why = "the copy differs from the origin: " + failed.why;
        return failed;
    }
    removeTree(origin);
    return {};
}

// Destination missing: the first copy, which keeps the origin's times.
int moveToFreshDestination(const char* origin, const char* destination, KSMoveFunction copy,
                           const char* copyParams, const struct stat& kept) {
    const FirstCopy copied = firstCopy(origin, destination, copy, copyParams);
    if (copied.result != 0) {
        rh_logger.errorLog(
            "The resource \"%s\" could not be renamed to \"%s\". Error code is %d - %s", origin,
            destination, copied.result, copied.why.c_str());
        return copied.result;
    }
    restoreTimes(destination, kept);
    return 0;
}

// Destination present: a file is compared, a directory merged entry by entry.
int moveOntoExisting(KSRepositoryHandler* repository, const char* origin, const char* destination,
                     KSMoveFunction copy, const char* copyParams, const char* shortName,
                     const char* repositoryName, bool verbose, const struct stat& kept) {
    bool isDirectory = false;
    if (isDir(origin, &isDirectory, nullptr) != 0) {
        if (verbose) printf("Could not stat %s\n", origin);
        return RESOURCE_STATUS_ERRONEOUS;
    }
    // A link is compared and dropped like a file: merging through it would move what it points
    // at, which lies outside the resource.
    if (!isDirectory || isSymlink(origin))
        return moveOntoExistingFile(origin, destination, verbose);
    const int result = moveIntoExistingDirectory(repository, origin, destination, copy, copyParams,
                                                 shortName, repositoryName, verbose);
    if (result != 0) return result;
    restoreTimes(destination, kept);
    if (repository != nullptr && repository->settings().countSize) {
        touchHashedDirs(origin);
        touchHashedDirs(destination);
    }
    return 0;
}

}  // namespace

int moveRes(KSRepositoryHandler* repository, const char* origin, const char* destination,
            KSMoveFunction copy, const char* copyParams, const char* callback,
            const char* shortName, const char* repositoryName, bool verbose) {
    if (origin == nullptr || access(origin, F_OK) != 0) {
        throw KSAssertionException("access( origin, F_OK ) == 0", __LINE__, kAssertFile);
    }
    KS_ASSERT_NOT_NULL(destination, kAssertFile);
    struct stat kept = {};
    stat(origin, &kept);
    if (isSameDirectory(origin, destination)) {
        rh_logger.errorLog("The resource \"%s\" and \"%s\" are the same directory; it stays.",
                           origin, destination);
        return 0;
    }
    const int result = exists(destination)
                           ? moveOntoExisting(repository, origin, destination, copy, copyParams,
                                              shortName, repositoryName, verbose, kept)
                           : moveToFreshDestination(origin, destination, copy, copyParams, kept);
    if (result != 0) return result;
    if (hasCallback(callback)) {
        moveCallback(callback, destination, shortName, repositoryName, origin);
    }
    return 0;
}

int mountRename(const char* origin, const char* destination, KSMoveFunction copy,
                const char* copyParams) {
    KS_ASSERT_NOT_NULL(origin, kAssertFile);
    return firstCopy(origin, destination, copy, copyParams).result;
}

void moveCallback(const char* callback, const char* destination, const char* shortName,
                  const char* repositoryName, const char* origin) {
    rh_logger.infoLog(
        "MoveCallback function %s called with target: %s and resource: %s and repo: %s and "
        "from: %s",
        orNull(callback), orNull(destination), orNull(shortName), orNull(repositoryName),
        orNull(origin));
    const char* home = getenv("TASKD_HOME");
    if (home == nullptr || callback == nullptr) return;
    ShellCommand command(std::string(home) + "/runjavacmd -f -c \"0 quorra.repohandler.");
    command.insideDoubleQuotes(callback)
        .raw(" -r ")
        .insideDoubleQuotes(shortName == nullptr ? "" : shortName)
        .raw(" -p ")
        .insideDoubleQuotes(repositoryName == nullptr ? "" : repositoryName);
    if (destination != nullptr) command.raw(" -t ").insideDoubleQuotes(destination);
    if (origin != nullptr) command.raw(" -f ").insideDoubleQuotes(origin);
    command.raw("\"").run();
}
