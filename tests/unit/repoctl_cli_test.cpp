// repoctl's command line as a whole: the help lists every command and each has a long help,
// every exported operation of the library is reachable from a command, and usage errors end
// with status 2 after one line saying what is wrong and the usage line.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "RepoctlRun.h"
#include "TempTree.h"
#include "repohandler.h"

// The exported functions, by name.
#include "CSurfaceList.h"

namespace {

std::vector<std::string> commandNames() {
    const RepoctlRun run = runRepoctl({"help"});
    std::vector<std::string> names;
    std::istringstream lines(run.out);
    std::string line;
    bool inList = false;
    while (std::getline(lines, line)) {
        if (line == "commands:") {
            inList = true;
        } else if (inList && line.rfind("  ", 0) == 0) {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        } else if (inList) {
            break;
        }
    }
    return names;
}

std::string usageLine(const std::string& command) {
    const RepoctlRun run = runRepoctl({"help", command});
    return run.out.substr(0, run.out.find('\n'));
}

// The commands of this group of tests: they follow the shared option conventions.
const char* const kConventionalCommands[] = {
    "status", "hash",      "giveback",  "mount-out", "mount-in", "rnd-mount",       "setup",
    "list",   "empty",     "db-check",  "lock",      "unlock",   "dirty",           "locks",
    "locate", "create",    "locations", "remove",    "times",    "resource-status", "unage",
    "legacy", "mount-for", "mount-of",  "metrics",   "verify"};

}  // namespace

TEST(RepoctlCli, helpListsEveryCommandAndEachHasALongHelp) {
    const RepoctlRun list = runRepoctl({"help"});
    EXPECT_EQ(list.code, 0) << list.err;
    const std::vector<std::string> names = commandNames();
    ASSERT_GE(names.size(), std::size(kConventionalCommands)) << list.out;
    for (const std::string& name : names) {
        const RepoctlRun help = runRepoctl({"help", name});
        EXPECT_EQ(help.code, 0) << name;
        EXPECT_EQ(help.out.rfind("usage: repoctl " + name, 0), 0u) << help.out;
        const size_t lines = std::count(help.out.begin(), help.out.end(), '\n');
        EXPECT_GE(lines, 4u) << name << " has no long help:\n" << help.out;
        EXPECT_EQ(runRepoctl({name, "--help"}).out, help.out) << name;
    }
    const RepoctlRun unknown = runRepoctl({"help", "frobnicate"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(unknown.err,
              "repoctl help: unknown command \"frobnicate\"\nusage: repoctl help [COMMAND]\n");
    const RepoctlRun none = runRepoctl({});
    EXPECT_EQ(none.code, 2);
    EXPECT_EQ(none.err.rfind("repoctl: no command given\n", 0), 0u) << none.err;
}

TEST(RepoctlCli, everyExportedOperationIsReachableFromACommand) {
    // Which command reaches each exported function; the long help of the command names it.
    const std::map<std::string, std::string> reachedBy = {
        {"createDirectory_", "create"},
        {"createLocation_", "create"},
        {"getLocation_", "locate"},
        {"getLocations_", "locations"},
        {"getLocationOnMount_", "locate"},
        {"getRepositoryStatus_", "status"},
        {"checkResourceStatus_", "resource-status"},
        {"removeResource_", "remove"},
        {"removeResourceOnMount_", "remove"},
        {"listFiles_", "list"},
        {"listDirs_", "list"},
        {"createToLegacy_", "legacy"},
        {"makeEmpty_", "empty"},
        {"rndMount_", "rnd-mount"},
        {"MountUnmount_", "mount-out"},
        {"giveBackMounts_", "giveback"},
        {"getTimeProperties_", "times"},
        {"setTimeProperties_", "times"},
        {"lockResource_", "lock"},
        {"unlockResource_", "unlock"},
        {"isDirty_", "dirty"},
        {"setDirty_", "dirty"},
        {"getMountPathForDirectory_", "mount-for"},
        {"getMountFromPath_", "mount-of"},
        {"unAge_", "unage"},
        {"setup_", "setup"}};
    // The maintenance has commands of its own; their help need not name the C function.
    const std::map<std::string, std::string> maintenance = {{"checkOverload_", "check-overload"},
                                                            {"freeMount_", "free-mount"},
                                                            {"getDeletedDirs_", "check-overload"}};
    // Memory hand-back and path helpers are no operations on a repository: the hash helpers take
    // arbitrary roots, so a command over them could create and remove directories anywhere.
    const std::set<std::string> notOperations = {"releaseList_",
                                                 "release",
                                                 "release_",
                                                 "convertToHashed_",
                                                 "convertToHashed",
                                                 "createHashDirectory",
                                                 "removeHashDirectory",
                                                 "createHashDirectoryForFile",
                                                 "removeHashDirectoryForFile",
                                                 "normalize_file_name"};
    const std::vector<std::string> names = commandNames();
    const std::set<std::string> commands(names.begin(), names.end());
    std::vector<std::string> exported;
#define RH_NAME(name, type) exported.push_back(#name);
    RH_C_SURFACE(RH_NAME)
#undef RH_NAME
    for (const std::string& function : exported) {
        if (notOperations.count(function)) continue;
        if (maintenance.count(function)) {
            EXPECT_TRUE(commands.count(maintenance.at(function))) << function;
            continue;
        }
        ASSERT_TRUE(reachedBy.count(function)) << function << " is reached by no repoctl command";
        const std::string& command = reachedBy.at(function);
        ASSERT_TRUE(commands.count(command)) << command;
        EXPECT_NE(runRepoctl({"help", command}).out.find(function), std::string::npos)
            << "repoctl help " << command << " does not name " << function;
    }
}

TEST(RepoctlCli, usageErrorsExitTwoAfterOneLineSayingWhatIsWrong) {
    for (const char* command : kConventionalCommands) {
        const std::string usage = usageLine(command);
        ASSERT_EQ(usage.rfind("usage: repoctl ", 0), 0u) << command;
        RepoctlRun run = runRepoctl({command, "/tmp", "--no-such-option"});
        EXPECT_EQ(run.code, 2) << command;
        EXPECT_EQ(run.err, std::string("repoctl ") + command +
                               ": unknown option \"--no-such-option\"\n" + usage + "\n")
            << command;
        EXPECT_EQ(run.out, "") << command;
    }
    TempTree tree;
    const std::string repo = tree.mkdir("repo");
    const std::vector<std::vector<std::string>> wrong = {
        {"locks", repo, "--older-than", "5x"},
        {"locks", repo, "--older-than", "-5s"},
        {"locks", repo, "--remove"},
        {"locks", repo, "--older-than"},
        {"mount-out", repo, "first"},
        {"dirty", repo, "toggle", "x"},
        {"create", repo, "x", "--exclusive"},
        {"times", repo, "x", "--now", "--set-access", "5"},
        {"times", repo, "x", "--set-modified", "yesterday"},
        {"empty", repo},
        {"status"},
        {"locate", repo},
        {"metrics"}};
    for (const auto& arguments : wrong) {
        const RepoctlRun run = runRepoctl(arguments);
        EXPECT_EQ(run.code, 2) << arguments[0] << " " << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 2) << run.err;
        EXPECT_EQ(run.err.rfind("repoctl " + arguments[0] + ": ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find("\n" + usageLine(arguments[0]) + "\n"), std::string::npos)
            << run.err;
    }
    // Options may come before the positional arguments; "--" ends them.
    EXPECT_EQ(runRepoctl({"hash", "--json", "study1"}).code, 0);
    EXPECT_EQ(runRepoctl({"hash", "--", "--json"}).out, "1C/V1/8P/--json\n");
}
