// Deleting resource trees: everything below the path goes, nothing a link points at does.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "ImmutableFlag.h"
#include "KSResourceDeleter.h"
#include "ScopedEnv.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace {

bool present(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool linkPresent(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

int remove(const std::string& path, const std::string& callback = "") {
    return deleteRes(path.c_str(), callback, "study1", "/repo");
}

TEST(ResourceDeleter, theWholeTreeGoesAndAMissingPathCountsAsDeleted) {
    TempTree tree;
    tree.write("m/study1/a", "alpha");
    tree.write("m/study1/sub/deeper/b", "beta");
    tree.mkdir("m/study1/empty");
    EXPECT_EQ(remove(tree.path("m/study1")), 0);
    EXPECT_FALSE(present(tree.path("m/study1")));
    EXPECT_TRUE(present(tree.path("m")));
    EXPECT_EQ(remove(tree.path("m/study1")), 0);
}

TEST(ResourceDeleter, linksAreRemovedButWhatTheyPointAtSurvives) {
    TempTree tree;
    const std::string outsideFile = tree.write("outside/keep/file", "precious");
    tree.write("m/study1/a", "alpha");
    symlink(tree.path("outside/keep").c_str(), tree.path("m/study1/dirlink").c_str());
    symlink(outsideFile.c_str(), tree.path("m/study1/filelink").c_str());
    symlink(tree.path("outside/keep").c_str(), tree.path("m/toplink").c_str());
    symlink(tree.path("outside/keep").c_str(), tree.path("m/slashlink").c_str());

    EXPECT_EQ(remove(tree.path("m/study1")), 0);
    EXPECT_EQ(remove(tree.path("m/toplink")), 0);
    EXPECT_EQ(remove(tree.path("m/slashlink") + "//"), 0) << "a trailing slash must not enter it";
    EXPECT_FALSE(linkPresent(tree.path("m/study1")));
    EXPECT_FALSE(linkPresent(tree.path("m/toplink")));
    EXPECT_FALSE(linkPresent(tree.path("m/slashlink")));
    EXPECT_EQ(TempTree::read(outsideFile), "precious");
}

TEST(ResourceDeleter, aCompletedDeletionIsReportedOnceToTheStudyCallback) {
    TempTree home;
    const std::string record = home.path("calls");
    const std::string script = home.write(
        "runjavacmd", "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\" >> '" + record + "'; done\n");
    chmod(script.c_str(), 0755);
    ScopedEnv taskd("TASKD_HOME", home.root().c_str());

    TempTree tree;
    tree.write("m/study1/a", "alpha");
    tree.write("m/study1/sub/b", "beta");
    EXPECT_EQ(remove(tree.path("m/study1"), "RepositoryStudyCallback"), 0);
    EXPECT_EQ(TempTree::read(record),
              "-f\n-c\n0 quorra.repohandler.RepositoryStudyCallback -r study1 -p /repo -f " +
                  tree.path("m/study1") + "\n");

    tree.write("m/study2/a", "alpha");
    EXPECT_EQ(remove(tree.path("m/study2")), 0);
    EXPECT_EQ(TempTree::read(record).find("study2"), std::string::npos) << "no callback set";
}

TEST(ResourceDeleter, anEntryThatCannotBeRemovedFailsTheDeletionWithoutCallback) {
    TempTree home;
    const std::string record = home.path("calls");
    const std::string script =
        home.write("runjavacmd", "#!/bin/sh\necho called >> '" + record + "'\n");
    chmod(script.c_str(), 0755);
    ScopedEnv taskd("TASKD_HOME", home.root().c_str());

    TempTree tree;
    const std::string stuck = tree.write("m/study1/sub/stuck", "x");
    ImmutableFlag frozen(stuck);
    ASSERT_TRUE(frozen.ok()) << "the file system cannot freeze a file";
    SyslogCapture log;
    EXPECT_EQ(remove(tree.path("m/study1"), "RepositoryStudyCallback"), 8);
    EXPECT_TRUE(log.findEqual("The resource \"" + stuck +
                              "\" could not be removed. Error code is 1 - Operation not permitted")
                    .has_value());
    EXPECT_TRUE(present(stuck));
    EXPECT_EQ(TempTree::read(record), "<missing>");
}

TEST(ResourceDeleter, aPathWhoseTypeCannotBeReadFails) {
    TempTree tree;
    const std::string file = tree.write("file", "x");
    EXPECT_EQ(remove(file + "/below"), 8);
    EXPECT_EQ(deleteRes(nullptr, "", "s", "r"), 8);
    EXPECT_EQ(TempTree::read(file), "x");
}

}  // namespace
