// The lock scope of a repository: servers that see the share at different paths exclude each
// other only when repository.cfg names the repository with `repositoryId`. The second "server"
// here reaches the same directory through a symbolic link, which is a different path to the
// library (paths are normalised, not resolved), as a different mount point would be.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSClock.h"
#include "KSException.h"
#include "KSRepositoryHandler.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "repohandler.h"

namespace fs = std::filesystem;

namespace {

class RepositoryLockScopeTest : public ::testing::Test {
  protected:
    RepositoryLockScopeTest() {
        repo_.addMount("p1");
        locks_ = repo_.path() + "/locks";
        fs::create_directory(locks_);
        lockVar_ = std::make_unique<ScopedEnv>("LOCK_VAR", locks_.c_str());
        // The other server's view: a link beside the repository, removed with it.
        otherPath_ = repo_.path() + "/other-server-view";
        fs::create_directory_symlink(repo_.path(), otherPath_);
    }

    void configure(const char* repositoryId) {
        ScratchRepository::Keys keys = {{"isShared", "false"}};
        if (repositoryId != nullptr) keys.emplace_back("repositoryId", repositoryId);
        repo_.writeConfig(keys);
    }
    // Holds the lock `id` as another server would: its lock file exists.
    void holdLock(const std::string& id) const {
        std::ofstream(locks_ + "/semaphore_" + id).put('\n');
    }
    bool locked(const std::string& id) const { return fs::exists(locks_ + "/semaphore_" + id); }
    const char* here() const { return repo_.path().c_str(); }
    const char* there() const { return otherPath_.c_str(); }

    ScratchRepository repo_;
    std::string locks_;
    std::string otherPath_;
    std::unique_ptr<ScopedEnv> lockVar_;
};

}  // namespace

TEST_F(RepositoryLockScopeTest, withARepositoryIdServersAtDifferentPathsShareEachResourceLock) {
    configure("site-archive.1");
    ASSERT_EQ(0, runInChild([&] { return lockResource_(here(), "1.2.3", nullptr) == 1 ? 0 : 1; }));
    EXPECT_TRUE(locked("KSRepositoryHandler-site-archive.1-1.2.3"));

    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    EXPECT_EQ(0, lockResource_(there(), "1.2.3", nullptr))
        << "the server at the other path must wait for the lock taken at the first path";
    EXPECT_EQ(1, unlockResource_(there(), "1.2.3", nullptr));
    EXPECT_FALSE(locked("KSRepositoryHandler-site-archive.1-1.2.3"))
        << "one lock, whichever path releases it";
}

TEST_F(RepositoryLockScopeTest, withoutARepositoryIdEachPathLocksUnderItsOwnName) {
    configure(nullptr);
    ASSERT_EQ(1, lockResource_(here(), "1.2.3", nullptr));
    ASSERT_EQ(1, lockResource_(there(), "1.2.3", nullptr))
        << "two paths are two lock scopes: this is why servers need the same path or an id";
    EXPECT_EQ(1, unlockResource_(here(), "1.2.3", nullptr));
    EXPECT_EQ(1, unlockResource_(there(), "1.2.3", nullptr));
    auto repository = getRepository(nullptr, there(), true);
    EXPECT_EQ(repository->lockScope(), otherPath_);
    EXPECT_EQ(repository->dirtyFlags().lockName(), repo_.path() + "/.dirty")
        << "the dirty file is locked under its canonical path, the same on every spelling";
}

TEST_F(RepositoryLockScopeTest, theDirtyFileAndTheMaintenanceLockFollowTheRepositoryId) {
    configure("site-archive.1");
    auto repository = getRepository(nullptr, there(), true);
    EXPECT_EQ(repository->lockScope(), "site-archive.1");
    EXPECT_EQ(repository->dirtyFlags().lockName(), "site-archive.1/.dirty");

    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    SyslogCapture syslog;
    holdLock("KSRepositoryHandler-site-archive.1_.dirty-");
    EXPECT_THROW(setDirty_(there(), "1.2.3", true, nullptr), KSException)
        << "the caller is told that the mark did not reach the file";
    EXPECT_TRUE(syslog.findContaining("The dirty mechanism \"" + repo_.path() +
                                      "/.dirty\" could not be locked."))
        << "the other server's hold on the dirty file's lock must stop this write";
    EXPECT_FALSE(fs::exists(repo_.path() + "/.dirty"));

    holdLock("KSRepositoryHandler-site-archive.1-");
    checkOverload_(there(), false, false, nullptr);
    EXPECT_TRUE(syslog.findEqual("The repository \"" + otherPath_ + "\" could not be locked."))
        << "a maintenance run at the first path must keep one at the other path out";
}

TEST(RepositoryIdTest, anUnusableRepositoryIdMakesTheRepositoryUnusableAndIsLogged) {
    const std::string tooLong(65, 'a');
    for (const std::string& id :
         {std::string("/srv/archive"), std::string("site/a"), std::string("-site"),
          std::string("site a"), std::string("_srv_archive"), tooLong}) {
        ScratchRepository repo;
        repo.writeConfig({{"repositoryId", id}});
        SyslogCapture syslog;
        KSRepositoryHandler handler(nullptr, repo.path().c_str());
        EXPECT_TRUE(handler.isUnusable()) << "repositoryId \"" << id << "\"";
        EXPECT_TRUE(syslog.findContaining("Invalid repositoryId \"" + id + "\" in repository " +
                                          repo.path()))
            << id;
    }
    for (const std::string& id :
         {std::string("A"), std::string("site-a.1_b"), std::string(64, 'z')}) {
        ScratchRepository repo;
        repo.writeConfig({{"repositoryId", id}});
        KSRepositoryHandler handler(nullptr, repo.path().c_str());
        EXPECT_FALSE(handler.isUnusable()) << id;
        EXPECT_EQ(handler.lockScope(), id);
    }
    ScratchRepository repo;
    repo.writeConfig({{"repositoryId", ""}});
    KSRepositoryHandler handler(nullptr, repo.path().c_str());
    EXPECT_FALSE(handler.isUnusable()) << "an empty id is no id";
    EXPECT_EQ(handler.lockScope(), repo.path());
}
