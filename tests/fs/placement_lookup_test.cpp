// Lookups on real tmpfs mounts: first hit for clean resources, merging of dirty duplicates,
// dead mounts, the information callback, the resolver and the legacy directory.

#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include <list>
#include <memory>
#include <string>

#include "ClockControl.h"
#include "KSClock.h"
#include "KSRepositoryHandler.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TaskdHome.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr unsigned long long kMountBytes = 256 * 4096;

// Runs the scope in another working directory (where an injected "touch PWNED" would land).
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::string& path) {
        if (::getcwd(old_, sizeof(old_)) == nullptr) old_[0] = '\0';
        changed_ = ::chdir(path.c_str()) == 0;
    }
    ~WorkingDirectory() {
        if (changed_ && old_[0] != '\0') (void)::chdir(old_);
    }
    bool changed() const { return changed_; }

  private:
    char old_[4096];
    bool changed_ = false;
};

class PlacementLookup : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    // Three tmpfs mounts p1..p3 and repository.cfg with `keys` (file locks, no database).
    void makeRepository(ScratchRepository::Keys keys = {}) {
        for (const char* name : {"p1", "p2", "p3"}) repo_.addTmpfsMount(name, kMountBytes, 200);
        keys.emplace_back("isShared", "false");
        repo_.writeConfig(keys);
    }
    std::shared_ptr<KSRepositoryHandler> handler() {
        return getRepository(nullptr, repo_.path().c_str(), true);
    }
    // getLocation_ with the lock; the path or "" for null.
    std::string locate(const std::string& name, int* status, bool touch = false,
                       bool useCallback = true) {
        char* found = getLocation_(repo_.path().c_str(), name.c_str(), status, touch, true,
                                   useCallback, false, nullptr);
        std::string result = found ? found : "";
        release(found);
        return result;
    }

    TempTree locks_;
    ScopedEnv lockVar_{"LOCK_VAR", locks_.root().c_str()};
    ScratchRepository repo_;
};

TEST_F(PlacementLookup, CleanResourceIsFoundOnTheFirstMountAndLaterMountsAreNotLookedAt) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1");
    const std::string third = putResource(repo_.mountPath(2), "study1");
    setTimes(first, 1000);
    setTimes(third, 1000);

    int status = -1;
    EXPECT_EQ(locate("study1", &status, true), first);
    EXPECT_EQ(status, 0);
    // With touch set, every copy the lookup reached would carry the time of now.
    EXPECT_GT(modificationTime(first), 1000);
    EXPECT_EQ(modificationTime(third), 1000);
    EXPECT_TRUE(entryExists(third + "/f"));
}

TEST_F(PlacementLookup, DirtyDuplicatesAreMergedOntoTheLastMountAndTheFlagIsCleared) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1", "a", "from p1");
    const std::string third = putResource(repo_.mountPath(2), "study1", "b", "from p3");
    handler()->dirtyFlags().setDirty(nullptr, "study1", true);

    int status = -1;
    EXPECT_EQ(locate("study1", &status), third);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(third + "/a"), "from p1");
    EXPECT_EQ(readFile(third + "/b"), "from p3");
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty()) << "empty hash levels stay on p1";
    EXPECT_FALSE(handler()->dirtyFlags().isDirty(nullptr, "study1", false));
}

TEST_F(PlacementLookup, DuplicatesThatDifferAreLeftInPlaceWithStatusTwo) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1", "a", "one");
    const std::string second = putResource(repo_.mountPath(1), "study1", "a", "other");
    handler()->dirtyFlags().setDirty(nullptr, "study1", true);

    int status = -1;
    EXPECT_EQ(locate("study1", &status), first);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(readFile(first + "/a"), "one");
    EXPECT_EQ(readFile(second + "/a"), "other");
    EXPECT_TRUE(handler()->dirtyFlags().isDirty(nullptr, "study1", false));
}

TEST_F(PlacementLookup, DirtyResourceStaysDirtyWithStatusOneWhileAMountIsDead) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1");
    ::unlink((repo_.mountPath(1) + "/repositorypart.cfg").c_str());
    handler()->dirtyFlags().setDirty(nullptr, "study1", true);

    int status = -1;
    EXPECT_EQ(locate("study1", &status), first);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(handler()->dirtyFlags().isDirty(nullptr, "study1", false));
}

TEST_F(PlacementLookup, LookupOnANamedMountAnswersForThatMountOnly) {
    makeRepository();
    const std::string second = putResource(repo_.mountPath(1), "study1");
    int status = -1;
    char* found =
        getLocationOnMount_(repo_.path().c_str(), "study1", "p2", &status, true, nullptr, false);
    EXPECT_EQ(found ? std::string(found) : "", second);
    release(found);

    EXPECT_EQ(
        getLocationOnMount_(repo_.path().c_str(), "study1", "p1", &status, true, nullptr, false),
        nullptr);
    EXPECT_EQ(status, 36);
    SyslogCapture log;
    EXPECT_EQ(getLocationOnMount_(repo_.path().c_str(), "study1", "nowhere", &status, true, nullptr,
                                  false),
              nullptr);
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(log.findContaining("mount cannot be found"));

    // The lookup on a mount never reloads the repository; the other calls do once the quiet
    // period is over.
    ClockGuard clock;
    const std::string config = repo_.path() + "/repository.cfg";
    ScratchRepository::writeProperties(config, {{"isShared", "false"}, {"mountPoints", "p2"}});
    struct utimbuf changed {
        KSClock::now() + 100, KSClock::now() + 100
    };
    ASSERT_EQ(::utime(config.c_str(), &changed), 0);
    KSClock::advanceForTesting(10);
    EXPECT_EQ(
        getLocationOnMount_(repo_.path().c_str(), "study1", "p1", &status, true, nullptr, false),
        nullptr);
    EXPECT_EQ(status, 36) << "p1 is still a mount of the loaded handler";
    EXPECT_EQ(locate("study1", &status), second);
    EXPECT_EQ(
        getLocationOnMount_(repo_.path().c_str(), "study1", "p1", &status, true, nullptr, false),
        nullptr);
    EXPECT_EQ(status, 4) << "the reloaded repository has no mount p1";
}

TEST_F(PlacementLookup, SingleMountNonClearableRepositoryIsLookedUpWithoutTheResourceLock) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    ScratchRepository clearable;
    repo_.addMount("p1");
    clearable.addMount("p1");
    repo_.writeConfig({{"isShared", "false"}});
    clearable.writeConfig({{"isShared", "false"}, {"isClearable", "true"}});
    const std::string single = putResource(repo_.mountPath(0), "study1");
    putResource(clearable.mountPath(0), "study1");
    ASSERT_EQ(lockResource_(repo_.path().c_str(), "study1", nullptr), 1);
    ASSERT_EQ(lockResource_(clearable.path().c_str(), "study1", nullptr), 1);

    int status = -1;
    EXPECT_EQ(locate("study1", &status), single);
    EXPECT_EQ(status, 0);
    char* found =
        getLocationOnMount_(repo_.path().c_str(), "study1", "p1", &status, true, nullptr, false);
    EXPECT_EQ(found ? std::string(found) : "", single);
    release(found);

    EXPECT_EQ(getLocation_(clearable.path().c_str(), "study1", &status, false, true, false, false,
                           nullptr),
              nullptr);
    EXPECT_EQ(status, 16) << "a clearable repository's lookup waits for the lock held here";
    EXPECT_EQ(getLocationOnMount_(clearable.path().c_str(), "study1", "p1", &status, true, nullptr,
                                  false),
              nullptr);
    EXPECT_EQ(status, 16);
    unlockResource_(repo_.path().c_str(), "study1", nullptr);
    unlockResource_(clearable.path().c_str(), "study1", nullptr);
}

TEST_F(PlacementLookup, EveryCopyIsListedAndPathsMapBackToTheirMount) {
    makeRepository();
    const std::string first = putResource(repo_.mountPath(0), "study1");
    const std::string third = putResource(repo_.mountPath(2), "study1");
    std::list<std::string> locations;
    EXPECT_EQ(getLocations_(repo_.path().c_str(), "study1", &locations, true, false, nullptr), 2);
    EXPECT_EQ(locations, (std::list<std::string>{first, third}));
    EXPECT_EQ(getLocations_(repo_.path().c_str(), "..", &locations, true, false, nullptr), -8);

    char* mount = getMountFromPath_(repo_.path().c_str(), (third + "/../x/f").c_str(), nullptr);
    EXPECT_EQ(mount ? std::string(mount) : "", repo_.mountPath(2));
    release(mount);
    // A mount p1 does not claim p10: only whole path components count.
    EXPECT_EQ(getMountFromPath_(repo_.path().c_str(), (repo_.path() + "/p10/x").c_str(), nullptr),
              nullptr);
    mount = getMountPathForDirectory_(repo_.path().c_str(), "study1", nullptr);
    EXPECT_EQ(mount ? std::string(mount) : "", repo_.mountPath(0));
    release(mount);
}

TEST_F(PlacementLookup, AuthoritativeCallbackDecidesWithoutLookingAtTheMounts) {
    TaskdHome taskd;
    makeRepository({{"callback", "RepositoryStudyCallback"}, {"authoritativeMode", "true"}});
    const std::string first = putResource(repo_.mountPath(0), "study1");

    int status = -1;
    EXPECT_EQ(locate("study1", &status), "");
    EXPECT_EQ(status, 36) << "the copy on p1 must not be found: the callback is the authority";
    ASSERT_EQ(taskd.calls().size(), 1u);
    EXPECT_EQ(taskd.calls()[0],
              "-c | getinfo quorra.repohandler.RepositoryStudyCallback -r "
              "study1 -p " +
                  repo_.path() + " | ");

    taskd.answer("/archive/elsewhere/study1  \n");
    EXPECT_EQ(locate("study1", &status), "/archive/elsewhere/study1");
    EXPECT_EQ(status, 0);

    // Asked not to use the callback, the mounts decide, which is odd enough to be logged.
    SyslogCapture log;
    EXPECT_EQ(locate("study1", &status, false, false), first);
    EXPECT_TRUE(
        log.findEqual("In Godmode, checking the physical mounts, which is STRANGE (but "
                      "possible when resource is dirty), repository=" +
                      repo_.path() + " resource=study1"));
}

TEST_F(PlacementLookup, NamesThatWouldLeaveTheirQuotesRunNothing) {
    TaskdHome taskd;
    TempTree cwd;
    WorkingDirectory inCwd(cwd.root());
    ASSERT_TRUE(inCwd.changed());
    makeRepository({{"callback", "RepositoryStudyCallback"},
                    {"authoritativeMode", "false"},
                    {"resolver", "RepositoryDataResolver"}});
    const std::string evil = "$(touch PWNED)";
    const std::string first = putResource(repo_.mountPath(0), evil, "a", "one");
    const std::string second = putResource(repo_.mountPath(1), evil, "b", "two");
    handler()->dirtyFlags().setDirty(nullptr, evil.c_str(), true);

    int status = -1;
    EXPECT_EQ(locate(evil, &status), first);
    EXPECT_EQ(status, 2) << "the refused resolver counts as a failed merge";
    EXPECT_TRUE(taskd.calls().empty());
    EXPECT_TRUE(entryExists(first + "/a"));
    EXPECT_TRUE(entryExists(second + "/b"));

    // A single quote is harmless inside the double quotes of the callback command.
    locate("x'; touch PWNED; '", &status);
    EXPECT_EQ(taskd.calls().size(), 1u);
    EXPECT_FALSE(entryExists(cwd.path("PWNED")));
}

TEST_F(PlacementLookup, DuplicatesWithAQuoteInTheirNameAreNeverMergedThroughTheShell) {
    TempTree cwd;
    WorkingDirectory inCwd(cwd.root());
    ASSERT_TRUE(inCwd.changed());
    makeRepository();
    const std::string evil = "x'; touch PWNED; '";
    const std::string first = putResource(repo_.mountPath(0), evil, "a", "one");
    const std::string third = putResource(repo_.mountPath(2), evil, "b", "two");
    handler()->dirtyFlags().setDirty(nullptr, evil.c_str(), true);

    int status = -1;
    EXPECT_EQ(locate(evil, &status), first);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(readFile(first + "/a"), "one");
    EXPECT_EQ(readFile(third + "/b"), "two");
    EXPECT_FALSE(entryExists(cwd.path("PWNED")));
}

TEST_F(PlacementLookup, ResourceOnlyInTheLegacyDirectoryIsTakenOverOntoAMount) {
    TempTree legacy;
    legacy.write("old1/img", "pixels");
    makeRepository({{"legacyDir", legacy.root()}, {"maintainLegacyLinks", "true"}});

    int status = -1;
    const std::string location = locate("old1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(location, resourceLocation(repo_.mountPath(0), "old1"));
    EXPECT_EQ(readFile(location + "/img"), "pixels");
    char target[4096] = {};
    ASSERT_GT(::readlink(legacy.path("old1").c_str(), target, sizeof(target) - 1), 0)
        << "the legacy entry becomes a link to the new location";
    EXPECT_EQ(std::string(target), location);

    EXPECT_EQ(locate("never-seen", &status), "");
    EXPECT_EQ(status, 4);
    // Links are followed only with followLegacyLinks: a link to elsewhere is not taken over.
    TempTree elsewhere;
    elsewhere.write("data/img", "pixels");
    ASSERT_EQ(::symlink(elsewhere.path("data").c_str(), legacy.path("old2").c_str()), 0);
    EXPECT_EQ(locate("old2", &status), "");
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(entryExists(elsewhere.path("data/img")));
}

}  // namespace
