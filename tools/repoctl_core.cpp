// repoctl's repository commands: status, hash, giveback, mount-out, mount-in, rnd-mount, setup,
// list and empty: the repository's mounts with their fill levels and status bits, the hashed
// location of resource names, the maintenance aids that take mounts out and give them back,
// and the repository-wide entry points of the library.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "JsonWriter.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlNames.h"
#include "RepoctlProgress.h"

namespace {

// Checks that the arguments are `count` positional ones and, when `repositoryFirst`, that the
// first names a directory. Returns -1 when the command may go on, else its exit code.
int checkArguments(const char* command, const RepoctlArgs& args, size_t count) {
    if (!args.ok()) return repoctlUsageError(command, args.error());
    if (args.positional().size() != count)
        return repoctlUsageError(command, "expected " + std::to_string(count) + " argument" +
                                              (count == 1 ? "" : "s") + ", got " +
                                              std::to_string(args.positional().size()));
    if (!isRepositoryDirectory(command, args.positional()[0])) return 1;
    return -1;
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

void writeMountJson(JsonWriter& out, KSRepositoryHandler& repo, KSMountPointHandler& mount,
                    size_t index) {
    const uint32_t status = mount.status();
    const bool dead = status & MOUNT_DEAD;
    const auto& s = repo.settings();
    const auto& c = mount.config();
    out.beginObject().field("index", static_cast<unsigned long>(index)).field("path", mount.path());
    out.key("usedPercent");
    dead ? out.null() : out.value(mount.usedPercentage());
    out.key("limits").beginObject();
    out.field("remind", s.remindLimit).field("warn", s.warnLimit).field("warn2", s.warn2Limit);
    out.field("warn3", s.warn3Limit).field("switch", c.switchLimit).field("full", c.fullLimit);
    out.field("clean", c.cleanLimit).field("move", c.moveLimit).field("hardFull", c.hardFullLimit);
    out.endObject().key("status");
    writeStatusJson(out, static_cast<int>(status), StatusKind::kMount);
    out.field("dedicated", mount.dedicated()).field("dead", dead).field("fast", c.fast);
    out.endObject();
}

// Which name the servers' locks on this repository meet under: servers whose lines differ do not
// exclude each other.
void printLockScope(const KSRepositoryHandler& repo) {
    const bool byId = !repo.settings().repositoryId.empty();
    printf("  locks     %s through %s, scope %s \"%s\"\n", repo.isShared() ? "shared" : "local",
           repo.isShared() ? "the database" : "lock files", byId ? "repositoryId" : "path",
           repo.lockScope().c_str());
}

void writeRepositoryJson(JsonWriter& out, KSRepositoryHandler& repo, int status) {
    out.beginObject().field("path", repo.path()).field("usable", !repo.isUnusable());
    out.key("status");
    writeStatusJson(out, status, StatusKind::kRepository);
    out.key("locks").beginObject().field("shared", repo.isShared());
    out.field("scopeBy", repo.settings().repositoryId.empty() ? "path" : "repositoryId");
    out.field("scope", repo.lockScope()).endObject();
    out.key("mounts").beginArray();
    for (size_t i = 0; i < repo.mounts().size(); ++i)
        writeMountJson(out, repo, *repo.mounts()[i], i);
    out.endArray().endObject();
}

// repoctl status REPO... [--json]
int runStatus(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (args.positional().empty()) return repoctlUsageError(argv[0], "no repository given");
    const bool json = args.has("--json");
    JsonWriter out(stdout);
    if (json) out.beginObject().key("repositories").beginArray();
    int result = 0;
    bool first = true;
    for (const std::string& path : args.positional()) {
        if (!isRepositoryDirectory(argv[0], path)) {
            result = 1;
            continue;
        }
        std::shared_ptr<KSRepositoryHandler> repo = getRepository(nullptr, path.c_str(), true);
        const int status = repo->checkRepositoryStatus();
        if (repo->isUnusable()) result = 1;
        if (json) {
            writeRepositoryJson(out, *repo, status);
            continue;
        }
        if (!first) printf("\n");
        first = false;
        printf("repository %s\n", repo->path().c_str());
        if (repo->isUnusable()) printf("  configuration could not be read (see the system log)\n");
        printf("  status    %d (0x%03x) %s\n", status, status,
               statusText(status, StatusKind::kRepository).c_str());
        printLockScope(*repo);
        printf("  mounts    %zu\n", repo->mounts().size());
        for (auto& mount : repo->mounts()) printMount(*repo, *mount);
    }
    if (json) out.endArray().endObject().finish();
    return result;
}

// repoctl hash NAME... [--last] [--json]
int runHash(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (args.positional().empty()) return repoctlUsageError(argv[0], "no name given");
    const bool json = args.has("--json");
    JsonWriter out(stdout);
    if (json) out.beginObject().key("names").beginArray();
    int result = 0;
    for (const std::string& name : args.positional()) {
        const bool safe = isSafeResourceName(name.c_str());
        std::unique_ptr<char[]> hashed(safe ? createHash(name.c_str()) : nullptr);
        if (!safe) result = 1;
        if (json) {
            out.beginObject().field("name", name).field("valid", safe).key("location");
            safe ? out.value(hashed.get()) : out.null();
            out.endObject();
        } else if (safe) {
            printf("%s\n", hashed.get());
        } else {
            fprintf(stderr, "repoctl hash: \"%s\" is not a resource name\n", name.c_str());
        }
    }
    if (json) out.endArray().endObject().finish();
    return result;
}

// Prints {"repository", key: number, ...} or the text line.
void printCount(bool json, const std::string& repo, const char* key, long long number,
                const std::string& text) {
    if (json) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field(key, number).endObject().finish();
    } else {
        printf("%s\n", text.c_str());
    }
}

// repoctl giveback REPO [--json]
int runGiveBack(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    const int code = checkArguments(argv[0], args, 1);
    if (code >= 0) return code;
    const std::string& path = args.positional()[0];
    const int given = giveBackMounts_(path.c_str(), nullptr);
    if (given < 0) fprintf(stderr, "repoctl giveback: a mount could not be given back\n");
    printCount(args.has("--json"), path, "givenBack", given,
               "gave back " + std::to_string(given) + " mount" + (given == 1 ? "" : "s"));
    return given < 0 ? 1 : 0;
}

int runMountInOut(int argc, char** argv, bool in) {
    RepoctlArgs args(argc, argv, {"--json"});
    const int code = checkArguments(argv[0], args, 2);
    if (code >= 0) return code;
    const std::string& index = args.positional()[1];
    char* end = nullptr;
    const long value = strtol(index.c_str(), &end, 10);
    if (end == index.c_str() || *end != '\0' || value < 0 || value > 1000000)
        return repoctlUsageError(argv[0],
                                 "INDEX must be a mount number from 0, not \"" + index + "\"");
    const std::string& path = args.positional()[0];
    const int result = MountUnmount_(path.c_str(), static_cast<int>(value), in, nullptr);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", path).field("index", value).field("result", result);
        out.field("done", result == 0).endObject().finish();
    } else {
        printf("%d (%s)\n", result, result == 0 ? "done" : "no such mount");
    }
    return result == 0 ? 0 : 1;
}

int runMountOut(int argc, char** argv) {
    return runMountInOut(argc, argv, false);
}
int runMountIn(int argc, char** argv) {
    return runMountInOut(argc, argv, true);
}

// repoctl rnd-mount REPO
int runRndMount(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    const int code = checkArguments(argv[0], args, 1);
    if (code >= 0) return code;
    const std::string& path = args.positional()[0];
    rndMount_(path.c_str(), nullptr);
    const int status = getRepositoryStatus_(path.c_str(), nullptr);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", path).key("status");
        writeStatusJson(out, status, StatusKind::kRepository);
        out.endObject().finish();
    } else {
        printf("status %d (0x%03x) %s\n", status, status,
               statusText(status, StatusKind::kRepository).c_str());
    }
    return 0;
}

// repoctl setup REPO [--json]
int runSetup(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    const int code = checkArguments(argv[0], args, 1);
    if (code >= 0) return code;
    const std::string& path = args.positional()[0];
    const time_t checked = setup_(path.c_str(), nullptr);
    auto repo = getRepository(nullptr, path.c_str(), false);
    const int status = repo->checkRepositoryStatus();
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject()
            .field("repository", path)
            .field("checkedAt", static_cast<long long>(checked));
        out.field("usable", !repo->isUnusable())
            .field("mounts", static_cast<unsigned long>(repo->mounts().size()));
        out.key("status");
        writeStatusJson(out, status, StatusKind::kRepository);
        out.endObject().finish();
    } else {
        printf("configuration read at %lld: %zu mount%s, status %d (0x%03x) %s\n",
               static_cast<long long>(checked), repo->mounts().size(),
               repo->mounts().size() == 1 ? "" : "s", status, status,
               statusText(status, StatusKind::kRepository).c_str());
        if (repo->isUnusable()) printf("configuration could not be read (see the system log)\n");
    }
    return repo->isUnusable() ? 1 : 0;
}

// repoctl list REPO [--files] [--legacy] [--json]
int runList(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--files", "--legacy"});
    const int code = checkArguments(argv[0], args, 1);
    if (code >= 0) return code;
    const std::string& path = args.positional()[0];
    long count = 0;
    char** list = nullptr;
    const int walked = runWithProgress(
        argv[0], elapsedLine("listing " + path),
        [&] {
            list = args.has("--files")
                       ? listFiles_(path.c_str(), &count, args.has("--legacy"), nullptr)
                       : listDirs_(path.c_str(), &count, args.has("--legacy"), nullptr);
            return 0;
        },
        args.has("--json"), nullptr);
    if (walked < 0) return 1;
    std::unique_ptr<char*, std::function<void(char**)>> owner(
        list, [count](char** l) { releaseList_(l, count); });
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", path);
        out.field("kind", args.has("--files") ? "files" : "directories");
        out.key("names").beginArray();
        for (long i = 0; i < count; ++i) out.value(list[i]);
        out.endArray().endObject().finish();
    } else {
        for (long i = 0; i < count; ++i) printf("%s\n", list[i]);
        fprintf(stderr, "%ld %s%s\n", count, args.has("--files") ? "file" : "resource",
                count == 1 ? "" : "s");
    }
    return 0;
}

// repoctl empty REPO --yes
int runEmpty(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--yes", "--json"});
    const int code = checkArguments(argv[0], args, 1);
    if (code >= 0) return code;
    if (!args.has("--yes"))
        return repoctlUsageError(argv[0], "removes every resource: confirm with --yes");
    const std::string& path = args.positional()[0];
    const int emptied = runWithProgress(
        argv[0], elapsedLine("emptying " + path),
        [&] {
            makeEmpty_(path.c_str(), nullptr);
            return 0;
        },
        args.has("--json"), nullptr);
    if (emptied < 0) return 1;
    long count = 0;
    char** left = listDirs_(path.c_str(), &count, true, nullptr);
    releaseList_(left, count);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", path).field("left", count).endObject().finish();
    } else {
        printf("%ld resource%s left\n", count, count == 1 ? "" : "s");
    }
    return count == 0 ? 0 : 1;
}

RepoctlRegistrar statusCommand(
    "status", "status REPO... [--json]", "show the mounts, fill levels and status of repositories",
    &runStatus,
    "For each repository: its status (getRepositoryStatus_; bits by number and name: 256 missing, "
    "128 incomplete,\n"
    "64 full, 32 cannotmove, 16 switch, 8 warn3, 4 warn2, 2 warn, 1 remind), the lock scope,\n"
    "and every mount with its used percentage, limits, status bits (1 remind, 2 warn, 4 warn2,\n"
    "8 warn3, 16 switch, 32 full, 64 clean, 128 move, 256 dead, 512 hardfull) and type.\n"
    "Exit status 1 when a repository is missing or its configuration cannot be read.\n"
    "--json: {repositories: [{path, usable, status: {value, names}, locks: {shared, scopeBy,\n"
    "scope}, mounts: [{index, path, usedPercent (null when dead), limits: {remind, warn,\n"
    "warn2, warn3, switch, full, clean, move, hardFull}, status, dedicated, dead, fast}]}]}.\n");
RepoctlRegistrar hashCommand(
    "hash", "hash NAME... [--json]", "print the hashed location of each resource name", &runHash,
    "Prints the three hash levels and the name (AB/CD/EF/NAME) of each resource name.\n"
    "Exit status 1 when a name is no single safe path component (it is reported).\n"
    "--json: {names: [{name, valid, location (null when not valid)}]}.\n");
RepoctlRegistrar giveBackCommand(
    "giveback", "giveback REPO [--json]", "give back every mount taken out", &runGiveBack,
    "Renames repositorypart.no back to repositorypart.cfg on every mount taken out\n"
    "(giveBackMounts_) and prints how many. Exit status 1 when a rename failed.\n"
    "--json: {repository, givenBack}.\n");
RepoctlRegistrar mountOutCommand(
    "mount-out", "mount-out REPO INDEX [--json]",
    "take the mount at INDEX (0-based) out: it then tests as dead", &runMountOut,
    "Renames the mount's repositorypart.cfg to repositorypart.no (MountUnmount_): result 0\n"
    "done, -1 no such mount (exit status 1).\n--json: {repository, index, result, done}.\n");
RepoctlRegistrar mountInCommand("mount-in", "mount-in REPO INDEX [--json]",
                                "bring the mount at INDEX back in", &runMountIn,
                                "The reverse of mount-out; the mount is probed again at once.\n"
                                "--json: {repository, index, result, done}.\n");
RepoctlRegistrar rndMountCommand(
    "rnd-mount", "rnd-mount REPO [--json]",
    "test aid: take out or give back one mount chosen at random", &runRndMount,
    "Toggles a mount chosen at random (rndMount_), as a test of the site's reaction to a lost\n"
    "disk, and prints the repository status afterwards. Undo with giveback.\n"
    "--json: {repository, status: {value, names}}.\n");
RepoctlRegistrar setupCommand(
    "setup", "setup REPO [--json]", "read the repository's configuration again", &runSetup,
    "Loads repository.cfg and every repositorypart.cfg again (setup_) and prints the time of\n"
    "the check, the number of mounts and the repository status. Exit status 1 when the\n"
    "configuration cannot be read.\n"
    "--json: {repository, checkedAt, usable, mounts, status: {value, names}}.\n");
RepoctlRegistrar listCommand(
    "list", "list REPO [--files] [--legacy] [--json]", "list the resources of every live mount",
    &runList,
    "Prints the names of the resource directories of every live mount, sorted, each once\n"
    "(listDirs_); --files lists plain files at resource level instead (listFiles_); --legacy\n"
    "adds the entries of the legacy directory. The count goes to standard error.\n"
    "--json: {repository, kind (\"directories\" or \"files\"), names: [...]}.\n");
RepoctlRegistrar emptyCommand(
    "empty", "empty REPO --yes [--json]", "remove every resource of the repository", &runEmpty,
    "Clears the dirty set, gives back every mount and removes every resource, the legacy\n"
    "directory's entries included (makeEmpty_). Refused without --yes. Prints how many\n"
    "resources are left; exit status 1 when some are.\n--json: {repository, left}.\n");

}  // namespace
