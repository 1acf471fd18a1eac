// Creation, mount choice, removal and time properties on real tmpfs mounts, and the refusal
// of names that would reach outside a resource's own directory.

#include <gtest/gtest.h>
#include <utime.h>

#include <memory>
#include <string>

#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr unsigned long long kMountBytes = 256 * 4096;

class PlacementCreateRemove : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    void makeRepository(const ScratchRepository::Keys& partKeys = {},
                        ScratchRepository::Keys keys = {}) {
        for (const char* name : {"p1", "p2", "p3"})
            repo_.addTmpfsMount(name, kMountBytes, 1000, partKeys);
        keys.emplace_back("isShared", "false");
        keys.emplace_back("remindLimit", "0");
        repo_.writeConfig(keys);
    }
    std::shared_ptr<KSRepositoryHandler> handler() {
        return getRepository(nullptr, repo_.path().c_str(), true);
    }
    // createLocation_; the path or "" for null.
    std::string create(const std::string& name, int* status, int* existed, bool noDirty = false) {
        char* made =
            createLocation_(repo_.path().c_str(), name.c_str(), status, existed, noDirty, nullptr);
        std::string result = made ? made : "";
        release(made);
        return result;
    }
    bool dirty(const std::string& name) {
        return handler()->dirtyFlags().isDirty(nullptr, name.c_str(), false);
    }

    TempTree locks_;
    ScopedEnv lockVar_{"LOCK_VAR", locks_.root().c_str()};
    ScratchRepository repo_;
};

TEST_F(PlacementCreateRemove, NewResourcesGoToTheFirstMountBelowItsSwitchLimit) {
    makeRepository({{"switchLimit", "80"}});
    repo_.tmpfs(0)->fillBlocksTo(85);
    repo_.tmpfs(1)->fillBlocksTo(50);
    repo_.tmpfs(2)->fillBlocksTo(10);

    int status = -1, existed = -1;
    const std::string location = create("study1", &status, &existed);
    EXPECT_EQ(location, repo_.mountPath(1) + "/SH/D_/Z4/study1") << "first below, not least used";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(existed, 0);
    EXPECT_TRUE(entryExists(repo_.mountPath(1) + "/SH/D_/Z4"));
    EXPECT_FALSE(entryExists(location)) << "the caller creates the resource directory itself";
}

TEST_F(PlacementCreateRemove, PastEverySwitchLimitNewResourcesGoToTheLeastUsedMount) {
    makeRepository({{"switchLimit", "5"}, {"fullLimit", "97"}, {"cleanLimit", "98"}});
    repo_.tmpfs(0)->fillBlocksTo(50);
    repo_.tmpfs(1)->fillBlocksTo(10);
    repo_.tmpfs(2)->fillBlocksTo(95);

    int status = -1, existed = -1;
    EXPECT_EQ(create("study1", &status, &existed), resourceLocation(repo_.mountPath(1), "study1"));
}

TEST_F(PlacementCreateRemove, AnExistingResourceIsReturnedWithExistedAndNothingIsCreated) {
    makeRepository();
    const std::string second = putResource(repo_.mountPath(1), "study1");

    int status = -1, existed = -1;
    EXPECT_EQ(create("/study1", &status, &existed), second);
    EXPECT_EQ(existed, 1);
    char* made = createDirectory_(repo_.path().c_str(), "study1", &status, &existed, false, false,
                                  true, nullptr);
    EXPECT_EQ(made, nullptr) << "exclusive creation refuses an existing resource";
    EXPECT_EQ(status, 8);
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());

    made = createDirectory_(repo_.path().c_str(), "study2", &status, &existed, false, false, true,
                            nullptr);
    EXPECT_EQ(made ? std::string(made) : "", resourceLocation(repo_.mountPath(0), "study2"));
    EXPECT_EQ(existed, 0);
    EXPECT_TRUE(entryExists(resourceLocation(repo_.mountPath(0), "study2")));
    release(made);
}

TEST_F(PlacementCreateRemove, NewResourcesAreDirtyWhileAMountIsDeadUnlessNoDirty) {
    makeRepository();
    ASSERT_EQ(MountUnmount_(repo_.path().c_str(), 1, false, nullptr), 0);

    int status = -1, existed = -1;
    // A leading slash is dropped: the resource is s1, and s1 is marked dirty.
    EXPECT_EQ(create("/s1", &status, &existed), resourceLocation(repo_.mountPath(0), "s1"));
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(dirty("s1"));

    EXPECT_NE(create("s2", &status, &existed, true), "");
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(dirty("s2"));
}

TEST_F(PlacementCreateRemove, ResourceOnTwoMountsIsRemovedFromBothWithoutEmptyHashLevels) {
    makeRepository();
    putResource(repo_.mountPath(0), "study1");
    putResource(repo_.mountPath(2), "study1");
    SyslogCapture log;
    EXPECT_EQ(removeResourceOnMount_(repo_.path().c_str(), "study1", nullptr, true, false, nullptr),
              8);
    EXPECT_TRUE(log.findContaining("mountName is NULL for repository: " + repo_.path()));

    EXPECT_EQ(removeResource_(repo_.path().c_str(), "study1", true, false, nullptr), 0);
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(2)).empty());
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "study1", true, false, nullptr), 4);
}

TEST_F(PlacementCreateRemove, DirtyResourceIsNotRemovedWhileAMountIsDead) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1");
    handler()->dirtyFlags().setDirty(nullptr, "study1", true);
    ASSERT_EQ(MountUnmount_(repo_.path().c_str(), 2, false, nullptr), 0);

    EXPECT_EQ(removeResource_(repo_.path().c_str(), "study1", true, false, nullptr), 1);
    EXPECT_TRUE(entryExists(first + "/f"));
}

TEST_F(PlacementCreateRemove, TimePropertiesAreReadAndSetOnlyForPresentResources) {
    makeRepository();
    struct utimbuf times {
        111, 222
    };
    EXPECT_EQ(getTimeProperties_(repo_.path().c_str(), "absent", &times, nullptr), 0);
    EXPECT_EQ(times.actime, 111);
    EXPECT_EQ(times.modtime, 222);
    EXPECT_FALSE(setTimeProperties_(repo_.path().c_str(), "absent", &times, nullptr));

    const std::string location = putResource(repo_.mountPath(1), "study1");
    struct utimbuf wanted {
        5000, 6000
    };
    EXPECT_TRUE(setTimeProperties_(repo_.path().c_str(), "study1", &wanted, nullptr));
    EXPECT_EQ(getTimeProperties_(repo_.path().c_str(), "study1", &times, nullptr), 1);
    EXPECT_EQ(times.actime, 5000);
    EXPECT_EQ(times.modtime, 6000);
}

TEST_F(PlacementCreateRemove, NamesLeavingTheResourceDirectoryAreRefusedAndTouchNothing) {
    makeRepository({}, {{"legacyDir", locks_.root()}});
    const std::string victim = repo_.path() + "/victim";
    mkdirs(victim.c_str(), 0755);
    const std::string mountFile = repo_.mountPath(0) + "/repositorypart.cfg";
    for (const char* name : {"..", ".", "", "a/../b", "/..", "../victim"}) {
        SCOPED_TRACE(std::string("name: '") + name + "'");
        SyslogCapture log;
        int status = -1;
        EXPECT_EQ(
            getLocation_(repo_.path().c_str(), name, &status, true, true, true, false, nullptr),
            nullptr);
        EXPECT_EQ(status, 8);
        EXPECT_EQ(removeResource_(repo_.path().c_str(), name, true, true, nullptr), 8);
        EXPECT_EQ(removeResourceOnMount_(repo_.path().c_str(), name, "p1", true, true, nullptr), 8);
        EXPECT_EQ(checkResourceStatus_(repo_.path().c_str(), name, nullptr), 8);
        EXPECT_EQ(createToLegacy_(repo_.path().c_str(), name, nullptr), -1);
        EXPECT_TRUE(log.findContaining("refusing the resource name"));
        int existed = -1;
        EXPECT_THROW(create(name, &status, &existed), KSAssertionException);
    }
    int status = -1, existed = -1;
    try {
        create("a/b", &status, &existed);
        ADD_FAILURE() << "a name with a slash was accepted";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getExpression(), "subDirectory.find( '/' ) == string::npos");
    }
    EXPECT_TRUE(entryExists(victim));
    EXPECT_TRUE(entryExists(mountFile));
    EXPECT_TRUE(entryExists(repo_.path() + "/repository.cfg"));
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());
}

TEST_F(PlacementCreateRemove, MakeEmptyRemovesEveryResourceAndLeavesTheMountsUsable) {
    makeRepository();
    putResource(repo_.mountPath(0), "a1");
    putResource(repo_.mountPath(1), "b2");
    putResource(repo_.mountPath(2), "a1");
    ASSERT_EQ(MountUnmount_(repo_.path().c_str(), 2, false, nullptr), 0);

    long count = 0;
    char** names = listDirs_(repo_.path().c_str(), &count, false, nullptr);
    ASSERT_EQ(count, 2) << "the taken-out mount p3 is not listed";
    EXPECT_STREQ(names[0], "a1");
    EXPECT_STREQ(names[1], "b2");
    releaseList_(names, count);

    makeEmpty_(repo_.path().c_str(), nullptr);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(hashLevelsOn(repo_.mountPath(i)).empty()) << repo_.mountPath(i);
        EXPECT_TRUE(entryExists(repo_.mountPath(i) + "/repositorypart.cfg"));
    }
}

}  // namespace

TEST_F(PlacementCreateRemove, ALegacyLinkPointingOutsideTheMountsNeverDeletesItsTarget) {
    TempTree legacy, outside;
    makeRepository({}, {{"legacyDir", legacy.root()}, {"followLegacyLinks", "true"}});
    const std::string precious = outside.root() + "/s1";
    mkdirs((precious + "/keep").c_str(), 0755);
    ASSERT_EQ(symlink(precious.c_str(), (legacy.root() + "/s1").c_str()), 0);
    ASSERT_EQ(symlink(outside.root().c_str(), (legacy.root() + "/s2").c_str()), 0);

    SyslogCapture log;
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "s1", true, false, nullptr) & 8, 8);
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "s2", true, false, nullptr) & 8, 8);
    EXPECT_TRUE(entryExists(precious + "/keep"));
    EXPECT_FALSE(entryExists(legacy.root() + "/s1"));
    EXPECT_TRUE(log.findContaining("points outside the repository's resources"));

    // A link to the resource's own directory on a mount still takes that directory with it.
    putResource(repo_.mountPath(1), "s3");
    const std::string own = resourceLocation(repo_.mountPath(1), "s3");
    ASSERT_EQ(symlink(own.c_str(), (legacy.root() + "/s3").c_str()), 0);
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "s3", true, false, nullptr), 0);
    EXPECT_FALSE(entryExists(own));
}
