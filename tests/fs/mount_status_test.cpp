#include <gtest/gtest.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <string>

#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"

namespace {

using Keys = ScratchRepository::Keys;

// 100 blocks of 4 KiB, so every block is one percent; 100 inodes, so every inode is one too.
constexpr unsigned long long kHundredBlocks = 100 * TmpfsMount::kBlockSize;
constexpr unsigned long kHundredInodes = 100;

// A repository with one tmpfs mount "p1" and the given repository and mount keys.
struct OneMountRepository {
    explicit OneMountRepository(const Keys& repoKeys = {}, const Keys& partKeys = {},
                                unsigned long inodes = 1000) {
        repo.addTmpfsMount("p1", kHundredBlocks, inodes, partKeys);
        Keys keys = repoKeys;
        keys.emplace_back("isShared", "false");
        repo.writeConfig(keys);
        handler = std::make_unique<KSRepositoryHandler>(nullptr, repo.path().c_str());
    }
    KSMountPointHandler& mount() { return *handler->mounts().at(0); }
    TmpfsMount& disk() { return *repo.tmpfs(0); }

    ScratchRepository repo;
    std::unique_ptr<KSRepositoryHandler> handler;
};

}  // namespace

TEST(MountStatusTest, fillLevelsSetTheBitsOfTheRepositoryAndMountLimits) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r({{"switchLimit", "50"}}, {{"fullLimit", "60"}});
    const struct {
        double percent;
        uint32_t bits;
    } steps[] = {{10, 0x000}, {50, 0x010}, {60, 0x030}, {80, 0x031}, {90, 0x033},
                 {92, 0x03F}, {98, 0x07F}, {99, 0x0FF}, {100, 0x2FF}};
    for (const auto& step : steps) {
        r.disk().fillBlocksTo(step.percent);
        EXPECT_EQ(r.mount().checkStatus(false), step.bits) << step.percent << "%";
        EXPECT_FLOAT_EQ(r.mount().getUsedPercentage(), step.percent);
    }
}

TEST(MountStatusTest, aZeroRemindLimitNeverSetsRemindAndMoveLimit100DisablesTheMoveBit) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r({{"remindLimit", "0"}, {"warnLimit", "-1"}}, {{"moveLimit", "100"}});
    r.disk().fillBlocksTo(100);
    const uint32_t status = r.mount().checkStatus(false);
    EXPECT_EQ(status & MOUNT_REMIND, 0u);
    EXPECT_EQ(status & MOUNT_WARN, 0u);
    EXPECT_EQ(status & MOUNT_MOVE, 0u);
    EXPECT_EQ(status, 0x27Cu);
}

TEST(MountStatusTest, theFullerOfBlocksAndInodesCounts) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r({}, {}, kHundredInodes);
    r.disk().fillBlocksTo(95);
    r.disk().fillInodesTo(97);
    EXPECT_FLOAT_EQ(r.mount().getUsedPercentage(), 97.0f);
    EXPECT_DOUBLE_EQ(r.mount().usedPercentage(), 97.0);
    r.disk().fillBlocksTo(98);
    EXPECT_FLOAT_EQ(r.mount().getUsedPercentage(), 98.0f);
}

TEST(MountStatusTest, aMountWithoutItsConfigIsDeadAndNotProbedAgainFor299Seconds) {
    RH_REQUIRE_MOUNTS();
    ClockGuard clock;
    OneMountRepository r;
    r.disk().fillBlocksTo(50);
    ASSERT_EQ(r.mount().checkStatus(false), 0u);
    const std::string config = r.mount().path() + "/repositorypart.cfg";
    const std::string aside = r.mount().path() + "/repositorypart.no";
    ASSERT_EQ(rename(config.c_str(), aside.c_str()), 0);
    EXPECT_EQ(r.mount().checkStatus(true), 256u);

    // The file is back, but a dead mount is believed dead until 300 seconds have passed.
    ASSERT_EQ(rename(aside.c_str(), config.c_str()), 0);
    EXPECT_EQ(r.mount().checkStatus(false), 256u);
    // 298 rather than 299: the real clock may tick once while the test runs.
    KSClock::advanceForTesting(298);
    EXPECT_EQ(r.mount().checkStatus(false), 256u);
    KSClock::advanceForTesting(2);
    EXPECT_EQ(r.mount().checkStatus(false), 0u);
}

TEST(MountStatusTest, aRevivedMountReadsItsConfigurationAgain) {
    RH_REQUIRE_MOUNTS();
    ClockGuard clock;
    OneMountRepository r;
    r.disk().fillBlocksTo(50);
    const std::string config = r.mount().path() + "/repositorypart.cfg";
    ASSERT_EQ(unlink(config.c_str()), 0);
    EXPECT_EQ(r.mount().checkStatus(false), 256u);
    ScratchRepository::writeProperties(config, {{"switchLimit", "40"}, {"type", "fast"}});
    KSClock::advanceForTesting(300);
    EXPECT_EQ(r.mount().checkStatus(true), static_cast<uint32_t>(MOUNT_SWITCH));
    EXPECT_TRUE(r.mount().config().fast);
}

TEST(MountStatusTest, theCachedStatusAfterSetupUsesTheMountsOwnLimits) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r({}, {{"switchLimit", "40"}, {"fullLimit", "45"}});
    r.disk().fillBlocksTo(50);
    r.handler->initMPHandlers();
    EXPECT_EQ(r.mount().checkStatus(true), static_cast<uint32_t>(MOUNT_SWITCH | MOUNT_FULL));
}

TEST(MountStatusTest, anEmptyPartConfigKeepsTheMountAliveWithTheRepositoryLimits) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r({{"switchLimit", "50"}, {"fullLimit", "55"}, {"remindLimit", "0"}});
    r.disk().fillBlocksTo(60);
    EXPECT_EQ(r.mount().config().switchLimit, 50.0);
    EXPECT_EQ(r.mount().checkStatus(false), static_cast<uint32_t>(MOUNT_SWITCH | MOUNT_FULL));
}

TEST(MountStatusTest, partConfigKeysOverrideTheRepositoryDefaults) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r(
        {{"switchLimit", "50"}, {"nomoveTimeSeconds", "60"}, {"countSize", "true"}},
        {{"switchLimit", "70"},
         {"cleanLimit", "75.5"},
         {"type", "slow"},
         {"nightManagement", "true"},
         {"nightVolumemul", "2.5"},
         {"nightLowerPercent", "7"},
         {"deleteOld", "3"},
         {"countSize", "yes"}});
    r.handler->initMPHandlers();
    const auto& c = r.mount().config();
    EXPECT_EQ(c.switchLimit, 70.0);
    EXPECT_EQ(c.fullLimit, 94.0);
    EXPECT_EQ(c.cleanLimit, 75.5);
    EXPECT_EQ(c.nomoveTime, 60u);
    EXPECT_FALSE(c.fast);
    EXPECT_TRUE(c.nightManagement);
    EXPECT_EQ(c.nightVolumemul, 2.5);
    EXPECT_EQ(c.nightLowerPercent, 7.0);
    EXPECT_EQ(c.deleteOld, 3.0);
    EXPECT_FALSE(c.countSize);
    EXPECT_TRUE(r.handler->hasNonFastMount());
}

TEST(MountStatusTest, aChangedPartConfigMakesTheRepositoryOutOfDate) {
    RH_REQUIRE_MOUNTS();
    OneMountRepository r;
    r.handler->initMPHandlers();
    EXPECT_TRUE(r.handler->isUpToDate(true));
    const std::string config = r.mount().path() + "/repositorypart.cfg";
    struct utimbuf later = {time(nullptr) + 100, time(nullptr) + 100};
    ASSERT_EQ(utime(config.c_str(), &later), 0);
    EXPECT_FALSE(r.handler->isUpToDate(true));
    EXPECT_FALSE(r.mount().upToDate());
}

TEST(MountStatusTest, lastMoveFileIsNamedAfterTheMountUnderVar) {
    RH_REQUIRE_MOUNTS();
    ScopedEnv var("VAR", "/var/state");
    OneMountRepository r;
    r.handler->initMPHandlers();
    std::string id = r.mount().path();
    for (char& ch : id) ch = ch == '/' ? '_' : ch;
    EXPECT_EQ(r.mount().lastMoveFile(), "/var/state/lastmove-KSRepositoryHandler-" + id + "-.cfg");
}

TEST(MountStatusTest, moveHereLoadErrorsAreLoggedAndLeaveThePluginUnset) {
    RH_REQUIRE_MOUNTS();
    SyslogCapture capture;
    OneMountRepository a({}, {{"moveHere", "/nonexistent/libmove.so"}, {"moveParams", "x"}});
    a.handler->initMPHandlers();
    EXPECT_EQ(a.mount().moveFunction(), nullptr);
    EXPECT_TRUE(
        capture.findContaining("EXCEPTION: dlopen error: /nonexistent/libmove.so").has_value());

    OneMountRepository b({}, {{"moveHere", "libm.so.6"}, {"moveParams", "x"}});
    b.handler->initMPHandlers();
    EXPECT_EQ(b.mount().moveFunction(), nullptr);
    EXPECT_TRUE(b.mount().moveParams().empty());
    auto line = capture.findContaining("EXCEPTION: dlsym error move: ");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->priority, LOG_ERR);
}

TEST(MountDedicatedTest, aFileSystemRootOrItsOnlyEntryBesideLostFoundIsDedicated) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount disk(kHundredBlocks, 100);
    KSMountPointHandler root(disk.path(), nullptr);
    EXPECT_TRUE(root.isDedicated());

    ASSERT_EQ(mkdir((disk.path() + "/lost+found").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((disk.path() + "/p1").c_str(), 0755), 0);
    KSMountPointHandler only(disk.path() + "/p1", nullptr);
    EXPECT_TRUE(only.isDedicated());

    ASSERT_EQ(mkdir((disk.path() + "/other").c_str(), 0755), 0);
    KSMountPointHandler shared(disk.path() + "/p1", nullptr);
    EXPECT_FALSE(shared.isDedicated());

    ASSERT_EQ(mkdir((disk.path() + "/p1/deeper").c_str(), 0755), 0);
    KSMountPointHandler deeper(disk.path() + "/p1/deeper", nullptr);
    EXPECT_FALSE(deeper.isDedicated()) << "the parent is not the file system's root";
}

TEST(MountDedicatedTest, theDeepestMountHoldingAPathIsItsMountPoint) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount outer(kHundredBlocks, 100);
    TmpfsMount inner(kHundredBlocks, 100, outer.path() + "/inner");
    ASSERT_EQ(mkdir((inner.path() + "/x").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((outer.path() + "/innerx").c_str(), 0755), 0);

    struct mntent entry;
    char buffer[4096];
    EXPECT_EQ(getMountpoint((inner.path() + "/x").c_str(), &entry, buffer, sizeof buffer),
              inner.path());
    EXPECT_EQ(std::string(entry.mnt_type), "tmpfs");
    EXPECT_EQ(std::string(entry.mnt_dir), inner.path());
    EXPECT_EQ(getMountpoint((outer.path() + "/innerx").c_str(), nullptr, nullptr, 0), outer.path())
        << "a sibling whose name starts like the inner mount is not on it";
    EXPECT_EQ(getMountpoint("/", nullptr, nullptr, 0), "/");
}

TEST(MountFreeFunctionTest, sameMountComparesFreeCountsOfBothFileSystems) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount a(kHundredBlocks, 100);
    TmpfsMount b(kHundredBlocks, 100);
    ASSERT_EQ(mkdir((a.path() + "/d").c_str(), 0755), 0);
    b.fillBlocksTo(30);
    EXPECT_TRUE(IsOnTheSameMount(a.path().c_str(), (a.path() + "/d").c_str()));
    EXPECT_FALSE(IsOnTheSameMount(a.path().c_str(), b.path().c_str()));
    EXPECT_FALSE(IsOnTheSameMount(a.path().c_str(), "/nonexistent/dir"));
}

TEST(MountFreeFunctionTest, blocksToFreeCountsTheBlocksAboveTheGivenPercentage) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount disk(kHundredBlocks, 100);
    disk.fillBlocksTo(95);
    long count = 0;
    EXPECT_EQ(blocksToFree(disk.path().c_str(), 90.0, &count, nullptr), 0);
    EXPECT_EQ(count, 5);
    struct statvfs known;
    ASSERT_EQ(statvfs(disk.path().c_str(), &known), 0);
    EXPECT_EQ(blocksToFree("/ignored", 97.5, &count, &known), 0);
    EXPECT_EQ(count, -2);
    EXPECT_EQ(blocksToFree("/nonexistent/dir", 90.0, &count, nullptr), 1);
}

TEST(MountCollectNumTest, theBatchGrowsWithoutGainFollowsTheEstimateAndStaysClamped) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount disk(kHundredBlocks, 100);
    disk.fillBlocksTo(99);
    KSMountPointHandler mount(disk.path(), nullptr);
    mount.config().cleanLimit = 96;
    ASSERT_FLOAT_EQ(mount.getUsedPercentage(), 99.0f);
    const struct {
        double atCycleStart;
        unsigned current;
        unsigned expected;
    } cases[] = {
        {99, 30, 300},        // no gain: ten times
        {99, 20000, 50000},   // capped
        {100, 1000, 3000},    // 1000 * 3 / 1 within ten times: the estimate
        {100, 50, 150},       // estimate 150 beats 50 / 10
        {99.1, 1000, 10000},  // estimate 30000 is above ten times: ten times
        {99.5, 40, 240},      // estimate 240
        {98, 30, 100},        // use grew: unchanged, then raised to the floor
        {130, 5000, 500},     // estimate 483 is below 5000 / 10
        // a tiny drop: an estimate past 2^32 is more than ten times
        {99.00000069849112, 1000, 10000},
    };
    for (const auto& c : cases) {
        mount.setUsedAtCycleStart(c.atCycleStart);
        EXPECT_EQ(mount.recalculateCollectNum(c.current), c.expected)
            << "start " << c.atCycleStart << " current " << c.current;
    }
    mount.config().cleanLimit = 99.5;
    mount.setUsedAtCycleStart(100);
    EXPECT_EQ(mount.recalculateCollectNum(300), 300u) << "at or below the clean limit: unchanged";
}
