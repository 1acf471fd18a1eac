// repoctl lock, unlock and dirty: the explicit lock of one resource, and the repository's set
// of dirty resources (list, set, clear).

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "RepoctlCommand.h"
#include "repohandler.h"

namespace {

bool isRepositoryDirectory(const char* command, const char* path) {
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    fprintf(stderr, "repoctl %s: no repository directory \"%s\"\n", command, path);
    return false;
}

std::string identity(const char* repository, const char* resource) {
    auto repo = getRepository(nullptr, repository, true);
    std::unique_ptr<char[]> id(toResourceID(repo->lockScope().c_str(), resource));
    return id.get();
}

int runLock(int argc, char** argv) {
    if (argc != 3) return repoctlUsage(argv[0]);
    if (!isRepositoryDirectory(argv[0], argv[1])) return 1;
    const int result = lockResource_(argv[1], argv[2], nullptr);
    printf("%s %d (%s)\n", identity(argv[1], argv[2]).c_str(), result,
           result == 1 ? "locked" : "not locked");
    return result == 1 ? 0 : 1;
}

int runUnlock(int argc, char** argv) {
    if (argc != 3) return repoctlUsage(argv[0]);
    if (!isRepositoryDirectory(argv[0], argv[1])) return 1;
    const int result = unlockResource_(argv[1], argv[2], nullptr);
    printf("%s %d (%s)\n", identity(argv[1], argv[2]).c_str(), result,
           result == 1 ? "unlocked" : "not unlocked");
    return result == 1 ? 0 : 1;
}

// The set as the file holds it now: the file is read afresh, not taken from a cache.
int listDirty(const char* repository) {
    auto repo = getRepository(nullptr, repository, true);
    KSDirtyFlagHandler& flags = repo->dirtyFlags();
    flags.checkAndReadSetFile(repo->getDbConnector(nullptr));
    const std::set<std::string> names = flags.snapshot();
    for (const std::string& name : names) printf("%s\n", name.c_str());
    fprintf(stderr, "%zu dirty resource%s in %s\n", names.size(), names.size() == 1 ? "" : "s",
            flags.filePath().c_str());
    return 0;
}

int changeDirty(const char* repository, const char* resource, bool dirty) {
    setDirty_(repository, resource, dirty, nullptr);
    const int now = isDirty_(repository, resource, nullptr);
    printf("%s %d (%s)\n", resource, now, now == 1 ? "dirty" : "clean");
    return now == (dirty ? 1 : 0) ? 0 : 1;
}

int runDirty(int argc, char** argv) {
    if (argc != 2 && argc != 4) return repoctlUsage(argv[0]);
    if (!isRepositoryDirectory(argv[0], argv[1])) return 1;
    if (argc == 2) return listDirty(argv[1]);
    if (strcmp(argv[2], "set") == 0) return changeDirty(argv[1], argv[3], true);
    if (strcmp(argv[2], "clear") == 0) return changeDirty(argv[1], argv[3], false);
    return repoctlUsage(argv[0]);
}

RepoctlRegistrar lockCommand("lock", "lock REPO NAME",
                             "take the lock of a resource and keep it after the command ends",
                             &runLock);
RepoctlRegistrar unlockCommand("unlock", "unlock REPO NAME",
                               "give back the lock of a resource, whoever took it", &runUnlock);
RepoctlRegistrar dirtyCommand("dirty", "dirty REPO [set|clear NAME]",
                              "list the dirty resources, or set or clear one resource's flag",
                              &runDirty);

}  // namespace
