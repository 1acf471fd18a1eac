// A shared repository locks its resources through the lock table of the private server: a row
// held by another connector blocks lookups and creation, and none is left behind afterwards.

#include <gtest/gtest.h>

#include <signal.h>

#include <fstream>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "DBConnector.h"
#include "DbTestEnv.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
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

// A repository whose directory is missing has no mounts and is shared (the default): its
// overload run takes the repository lock in the lock table and walks no mount at all.
TEST(SharedOverloadStop, ASignalDuringARunOverARepositoryWithoutMountsIsLogged) {
    RH_REQUIRE_DB();
    ScratchRepository repo;
    const std::string missing = repo.path() + "/none";
    const std::string count = repo.path() + "/interrupt-lines";
    int code = runInChild([&] {
        SyslogCapture log;
        log.raiseWhenLogged("checkoverload at the end", SIGTERM);
        checkOverload_(missing.c_str(), false, false, nullptr);
        if (!checkoverloadStopped) return 1;
        std::ofstream(count) << log.countContaining("Checkoverload interrupt signal is 15");
        return 0;
    });
    ASSERT_EQ(code, 0);
    EXPECT_EQ(readFile(count), "1");
}

}  // namespace
