// The overload check end to end on real tmpfs mounts filled past their limits with resources
// of known ages: moving, deleting, the deleteOld pass, night mode, dead mounts, stop signals
// and the move plug-in.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "KSSemaphore.h"
#include "NightProperties.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr time_t kDay = 86400;
constexpr unsigned long long kSmall = 256 * 4096;  // 256 blocks; one resource takes 8
constexpr unsigned long long kLarge = 1024 * 4096;
const std::string kContent(32 * 1024, 'x');

class Overload : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    // p1 (small, `p1Keys`) and p2 (large, `p2Keys`), file locks, repository `keys`.
    void makeRepository(ScratchRepository::Keys keys, ScratchRepository::Keys p1Keys,
                        ScratchRepository::Keys p2Keys = {}) {
        repo_.addTmpfsMount("p1", kSmall, 2000, p1Keys);
        repo_.addTmpfsMount("p2", kLarge, 2000, p2Keys);
        keys.emplace_back("isShared", "false");
        repo_.writeConfig(keys);
    }
    // Resource `name` on mount i, `daysOld` days old, 32 KiB of content.
    std::string put(size_t i, const std::string& name, int daysOld) {
        std::string location = putResource(repo_.mountPath(i), name, "image", kContent + name);
        setTimes(location, KSClock::now() - daysOld * kDay);
        return location;
    }
    std::string at(size_t i, const std::string& name) const {
        return resourceLocation(repo_.mountPath(i), name.c_str());
    }
    double used(size_t i) const { return repo_.tmpfs(i)->usedBlocksPercent(); }
    std::shared_ptr<KSRepositoryHandler> handler() {
        return getRepository(nullptr, repo_.path().c_str(), true);
    }
    void checkOverload(bool night = false) {
        checkOverload_(repo_.path().c_str(), false, night, nullptr);
    }
    std::list<std::string> deleted() { return *getDeletedDirs_(repo_.path().c_str(), nullptr); }
    // A TASKD_HOME whose runjavacmd runs `body` (the study callback hook of every move/delete).
    void callbackRuns(const std::string& body) {
        std::string script = taskd_.write("runjavacmd", "#!/bin/sh\n" + body + "\nexit 0\n");
        chmod(script.c_str(), 0755);
    }

    TempTree locks_, var_, tmp_, taskd_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScopedEnv varEnv_{"VAR", var_.root().c_str()};
    ScopedEnv tmpEnv_{"TMP", tmp_.root().c_str()};
    ScopedEnv adminEnv_{"KSADMIN_HOME", tmp_.root().c_str()};
    ScopedEnv taskdEnv_{"TASKD_HOME", taskd_.root().c_str()};
    ScratchRepository repo_;
};

TEST_F(Overload, NonClearableRepositoryMovesOnlyResourcesPastTheMoveTimeUntilBelowCleanLimit) {
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 10; ++i) put(0, "old" + std::to_string(i), 40 + i);
    for (int i = 0; i < 10; ++i) put(0, "young" + std::to_string(i), 2 + i);
    ASSERT_GT(used(0), 50.0);

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    int moved = 0;
    for (int i = 0; i < 10; ++i) {
        const std::string name = "old" + std::to_string(i);
        bool there = entryExists(at(1, name));
        EXPECT_NE(there, entryExists(at(0, name))) << name << " must be on exactly one mount";
        if (!there) continue;
        ++moved;
        EXPECT_EQ(readFile(at(1, name) + "/image"), kContent + name);
        EXPECT_EQ(modificationTime(at(1, name)) / kDay, (KSClock::now() - (40 + i) * kDay) / kDay);
    }
    EXPECT_GE(moved, 8);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(entryExists(at(0, "young" + std::to_string(i))));
    EXPECT_TRUE(handler()->dirtyFlags().snapshot().empty());
}

TEST_F(Overload, APassThatCannotFreeEnoughShortensTheMoveTimeOfTheNextPass) {
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 5 + i);  // all within 30 days
    SyslogCapture log;

    checkOverload();

    const std::string state = handler()->mounts()[0]->lastMoveFile();  // known after setup
    EXPECT_EQ(hashLevelsOn(repo_.mountPath(1)).size(), 0u);
    EXPECT_EQ(log.countContaining("CheckOverload: moveTime: 30 is not enough for mount"), 1);
    KSProperties first;
    ASSERT_TRUE(first.load(state.c_str())) << state;
    ASSERT_NE(first.getProperty("movetime"), nullptr);
    const int days = atoi(first.getProperty("movetime"));
    EXPECT_GT(days, 1);
    EXPECT_LT(days, 20);

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    for (int i = 0; i < 20; ++i) {
        if (5 + i < days) {  // younger than the new move time
            EXPECT_TRUE(entryExists(at(0, "r" + std::to_string(i)))) << i;
        }
    }
    KSProperties second;
    ASSERT_TRUE(second.load(state.c_str()));
    EXPECT_EQ(second.getProperty("movetime"), nullptr);
    EXPECT_NE(second.getProperty("lasthash"), nullptr) << "the pass stopped part way";
}

TEST_F(Overload, ClearableRepositoryWithoutMoveDeletesTheOldestUntilBelowCleanLimit) {
    makeRepository({{"isClearable", "true"}}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    std::vector<std::string> byAge;  // oldest first
    for (int i = 0; i < 20; ++i) byAge.push_back(put(0, "r" + std::to_string(i), 40 - i));

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    std::list<std::string> gone = deleted();
    ASSERT_FALSE(gone.empty());
    std::vector<std::string> expected(byAge.begin(), byAge.begin() + gone.size());
    EXPECT_EQ(std::vector<std::string>(gone.begin(), gone.end()), expected);
    for (size_t i = 0; i < byAge.size(); ++i) EXPECT_EQ(entryExists(byAge[i]), i >= gone.size());
    EXPECT_EQ(hashLevelsOn(repo_.mountPath(1)).size(), 0u) << "nothing is moved";
}

TEST_F(Overload, ClearableMovingRepositoryMovesTheOldestUntilBelowMoveLimit) {
    makeRepository({{"isClearable", "true"}, {"isClearableMove", "true"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);

    checkOverload();

    EXPECT_LT(used(0), 50.0);
    EXPECT_TRUE(deleted().empty());
    size_t moved = 0;
    while (moved < 20 && entryExists(at(1, "r" + std::to_string(moved)))) ++moved;
    EXPECT_GE(moved, 2u);
    for (int i = 0; i < 20; ++i) {
        const std::string name = "r" + std::to_string(i);
        EXPECT_EQ(entryExists(at(1, name)), i < static_cast<int>(moved)) << "oldest first";
        EXPECT_NE(entryExists(at(0, name)), entryExists(at(1, name)));
    }
}

TEST_F(Overload, DeleteOldPassDeletesTheMountsOwnOldResourcesInsteadOfMoving) {
    makeRepository({{"isClearable", "true"}, {"isClearableMove", "true"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "100"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    put(1, "elsewhere", 90);

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    std::list<std::string> gone = deleted();
    ASSERT_FALSE(gone.empty());
    EXPECT_EQ(gone.front(), at(0, "r0"));
    EXPECT_TRUE(entryExists(at(1, "elsewhere"))) << "only the mount's own resources go";
    EXPECT_EQ(hashLevelsOn(repo_.mountPath(1)).size(), 1u) << "nothing is moved";
}

TEST_F(Overload, WithNoRoomAnywhereTheRepositorysOldestAreDeletedUntilAMoveIsPossible) {
    // p2 is past its full and clean limits, so no mount can take a moved resource.
    repo_.addTmpfsMount("p1", kSmall, 2000,
                        {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
    repo_.addTmpfsMount("p2", kSmall, 2000, {{"fullLimit", "30"}, {"cleanLimit", "33"}});
    repo_.writeConfig(
        {{"isShared", "false"}, {"isClearable", "true"}, {"isClearableMove", "true"}});
    for (int i = 0; i < 20; ++i) put(0, "a" + std::to_string(i), 40 + i);
    for (int i = 0; i < 10; ++i) put(1, "b" + std::to_string(i), 79 - i);  // b0 oldest
    ASSERT_TRUE(handler()->checkRepositoryStatus() & REPOSITORY_CANNOTMOVE);

    checkOverload();

    std::list<std::string> gone = deleted();
    ASSERT_FALSE(gone.empty());
    int i = 0;
    for (const std::string& path : gone) EXPECT_EQ(path, at(1, "b" + std::to_string(i++)));
    for (int a = 0; a < 20; ++a) {
        const std::string name = "a" + std::to_string(a);
        EXPECT_NE(entryExists(at(0, name)), entryExists(at(1, name))) << name;
    }
    EXPECT_GE(handler()->collectNum(), 100u);
    EXPECT_LE(handler()->collectNum(), 50000u);
}

// p1 is filled past its move limit (no resource of its own is old enough to go); p2, the only
// other mount, is past its full limit, so no mount can take a moved resource. On p2, one block
// each: `locked` resources b0, b1, ... (400, 399, ... days old) locked by another process,
// then `free` resources u0, u1, ... (299, 298, ... days old).
class OverloadNoRoom : public Overload {
  protected:
    void makeRepository(int locked, int free) {
        repo_.addTmpfsMount("p1", kSmall, 2000,
                            {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
        repo_.addTmpfsMount("p2", kLarge, 20000, {{"fullLimit", "30"}, {"cleanLimit", "33"}});
        repo_.writeConfig(
            {{"isShared", "false"}, {"isClearable", "true"}, {"isClearableMove", "true"}});
        repo_.tmpfs(0)->fillBlocksTo(60);
        for (int i = 0; i < locked; ++i) small("b" + std::to_string(i), 400 - i);
        for (int i = 0; i < free; ++i) small("u" + std::to_string(i), 299 - i);
        ASSERT_GT(used(1), 30.0);
        ASSERT_TRUE(handler()->checkRepositoryStatus() & REPOSITORY_CANNOTMOVE);
        ASSERT_EQ(runInChild([&] {
                      for (int i = 0; i < locked; ++i)
                          if (lockResource_(repo_.path().c_str(), ("b" + std::to_string(i)).c_str(),
                                            nullptr) != 1)
                              return 1;
                      return 0;  // the lock files outlive this process
                  }),
                  0);
    }
    void small(const std::string& name, int daysOld) {
        setTimes(putResource(repo_.mountPath(1), name, "f", "x"), KSClock::now() - daysOld * kDay);
    }
    // Runs the check in a child process, which an alarm ends when the pass would not end by
    // itself. The paths deleted, in order.
    std::vector<std::string> checkOverloadThatMustEnd() {
        const std::string record = tmp_.path("deleted");
        int code = runInChild([&] {
            alarm(120);
            KSClock::setVirtualSleepForTesting(true);  // each refused lock's 30 s pass at once
            checkOverload();
            std::ofstream out(record);
            for (const std::string& path : deleted()) out << path << "\n";
            return 0;
        });
        EXPECT_EQ(code, 0) << "the pass ends";
        std::vector<std::string> gone;
        std::ifstream in(record);
        for (std::string line; std::getline(in, line);) gone.push_back(line);
        return gone;
    }
};

TEST_F(OverloadNoRoom, DeletingGathersAgainPastTheOldestResourcesLockedByAnotherProcess) {
    makeRepository(101, 250);

    std::vector<std::string> gone = checkOverloadThatMustEnd();

    ASSERT_FALSE(gone.empty()) << "the resources after the locked ones are deleted";
    ASSERT_LT(gone.size(), 250u);
    for (size_t i = 0; i < gone.size(); ++i) EXPECT_EQ(gone[i], at(1, "u" + std::to_string(i)));
    for (int i = 0; i <= 100; ++i) EXPECT_TRUE(entryExists(at(1, "b" + std::to_string(i)))) << i;
    EXPECT_FALSE(entryExists(at(1, "u" + std::to_string(gone.size() - 1))));
    EXPECT_TRUE(entryExists(at(1, "u" + std::to_string(gone.size()))));
    EXPECT_FALSE(handler()->checkRepositoryStatus() & REPOSITORY_CANNOTMOVE);
}

TEST_F(OverloadNoRoom, DeletingEndsWhenEveryResourceIsLocked) {
    makeRepository(320, 0);

    EXPECT_TRUE(checkOverloadThatMustEnd().empty());

    for (int i = 0; i < 320; ++i) EXPECT_TRUE(entryExists(at(1, "b" + std::to_string(i)))) << i;
    EXPECT_TRUE(handler()->checkRepositoryStatus() & REPOSITORY_CANNOTMOVE);
}

TEST_F(Overload, AResourceTouchedAfterGatheringIsNotDeleted) {
    makeRepository({{"isClearable", "true"}, {"callback", "RepositoryStudyCallback"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    // The first deletion's callback reads r1, the next candidate, as a client would.
    callbackRuns("touch -a '" + at(0, "r1") + "'");

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    EXPECT_FALSE(entryExists(at(0, "r0")));
    EXPECT_TRUE(entryExists(at(0, "r1")));
    std::list<std::string> gone = deleted();
    EXPECT_EQ(std::count(gone.begin(), gone.end(), at(0, "r1")), 0);
    EXPECT_FALSE(entryExists(at(0, "r2")));
}

TEST_F(Overload, ACandidateRemovedBeforeItsMoveIsReportedLikeATouchedOne) {
    makeRepository({{"isClearable", "true"},
                    {"isClearableMove", "true"},
                    {"callback", "RepositoryStudyCallback"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    // The first move's callback removes r1, the next candidate, as a client would.
    callbackRuns("rm -rf '" + at(0, "r1") + "'");
    const std::string printed = tmp_.path("stdout");

    int code = runInChild([&] {
        if (freopen(printed.c_str(), "w", stdout) == nullptr) return 1;
        checkOverload_(repo_.path().c_str(), true, false, nullptr);
        return 0;
    });

    ASSERT_EQ(code, 0);
    EXPECT_NE(readFile(printed).find("Resource touched while checking: " + at(0, "r1") + "\n"),
              std::string::npos);
    EXPECT_FALSE(entryExists(at(1, "r1")));
    EXPECT_TRUE(entryExists(at(1, "r0")));
}

TEST_F(Overload, ANegativeMoveTimeInTheMoveStateIsLoggedAsNegativeAndIgnored) {
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 10; ++i) put(0, "old" + std::to_string(i), 40 + i);
    for (int i = 0; i < 10; ++i) put(0, "young" + std::to_string(i), 2 + i);
    std::shared_ptr<KSRepositoryHandler> repository = handler();
    repository->initMPHandlers();
    ScratchRepository::writeProperties(repository->mounts()[0]->lastMoveFile(),
                                       {{"movetime", "-5"}});
    SyslogCapture log;

    checkOverload();

    EXPECT_EQ(log.countContaining("movetime is negative: -5"), 1);
    EXPECT_EQ(log.countContaining("movetime is not an integer"), 0);
    EXPECT_TRUE(entryExists(at(1, "old0")));
    for (int i = 0; i < 10; ++i)  // the default move time of 30 days holds
        EXPECT_TRUE(entryExists(at(0, "young" + std::to_string(i)))) << i;
}

TEST_F(Overload, ALockedResourceIsReportedAndSkippedNeverDeleted) {
    makeRepository({{"isClearable", "true"}}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    ASSERT_EQ(lockResource_(repo_.path().c_str(), "r0", nullptr), 1);
    std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), "r0"));
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);  // the 30 s wait for the lock passes at once
    SyslogCapture log;

    checkOverload();

    EXPECT_GE(
        log.countContaining("The resource \"" + std::string(id.get()) + "\" could not be locked."),
        1);
    EXPECT_TRUE(entryExists(at(0, "r0")));
    std::list<std::string> gone = deleted();
    EXPECT_EQ(std::count(gone.begin(), gone.end(), at(0, "r0")), 0);
    EXPECT_FALSE(entryExists(at(0, "r1")));
    EXPECT_LT(used(0), 40.0);
}

TEST_F(Overload, DeadMountOnlyLogsThatItIsUnmountedAndGetsNoStatistics) {
    makeRepository({}, {{"nightManagement", "true"}, {"moveLimit", "50"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40);
    ASSERT_EQ(MountUnmount_(repo_.path().c_str(), 0, false, nullptr), 0);
    SyslogCapture log;

    checkOverload(true);

    EXPECT_EQ(log.countContaining("mount is unmounted\n"), 1);
    EXPECT_EQ(log.countContaining("mount does not need maintenance"), 1);  // p2
    EXPECT_FALSE(entryExists(NightProperties::statisticsFile(repo_.mountPath(0))));
    EXPECT_EQ(hashLevelsOn(repo_.mountPath(1)).size(), 0u);
}

TEST_F(Overload, NightModeLowersTheLimitsFromTheStatisticsAgainInEveryRun) {
    makeRepository({}, {{"nightManagement", "true"},
                        {"nightVolumemul", "0"},
                        {"moveLimit", "78"},
                        {"cleanLimit", "73"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 + i);
    const std::string statistics = NightProperties::statisticsFile(repo_.mountPath(0));
    std::ofstream out(statistics);
    for (int ago = 1; ago <= 7; ++ago)
        out << NightProperties::dateText(KSClock::now() - ago * kDay) << "=5\n";
    out.close();
    const double before = used(0);
    ASSERT_GE(before, 68.0);
    ASSERT_LT(before, 73.0);

    checkOverload(true);  // 73/68: nothing to do yet
    EXPECT_EQ(hashLevelsOn(repo_.mountPath(1)).size(), 0u);
    checkOverload(true);  // 68/63

    KSMountPointHandler& mount = *handler()->mounts()[0];
    EXPECT_DOUBLE_EQ(mount.config().moveLimit, 68.0);
    EXPECT_DOUBLE_EQ(mount.config().cleanLimit, 63.0);
    EXPECT_LT(used(0), 63.0);
    KSProperties recorded;
    ASSERT_TRUE(recorded.load(statistics.c_str()));
    const char* today = recorded.getProperty(NightProperties::dateText(KSClock::now()).c_str());
    ASSERT_NE(today, nullptr);
    EXPECT_NEAR(strtod(today, nullptr), before - used(0), 0.01);
}

TEST_F(Overload, SigtermStopsTheRunAfterTheResourceInHandAndLaterRunsAtOnce) {
    makeRepository({{"isClearable", "true"}, {"callback", "RepositoryStudyCallback"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    const std::string pidFile = taskd_.path("pid");
    callbackRuns("kill -TERM $(cat '" + pidFile + "')");

    int code = runInChild([&] {
        SyslogCapture log;
        std::ofstream(pidFile) << getpid();
        checkOverload();
        if (deleted().size() != 1) return 1;
        checkOverload();
        if (!deleted().empty()) return 2;
        // Each run that the flag stopped says so once.
        if (log.countContaining("Checkoverload interrupt signal is 15") != 2) return 3;
        return log.countContaining("checking mount") == 1 ? 0 : 4;
    });

    EXPECT_EQ(code, 0);
    EXPECT_FALSE(entryExists(at(0, "r0")));
    for (int i = 1; i < 20; ++i) EXPECT_TRUE(entryExists(at(0, "r" + std::to_string(i))));
}

// The overfull mount is the last one, so no later mount's check sees the stop flag: the run
// itself has to report the signal on its way out.
class OverloadStop : public Overload {
  protected:
    void makeRepository(ScratchRepository::Keys keys) {
        repo_.addTmpfsMount("p1", kLarge, 2000);
        repo_.addTmpfsMount("p2", kSmall, 2000,
                            {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
        keys.emplace_back("isShared", "false");
        repo_.writeConfig(keys);
        for (int i = 0; i < 20; ++i) put(1, "r" + std::to_string(i), 40 + i);
    }
    // Runs checkOverload on `repository` in a child process that receives SIGTERM right after
    // the first log line containing `text`. Returns how often the child logged the interrupt
    // line, or 100 + its exit code when that is not known.
    int interruptLinesWhenSignalledAt(const std::string& text, const std::string& repository) {
        const std::string count = tmp_.path("interrupt-lines");
        int code = runInChild([&] {
            SyslogCapture log;
            log.raiseWhenLogged(text, SIGTERM);
            checkOverload_(repository.c_str(), false, false, nullptr);
            if (!checkoverloadStopped) return 1;
            std::ofstream(count) << log.countContaining("Checkoverload interrupt signal is 15");
            return 0;
        });
        if (code != 0) return 100 + code;
        return atoi(readFile(count).c_str());
    }
    int onTarget() {
        int n = 0;
        for (int i = 0; i < 20; ++i) n += entryExists(at(0, "r" + std::to_string(i)));
        return n;
    }
};

TEST_F(OverloadStop, ASignalDuringTheMoveWalkOfTheLastMountIsLogged) {
    makeRepository({});
    EXPECT_EQ(interruptLinesWhenSignalledAt("CheckOverload moves", repo_.path()), 1);
    EXPECT_EQ(onTarget(), 1) << "the walk ends after the resource in hand";
}

TEST_F(OverloadStop, ASignalDuringGatheringIsLogged) {
    makeRepository({{"isClearable", "true"}, {"isClearableMove", "true"}});
    EXPECT_EQ(interruptLinesWhenSignalledAt("Getting global oldest resources", repo_.path()), 1);
    EXPECT_EQ(onTarget(), 0);
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(entryExists(at(1, "r" + std::to_string(i))));
}

TEST_F(OverloadStop, ASignalDuringACycleThatMovesIsLogged) {
    makeRepository({{"isClearable", "true"}, {"isClearableMove", "true"}});
    EXPECT_EQ(interruptLinesWhenSignalledAt("CheckOverload moves", repo_.path()), 1);
    EXPECT_EQ(onTarget(), 1);
}

TEST_F(OverloadStop, ASignalWhileTheRepositoryLockIsRefusedIsLogged) {
    makeRepository({});
    std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), ""));
    KSSemaphore holder(id.get());  // another maintenance holds the repository
    ASSERT_TRUE(holder.lockResource());
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);  // the 30 s wait for the lock passes at once
    EXPECT_EQ(interruptLinesWhenSignalledAt("could not be locked.", repo_.path()), 1);
    EXPECT_EQ(onTarget(), 0);
}

TEST_F(Overload, TheTargetMountsMovePluginDoesTheCopying) {
    const std::string library = tmp_.path("record_move.so");
    const std::string build = "cc -shared -fPIC -o '" + library +
                              "' '" RH_TEST_SOURCE_DIR
                              "/tests/support/plugins/record_move_plugin.c'";
    ASSERT_EQ(system(build.c_str()), 0) << build;
    const std::string record = tmp_.path("moves");
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}},
                   {{"moveHere", library}, {"moveParams", record}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 + i);

    checkOverload();

    EXPECT_LT(used(0), 40.0);
    std::ifstream in(record);
    int recorded = 0;
    for (std::string line; std::getline(in, line); ++recorded) {
        EXPECT_EQ(line.rfind(repo_.mountPath(1) + "/", 0), 0u) << line;
        EXPECT_EQ(readFile(line + "/image").substr(0, kContent.size()), kContent);
    }
    EXPECT_GE(recorded, 8);
    int onTarget = 0;
    for (int i = 0; i < 20; ++i) onTarget += entryExists(at(1, "r" + std::to_string(i)));
    EXPECT_EQ(recorded, onTarget) << "every move went through the plug-in";
}

TEST_F(Overload, FreeMountMovesEveryResourceOntoTheOtherMounts) {
    makeRepository({}, {});
    for (int i = 0; i < 5; ++i) put(0, "r" + std::to_string(i), i);
    handler()->setDirty(nullptr, "r3", true);  // taken too: the move merges it

    EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr), 0);

    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());
    for (int i = 0; i < 5; ++i) {
        const std::string name = "r" + std::to_string(i);
        EXPECT_EQ(readFile(at(1, name) + "/image"), kContent + name);
    }
    EXPECT_EQ(handler()->dirtyFlags().snapshot(), std::set<std::string>{"r3"});
}

TEST_F(Overload, FreeMountOfAnUnknownMountChangesNothing) {
    makeRepository({}, {});
    put(0, "r", 1);
    SyslogCapture log;
    const std::string elsewhere = repo_.path() + "/p3";
    EXPECT_EQ(freeMount_(repo_.path().c_str(), elsewhere.c_str(), false, nullptr), -1);
    EXPECT_EQ(
        log.countContaining("Source mount \"" + elsewhere + "\" could not be found in repository."),
        1);
    EXPECT_TRUE(entryExists(at(0, "r")));
}

TEST_F(Overload, FreeMountWithNoOtherMountToTakeResourcesReturnsOneAndKeepsThem) {
    makeRepository({}, {}, {{"fullLimit", "0"}});  // p2 takes nothing
    for (int i = 0; i < 3; ++i) put(0, "r" + std::to_string(i), 1);
    SyslogCapture log;

    EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr), 1);

    EXPECT_EQ(log.countContaining("Could not find target mount for data moving."), 1);
    EXPECT_EQ(log.countContaining("Not all resources could be moved"), 1);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(entryExists(at(0, "r" + std::to_string(i)))) << i;
}

TEST_F(Overload, FreeMountWhoseRepositoryIsLockedReturnsMinusOneAndMovesNothing) {
    makeRepository({}, {});
    put(0, "r", 1);
    std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), ""));
    KSSemaphore holder(id.get());  // an overload check holds the repository
    ASSERT_TRUE(holder.lockResource());
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);

    EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr), -1);

    EXPECT_TRUE(entryExists(at(0, "r")));
    EXPECT_FALSE(entryExists(at(1, "r")));
}

// A link to nowhere inside a resource copies but never compares equal, so its move fails with
// the comparison's raw status and leaves the origin in place.
std::string withBrokenLink(const std::string& location) {
    EXPECT_EQ(symlink("/nonexistent/target", (location + "/link").c_str()), 0);
    return location;
}

TEST_F(Overload, FreeMountEndsWhenAResourceCannotBeCopiedAndLeavesItInPlace) {
    makeRepository({}, {});
    put(0, "fine", 1);
    const std::string broken = withBrokenLink(put(0, "broken", 1));

    // The alarm ends a pass that would try the same resource for ever.
    int code = runInChild([&] {
        alarm(30);
        return freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr);
    });

    EXPECT_EQ(code, 1) << "not all resources could be moved";
    EXPECT_TRUE(entryExists(broken + "/image"));
    EXPECT_FALSE(entryExists(at(1, "broken")));
    EXPECT_EQ(readFile(at(1, "fine") + "/image"), kContent + "fine");
}

TEST_F(Overload, FreeMountOfAMountThatWentDeadMeanwhileDoesNotReportFinished) {
    makeRepository({{"callback", "RepositoryStudyCallback"}}, {});
    put(0, "fine", 1);
    const std::string broken = withBrokenLink(put(0, "broken", 1));
    // The first move's callback takes p1 out of service, as an unmounted disk shows.
    callbackRuns("mv '" + repo_.mountPath(0) + "/repositorypart.cfg' '" + repo_.mountPath(0) +
                 "/repositorypart.no' 2>/dev/null");
    SyslogCapture log;

    EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr), 1);

    EXPECT_EQ(log.countContaining("Finished."), 0);
    EXPECT_EQ(log.countContaining("Not all resources could be moved"), 1);
    EXPECT_TRUE(entryExists(broken + "/image"));
    EXPECT_EQ(readFile(at(1, "fine") + "/image"), kContent + "fine");
}

TEST_F(Overload, UnAgeTellsMountsApartByTheirWholePathAndGivesNullWhenTheCopyFails) {
    repo_.addTmpfsMount("p1", kSmall, 2000, {{"type", "fast"}});
    repo_.addTmpfsMount("p10", kLarge, 2000);
    repo_.writeConfig({{"isShared", "false"}});
    put(1, "aged", 60);
    const std::string broken = withBrokenLink(put(1, "broken", 60));

    // p10's path begins with p1's, yet its resources are not on the fast mount.
    char* location = unAge_(repo_.path().c_str(), "aged", nullptr);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(std::string(location), at(0, "aged"));
    release(location);

    EXPECT_EQ(unAge_(repo_.path().c_str(), "broken", nullptr), nullptr);
    EXPECT_TRUE(entryExists(broken + "/image"));
    EXPECT_FALSE(entryExists(at(0, "broken")));
}

TEST_F(Overload, UnAgeBringsAResourceBackOntoTheLastFastMount) {
    makeRepository({}, {{"type", "fast"}});
    put(1, "aged", 60);

    char* location = unAge_(repo_.path().c_str(), "aged", nullptr);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(std::string(location), at(0, "aged"));
    release(location);
    EXPECT_EQ(readFile(at(0, "aged") + "/image"), kContent + "aged");
    EXPECT_FALSE(entryExists(at(1, "aged")));
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(1)).empty());
    // Already on a fast mount: nothing to do.
    EXPECT_EQ(unAge_(repo_.path().c_str(), "aged", nullptr), nullptr);
    EXPECT_EQ(unAge_(repo_.path().c_str(), "../p2", nullptr), nullptr);
}

}  // namespace
