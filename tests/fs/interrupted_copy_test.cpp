// Copies killed half-way: a legacy take-over, a move and a merging lookup whose process dies in
// the middle of "cp -rp". The kill is injected by a cp that runs the real one, cuts the last
// file of what it copied short and SIGKILLs the process that ran it, so the moment is exact.
// What the next process sees must be the complete resource, never the half copy.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "repohandler.h"

namespace {

const ScratchRepository::Keys kRoomy = {{"switchLimit", "100"},
                                        {"fullLimit", "100"},
                                        {"cleanLimit", "100"},
                                        {"moveLimit", "100"},
                                        {"hardFullLimit", "100"}};

class InterruptedCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        repo_.addMount("p1", kRoomy);
        repo_.addMount("p2", kRoomy);
        repo_.writeConfig({{"isShared", "false"}, {"legacyDir", legacyDir_}});
        const std::string cp = tools_.path("cp");
        std::ofstream(cp) << "#!/bin/sh\n"
                             "/bin/cp \"$@\" || exit $?\n"
                             "for target; do :; done\n"
                             "victim=$(find \"$target\" -type f | sort | tail -n 1)\n"
                             "[ -z \"$victim\" ] || truncate -s 1 \"$victim\"\n"
                             "kill -KILL \"$RH_TEST_KILL_PID\"\n"
                             "sleep 5\n";
        chmod(cp.c_str(), 0755);
    }

    // Runs `work` in a child whose first cp is killed half-way; true when it died that way.
    bool killedDuringCopy(const std::function<void()>& work) {
        const std::string path = tools_.root() + ":" + getenv("PATH");
        const int code = runInChild([&] {
            setenv("PATH", path.c_str(), 1);
            setenv("RH_TEST_KILL_PID", std::to_string(getpid()).c_str(), 1);
            work();
            return 0;
        });
        // The killed process leaves its lock files; an operator clears them before a restart.
        for (const std::string& entry : entriesOf(locks_.root()))
            unlink((locks_.root() + "/" + entry).c_str());
        return code == 128 + SIGKILL;
    }

    // A study of two files; "b" sorts last, so it is the file the kill cuts short.
    std::string putStudy(const std::string& place) {
        mkdirs(place.c_str(), 0755);
        std::ofstream(place + "/a") << std::string(4096, 'a');
        std::ofstream(place + "/b") << std::string(8192, 'b');
        return place;
    }
    static bool isCompleteStudy(const std::string& location) {
        return readFile(location + "/a") == std::string(4096, 'a') &&
               readFile(location + "/b") == std::string(8192, 'b');
    }

    // The lookup of a restarted server.
    int lookup(const std::string& resource, std::string* found) {
        int status = -1;
        char* location = getLocation_(repo_.path().c_str(), resource.c_str(), &status, false, true,
                                      false, false, nullptr);
        *found = location != nullptr ? location : "";
        release(location);
        return status;
    }
    std::string at(size_t mount, const std::string& name) const {
        return resourceLocation(repo_.mountPath(mount), name.c_str());
    }
    bool isDirty(const std::string& name) {
        return isDirty_(repo_.path().c_str(), name.c_str(), nullptr) != 0;
    }

    TempTree locks_, legacy_, tools_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScopedEnv varEnv_{"VAR", locks_.root().c_str()};
    std::string legacyDir_ = legacy_.mkdir("legacy");
    ScratchRepository repo_;
};

}  // namespace

TEST_F(InterruptedCopy, aTakeOverKilledDuringItsCopyIsTakenOverAfreshByTheNextLookup) {
    putStudy(legacyDir_ + "/study1");
    ASSERT_TRUE(killedDuringCopy([&] {
        int status = 0;
        release(getLocation_(repo_.path().c_str(), "study1", &status, false, true, false, false,
                             nullptr));
    }));
    EXPECT_FALSE(entryExists(at(0, "study1"))) << "no half copy at the location";
    EXPECT_TRUE(entryExists(partialCopyPath(at(0, "study1")))) << "the staged copy stays";
    EXPECT_TRUE(isCompleteStudy(legacyDir_ + "/study1"));

    std::string found;
    EXPECT_EQ(0, lookup("study1", &found));
    EXPECT_EQ(at(0, "study1"), found);
    EXPECT_TRUE(isCompleteStudy(found));
    EXPECT_FALSE(entryExists(legacyDir_ + "/study1"));
    EXPECT_FALSE(entryExists(partialCopyPath(at(0, "study1"))));
}

TEST_F(InterruptedCopy, aMoveKilledDuringItsCopyLeavesTheOriginWhichTheNextLookupServes) {
    const std::string origin = putStudy(at(0, "study1"));
    ASSERT_TRUE(killedDuringCopy(
        [&] { freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr); }));
    EXPECT_TRUE(isDirty("study1")) << "marked before the copy started";
    EXPECT_FALSE(entryExists(at(1, "study1"))) << "no half copy at the destination";

    std::string found;
    EXPECT_EQ(0, lookup("study1", &found)) << "no conflict with a half copy";
    EXPECT_EQ(origin, found);
    EXPECT_TRUE(isCompleteStudy(found));
    EXPECT_FALSE(isDirty("study1"));
    EXPECT_FALSE(entryExists(partialCopyPath(at(1, "study1")))) << "removed by the lookup";
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(1)).empty()) << "and its hash levels";

    // The move done again completes.
    EXPECT_EQ(0, freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr));
    EXPECT_EQ(0, lookup("study1", &found));
    EXPECT_EQ(at(1, "study1"), found);
    EXPECT_TRUE(isCompleteStudy(found));
}

TEST_F(InterruptedCopy, aMergeKilledWhileCopyingAMissingFileIsCompletedByTheNextLookup) {
    putStudy(at(0, "study1"));
    putStudy(at(1, "study1"));
    unlink((at(1, "study1") + "/b").c_str());  // the second copy lacks a file
    setDirty_(repo_.path().c_str(), "study1", true, nullptr);
    ASSERT_TRUE(killedDuringCopy([&] {
        int status = 0;
        release(getLocation_(repo_.path().c_str(), "study1", &status, false, true, false, false,
                             nullptr));
    }));
    EXPECT_FALSE(entryExists(at(1, "study1") + "/b")) << "no half file in the destination";

    std::string found;
    EXPECT_EQ(0, lookup("study1", &found)) << "no conflict with a half file";
    EXPECT_EQ(at(1, "study1"), found);
    EXPECT_TRUE(isCompleteStudy(found));
    EXPECT_EQ(2u, entriesOf(found).size()) << "nothing staged is left inside the resource";
    EXPECT_FALSE(entryExists(at(0, "study1")));
    EXPECT_FALSE(entryExists(partialCopyPath(at(1, "study1"))));
    EXPECT_FALSE(isDirty("study1"));
}

// A staged copy is no resource: it is not listed, not moved, not taken for a resource name, and
// the move pass removes one that nobody is copying.
TEST_F(InterruptedCopy, aStagedCopyIsNeverTakenForAResourceAndTheMovePassRemovesItsLeftover) {
    // p1 moves everything older than a day, were it a resource.
    repo_.writeConfig({{"isShared", "false"}, {"moveTime", "1"}});
    ScratchRepository::writeProperties(
        repo_.mountPath(0) + "/repositorypart.cfg",
        {{"switchLimit", "1"}, {"fullLimit", "100"}, {"cleanLimit", "0"}, {"moveLimit", "0"}});
    const std::string staged = partialCopyPath(at(0, "study1"));
    EXPECT_EQ(at(0, "study1").substr(0, at(0, "study1").rfind('/')) + "/.rh-partial.study1",
              staged);
    EXPECT_TRUE(isPartialCopy(staged));
    EXPECT_FALSE(isPartialCopy(at(0, "study1")));
    EXPECT_EQ("study1", resourceOfPartialCopy(".rh-partial.study1"));
    const std::string longName(300, 'x');
    const std::string shortened = partialCopyName(longName);
    EXPECT_EQ(255u, shortened.size());
    EXPECT_TRUE(isPartialCopy(shortened));
    EXPECT_NE(shortened, partialCopyName(std::string(299, 'x') + "y")) << "the hash keeps apart";
    EXPECT_EQ("", resourceOfPartialCopy(shortened));
    EXPECT_FALSE(isSafeResourceName(".rh-partial.study1"));

    putStudy(staged);
    long count = -1;
    char** names =
        getRepository(nullptr, repo_.path().c_str(), true)->listResources(1, &count, false);
    EXPECT_EQ(0, count);
    for (long i = 0; names != nullptr && names[i] != nullptr; ++i) delete[] names[i];
    delete[] names;

    setTimes(staged + "/a", time(nullptr) - 400 * 86400);
    setTimes(staged, time(nullptr) - 400 * 86400);
    checkOverload_(repo_.path().c_str(), false, false, nullptr);
    EXPECT_FALSE(entryExists(staged)) << "removed under the resource's lock";
    EXPECT_FALSE(entryExists(at(1, "study1"))) << "never moved as a resource";
    EXPECT_FALSE(entryExists(partialCopyPath(at(1, "study1"))));
}
