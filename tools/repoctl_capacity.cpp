// repoctl check-overload and repoctl free-mount: the maintenance calls, with a progress line on
// a terminal (resources checked, moved, deleted, bytes, current mount) and a summary at the end.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "KSRepositoryHandler.h"
#include "RepoctlCommand.h"
#include "RepoctlProgress.h"

namespace {

using Progress = KSRepositoryHandler::MaintenanceProgress;

std::string counts(const Progress& p) {
    char text[160];
    snprintf(text, sizeof text, "checked %llu  moved %llu  deleted %llu  %s", p.checked.load(),
             p.moved.load(), p.deleted.load(), bytesText(p.bytes.load()).c_str());
    return text;
}

std::string currentMount(KSRepositoryHandler& repo) {
    int index = repo.progress().mountIndex.load();
    if (index < 0 || index >= static_cast<int>(repo.mounts().size())) return "-";
    return repo.mounts()[index]->path();
}

bool isDirectory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Runs `work` with the maintenance's counters as its progress line, then prints the summary.
int withProgress(const char* command, KSRepositoryHandler& repo, const std::function<int()>& work) {
    double seconds = 0;
    const int result = runWithProgress(
        command,
        [&] { return counts(repo.progress()) + "  mount " + currentMount(repo); }, work,
        false, &seconds);
    if (result < 0) return result;
    printf("%s: %s in %.1f s\n", command, counts(repo.progress()).c_str(), seconds);
    fflush(stdout);
    return result;
}

std::shared_ptr<KSRepositoryHandler> openRepository(const char* command, const char* path) {
    if (!isDirectory(path)) {
        fprintf(stderr, "repoctl %s: no repository directory \"%s\"\n", command, path);
        return nullptr;
    }
    return getRepository(nullptr, path, true);
}

int runCheckOverload(int argc, char** argv) {
    const char* repository = nullptr;
    bool night = false;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--night") == 0)
            night = true;
        else if (strcmp(argv[i], "--verbose") == 0)
            verbose = true;
        else if (repository == nullptr && argv[i][0] != '-')
            repository = argv[i];
        else
            return repoctlUsage(argv[0]);
    }
    if (repository == nullptr) return repoctlUsage(argv[0]);
    auto repo = openRepository(argv[0], repository);
    if (!repo) return 1;
    int result = withProgress(argv[0], *repo, [&] {
        repo->checkOverload(repo->getDbConnector(nullptr), verbose, night);
        return 0;
    });
    return result == 0 ? 0 : 1;
}

int runFreeMount(int argc, char** argv) {
    bool verbose = false;
    const char* positional[2] = {nullptr, nullptr};
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--verbose") == 0)
            verbose = true;
        else if (count < 2 && argv[i][0] != '-')
            positional[count++] = argv[i];
        else
            return repoctlUsage(argv[0]);
    }
    if (count != 2) return repoctlUsage(argv[0]);
    auto repo = openRepository(argv[0], positional[0]);
    if (!repo) return 1;
    int result = withProgress(argv[0], *repo, [&] {
        return repo->moveAllResourcesFromMount(repo->getDbConnector(nullptr), positional[1],
                                               verbose);
    });
    if (result == 1) fprintf(stderr, "repoctl %s: not all resources could be moved\n", argv[0]);
    if (result < 0) fprintf(stderr, "repoctl %s: the mount could not be emptied\n", argv[0]);
    return result == 0 ? 0 : 1;
}

RepoctlRegistrar checkOverloadCommand(
    "check-overload", "check-overload REPO [--night] [--verbose]",
    "move or delete the oldest resources of every mount past its move limit", &runCheckOverload,
    "One maintenance pass over the mounts in configuration order, under the repository's\n"
    "maintenance lock (checkOverload_): resources are moved off mounts past their move limit and\n"
    "deleted from full mounts of a clearable repository, oldest first. --night lowers the limits\n"
    "of night-managed mounts first; --verbose prints each step. Prints the counts at the end.\n");
RepoctlRegistrar freeMountCommand(
    "free-mount", "free-mount REPO MOUNT [--verbose]",
    "move every resource off one mount onto the others", &runFreeMount,
    "Moves every resource off MOUNT onto the other mounts (freeMount_).\n"
    "Exit status 0 when nothing is left on it, 1 when resources stayed\n"
    "or the emptying could not begin. --verbose prints each step.\n");

}  // namespace
