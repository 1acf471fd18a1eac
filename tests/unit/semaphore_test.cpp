// File semaphores: the lock file, waiting between real processes, the back-off schedule and the
// 30-second give-up of SmartSemaphore.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "ClockControl.h"
#include "KSClock.h"
#include "KSIOException.h"
#include "KSSemaphore.h"
#include "KSTimeoutException.h"
#include "ScopedEnv.h"
#include "SmartSemaphore.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace fs = std::filesystem;

namespace {

// Changes the working directory for the scope.
class ScopedCwd {
  public:
    explicit ScopedCwd(const std::string& dir) : old_(fs::current_path()) { fs::current_path(dir); }
    ~ScopedCwd() {
        std::error_code ignored;
        fs::current_path(old_, ignored);
    }

  private:
    fs::path old_;
};

// A semaphore whose attempts fail a given number of times and record when they were made on
// the test clock, so the back-off schedule can be read off the differences.
class CountingSemaphore : public KSSemaphore {
  public:
    CountingSemaphore(int failures) : KSSemaphore("counting"), failures_(failures) {}
    bool lockResource() override {
        attempts.push_back(KSClock::offsetMillisForTesting());
        return static_cast<int>(attempts.size()) > failures_;
    }
    std::vector<long long> steps() const {
        std::vector<long long> result;
        for (size_t i = 1; i < attempts.size(); ++i)
            result.push_back(attempts[i] - attempts[i - 1]);
        return result;
    }
    std::vector<long long> attempts;

  private:
    int failures_;
};

int waitForChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(SemaphoreTest, lockFileIsNamedAfterTheSemaphoreInLockVarAndRemovedOnRelease) {
    TempTree dir;
    ScopedEnv env("LOCK_VAR", dir.root().c_str());
    const std::string file = dir.root() + "/semaphore_KSRepositoryHandler-_r-x";
    {
        KSSemaphore semaphore("KSRepositoryHandler-_r-x");
        ASSERT_TRUE(semaphore.lockResource());
        EXPECT_TRUE(semaphore.isLocked());
        EXPECT_TRUE(fs::exists(file));
        KSSemaphore other("KSRepositoryHandler-_r-x");
        EXPECT_FALSE(other.lockResource());
        EXPECT_FALSE(other.isLocked());
        semaphore.unlock();
        EXPECT_FALSE(fs::exists(file));
        EXPECT_TRUE(other.lockResource());
    }
    EXPECT_FALSE(fs::exists(file)) << "the destructor releases a held lock";
}

TEST(SemaphoreTest, withoutLockVarTheLockFileLiesInTheWorkingDirectory) {
    TempTree dir;
    ScopedEnv env("LOCK_VAR", nullptr);
    ScopedCwd cwd(dir.root());
    KSSemaphore semaphore("here");
    ASSERT_TRUE(semaphore.lockResource());
    EXPECT_TRUE(fs::exists(dir.root() + "/semaphore_here"));
    semaphore.unlock();
    EXPECT_FALSE(fs::exists(dir.root() + "/semaphore_here"));
}

TEST(SemaphoreTest, unusableLockFileThrowsWithErrnoAndSmartSemaphoreReportsFalse) {
    TempTree dir;
    const std::string missing = dir.root() + "/missing";
    ScopedEnv env("LOCK_VAR", missing.c_str());
    KSSemaphore semaphore("n");
    try {
        semaphore.lockResource();
        FAIL() << "no exception";
    } catch (const KSIOException& e) {
        EXPECT_EQ(ENOENT, e.getCode());
        EXPECT_EQ("Creating semaphore failed: n [No such file or directory]", e.getMessage());
    }
    semaphore.setLocked(true);  // a lock file that is gone cannot be released either
    try {
        semaphore.unlock();
        FAIL() << "no exception";
    } catch (const KSIOException& e) {
        EXPECT_EQ(ENOENT, e.getCode());
        EXPECT_EQ("Releasing semaphore failed: n [No such file or directory]", e.getMessage());
    }

    SyslogCapture syslog;
    SmartSemaphore smart(false, "n", nullptr);
    EXPECT_FALSE(smart.lock());
    EXPECT_TRUE(
        syslog.findEqual("SmartSemaphore.lock() : KSException caught: 'Creating semaphore "
                         "failed: n [No such file or directory]' (2)"));
}

TEST(SemaphoreTest, secondProcessWaitsAndGetsTheLockAfterTheFirstReleases) {
    TempTree dir;
    ScopedEnv env("LOCK_VAR", dir.root().c_str());
    const std::string released = dir.root() + "/released";
    KSSemaphore holder("shared");
    ASSERT_TRUE(holder.lockResource());

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int code;
        {
            SmartSemaphore waiter(false, "shared", nullptr);
            bool got = waiter.lock();
            code = !got ? 1 : fs::exists(released) ? 0 : 2;
        }
        _exit(code);
    }
    usleep(300 * 1000);  // let the child find the lock taken and start backing off
    close(creat(released.c_str(), 0600));
    holder.unlock();
    int code = waitForChild(pid);
    EXPECT_EQ(0, code) << "1: the child gave up, 2: it got the lock while it was still held";
    EXPECT_FALSE(fs::exists(dir.root() + "/semaphore_shared")) << "the child released it";
}

TEST(SemaphoreTest, holderThatNeverReleasesMakesSmartSemaphoreGiveUpAfterThirtySeconds) {
    TempTree dir;
    ScopedEnv env("LOCK_VAR", dir.root().c_str());
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    KSSemaphore holder("busy");
    ASSERT_TRUE(holder.lockResource());

    SyslogCapture syslog;
    SmartSemaphore waiter(false, "busy", nullptr);
    EXPECT_FALSE(waiter.lock());
    EXPECT_EQ(30000, KSClock::offsetMillisForTesting());
    EXPECT_TRUE(
        syslog.findEqual("SmartSemaphore.lock() : KSException caught: 'Semaphore timed out' (1)"));
    EXPECT_TRUE(holder.isLocked());
    EXPECT_TRUE(fs::exists(dir.root() + "/semaphore_busy")) << "the waiter removed nothing";
}

TEST(SemaphoreTest, growingStepsStartAtHalfTheInitialDelayAndStopGrowingAtTheMaximum) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    CountingSemaphore semaphore(8);
    EXPECT_TRUE(semaphore.lock_ms(0, 10, 2, 50, 0));
    std::vector<long long> expected = {5, 10, 20, 40, 50, 50, 50, 50};
    EXPECT_EQ(expected, semaphore.steps());

    CountingSemaphore large(3);
    EXPECT_TRUE(large.lock_ms(0, 400, 2, 50, 0));
    EXPECT_EQ((std::vector<long long>{200, 50, 50}), large.steps())
        << "a first step above the maximum is followed by steps held at the maximum";
}

TEST(SemaphoreTest, lastStepIsCutToTheRemainingBudgetAndThenTheWaitTimesOut) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    CountingSemaphore semaphore(1000);
    try {
        semaphore.lock_ms(100, 20, 2, 1000, 0);
        FAIL() << "no time-out";
    } catch (const KSTimeoutException& e) {
        EXPECT_EQ(1, e.getCode());
        EXPECT_EQ("Semaphore timed out", e.getMessage());
    }
    std::vector<long long> expected = {10, 20, 40, 30};
    EXPECT_EQ(expected, semaphore.steps());
}

TEST(SemaphoreTest, jitteredStepsStayWithinTheirBand) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    CountingSemaphore semaphore(40);
    EXPECT_TRUE(semaphore.lock_ms(0, 1000, 1, 1000, 0.4f));
    bool varied = false;
    for (long long step : semaphore.steps()) {
        EXPECT_GE(step, 300);
        EXPECT_LE(step, 700);
        varied = varied || step != 500;
    }
    EXPECT_TRUE(varied);
}

TEST(SemaphoreTest, fixedRandomStepsTimeOutOnceTheSecondsAreSpent) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    CountingSemaphore semaphore(100000);
    EXPECT_THROW(semaphore.lock(2), KSTimeoutException);
    for (long long step : semaphore.steps()) {
        EXPECT_GE(step, 10);
        EXPECT_LE(step, 989);
    }
    EXPECT_GE(KSClock::offsetMillisForTesting(), 2000);
    EXPECT_LT(KSClock::offsetMillisForTesting(), 2000 + 989);
}
