// Moving a resource tree with the real cp, diff and rm: the origin goes only after a verified
// copy, and no failure ever loses the only copy.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "ImmutableFlag.h"
#include "KSAssertionException.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSResourceMover.h"
#include "ScopedEnv.h"
#include "ShellCommand.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace {

bool present(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

int move(const std::string& origin, const std::string& destination, KSMoveFunction copy = nullptr,
         const char* params = nullptr, const char* callback = "") {
    return moveRes(nullptr, origin.c_str(), destination.c_str(), copy, params, callback, "study1",
                   "/repo", false);
}

// A runjavacmd under a fresh TASKD_HOME that appends each argument on a line of its own.
class CallbackRecorder {
  public:
    CallbackRecorder() : record_(tree_.path("calls")), home_("TASKD_HOME", tree_.root().c_str()) {
        const std::string script =
            tree_.write("runjavacmd",
                        "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\" >> '" + record_ + "'; done\n");
        chmod(script.c_str(), 0755);
    }
    std::string calls() const { return TempTree::read(record_); }

  private:
    TempTree tree_;
    std::string record_;
    ScopedEnv home_;
};

TEST(ResourceMover, aFreshDestinationReceivesTheTreeAndTheOriginGoes) {
    TempTree tree;
    tree.write("m1/AB/CD/EF/study1/a", "alpha");
    tree.write("m1/AB/CD/EF/study1/sub/b", "beta");
    const std::string origin = tree.path("m1/AB/CD/EF/study1");
    struct utimbuf old = {1000000, 2000000};
    utime(origin.c_str(), &old);
    const std::string destination = tree.path("m2/AB/CD/EF/study1");

    EXPECT_EQ(move(origin, destination), 0);
    EXPECT_FALSE(present(origin));
    EXPECT_EQ(TempTree::read(destination + "/a"), "alpha");
    EXPECT_EQ(TempTree::read(destination + "/sub/b"), "beta");
    struct stat st;
    ASSERT_EQ(stat(destination.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 2000000) << "the resource keeps its age";
}

TEST(ResourceMover, anIdenticalDestinationCountsAsMovedAndTheOriginGoes) {
    TempTree tree;
    for (const char* mount : {"m1", "m2"}) {
        tree.write(std::string(mount) + "/study1/a", "same");
        tree.write(std::string(mount) + "/study1/sub/b", "also same");
    }
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("m2/study1")), 0);
    EXPECT_FALSE(present(tree.path("m1/study1")));
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/sub/b")), "also same");
}

TEST(ResourceMover, aDestinationThatIsTheOriginItselfLeavesEverythingInPlace) {
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    tree.write("m1/study1/sub/b", "beta");
    symlink(tree.path("m1").c_str(), tree.path("alias").c_str());  // one mount listed twice
    SyslogCapture log;
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("alias/study1")), 0);
    EXPECT_EQ(TempTree::read(tree.path("m1/study1/a")), "alpha");
    EXPECT_EQ(TempTree::read(tree.path("m1/study1/sub/b")), "beta");
    EXPECT_EQ(log.countContaining("are the same directory"), 1);
}

TEST(ResourceMover, aLinkInsideTheResourceIsMovedAsALinkAndItsTargetIsNeverEntered) {
    TempTree tree;
    const std::string outside = tree.write("outside/f", "precious");
    tree.write("m1/study1/a", "alpha");
    tree.write("m2/study1/a", "alpha");  // an interrupted move copied the link already
    symlink(tree.path("outside").c_str(), tree.path("m1/study1/shared").c_str());
    symlink(tree.path("outside").c_str(), tree.path("m2/study1/shared").c_str());
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("m2/study1")), 0);
    EXPECT_FALSE(present(tree.path("m1/study1")));
    EXPECT_EQ(TempTree::read(outside), "precious");
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/shared/f")), "precious");
}

TEST(ResourceMover, aPartialDestinationIsCompletedFromTheOrigin) {
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    tree.write("m1/study1/b", "beta");
    tree.write("m1/study1/sub/c", "gamma");
    tree.write("m2/study1/a", "alpha");  // left by an interrupted move
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("m2/study1")), 0);
    EXPECT_FALSE(present(tree.path("m1/study1")));
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/a")), "alpha");
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/b")), "beta");
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/sub/c")), "gamma");
}

TEST(ResourceMover, aDifferingFileStopsTheMoveWithAConflictAndEarlierEntriesStayMoved) {
    TempTree tree;
    for (const char* name : {"f1", "f2", "f3", "f4", "f5", "f6"}) {
        tree.write(std::string("m1/study1/") + name, name);
    }
    const std::string origin = tree.path("m1/study1");
    std::list<std::string> listed;
    listDir(origin.c_str(), &listed, true, false);  // the order in which the move visits them
    const std::vector<std::string> order(listed.begin(), listed.end());
    const std::string differing = order[3];  // three entries are moved before it
    tree.write("m2/study1/" + differing, "another version");
    SyslogCapture log;

    EXPECT_EQ(move(origin, tree.path("m2/study1")), 2);
    for (size_t i = 0; i < order.size(); ++i) {
        if (i == 3) continue;
        EXPECT_EQ(present(origin + "/" + order[i]), i > 3) << order[i];
        EXPECT_EQ(TempTree::read(tree.path("m2/study1/" + order[i])),
                  i < 3 ? order[i] : "<missing>");
    }
    EXPECT_EQ(TempTree::read(origin + "/" + differing), differing);
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/" + differing)), "another version");
    EXPECT_TRUE(log.findEqual("The resource \"" + origin + "/" + differing +
                              "\" conflicts with \"" + tree.path("m2/study1/" + differing) + "\".")
                    .has_value());
}

TEST(ResourceMover, aDestinationParentThatCannotBeCreatedLeavesTheOriginIntact) {
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    tree.write("m2/blocker", "a file where a directory should be");
    SyslogCapture log;
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("m2/blocker/EF/study1")), -1);
    EXPECT_EQ(TempTree::read(tree.path("m1/study1/a")), "alpha");
    EXPECT_TRUE(log.findContaining("could not be renamed to").has_value());
}

TEST(ResourceMover, aCopyThatFailsLeavesTheOriginIntactAndNoCopyBehind) {
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    const std::string parent = tree.mkdir("m2/AB");
    ImmutableFlag frozen(parent);  // cp cannot create anything in it
    ASSERT_TRUE(frozen.ok()) << "the file system cannot freeze a directory";
    const int result = move(tree.path("m1/study1"), parent + "/study1");
    EXPECT_NE(result, 0);
    EXPECT_EQ(TempTree::read(tree.path("m1/study1/a")), "alpha");
    EXPECT_FALSE(present(parent + "/study1"));
}

TEST(ResourceMover, anOriginThatCannotBeRemovedAfterItsEntriesMovedGivesFailure) {
    TempTree tree;
    tree.write("m1/hash/study1/a", "alpha");
    tree.mkdir("m2/study1");
    ImmutableFlag frozen(tree.path("m1/hash"));
    ASSERT_TRUE(frozen.ok()) << "the file system cannot freeze a directory";
    SyslogCapture log;
    EXPECT_EQ(move(tree.path("m1/hash/study1"), tree.path("m2/study1")), 8);
    EXPECT_EQ(TempTree::read(tree.path("m2/study1/a")), "alpha");
    EXPECT_TRUE(log.findEqual("The directory \"" + tree.path("m1/hash/study1") +
                              "\" could not be removed. Error code is 1 - Operation not permitted")
                    .has_value());
}

TEST(ResourceMover, aPathWithASingleQuoteIsRefusedAndTheOriginStays) {
    TempTree tree;
    tree.write("m1/it's/a", "alpha");
    SyslogCapture log;
    const int result = move(tree.path("m1/it's"), tree.path("m2/x/it's"));
    EXPECT_EQ(result, ShellCommand::kRefusedStatus);
    EXPECT_EQ(TempTree::read(tree.path("m1/it's/a")), "alpha");
    EXPECT_FALSE(present(tree.path("m2/x/it's")));
    EXPECT_TRUE(log.findContaining("Command refused").has_value());
}

TEST(ResourceMover, aMissingOriginOrANullPathIsAnAssertion) {
    TempTree tree;
    try {
        move(tree.path("m1/gone"), tree.path("m2/gone"));
        FAIL() << "no exception";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getExpression(), "access( origin, F_OK ) == 0");
    }
    EXPECT_FALSE(present(tree.path("m2")));
    tree.write("m1/study1/a", "alpha");
    EXPECT_THROW(moveRes(nullptr, tree.path("m1/study1").c_str(), nullptr, nullptr, nullptr, "",
                         "study1", "/repo", false),
                 KSAssertionException);
    EXPECT_THROW(mountRename(nullptr, tree.path("m2/study1").c_str(), nullptr, nullptr),
                 KSAssertionException);
    EXPECT_EQ(TempTree::read(tree.path("m1/study1/a")), "alpha");
}

std::vector<std::string> pluginCalls;
int pluginResult = 0;

int recordingPlugin(const char* origin, const char* destination, const char* params) {
    pluginCalls.push_back(std::string(origin) + "|" + destination + "|" + params);
    return pluginResult;
}

TEST(ResourceMover, aMountPluginTakesThePlaceOfCpAndItsResultIsReturned) {
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    const std::string origin = tree.path("m1/study1");
    const std::string destination = tree.path("m2/AB/study1");
    pluginCalls.clear();
    pluginResult = 5;
    EXPECT_EQ(move(origin, destination, recordingPlugin, "speed=1"), 5);
    ASSERT_EQ(pluginCalls.size(), 1u);
    EXPECT_EQ(pluginCalls[0], origin + "|" + destination + "|speed=1");
    EXPECT_TRUE(present(tree.path("m2/AB"))) << "the parent is prepared for the plug-in";
    EXPECT_FALSE(present(destination)) << "cp was not run";
    EXPECT_TRUE(present(origin));
}

void ageTree(const TempTree& tree, const std::vector<std::string>& dirs, time_t when) {
    struct utimbuf old = {when, when};
    for (const std::string& dir : dirs) utime(tree.path(dir).c_str(), &old);
}

time_t modified(const std::string& path) {
    struct stat st = {};
    stat(path.c_str(), &st);
    return st.st_mtime;
}

TEST(ResourceMover, aMergedMoveRenewsTheHashLevelsOfBothMountsWhenTheRepositoryCountsSizes) {
    for (const bool countSize : {true, false}) {
        TempTree tree;
        tree.write("repo/repository.cfg", countSize ? "countSize=true\n" : "countSize=false\n");
        KSRepositoryHandler repository(nullptr, tree.path("repo").c_str());
        ASSERT_EQ(repository.settings().countSize, countSize);
        tree.write("m1/AB/CD/EF/study1/a", "alpha");
        tree.mkdir("m2/AB/CD/EF/study1");
        const time_t old = time(nullptr) - 5 * 86400;
        ageTree(tree, {"m1/AB", "m1/AB/CD", "m2/AB", "m2/AB/CD", "m2/AB/CD/EF"}, old);

        EXPECT_EQ(moveRes(&repository, tree.path("m1/AB/CD/EF/study1").c_str(),
                          tree.path("m2/AB/CD/EF/study1").c_str(), nullptr, nullptr, "", "study1",
                          "/repo", false),
                  0);
        EXPECT_EQ(modified(tree.path("m1/AB/CD")) > old, countSize);
        // Not the level holding the resource: the merge stages its copies there, which
        // changes its time whatever the setting.
        EXPECT_EQ(modified(tree.path("m2/AB/CD")) > old, countSize);
        EXPECT_EQ(modified(tree.path("m2/AB")) > old, countSize);
    }
}

TEST(ResourceMover, aCompletedMoveIsReportedOnceToTheStudyCallback) {
    CallbackRecorder recorder;
    TempTree tree;
    tree.write("m1/study1/a", "alpha");
    tree.write("m1/study1/sub/b", "beta");
    tree.write("m2/study1/a", "alpha");  // merge path: entries are moved one by one
    EXPECT_EQ(move(tree.path("m1/study1"), tree.path("m2/study1"), nullptr, nullptr,
                   "RepositoryStudyCallback"),
              0);
    EXPECT_EQ(recorder.calls(),
              "-f\n-c\n0 quorra.repohandler.RepositoryStudyCallback -r study1 "
              "-p /repo -t " +
                  tree.path("m2/study1") + " -f " + tree.path("m1/study1") + "\n");
}

TEST(ResourceMover, moveCallbackLeavesOutMissingPathsAndRefusesNamesThatLeaveTheQuotes) {
    CallbackRecorder recorder;
    SyslogCapture log;
    moveCallback("RepositoryStudyCallback", nullptr, "s1", "/repo", "/m/AB/CD/EF/s1");
    EXPECT_EQ(recorder.calls(),
              "-f\n-c\n0 quorra.repohandler.RepositoryStudyCallback -r s1 -p /repo -f "
              "/m/AB/CD/EF/s1\n");
    EXPECT_TRUE(log.findEqual("MoveCallback function RepositoryStudyCallback called with target: "
                              "(null) and resource: s1 and repo: /repo and from: /m/AB/CD/EF/s1")
                    .has_value());

    moveCallback("RepositoryStudyCallback", "/m/$(touch PWNED)", "s1", "/repo", nullptr);
    EXPECT_EQ(recorder.calls().find("PWNED"), std::string::npos);
}

}  // namespace
