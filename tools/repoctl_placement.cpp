// repoctl locate, create, remove, mount-out and mount-in: resource placement from the command
// line, through the library's C entry points, each printing its status by number and name.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "KSException.h"
#include "KSStatus.h"
#include "RepoctlCommand.h"
#include "repohandler.h"

namespace {

const char* lookupStatusName(int status) {
    switch (status) {
        case RESOURCE_STATUS_FOUND:
            return "found";
        case RESOURCE_STATUS_DIRTY:
            return "found, still dirty";
        case RESOURCE_STATUS_CONFLICT:
            return "conflict";
        case RESOURCE_STATUS_MISSING:
            return "missing";
        case RESOURCE_STATUS_ERRONEOUS:
            return "erroneous";
        case RESOURCE_STATUS_LOCK_FAILED:
            return "lock not obtained";
        case RESOURCE_STATUS_NOT_PRESENT:
            return "not present";
        default:
            return "unknown";
    }
}

// Removal results are ORed statuses; 36 never occurs in them, so each bit is named.
std::string removalStatusName(int status) {
    if (status == 0) return "removed";
    static const struct {
        int bit;
        const char* name;
    } kBits[] = {{RESOURCE_STATUS_DIRTY, "still dirty"},
                 {RESOURCE_STATUS_CONFLICT, "conflict"},
                 {RESOURCE_STATUS_MISSING, "missing"},
                 {RESOURCE_STATUS_ERRONEOUS, "erroneous"},
                 {RESOURCE_STATUS_LOCK_FAILED, "lock not obtained"}};
    std::string text;
    for (const auto& b : kBits)
        if (status & b.bit) text += (text.empty() ? "" : ", ") + std::string(b.name);
    return text.empty() ? "unknown" : text;
}

// Runs `body`, turning an exception of the library into a message and exit code 1.
template <typename Body>
int guarded(const char* command, Body body) {
    try {
        return body();
    } catch (const KSException& e) {
        std::fprintf(stderr, "repoctl %s: %s\n", command, e.toString().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "repoctl %s: %s\n", command, e.what());
    }
    return 1;
}

int runLocate(int argc, char** argv) {
    if (argc != 3) return repoctlUsage("locate");
    return guarded("locate", [&] {
        int status = 0;
        char* location = getLocation_(argv[1], argv[2], &status, false, true, true, false, nullptr);
        std::printf("%d (%s)\n", status, lookupStatusName(status));
        if (location != nullptr) std::printf("%s\n", location);
        release(location);
        return location != nullptr ? 0 : 1;
    });
}

int runCreate(int argc, char** argv) {
    if (argc != 3) return repoctlUsage("create");
    return guarded("create", [&] {
        int status = 0;
        int existed = 0;
        char* location = createLocation_(argv[1], argv[2], &status, &existed, false, nullptr);
        std::printf("%d (%s)%s\n", status,
                    status == RESOURCE_STATUS_FOUND ? "ready" : lookupStatusName(status),
                    existed ? ", existed already" : "");
        if (location != nullptr) std::printf("%s\n", location);
        release(location);
        return location != nullptr ? 0 : 1;
    });
}

int runRemove(int argc, char** argv) {
    if (argc != 3) return repoctlUsage("remove");
    return guarded("remove", [&] {
        int result = removeResource_(argv[1], argv[2], true, true, nullptr);
        std::printf("%d (%s)\n", result, removalStatusName(result).c_str());
        return result == 0 ? 0 : 1;
    });
}

int runMountInOut(const char* command, int argc, char** argv, bool in) {
    if (argc != 3) return repoctlUsage(command);
    char* end = nullptr;
    long index = std::strtol(argv[2], &end, 10);
    if (end == argv[2] || *end != '\0') return repoctlUsage(command);
    return guarded(command, [&] {
        int result = MountUnmount_(argv[1], static_cast<int>(index), in, nullptr);
        std::printf("%d (%s)\n", result, result == 0 ? "done" : "no such mount");
        return result == 0 ? 0 : 1;
    });
}

int runMountOut(int argc, char** argv) {
    return runMountInOut("mount-out", argc, argv, false);
}
int runMountIn(int argc, char** argv) {
    return runMountInOut("mount-in", argc, argv, true);
}

RepoctlRegistrar locateCommand("locate", "locate REPO NAME",
                               "find a resource (locked, merging duplicates) and print its status",
                               &runLocate);
RepoctlRegistrar createCommand("create", "create REPO NAME",
                               "prepare the location of a new resource on a mount", &runCreate);
RepoctlRegistrar removeCommand("remove", "remove REPO NAME",
                               "remove a resource from every mount and the legacy directory",
                               &runRemove);
RepoctlRegistrar mountOutCommand("mount-out", "mount-out REPO INDEX",
                                 "take the mount at INDEX (0-based) out: it then tests as dead",
                                 &runMountOut);
RepoctlRegistrar mountInCommand("mount-in", "mount-in REPO INDEX",
                                "bring the mount at INDEX back in", &runMountIn);

}  // namespace
