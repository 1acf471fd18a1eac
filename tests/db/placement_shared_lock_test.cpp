// A shared repository locks its resources through the lock table of the private server: a row
// held by another connector blocks lookups and creation, and none is left behind afterwards.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ClockControl.h"
#include "DBConnector.h"
#include "DbTestEnv.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "KSSemaphoreGlobal.h"
#include "ResourceFiles.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "repohandler.h"

using kelp::db::DBConnector;

namespace {

class PlacementSharedLock : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        repo_.addMount("p1");
        repo_.addMount("p2");
        repo_.writeConfig({{"isShared", "true"}});
        admin_ = std::make_unique<DbAdmin>();
        std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), "study1"));
        lockId_ = id.get();
    }
    void TearDown() override {
        if (admin_) admin_->exec("DELETE FROM NVLOCK WHERE LCKID='" + lockId_ + "'");
    }
    long long lockRows() {
        return admin_->number("SELECT COUNT(*) FROM NVLOCK WHERE LCKID='" + lockId_ + "'");
    }

    ScratchRepository repo_;
    std::unique_ptr<DbAdmin> admin_;
    std::string lockId_;
};

TEST_F(PlacementSharedLock, ARowHeldElsewhereBlocksLookupAndCreationUntilReleased) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    std::unique_ptr<DBConnector> other(DBConnector::createConnector(false));
    KSSemaphoreGlobal holder(lockId_, other.get());
    ASSERT_TRUE(holder.lockResource());
    const std::string location = putResource(repo_.mountPath(1), "study1");

    SyslogCapture log;
    int status = -1;
    EXPECT_EQ(
        getLocation_(repo_.path().c_str(), "study1", &status, false, true, false, false, nullptr),
        nullptr);
    EXPECT_EQ(status, 16);
    EXPECT_TRUE(log.findEqual("The resource \"" + lockId_ + "\" could not be locked."));
    int existed = -1;
    EXPECT_EQ(createLocation_(repo_.path().c_str(), "study1", &status, &existed, false, nullptr),
              nullptr);
    EXPECT_EQ(status, 16);

    holder.unlock();
    char* found =
        getLocation_(repo_.path().c_str(), "study1", &status, false, true, false, false, nullptr);
    EXPECT_EQ(found ? std::string(found) : "", location);
    release(found);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "study1", true, false, nullptr), 0);
    EXPECT_EQ(lockRows(), 0) << "every lock taken by the library is released";
}

}  // namespace
