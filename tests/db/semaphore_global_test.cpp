// Database semaphores: shared repositories lock their resources through the lock table of the
// private server, so the lock holds between connectors and between processes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "DBConnector.h"
#include "DbTestEnv.h"
#include "KSClock.h"
#include "KSLockToken.h"
#include "KSPathUtils.h"
#include "KSSemaphoreGlobal.h"
#include "ScratchRepository.h"
#include "SmartSemaphore.h"
#include "SyslogCapture.h"
#include "repohandler.h"

using kelp::db::DBConnector;

namespace {

class GlobalSemaphoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        lockId_ = uniqueName("KSRepositoryHandler-sem");
    }
    void TearDown() override {
        if (!lockId_.empty() && admin_) admin_->exec(deleteRows());
    }

    DbAdmin& admin() {
        if (!admin_) admin_ = std::make_unique<DbAdmin>();
        return *admin_;
    }
    std::string deleteRows() const {
        return "DELETE FROM NVLOCK WHERE LCKID LIKE '" + lockId_ + "%'";
    }
    long long rowsOf(const std::string& id) {
        return admin().number("SELECT COUNT(*) FROM NVLOCK WHERE LCKID='" + id + "'");
    }

    std::string lockId_;
    std::unique_ptr<DbAdmin> admin_;
};

std::unique_ptr<DBConnector> newConnector() {
    return std::unique_ptr<DBConnector>(DBConnector::createConnector(false));
}

}  // namespace

TEST_F(GlobalSemaphoreTest, secondConnectorIsRefusedWhileTheFirstHoldsTheRow) {
    admin();
    auto first = newConnector();
    auto second = newConnector();
    KSSemaphoreGlobal holder(lockId_, first.get());
    KSSemaphoreGlobal other(lockId_, second.get());

    ASSERT_TRUE(holder.lockResource());
    auto row = admin().rows("SELECT LCKRESOURCE, LCKACTOR, LCKTYPE FROM NVLOCK WHERE LCKID='" +
                            lockId_ + "'");
    ASSERT_EQ(1u, row.size());
    EXPECT_EQ((std::vector<std::string>{lockId_, holder.token(), "0"}), row[0]);
    KSLockToken::Holder parts;
    ASSERT_TRUE(KSLockToken::parse(holder.token(), parts)) << holder.token();
    EXPECT_EQ(getpid(), parts.pid);
    EXPECT_FALSE(other.lockResource());
    EXPECT_FALSE(other.isLocked());
    EXPECT_TRUE(other.token().empty());

    holder.unlock();
    EXPECT_EQ(0, rowsOf(lockId_));
    EXPECT_TRUE(other.lockResource());
    other.unlock();
    other.unlock();  // a second release of a lock not held does nothing
    EXPECT_EQ(0, rowsOf(lockId_));
}

TEST_F(GlobalSemaphoreTest, semaphoreWithoutConnectorMakesItsOwnToLockAndToRelease) {
    admin();
    {
        KSSemaphoreGlobal semaphore(lockId_, nullptr);
        ASSERT_TRUE(semaphore.lockResource());
        EXPECT_EQ(1, rowsOf(lockId_));
    }
    EXPECT_EQ(0, rowsOf(lockId_));

    auto connector = newConnector();
    KSSemaphoreGlobal holder(lockId_, connector.get());
    ASSERT_TRUE(holder.lockResource());
    holder.setReleaseOnDestruction(false);
    KSSemaphoreGlobal releaser(lockId_, nullptr);
    releaser.setLocked(true);  // as an explicit unlock does for a lock taken elsewhere
    releaser.unlock();
    EXPECT_EQ(0, rowsOf(lockId_));
}

TEST_F(GlobalSemaphoreTest, smartSemaphoreGivesUpOnAHeldRowAfterThirtySeconds) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    admin().exec(
        "INSERT INTO NVLOCK (LCKID,LCKRESOURCE,LCKACTOR,LCKTYPE,LCKTIME,LCKCOUNTER) "
        "VALUES ('" +
        lockId_ + "','x','elsewhere',0,NOW(),1)");
    auto connector = newConnector();
    SyslogCapture syslog;
    SmartSemaphore waiter(true, lockId_.c_str(), connector.get());
    EXPECT_FALSE(waiter.lock());
    EXPECT_EQ(30000, KSClock::offsetMillisForTesting());
    EXPECT_TRUE(
        syslog.findEqual("SmartSemaphore.lock() : KSException caught: 'Semaphore timed out' (1)"));
    EXPECT_EQ(1, rowsOf(lockId_)) << "the other holder's row is left alone";
}

// The child takes the lock and ends without giving it back; only an explicit unlock, from any
// process, frees it. The child is forked before this process opens the repository, so it shares
// no connection with the parent.
TEST_F(GlobalSemaphoreTest, explicitResourceLockOutlivesTheProcessThatTookIt) {
    ScratchRepository repo;
    repo.addMount("p1");
    repo.addMount("p2");
    repo.writeConfig({{"isShared", "true"}});
    const std::string resource = lockId_.substr(std::string("KSRepositoryHandler-").size());
    std::unique_ptr<char[]> id(toResourceID(repo.path().c_str(), resource.c_str()));
    const std::string identity = id.get();
    lockId_ = identity;
    admin();

    int code = runInChild([&] {
        auto connector = newConnector();
        return lockResource_(repo.path().c_str(), resource.c_str(), connector.get()) == 1 ? 0 : 1;
    });
    ASSERT_EQ(0, code);
    EXPECT_EQ(1, rowsOf(identity));

    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    auto connector = newConnector();
    SyslogCapture syslog;
    EXPECT_EQ(0, lockResource_(repo.path().c_str(), resource.c_str(), connector.get()));
    EXPECT_TRUE(syslog.findEqual("The resource \"" + identity + "\" could not be locked."));

    EXPECT_EQ(1, unlockResource_(repo.path().c_str(), resource.c_str(), connector.get()));
    EXPECT_EQ(0, rowsOf(identity));
    EXPECT_EQ(1, lockResource_(repo.path().c_str(), resource.c_str(), connector.get()));
    EXPECT_EQ(1, rowsOf(identity)) << "the lock stays after the call";
    EXPECT_EQ(1, unlockResource_(repo.path().c_str(), resource.c_str(), nullptr));
    EXPECT_EQ(0, rowsOf(identity));
}
