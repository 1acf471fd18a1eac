// repoctl verify: checks a repository the way fsck checks a file system (RepositoryVerifier),
// optionally repairs what the library itself can settle, and reports by kind as text or JSON.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "JsonWriter.h"
#include "KSException.h"
#include "KSPartialCopy.h"
#include "KSRepositoryHandler.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlProgress.h"
#include "RepositoryVerifier.h"

namespace {

constexpr long long kDefaultOlderThan = 86400;

struct VerifyArguments {
    std::string repository;
    bool json = false;
    bool repair = false;
    long long olderThan = kDefaultOlderThan;
};

// 0 when the arguments are good, else the exit status of the usage error already reported.
int parseArguments(int argc, char** argv, VerifyArguments& arguments) {
    RepoctlArgs args(argc, argv, {"--json", "--repair"}, {"--older-than"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (args.positional().size() != 1) return repoctlUsageError(argv[0], "expected one REPO");
    arguments.repository = args.positional()[0];
    arguments.json = args.has("--json");
    arguments.repair = args.has("--repair");
    if (const char* value = args.value("--older-than")) {
        if (!parseDuration(value, arguments.olderThan)) {
            return repoctlUsageError(
                argv[0], std::string("\"") + value + "\" is no duration (90s, 15m, 2h, 7d)");
        }
    }
    return 0;
}

// Control characters in names are shown as \xNN, so that every finding stays on its line.
std::string printable(const std::string& text) {
    std::string shown;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", c);
            shown += escaped;
        } else {
            shown += static_cast<char>(c);
        }
    }
    return shown;
}

unsigned long long repairedCount(const RepositoryVerifier& verifier) {
    unsigned long long repaired = 0;
    for (const VerifyFinding& finding : verifier.findings()) repaired += finding.repair.done;
    return repaired;
}

void printText(const VerifyArguments& arguments, const RepositoryVerifier& verifier,
               const std::string& error) {
    const RepositoryVerifier::Counts& counts = verifier.counts();
    printf(
        "verify %s: %llu mounts, %llu resources, %llu hash levels, %llu dirty names, "
        "%llu legacy entries, %llu lock files, %llu lock rows\n",
        printable(arguments.repository).c_str(), counts.mounts, counts.resources, counts.hashLevels,
        counts.dirtyNames, counts.legacyEntries, counts.lockFiles, counts.lockRows);
    for (const VerifyFinding& finding : verifier.findings()) {
        std::string line = verifyKindName(finding.kind);
        if (!finding.name.empty()) line += " \"" + printable(finding.name) + "\"";
        if (!finding.path.empty()) line += " " + printable(finding.path);
        line += ": " + printable(finding.detail);
        printf("%s\n", line.c_str());
        for (const std::string& copy : finding.locations)
            printf("    copy %s\n", printable(copy).c_str());
        if (finding.repair.attempted) {
            printf("    %s: %s\n", finding.repair.done ? "repaired" : "left",
                   printable(finding.repair.action).c_str());
        }
    }
    for (const std::string& dead : verifier.deadMounts())
        printf("dead mount %s: not checked\n", printable(dead).c_str());
    for (const std::string& note : verifier.notes()) printf("note: %s\n", printable(note).c_str());
    if (!error.empty()) printf("error: %s\n", printable(error).c_str());
    const size_t found = verifier.findings().size();
    if (found == 0) {
        printf("clean\n");
    } else {
        printf("%zu problem%s found", found, found == 1 ? "" : "s");
        if (arguments.repair) printf(", %llu repaired", repairedCount(verifier));
        printf("\n");
    }
}

void printJson(const VerifyArguments& arguments, KSRepositoryHandler& repository,
               const RepositoryVerifier& verifier, const std::string& error, double seconds) {
    const RepositoryVerifier::Counts& counts = verifier.counts();
    JsonWriter json(stdout);
    json.beginObject()
        .field("repository", arguments.repository)
        .field("lockScope", repository.lockScope())
        .field("olderThanSeconds", arguments.olderThan)
        .field("repair", arguments.repair);
    json.key("checked")
        .beginObject()
        .field("mounts", counts.mounts)
        .field("resources", counts.resources)
        .field("hashLevels", counts.hashLevels)
        .field("dirtyNames", counts.dirtyNames)
        .field("legacyEntries", counts.legacyEntries)
        .field("lockFiles", counts.lockFiles)
        .field("lockRows", counts.lockRows)
        .endObject();
    json.key("deadMounts").beginArray();
    for (const std::string& dead : verifier.deadMounts()) json.value(dead);
    json.endArray();
    json.key("notes").beginArray();
    for (const std::string& note : verifier.notes()) json.value(note);
    json.endArray();
    json.key("findings").beginArray();
    for (const VerifyFinding& finding : verifier.findings()) {
        json.beginObject()
            .field("kind", verifyKindName(finding.kind))
            .field("name", finding.name)
            .field("path", finding.path);
        json.key("locations").beginArray();
        for (const std::string& copy : finding.locations) json.value(copy);
        json.endArray();
        json.field("detail", finding.detail);
        if (finding.ageSeconds >= 0) json.field("ageSeconds", finding.ageSeconds);
        json.key("repair");
        if (finding.repair.attempted) {
            json.beginObject()
                .field("done", finding.repair.done)
                .field("action", finding.repair.action)
                .endObject();
        } else {
            json.null();
        }
        json.endObject();
    }
    json.endArray();
    unsigned long long byKind[kVerifyKindCount] = {};
    for (const VerifyFinding& finding : verifier.findings())
        ++byKind[static_cast<int>(finding.kind)];
    json.key("found").beginObject().field("total", verifier.findings().size());
    for (int kind = 0; kind < kVerifyKindCount; ++kind)
        json.field(verifyKindName(static_cast<VerifyKind>(kind)), byKind[kind]);
    json.endObject();
    json.field("repaired", repairedCount(verifier))
        .field("clean", verifier.findings().empty() && error.empty());
    json.key("error");
    if (error.empty()) {
        json.null();
    } else {
        json.value(error);
    }
    json.field("seconds", seconds).endObject();
    json.finish();
}

std::string progressLine(RepositoryVerifier& verifier, size_t mounts) {
    RepositoryVerifier::Progress& progress = verifier.progress();
    return "verify: mount " + std::to_string(progress.mountsDone.load()) + "/" +
           std::to_string(mounts) + ", " + std::to_string(progress.resources.load()) +
           " resources, " + std::to_string(progress.hashLevels.load()) + " hash levels, " +
           std::to_string(progress.found.load()) + " found, " +
           std::to_string(progress.repaired.load()) + " repaired";
}

int runVerify(int argc, char** argv) {
    VerifyArguments arguments;
    if (int usage = parseArguments(argc, argv, arguments)) return usage;
    if (!isRepositoryDirectory(argv[0], arguments.repository)) return 1;
    std::shared_ptr<KSRepositoryHandler> repository =
        getRepository(nullptr, arguments.repository.c_str(), true);
    if (repository->isUnusable()) {
        fprintf(stderr,
                "repoctl verify: the repository \"%s\" cannot be used (see the system log)\n",
                arguments.repository.c_str());
        return 1;
    }
    RepositoryVerifier::Options options;
    options.olderThanSeconds = arguments.olderThan;
    options.repair = arguments.repair;
    options.stagedCopy = [](const std::string& entry, std::string* resource) {
        if (!isPartialCopy(entry)) return false;
        *resource = resourceOfPartialCopy(entry);
        return true;
    };
    RepositoryVerifier verifier(*repository, options);
    std::string error;
    double seconds = 0;
    runWithProgress(
        "verify", [&] { return progressLine(verifier, repository->mounts().size()); },
        [&] {
            try {
                verifier.run();
            } catch (const KSException& e) {
                error = e.toString();
            } catch (const std::exception& e) {
                error = e.what();
            }
            return 0;
        },
        arguments.json, &seconds);
    if (arguments.json) {
        printJson(arguments, *repository, verifier, error, seconds);
    } else {
        printText(arguments, verifier, error);
    }
    if (!error.empty()) fprintf(stderr, "repoctl verify: %s\n", error.c_str());
    return verifier.findings().empty() && error.empty() ? 0 : 1;
}

RepoctlRegistrar verifyCommand(
    "verify", "verify REPO [--repair] [--older-than DURATION] [--json]",
    "check a repository like fsck, by kind of damage; --repair settles what the library can",
    &runVerify,
    "Walks every live mount (without changing access times), the dirty set, the legacy\n"
    "directory, the lock files in $LOCK_VAR and, for a shared repository, the lock rows, and\n"
    "reports by kind:\n"
    "  duplicate        a resource on more than one mount, not in the dirty set\n"
    "  staleDirty       a name in the dirty set that exists nowhere\n"
    "  misplaced        a directory under a hash prefix that is not its name's\n"
    "  emptyHashLevel   a hash level with nothing in it\n"
    "  notDirectory     a file where only directories belong\n"
    "  danglingLink     a legacy link whose target does not exist\n"
    "  foreignLink      a legacy link pointing outside the mounts or at another location\n"
    "  staleLockFile    a lock file of the repository older than --older-than (default 1d)\n"
    "  staleLockRow     a lock row of the repository older than --older-than\n"
    "  partialCopy      copies of a dirty resource that differ (an interrupted move or merge)\n"
    "  lockScope        locks of this repository taken under another lock scope\n"
    "A resource on several mounts or a dirty name is confirmed under its lock first.\n"
    "\n"
    "Options:\n"
    "  --repair                 merge duplicates, and partial copies where one copy only lacks\n"
    "                           files, and clear stale dirty names, through a locked lookup;\n"
    "                           re-point legacy links at the one copy on a mount; remove empty\n"
    "                           hash levels; nothing else, nothing deleted\n"
    "  --older-than DURATION    age of a stale lock: 90s, 15m, 2h, 7d or seconds (default 1d)\n"
    "  --json                   one JSON document on standard output, no progress\n"
    "\n"
    "Exit status: 0 clean, 1 something was found (also when it was repaired) or could not be\n"
    "checked, 2 usage error.\n");

}  // namespace
