// Explicit resource locks and dirty flags of a repository that is not shared, through the C
// entry points: lock files in LOCK_VAR and the repository's .dirty file, used by several
// processes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "repohandler.h"

namespace fs = std::filesystem;

namespace {

class RepositoryLocksTest : public ::testing::Test {
  protected:
    RepositoryLocksTest() {
        repo_.addMount("p1");
        repo_.addMount("p2");
        repo_.writeConfig({{"isShared", "false"}});
        locks_ = repo_.path() + "/locks";
        fs::create_directory(locks_);
        lockVar_ = std::make_unique<ScopedEnv>("LOCK_VAR", locks_.c_str());
    }

    std::string lockFile(const char* resource) const {
        std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), resource));
        return locks_ + "/semaphore_" + id.get();
    }
    std::string identity(const char* resource) const {
        std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), resource));
        return id.get();
    }
    std::string dirtyFile() const {
        std::ifstream in(repo_.path() + "/.dirty");
        std::stringstream content;
        content << in.rdbuf();
        return content.str();
    }
    const char* repo() const { return repo_.path().c_str(); }

    ScratchRepository repo_;
    std::string locks_;
    std::unique_ptr<ScopedEnv> lockVar_;
};

}  // namespace

TEST_F(RepositoryLocksTest, explicitLockTakenByOneProcessHoldsUntilAnyoneUnlocksIt) {
    ASSERT_EQ(0, runInChild([&] { return lockResource_(repo(), "1.2.3", nullptr) == 1 ? 0 : 1; }));
    EXPECT_TRUE(fs::exists(lockFile("1.2.3"))) << "the lock outlives the call and the process";

    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    SyslogCapture syslog;
    EXPECT_EQ(0, lockResource_(repo(), "1.2.3", nullptr));
    EXPECT_EQ(30000, KSClock::offsetMillisForTesting());
    EXPECT_TRUE(
        syslog.findEqual("The resource \"" + identity("1.2.3") + "\" could not be locked."));

    EXPECT_EQ(1, lockResource_(repo(), "1.2.4", nullptr)) << "other resources are not affected";
    EXPECT_EQ(1, unlockResource_(repo(), "1.2.3", nullptr));
    EXPECT_FALSE(fs::exists(lockFile("1.2.3")));
    EXPECT_EQ(1, lockResource_(repo(), "1.2.3", nullptr));
    EXPECT_EQ(1, unlockResource_(repo(), "1.2.3", nullptr));
    EXPECT_EQ(1, unlockResource_(repo(), "1.2.4", nullptr));
}

TEST_F(RepositoryLocksTest, unlockingAResourceNobodyLockedFailsWithALogLine) {
    SyslogCapture syslog;
    EXPECT_EQ(0, unlockResource_(repo(), "free", nullptr));
    EXPECT_TRUE(
        syslog.findEqual("The resource \"" + identity("free") + "\" could not be unlocked."));
    EXPECT_THROW(lockResource_(repo(), nullptr, nullptr), KSAssertionException);
}

// Names that would be unsafe as paths are harmless here: the identity flattens slashes, so the
// lock file always lies directly in the lock directory.
TEST_F(RepositoryLocksTest, resourceNamesWithSlashesOrDotsLockInsideTheLockDirectory) {
    for (const char* name : {"../../escape", "..", "a/b"}) {
        ASSERT_EQ(1, lockResource_(repo(), name, nullptr)) << name;
        EXPECT_EQ(fs::path(locks_), fs::path(lockFile(name)).parent_path()) << name;
        EXPECT_TRUE(fs::exists(lockFile(name))) << name;
        EXPECT_EQ(1, unlockResource_(repo(), name, nullptr)) << name;
    }
    EXPECT_FALSE(fs::exists(repo_.path() + "/escape"));
}

TEST_F(RepositoryLocksTest, dirtyFlagSetByOneProcessIsSeenAndClearedByAnother) {
    setDirty_(repo(), "r1", true, nullptr);
    setDirty_(repo(), "r2", true, nullptr);
    EXPECT_EQ("r1\nr2\n", dirtyFile());
    EXPECT_EQ(1, isDirty_(repo(), "r1", nullptr));

    ASSERT_EQ(0, runInChild([&] {
                  if (isDirty_(repo(), "r2", nullptr) != 1) return 1;
                  setDirty_(repo(), "r2", false, nullptr);
                  setDirty_(repo(), "r3", true, nullptr);
                  return 0;
              }));
    EXPECT_EQ(0, isDirty_(repo(), "r2", nullptr));
    EXPECT_EQ(1, isDirty_(repo(), "r3", nullptr));
    EXPECT_EQ("r1\nr3\n", dirtyFile());
}
