// repoctl status, hash and giveback: the repository's mounts with their fill levels and status
// bits, the hashed location of resource names, and giving back every mount taken out of
// service (repositorypart.no renamed back to repositorypart.cfg).

#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "RepoctlCommand.h"
#include "RepoctlNames.h"

namespace {

bool isDirectory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

void printMount(KSRepositoryHandler& repo, KSMountPointHandler& mount) {
    const uint32_t status = mount.status();
    const bool dead = status & MOUNT_DEAD;
    const auto& s = repo.settings();
    const auto& c = mount.config();
    printf("mount %s\n", mount.path().c_str());
    if (dead) {
        printf("  used      -\n");
    } else {
        printf("  used      %.2f %%\n", mount.usedPercentage());
    }
    printf(
        "  limits    remind %g  warn %g  warn2 %g  warn3 %g  switch %g  full %g  clean %g  "
        "move %g  hardfull %g\n",
        s.remindLimit, s.warnLimit, s.warn2Limit, s.warn3Limit, c.switchLimit, c.fullLimit,
        c.cleanLimit, c.moveLimit, c.hardFullLimit);
    printf("  status    0x%03x %s\n", status, statusText(status, StatusKind::kMount).c_str());
    printf("  dedicated %s\n", mount.dedicated() ? "yes" : "no");
    printf("  dead      %s\n", dead ? "yes" : "no");
    printf("  type      %s\n", c.fast ? "fast" : "normal");
}

// Which name the servers' locks on this repository meet under: servers whose lines differ do not
// exclude each other.
void printLockScope(const KSRepositoryHandler& repo) {
    const bool byId = !repo.settings().repositoryId.empty();
    printf("  locks     %s through %s, scope %s \"%s\"\n", repo.isShared() ? "shared" : "local",
           repo.isShared() ? "the database" : "lock files", byId ? "repositoryId" : "path",
           repo.lockScope().c_str());
}

int showRepository(const char* path) {
    if (!isDirectory(path)) {
        fprintf(stderr, "repoctl status: no repository directory \"%s\"\n", path);
        return 1;
    }
    std::shared_ptr<KSRepositoryHandler> repo = getRepository(nullptr, path, true);
    const int status = repo->checkRepositoryStatus();
    printf("repository %s\n", repo->path().c_str());
    if (repo->isUnusable()) printf("  configuration could not be read (see the system log)\n");
    printf("  status    %d (0x%03x) %s\n", status, status,
           statusText(status, StatusKind::kRepository).c_str());
    printLockScope(*repo);
    printf("  mounts    %zu\n", repo->mounts().size());
    for (auto& mount : repo->mounts()) printMount(*repo, *mount);
    return repo->isUnusable() ? 1 : 0;
}

int runStatus(int argc, char** argv) {
    if (argc < 2) return repoctlUsage(argv[0]);
    int result = 0;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) printf("\n");
        if (showRepository(argv[i]) != 0) result = 1;
    }
    return result;
}

int runHash(int argc, char** argv) {
    if (argc < 2) return repoctlUsage(argv[0]);
    int result = 0;
    for (int i = 1; i < argc; ++i) {
        if (!isSafeResourceName(argv[i])) {
            fprintf(stderr, "repoctl hash: \"%s\" is not a resource name\n", argv[i]);
            result = 1;
            continue;
        }
        std::unique_ptr<char[]> hashed(createHash(argv[i]));
        printf("%s\n", hashed.get());
    }
    return result;
}

// repoctl giveback REPO
int runGiveBack(int argc, char** argv) {
    if (argc != 2) return repoctlUsage(argv[0]);
    if (!isDirectory(argv[1])) {
        fprintf(stderr, "repoctl giveback: no repository directory \"%s\"\n", argv[1]);
        return 1;
    }
    std::shared_ptr<KSRepositoryHandler> repo = getRepository(nullptr, argv[1], true);
    const int given = repo->giveBackMounts();
    if (given < 0) {
        fprintf(stderr, "repoctl giveback: a mount could not be given back\n");
        return 1;
    }
    printf("gave back %d mount%s\n", given, given == 1 ? "" : "s");
    return 0;
}

RepoctlRegistrar statusCommand("status", "status REPO...",
                               "show the mounts, fill levels and status of repositories",
                               &runStatus);
RepoctlRegistrar hashCommand("hash", "hash NAME...",
                             "print the hashed location of each resource name", &runHash);

RepoctlRegistrar giveBackCommand("giveback", "giveback REPO", "give back every mount taken out",
                                 &runGiveBack);

}  // namespace
