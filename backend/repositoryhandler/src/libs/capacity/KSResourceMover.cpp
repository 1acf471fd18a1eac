#include "KSResourceMover.h"

#include <fcntl.h>
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
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "ShellCommand.h"

namespace {

const char kAssertFile[] = "backend/repositoryhandler/src/libs/KSRepositoryHandler";

// What every step of one move shares: the copy to use, the names for the log and the callback,
// and the staging path of every first copy the move makes (see KSPartialCopy.h).
struct MoveContext {
    KSRepositoryHandler* repository;
    KSMoveFunction copy;
    const char* copyParams;
    const char* shortName;
    const char* repositoryName;
    bool verbose;
    std::string staging;
};

int moveEntry(const MoveContext& move, const char* origin, const char* destination);

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
int moveIntoExistingDirectory(const MoveContext& move, const char* origin,
                              const char* destination) {
    std::list<std::string> entries;
    listDir(origin, &entries, true, false);
    const std::string from = std::string(origin) + "/";
    const std::string to = std::string(destination) + "/";
    for (const std::string& entry : entries) {
        const int result = moveEntry(move, (from + entry).c_str(), (to + entry).c_str());
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

// Copies with cp into the staging path. A failed copy is removed again: typically the target
// filled up; the origin is complete and untouched.
FirstCopy copyWithCp(const char* origin, const std::string& staging) {
    ShellCommand command("cp -rp '");
    command.insideSingleQuotes(origin).raw("' '").insideSingleQuotes(staging).raw("'");
    const int copied = command.run();
    if (copied == 0) return {};
    discardPartialCopy(staging);
    return failedCommand(copied, command, "cp -rp");
}

// Puts the complete copy in place. RENAME_NOREPLACE: an entry that appeared at the destination
// meanwhile is never replaced (file systems without the flag get a plain rename after a check,
// which the resource's lock makes safe).
bool renameIntoPlace(const std::string& staging, const char* destination) {
    if (renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, destination, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (isPresent(destination)) {
        errno = EEXIST;
        return false;
    }
    return rename(staging.c_str(), destination) == 0;
}

// The first copy: into the staging path, compared, renamed into place, and only then is the
// origin removed. A process killed at any moment leaves the origin complete, or the destination
// complete, or both; never a half copy at the destination.
FirstCopy firstCopy(const char* origin, const char* destination, KSMoveFunction copy,
                    const char* copyParams, const std::string& staging) {
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
    // Left by a copy that was interrupted; the caller holds the resource's lock.
    discardPartialCopy(staging);
    FirstCopy copied = copyWithCp(origin, staging);
    if (copied.result != 0) return copied;
    ShellCommand compare("diff -q -r '");
    compare.insideSingleQuotes(origin).raw("' '").insideSingleQuotes(staging).raw("'");
    const int compared = compare.run();
    if (compared != 0) {
        // The copy is wrong: it goes, the origin stays.
        discardPartialCopy(staging);
        FirstCopy failed = failedCommand(compared, compare, "diff -q -r");
        failed.why = "the copy differs from the origin: " + failed.why;
        return failed;
    }
    if (!renameIntoPlace(staging, destination)) {
        const int error = errno;
        discardPartialCopy(staging);
        return {RESOURCE_STATUS_ERRONEOUS,
                "the complete copy could not be renamed into place: " + errnoText(error)};
    }
    removeTree(origin);
    return {};
}

// Destination missing: the first copy, which keeps the origin's times.
int moveToFreshDestination(const MoveContext& move, const char* origin, const char* destination,
                           const struct stat& kept) {
    const FirstCopy copied =
        firstCopy(origin, destination, move.copy, move.copyParams, move.staging);
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
int moveOntoExisting(const MoveContext& move, const char* origin, const char* destination,
                     const struct stat& kept) {
    bool isDirectory = false;
    if (isDir(origin, &isDirectory, nullptr) != 0) {
        if (move.verbose) printf("Could not stat %s\n", origin);
        return RESOURCE_STATUS_ERRONEOUS;
    }
    // A link is compared and dropped like a file: merging through it would move what it points
    // at, which lies outside the resource.
    if (!isDirectory || isSymlink(origin))
        return moveOntoExistingFile(origin, destination, move.verbose);
    const int result = moveIntoExistingDirectory(move, origin, destination);
    if (result != 0) return result;
    restoreTimes(destination, kept);
    if (move.repository != nullptr && move.repository->settings().countSize) {
        touchHashedDirs(origin);
        touchHashedDirs(destination);
    }
    return 0;
}

// One step of a move; only the top level reports to the study callback (moveRes).
int moveEntry(const MoveContext& move, const char* origin, const char* destination) {
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
    return exists(destination) ? moveOntoExisting(move, origin, destination, kept)
                               : moveToFreshDestination(move, origin, destination, kept);
}

}  // namespace

int moveRes(KSRepositoryHandler* repository, const char* origin, const char* destination,
            KSMoveFunction copy, const char* copyParams, const char* callback,
            const char* shortName, const char* repositoryName, bool verbose) {
    const MoveContext move{repository,
                           copy,
                           copyParams,
                           shortName,
                           repositoryName,
                           verbose,
                           destination != nullptr ? partialCopyPath(destination) : std::string()};
    const int result = moveEntry(move, origin, destination);
    if (result != 0) return result;
    if (hasCallback(callback)) {
        moveCallback(callback, destination, shortName, repositoryName, origin);
    }
    return 0;
}

int mountRename(const char* origin, const char* destination, KSMoveFunction copy,
                const char* copyParams) {
    KS_ASSERT_NOT_NULL(origin, kAssertFile);
    if (destination == nullptr) return -1;
    return firstCopy(origin, destination, copy, copyParams, partialCopyPath(destination)).result;
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
