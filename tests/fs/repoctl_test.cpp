#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "RepoctlRun.h"
#include "ScratchRepository.h"

namespace {

struct CommandResult {
    int code;
    std::string output;  // standard output, then standard error
};

// Runs repoctl with `arguments` split at spaces; '' stands for an empty argument.
CommandResult repoctl(const std::string& arguments) {
    std::vector<std::string> words;
    std::istringstream in(arguments);
    for (std::string word; in >> word;) words.push_back(word == "''" ? "" : word);
    const RepoctlRun run = runRepoctl(words);
    return {run.code, run.out + run.err};
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(RepoctlTest, statusShowsEveryMountWithItsFillLevelBitsAndFlags) {
    RH_REQUIRE_MOUNTS();
    ScratchRepository repo;
    repo.addTmpfsMount("p1", 100 * TmpfsMount::kBlockSize, 1000, {{"switchLimit", "50"}});
    repo.addTmpfsMount("p2", 100 * TmpfsMount::kBlockSize, 1000);
    repo.addMount("p3");
    repo.tmpfs(0)->fillBlocksTo(60);
    repo.tmpfs(1)->fillBlocksTo(99);
    repo.writeConfig({{"isShared", "false"}});
    ASSERT_EQ(unlink((repo.mountPath(2) + "/repositorypart.cfg").c_str()), 0);

    const CommandResult run = repoctl("status " + repo.path());
    EXPECT_EQ(run.code, 0) << run.output;
    EXPECT_TRUE(contains(run.output, "repository " + repo.path() + "\n")) << run.output;
    EXPECT_TRUE(contains(run.output, "status    144 (0x090) incomplete switch\n")) << run.output;
    EXPECT_TRUE(contains(run.output, "mount " + repo.mountPath(0) +
                                         "\n"
                                         "  used      60.00 %\n"
                                         "  limits    remind 80  warn 90  warn2 91  warn3 92  "
                                         "switch 50  full 94  clean 98  move 99  hardfull 99.9\n"
                                         "  status    0x010 switch\n"
                                         "  dedicated yes\n"
                                         "  dead      no\n"))
        << run.output;
    EXPECT_TRUE(
        contains(run.output, "  status    0x0ff remind warn warn2 warn3 switch full clean move\n"))
        << run.output;
    EXPECT_TRUE(contains(run.output, "mount " + repo.mountPath(2) +
                                         "\n"
                                         "  used      -\n"))
        << run.output;
    EXPECT_TRUE(contains(run.output,
                         "  status    0x100 dead\n"
                         "  dedicated no\n"
                         "  dead      yes\n"))
        << run.output;
}

TEST(RepoctlTest, statusShowsWhichNameTheServersLocksMeetUnder) {
    ScratchRepository byPath;
    byPath.writeConfig({{"isShared", "false"}});
    CommandResult run = repoctl("status " + byPath.path());
    EXPECT_EQ(run.code, 0) << run.output;
    EXPECT_TRUE(contains(
        run.output, "  locks     local through lock files, scope path \"" + byPath.path() + "\"\n"))
        << run.output;

    ScratchRepository byId;
    byId.writeConfig({{"repositoryId", "site-archive"}});
    run = repoctl("status " + byId.path());
    EXPECT_TRUE(contains(run.output,
                         "  locks     shared through the database, scope repositoryId "
                         "\"site-archive\"\n"))
        << run.output;
}

TEST(RepoctlTest, missingRepositoriesAndBadArgumentsFailWithAMessage) {
    CommandResult run = repoctl("status /nonexistent/repository");
    EXPECT_EQ(run.code, 1);
    EXPECT_TRUE(contains(run.output, "no repository directory \"/nonexistent/repository\""))
        << run.output;
    run = repoctl("status");
    EXPECT_EQ(run.code, 2);
    EXPECT_TRUE(contains(run.output, "usage: repoctl status REPO...")) << run.output;
    run = repoctl("frobnicate");
    EXPECT_EQ(run.code, 2);
    EXPECT_TRUE(contains(run.output, "unknown command \"frobnicate\"")) << run.output;
    EXPECT_EQ(repoctl("").code, 2);
}

TEST(RepoctlTest, hashPrintsTheHashedLocationOfEachSafeName) {
    CommandResult run = repoctl("hash study1 report-7");
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output, "SH/D_/Z4/study1\n8H/6A/4O/report-7\n");
    run = repoctl("hash study1 ../etc ''");
    EXPECT_EQ(run.code, 1);
    EXPECT_TRUE(contains(run.output, "SH/D_/Z4/study1\n")) << run.output;
    EXPECT_TRUE(contains(run.output, "\"../etc\" is not a resource name")) << run.output;
    EXPECT_TRUE(contains(run.output, "\"\" is not a resource name")) << run.output;
}

TEST(RepoctlTest, givebackRestoresTheMountsTakenOut) {
    ScratchRepository repo;
    repo.addMount("p1");
    repo.addMount("p2");
    repo.addMount("p3");
    repo.writeConfig({{"isShared", "false"}});
    for (int i : {0, 2}) {
        const std::string mount = repo.mountPath(i);
        ASSERT_EQ(
            rename((mount + "/repositorypart.cfg").c_str(), (mount + "/repositorypart.no").c_str()),
            0);
    }
    CommandResult run = repoctl("giveback " + repo.path());
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output, "gave back 2 mounts\n");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(access((repo.mountPath(i) + "/repositorypart.cfg").c_str(), F_OK), 0) << i;
    }
    run = repoctl("giveback /nonexistent/repository");
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(repoctl("giveback").code, 2);
}
