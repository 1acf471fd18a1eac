// repoctl lock, unlock, dirty and locks: the explicit lock of one resource, the repository's
// set of dirty resources (list, set, clear), and the repository's lock files and lock rows with
// their age, removing those older than a given age on request.

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "DBConnector.h"
#include "JsonWriter.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlLockList.h"
#include "repohandler.h"

namespace {

std::string identity(const std::string& repository, const std::string& resource) {
    auto repo = getRepository(nullptr, repository.c_str(), true);
    std::unique_ptr<char[]> id(toResourceID(repo->lockScope().c_str(), resource.c_str()));
    return id.get();
}

// Checks REPO NAME; -1 when the command may go on, else its exit code.
int checkResourceArguments(const char* command, const RepoctlArgs& args) {
    if (!args.ok()) return repoctlUsageError(command, args.error());
    if (args.positional().size() != 2) return repoctlUsageError(command, "expected REPO NAME");
    return isRepositoryDirectory(command, args.positional()[0]) ? -1 : 1;
}

int runLockOrUnlock(int argc, char** argv, bool lock) {
    RepoctlArgs args(argc, argv, {"--json"});
    const int code = checkResourceArguments(argv[0], args);
    if (code >= 0) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    const int result = lock ? lockResource_(repo.c_str(), name.c_str(), nullptr)
                            : unlockResource_(repo.c_str(), name.c_str(), nullptr);
    const char* word =
        result == 1 ? (lock ? "locked" : "unlocked") : (lock ? "not locked" : "not unlocked");
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name);
        out.field("lockId", identity(repo, name)).field("result", result);
        out.field(lock ? "locked" : "unlocked", result == 1).endObject().finish();
    } else {
        printf("%s %d (%s)\n", identity(repo, name).c_str(), result, word);
    }
    return result == 1 ? 0 : 1;
}

int runLock(int argc, char** argv) {
    return runLockOrUnlock(argc, argv, true);
}
int runUnlock(int argc, char** argv) {
    return runLockOrUnlock(argc, argv, false);
}

// The set as the file holds it now: the file is read afresh, not taken from a cache.
int listDirty(const std::string& repository, bool json) {
    auto repo = getRepository(nullptr, repository.c_str(), true);
    KSDirtyFlagHandler& flags = repo->dirtyFlags();
    flags.checkAndReadSetFile(repo->getDbConnector(nullptr));
    const std::set<std::string> names = flags.snapshot();
    if (json) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repository).field("file", flags.filePath());
        out.field("count", static_cast<unsigned long>(names.size())).key("names").beginArray();
        for (const std::string& name : names) out.value(name);
        out.endArray().endObject().finish();
        return 0;
    }
    for (const std::string& name : names) printf("%s\n", name.c_str());
    fprintf(stderr, "%zu dirty resource%s in %s\n", names.size(), names.size() == 1 ? "" : "s",
            flags.filePath().c_str());
    return 0;
}

int changeDirty(const std::string& repository, const std::string& resource, bool dirty, bool json) {
    setDirty_(repository.c_str(), resource.c_str(), dirty, nullptr);
    const int now = isDirty_(repository.c_str(), resource.c_str(), nullptr);
    if (json) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repository).field("resource", resource);
        out.field("dirty", now == 1).endObject().finish();
    } else {
        printf("%s %d (%s)\n", resource.c_str(), now, now == 1 ? "dirty" : "clean");
    }
    return now == (dirty ? 1 : 0) ? 0 : 1;
}

// repoctl dirty REPO [set|clear NAME] [--json]
int runDirty(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    const auto& p = args.positional();
    if (p.size() != 1 && p.size() != 3)
        return repoctlUsageError(argv[0], "expected REPO [set|clear NAME]");
    if (p.size() == 3 && p[1] != "set" && p[1] != "clear")
        return repoctlUsageError(argv[0], "\"" + p[1] + "\" is neither set nor clear");
    if (!isRepositoryDirectory(argv[0], p[0])) return 1;
    if (p.size() == 1) return listDirty(p[0], args.has("--json"));
    return changeDirty(p[0], p[2], p[1] == "set", args.has("--json"));
}

void writeLockJson(JsonWriter& out, const RepoctlLockList::Lock& lock) {
    out.beginObject().field("kind", lock.row ? "row" : "file").field("id", lock.id);
    out.field("holds", lock.what).key("resource");
    lock.what == "resource" ? out.value(lock.resource) : out.null();
    out.key("file");
    lock.row ? out.null() : out.value(lock.file);
    out.field("since", lock.since).field("age", lock.age).key("holder");
    lock.row ? out.value(lock.holder) : out.null();
    out.field("holderState", lock.liveness);
}

void printLock(const RepoctlLockList::Lock& lock) {
    printf("%-4s %8llds  %-11s %s", lock.row ? "row" : "file", lock.age, lock.what.c_str(),
           lock.what == "resource" ? lock.resource.c_str() : "-");
    if (lock.row) printf("  holder %s (%s)", lock.holder.c_str(), lock.liveness.c_str());
    printf("  %s\n", lock.row ? lock.id.c_str() : lock.file.c_str());
}

// repoctl locks REPO [--older-than DURATION [--remove]] [--json]
int runLocks(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--remove"}, {"--older-than"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (args.positional().size() != 1) return repoctlUsageError(argv[0], "expected one REPO");
    long long olderThan = 0;
    const char* duration = args.value("--older-than");
    if (duration && !parseDuration(duration, olderThan))
        return repoctlUsageError(
            argv[0], std::string("\"") + duration + "\" is no duration (90s, 15m, 2h, 7d)");
    if (args.has("--remove") && !duration)
        return repoctlUsageError(argv[0], "--remove needs --older-than");
    const std::string& path = args.positional()[0];
    if (!isRepositoryDirectory(argv[0], path)) return 1;
    auto repo = getRepository(nullptr, path.c_str(), true);
    kelp::db::DBConnector* connector = repo->isShared() ? repo->getDbConnector(nullptr) : nullptr;
    RepoctlLockList list(*repo);
    const bool complete = list.load(connector);
    if (!complete) fprintf(stderr, "repoctl %s: %s\n", argv[0], list.error().c_str());

    const bool json = args.has("--json");
    JsonWriter out(stdout);
    if (json) {
        out.beginObject().field("repository", path).field("lockDirectory", list.lockDirectory());
        out.field("shared", repo->isShared()).key("olderThan");
        duration ? out.value(olderThan) : out.null();
        out.key("locks").beginArray();
    }
    int failed = 0;
    size_t shown = 0;
    for (const RepoctlLockList::Lock& lock : list.locks()) {
        if (duration && lock.age < olderThan) continue;
        ++shown;
        std::string why;
        const bool removed = args.has("--remove") && RepoctlLockList::remove(lock, connector, why);
        if (args.has("--remove") && !removed) ++failed;
        if (json) {
            writeLockJson(out, lock);
            if (args.has("--remove")) {
                out.field("removed", removed).key("notRemovedBecause");
                removed ? out.null() : out.value(why);
            }
            out.endObject();
            continue;
        }
        printLock(lock);
        if (removed) printf("  removed\n");
        if (args.has("--remove") && !removed) printf("  not removed: %s\n", why.c_str());
    }
    if (json) {
        out.endArray().field("count", static_cast<unsigned long>(shown));
        out.field("complete", complete).endObject().finish();
    } else {
        fprintf(stderr, "%zu lock%s\n", shown, shown == 1 ? "" : "s");
    }
    return complete && failed == 0 ? 0 : 1;
}

RepoctlRegistrar lockCommand(
    "lock", "lock REPO NAME [--json]",
    "take the lock of a resource and keep it after the command ends", &runLock,
    "Takes the resource's lock (lockResource_: a lock row for shared repositories, a lock file\n"
    "in LOCK_VAR otherwise) and keeps it. Prints the lock id and 1 (locked) or 0 (not locked\n"
    "within 30 seconds; exit status 1).\n--json: {repository, resource, lockId, result, "
    "locked}.\n");
RepoctlRegistrar unlockCommand(
    "unlock", "unlock REPO NAME [--json]", "give back the lock of a resource, whoever took it",
    &runUnlock,
    "Gives the resource's lock back whoever holds it (unlockResource_): 1 unlocked, 0 not\n"
    "(no such lock; exit status 1).\n--json: {repository, resource, lockId, result, unlocked}.\n");
RepoctlRegistrar dirtyCommand(
    "dirty", "dirty REPO [set|clear NAME] [--json]",
    "list the dirty resources, or set or clear one resource's flag", &runDirty,
    "Without NAME prints the dirty set as the .dirty file holds it now (the count goes to\n"
    "standard error). set and clear change one resource's mark (setDirty_) and print it as\n"
    "it is afterwards (isDirty_: 1 dirty, 0 clean).\n"
    "--json: {repository, file, count, names} for the list; {repository, resource, dirty}.\n");
RepoctlRegistrar locksCommand(
    "locks", "locks REPO [--older-than DURATION [--remove]] [--json]",
    "list the repository's lock files and lock rows with their age; remove stale ones", &runLocks,
    "Lists the lock files of the repository in $LOCK_VAR (semaphore_KSRepositoryHandler-...)\n"
    "and, for a shared repository, its rows of the lock table (NVLOCKTBL), oldest first: their\n"
    "age in seconds, what they hold (a resource, the maintenance lock, the dirty set's lock),\n"
    "and for rows the holder's token and whether that process still runs (running, gone,\n"
    "other host, unknown). --older-than DURATION (90s, 15m, 2h, 7d; a bare number is seconds)\n"
    "lists only locks at least that old; with --remove they are removed, each reported. Only\n"
    "the take listed is removed: a lock released and taken again meanwhile stays.\n"
    "Remove a lock only when its holder is known to be gone: the age alone cannot tell a slow\n"
    "holder from a dead one.\n"
    "Exit status 1 when the locks could not all be read or a lock could not be removed.\n"
    "--json: {repository, lockDirectory, shared, olderThan, locks: [{kind (\"file\" or\n"
    "\"row\"), id, holds, resource, file, since, age, holder, holderState, removed,\n"
    "notRemovedBecause}], count, complete}.\n");

}  // namespace
