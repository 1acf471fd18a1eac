// The verifier class behind repoctl verify, used directly: the recogniser of copies staged by a
// move plugs in through one function, and the comparison of two copies tells every kind of
// difference.

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "ClockControl.h"
#include "CopyComparison.h"
#include "KSClock.h"
#include "KSRepositoryHandler.h"
#include "RepositoryVerifier.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "repohandler.h"

namespace {

std::vector<VerifyFinding> verifyWith(const ScratchRepository& repo,
                                      const RepositoryVerifier::Options& options) {
    std::shared_ptr<KSRepositoryHandler> handler =
        getRepository(nullptr, repo.path().c_str(), true);
    RepositoryVerifier verifier(*handler, options);
    verifier.run();
    return verifier.findings();
}

}  // namespace

TEST(RepositoryVerifier, aCopyStagedByAnUnfinishedMoveIsAPartialCopyOnceItsNameIsRecognised) {
    TempTree locks;
    ScopedEnv lockVar("LOCK_VAR", locks.root().c_str());
    ScratchRepository repo;
    repo.addMount("p1");
    repo.addMount("p2");
    repo.writeConfig({{"isShared", "false"}});
    const std::string location = putResource(repo.mountPath(0), "study");
    // Beside the resource's location on the target, under a name of the mover's choosing.
    const std::string staged = resourceLocation(repo.mountPath(1), "study") + ".staged";
    mkdirs(staged.c_str(), 0755);

    std::vector<VerifyFinding> found = verifyWith(repo, {});
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].kind, VerifyKind::kMisplaced) << "without a recogniser it is a stray name";

    RepositoryVerifier::Options options;
    options.stagedCopy = [](const std::string& entry, std::string* resource) {
        const std::string suffix = ".staged";
        if (entry.size() <= suffix.size() ||
            entry.compare(entry.size() - suffix.size(), suffix.size(), suffix) != 0)
            return false;
        *resource = entry.substr(0, entry.size() - suffix.size());
        return true;
    };
    {
        // While the move holds the resource's lock, its staged copy is work in progress.
        ClockGuard clock;
        KSClock::setVirtualSleepForTesting(true);
        ASSERT_EQ(lockResource_(repo.path().c_str(), "study", nullptr), 1);
        EXPECT_EQ(verifyWith(repo, options).size(), 0u);
        ASSERT_EQ(unlockResource_(repo.path().c_str(), "study", nullptr), 1);
    }
    options.repair = true;
    found = verifyWith(repo, options);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].kind, VerifyKind::kPartialCopy);
    EXPECT_EQ(found[0].name, "study");
    EXPECT_EQ(found[0].path, staged);
    EXPECT_FALSE(found[0].repair.done) << "a staged copy is the operator's";
    EXPECT_TRUE(entryExists(staged));
    EXPECT_TRUE(entryExists(location + "/f"));
}

TEST(RepositoryVerifier,
     copiesDifferInEntriesTypesBytesAndLinkTextsButNotInTimesAndConflictOnlyInCommonEntries) {
    TempTree tree;
    auto copies = [&](const std::string& name) {
        tree.write(name + "/a/f", "same");
        tree.write(name + "/g", "content");
        EXPECT_EQ(symlink("target", tree.path(name + "/l").c_str()), 0);
        return tree.path(name);
    };
    const std::string one = copies("one");
    const std::string two = copies("two");
    setTimes(two + "/g", 1000);
    EXPECT_EQ(firstDifference(one, two), "");

    tree.write("two/g", "contenT");
    EXPECT_EQ(firstDifference(one, two), "content differs: g");
    tree.write("two/g", "content and more");
    EXPECT_EQ(firstDifference(one, two), "size differs: g");
    tree.write("two/g", "content");

    ASSERT_EQ(unlink((two + "/l").c_str()), 0);
    ASSERT_EQ(symlink("elsewhere", (two + "/l").c_str()), 0);
    EXPECT_EQ(firstDifference(one, two), "link differs: l");
    ASSERT_EQ(unlink((two + "/l").c_str()), 0);
    tree.write("two/l", "target");
    EXPECT_EQ(firstDifference(one, two), "type differs: l");
    ASSERT_EQ(unlink((two + "/l").c_str()), 0);
    EXPECT_EQ(firstDifference(one, two), "only in " + one + ": l");
    ASSERT_EQ(symlink("target", (two + "/l").c_str()), 0);
    tree.write("two/a/extra", "");
    EXPECT_EQ(firstDifference(two, one), "only in " + two + ": a/extra");
    EXPECT_EQ(firstConflict(two, one), "") << "what one copy lacks, a merge copies over";
    tree.write("two/a/f", "Same");
    EXPECT_EQ(firstConflict(one, two), "content differs: a/f");
}
