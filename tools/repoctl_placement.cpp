// repoctl's resource commands: locate, locations, create, remove, resource-status, times,
// unage, legacy and mount-for, each through the library's C entry points and each printing its
// status by number and name (or, with --json, one JSON document).

#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>

#include "JsonWriter.h"
#include "KSStatus.h"
#include "RepoctlArgs.h"
#include "RepoctlCodes.h"
#include "RepoctlCommand.h"
#include "RepoctlProgress.h"
#include "repohandler.h"

namespace {

// A text returned by the library, given back with release().
using LibraryText = std::unique_ptr<char, void (*)(char*)>;
LibraryText own(char* text) {
    return LibraryText(text, &release);
}

// Parses the arguments REPO NAME [MORE...]; on a usage error prints it and returns false with
// `code` 2, for a missing repository directory returns false with `code` 1.
bool resourceArguments(const char* command, const RepoctlArgs& args, size_t count, int& code) {
    if (!args.ok()) {
        code = repoctlUsageError(command, args.error());
        return false;
    }
    if (args.positional().size() != count) {
        code = repoctlUsageError(command, "expected " + std::to_string(count) + " arguments, got " +
                                              std::to_string(args.positional().size()));
        return false;
    }
    if (!isRepositoryDirectory(command, args.positional()[0])) {
        code = 1;
        return false;
    }
    return true;
}

// The common shape of a command's answer: repository, resource, a lookup status, a location.
void printLookup(bool json, const std::string& repo, const std::string& name, int status,
                 const char* location, const char* extraKey = nullptr, bool extra = false) {
    if (json) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name).key("status");
        writeLookupStatusJson(out, status);
        out.key("location");
        location ? out.value(location) : out.null();
        if (extraKey) out.field(extraKey, extra);
        out.endObject().finish();
        return;
    }
    printf("%d (%s)%s\n", status, lookupStatusName(status),
           extraKey && extra ? (std::string(", ") + extraKey).c_str() : "");
    if (location != nullptr) printf("%s\n", location);
}

// repoctl locate REPO NAME [--mount MOUNT] [--touch] [--json]
int runLocate(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--touch"}, {"--mount"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    int status = 0;
    LibraryText location = own(nullptr);
    if (const char* mount = args.value("--mount")) {
        location = own(getLocationOnMount_(repo.c_str(), name.c_str(), mount, &status, true,
                                           nullptr, args.has("--touch")));
    } else {
        location = own(getLocation_(repo.c_str(), name.c_str(), &status, args.has("--touch"), true,
                                    true, false, nullptr));
    }
    printLookup(args.has("--json"), repo, name, status, location.get());
    return location ? 0 : 1;
}

// repoctl locations REPO NAME [--legacy] [--json]
int runLocations(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--legacy"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    std::list<std::string> locations;
    const int count =
        getLocations_(repo.c_str(), name.c_str(), &locations, true, args.has("--legacy"), nullptr);
    const int status = count < 0 ? -count : (count == 0 ? RESOURCE_STATUS_MISSING : 0);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name).key("status");
        writeLookupStatusJson(out, status);
        out.key("locations").beginArray();
        for (const std::string& location : locations) out.value(location);
        out.endArray().endObject().finish();
    } else {
        printf("%d (%s) %zu location%s\n", status, lookupStatusName(status), locations.size(),
               locations.size() == 1 ? "" : "s");
        for (const std::string& location : locations) printf("%s\n", location.c_str());
    }
    return count > 0 ? 0 : 1;
}

// repoctl create REPO NAME [--directory [--exclusive]] [--no-dirty] [--json]
int runCreate(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--directory", "--exclusive", "--no-dirty"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    if (args.has("--exclusive") && !args.has("--directory"))
        return repoctlUsageError(argv[0], "--exclusive needs --directory");
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    int status = 0;
    int existed = 0;
    LibraryText location = own(nullptr);
    if (args.has("--directory")) {
        location = own(createDirectory_(repo.c_str(), name.c_str(), &status, &existed, true,
                                        args.has("--no-dirty"), args.has("--exclusive"), nullptr));
    } else {
        location = own(createLocation_(repo.c_str(), name.c_str(), &status, &existed,
                                       args.has("--no-dirty"), nullptr));
    }
    printLookup(args.has("--json"), repo, name, status, location.get(), "existed", existed != 0);
    return location ? 0 : 1;
}

// repoctl remove REPO NAME [--mount MOUNT] [--json]
int runRemove(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"}, {"--mount"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    const char* mount = args.value("--mount");
    const int result =
        mount ? removeResourceOnMount_(repo.c_str(), name.c_str(), mount, true, true, nullptr)
              : removeResource_(repo.c_str(), name.c_str(), true, true, nullptr);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name).key("mount");
        mount ? out.value(mount) : out.null();
        out.key("status");
        writeRemovalStatusJson(out, result);
        out.field("removed", result == 0).endObject().finish();
    } else {
        printf("%d (%s)\n", result, removalStatusText(result).c_str());
    }
    return result == 0 ? 0 : 1;
}

// repoctl resource-status REPO NAME [--json]
int runResourceStatus(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    const int status = checkResourceStatus_(repo.c_str(), name.c_str(), nullptr);
    printLookup(args.has("--json"), repo, name, status, nullptr);
    return status == RESOURCE_STATUS_FOUND ? 0 : 1;
}

bool parseEpoch(const char* text, time_t& out) {
    char* end = nullptr;
    const long long value = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || value < 0) return false;
    out = static_cast<time_t>(value);
    return true;
}

// repoctl times REPO NAME [--set-access T] [--set-modified T] [--now] [--json]
int runTimes(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json", "--now"}, {"--set-access", "--set-modified"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const char* access = args.value("--set-access");
    const char* modified = args.value("--set-modified");
    if (args.has("--now") && (access || modified))
        return repoctlUsageError(argv[0], "--now excludes --set-access and --set-modified");
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    time_t newAccess = 0, newModified = 0;
    if ((access && !parseEpoch(access, newAccess)) ||
        (modified && !parseEpoch(modified, newModified)))
        return repoctlUsageError(argv[0], "times are seconds since the epoch");
    struct utimbuf times = {0, 0};
    bool found = getTimeProperties_(repo.c_str(), name.c_str(), &times, nullptr) == 1;
    if (found && (access || modified || args.has("--now"))) {
        if (access) times.actime = newAccess;
        if (modified) times.modtime = newModified;
        found = setTimeProperties_(repo.c_str(), name.c_str(), args.has("--now") ? nullptr : &times,
                                   nullptr) &&
                getTimeProperties_(repo.c_str(), name.c_str(), &times, nullptr) == 1;
    }
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name).field("found", found);
        if (found) {
            out.field("accessTime", static_cast<long long>(times.actime));
            out.field("modificationTime", static_cast<long long>(times.modtime));
        }
        out.endObject().finish();
    } else if (found) {
        printf("access   %lld\nmodified %lld\n", static_cast<long long>(times.actime),
               static_cast<long long>(times.modtime));
    } else {
        fprintf(stderr, "repoctl %s: \"%s\" not found in %s\n", argv[0], name.c_str(),
                repo.c_str());
    }
    return found ? 0 : 1;
}

// Prints {"repository", "resource", key: value-or-null} or the value alone; 1 when null.
int printPathAnswer(bool json, const std::string& repo, const char* nameKey,
                    const std::string& name, const char* key, const char* value) {
    if (json) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field(nameKey, name).key(key);
        value ? out.value(value) : out.null();
        out.endObject().finish();
    } else if (value) {
        printf("%s\n", value);
    }
    return value ? 0 : 1;
}

// repoctl unage REPO NAME [--json]
int runUnAge(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    LibraryText moved = own(nullptr);
    const int done = runWithProgress(
        argv[0], elapsedLine("moving " + name + " onto a fast mount"),
        [&] {
            moved = own(unAge_(repo.c_str(), name.c_str(), nullptr));
            return 0;
        },
        args.has("--json"), nullptr);
    if (done < 0) return 1;
    if (!moved && !args.has("--json"))
        fprintf(stderr, "repoctl %s: \"%s\" was not moved onto a fast mount\n", argv[0],
                name.c_str());
    return printPathAnswer(args.has("--json"), repo, "resource", name, "location", moved.get());
}

// repoctl legacy REPO NAME [--json]
int runLegacy(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    const int result = createToLegacy_(repo.c_str(), name.c_str(), nullptr);
    if (args.has("--json")) {
        JsonWriter out(stdout);
        out.beginObject().field("repository", repo).field("resource", name);
        out.field("result", result).field("created", result == 0).endObject().finish();
    } else {
        printf("%d (%s)\n", result, result == 0 ? "created" : "not created");
    }
    return result == 0 ? 0 : 1;
}

// repoctl mount-for REPO NAME [--json]
int runMountFor(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& name = args.positional()[1];
    LibraryText mount = own(getMountPathForDirectory_(repo.c_str(), name.c_str(), nullptr));
    if (!mount && !args.has("--json"))
        fprintf(stderr, "repoctl %s: \"%s\" lies on no mount of %s\n", argv[0], name.c_str(),
                repo.c_str());
    return printPathAnswer(args.has("--json"), repo, "resource", name, "mount", mount.get());
}

// repoctl mount-of REPO PATH [--json]
int runMountOf(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    int code = 0;
    if (!resourceArguments(argv[0], args, 2, code)) return code;
    const std::string& repo = args.positional()[0];
    const std::string& path = args.positional()[1];
    LibraryText mount = own(getMountFromPath_(repo.c_str(), path.c_str(), nullptr));
    if (!mount && !args.has("--json"))
        fprintf(stderr, "repoctl %s: \"%s\" is under no mount of %s\n", argv[0], path.c_str(),
                repo.c_str());
    return printPathAnswer(args.has("--json"), repo, "path", path, "mount", mount.get());
}

RepoctlRegistrar locateCommand(
    "locate", "locate REPO NAME [--mount MOUNT] [--touch] [--json]",
    "find a resource (locked, merging duplicates) and print its status", &runLocate,
    "Looks the resource up under its lock, with the information callback, merging copies found\n"
    "on several mounts (getLocation_). With --mount MOUNT only that mount (its name as in\n"
    "mountPoints) is looked at (getLocationOnMount_). --touch sets the access time of the "
    "location.\n"
    "Prints the status code with its name (0 found, 1 dirty, 2 conflict, 4 missing,\n"
    "8 erroneous, 16 lockFailed, 36 notPresent) and the location.\n"
    "--json: {repository, resource, status: {value, names}, location (null when none)}.\n");
RepoctlRegistrar locationsCommand(
    "locations", "locations REPO NAME [--legacy] [--json]",
    "list every copy of a resource, one per live mount, without merging", &runLocations,
    "Walks every live mount under the resource's lock and prints each location that holds a\n"
    "copy, in configuration order (getLocations_); --legacy adds the legacy entry. Nothing is\n"
    "merged, touched or moved. Exit status 1 when no copy exists (status 4) or the walk failed\n"
    "(8 erroneous, 16 lockFailed).\n"
    "--json: {repository, resource, status: {value, names}, locations: [...]}.\n");
RepoctlRegistrar createCommand(
    "create", "create REPO NAME [--directory [--exclusive]] [--no-dirty] [--json]",
    "prepare the location of a new resource on a mount", &runCreate,
    "Chooses a mount for a new resource and prints its location (createLocation_), or the\n"
    "existing location when the resource exists (\"existed\"). --directory also creates the\n"
    "directory (createDirectory_, with the callbacks); --exclusive then refuses an existing\n"
    "resource with status 8. --no-dirty leaves the dirty set alone.\n"
    "--json: {repository, resource, status: {value, names}, location, existed}.\n");
RepoctlRegistrar removeCommand(
    "remove", "remove REPO NAME [--mount MOUNT] [--json]",
    "remove a resource from every mount and the legacy directory", &runRemove,
    "Removes the resource under its lock from every mount and the legacy directory\n"
    "(removeResource_), or with --mount MOUNT (its name as in mountPoints) from that mount only\n"
    "(removeResourceOnMount_).\n"
    "The result ORs the single removals' codes: 0 removed, 1 dirty (nothing removed),\n"
    "4 missing, 8 erroneous, 16 lockFailed; each bit set is named.\n"
    "--json: {repository, resource, mount (null: every mount), status: {value, names}, "
    "removed}.\nExit status 0 when the result is 0, else 1.\n");
RepoctlRegistrar resourceStatusCommand(
    "resource-status", "resource-status REPO NAME [--json]",
    "the status of a locked lookup of a resource, without its location", &runResourceStatus,
    "Runs a locked lookup with the callback (checkResourceStatus_) and prints its status code\n"
    "and name. Exit status 0 for 0 (found), 1 for any other status.\n"
    "--json: {repository, resource, status: {value, names}, location: null}.\n");
RepoctlRegistrar timesCommand(
    "times", "times REPO NAME [--set-access T] [--set-modified T] [--now] [--json]",
    "print or set the access and modification time of a resource", &runTimes,
    "Prints the access and modification time (seconds since the epoch) of the resource's\n"
    "location (getTimeProperties_). --set-access and --set-modified set either (the other is\n"
    "kept), --now sets both to the current time (setTimeProperties_); the times are printed\n"
    "as they are afterwards. Exit status 1 when the resource is not found.\n"
    "--json: {repository, resource, found, accessTime, modificationTime}.\n");
RepoctlRegistrar unAgeCommand(
    "unage", "unage REPO NAME [--json]", "move a resource onto the last usable fast mount",
    &runUnAge,
    "Moves the resource onto the last usable fast mount (unAge_) and prints its new location.\n"
    "Exit status 1 when it was not moved: it needs no move (already there), is not found, or\n"
    "the move failed.\n--json: {repository, resource, location (null when not moved)}.\n");
RepoctlRegistrar legacyCommand(
    "legacy", "legacy REPO NAME [--json]",
    "create the resource's directory in the legacy directory", &runLegacy,
    "Creates the resource's directory under the repository's legacyDir (createToLegacy_):\n"
    "0 created (or existing), -1 not (no legacy directory, unsafe name, no room).\n"
    "--json: {repository, resource, result, created}.\n");
RepoctlRegistrar mountForCommand(
    "mount-for", "mount-for REPO NAME [--json]", "print the mount on which a resource lies",
    &runMountFor,
    "Prints the path of the mount holding the resource (getMountPathForDirectory_; with a\n"
    "callback configured the information callback is asked first). Exit status 1 when none.\n"
    "--json: {repository, resource, mount (null when none)}.\n");
RepoctlRegistrar mountOfCommand(
    "mount-of", "mount-of REPO PATH [--json]", "print the mount that holds an absolute path",
    &runMountOf,
    "Prints the path of the repository's mount that holds the absolute PATH (the mount\n"
    "directory itself or a directory above it; getMountFromPath_). Exit status 1 when none.\n"
    "--json: {repository, path, mount (null when none)}.\n");

}  // namespace
