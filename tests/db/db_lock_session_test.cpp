// The lock and session facets on the real server.
#include <syslog.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "LockDB.h"
#include "ScopedEnv.h"
#include "SessionDB.h"
#include "SyslogCapture.h"

using namespace kelp::db;

namespace {

class DbLocks : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        connector.reset(DBConnector::createConnector(false));
        lockId = uniqueName("lock");
    }
    void TearDown() override {
        if (!lockId.empty()) admin().exec("DELETE FROM NVLOCK WHERE LCKID='" + lockId + "'");
    }
    DbAdmin& admin() {
        if (!admin_) admin_ = std::make_unique<DbAdmin>();
        return *admin_;
    }

    std::unique_ptr<DBConnector> connector;
    std::string lockId;
    SyslogCapture log;

  private:
    std::unique_ptr<DbAdmin> admin_;
};

}  // namespace

TEST_F(DbLocks, secondTakerOfALockIsRefusedWithoutALogLine) {
    std::unique_ptr<DBConnector> otherProcess(connector->forThread());
    log.clear();
    EXPECT_TRUE(connector->lockDB()->lockFirstTime(lockId, "the resource", "me", 7));
    EXPECT_FALSE(otherProcess->lockDB()->lockFirstTime(lockId, "the resource", "you", 7));
    EXPECT_TRUE(log.lines().empty()) << log.lines().front().text;

    auto row = admin().rows(
        "SELECT LCKRESOURCE, LCKACTOR, LCKTYPE, LCKCOUNTER, LCKTIME IS NOT NULL "
        "FROM NVLOCK WHERE LCKID='" +
        lockId + "'");
    ASSERT_EQ(1u, row.size());
    EXPECT_EQ((std::vector<std::string>{"the resource", "me", "7", "1", "1"}), row[0]);

    EXPECT_TRUE(otherProcess->lockDB()->releaseLock(lockId));
    EXPECT_TRUE(otherProcess->lockDB()->lockFirstTime(lockId, "the resource", "you", 7));
}

TEST_F(DbLocks, releasingALockNotHeldAnswersFalse) {
    EXPECT_FALSE(connector->lockDB()->releaseLock(lockId));
}

TEST_F(DbLocks, lockRaisedToCounterTwoSurvivesRelease) {
    ASSERT_TRUE(connector->lockDB()->lockFirstTime(lockId, "r", "a", 1));
    admin().exec("UPDATE NVLOCK SET LCKCOUNTER=2 WHERE LCKID='" + lockId + "'");
    EXPECT_FALSE(connector->lockDB()->releaseLock(lockId));
    EXPECT_EQ(1, admin().number("SELECT COUNT(*) FROM NVLOCK WHERE LCKID='" + lockId + "'"));
}

TEST_F(DbLocks, missingLockTableNameIsLoggedAndThrown) {
    ScopedEnv noTable("NVLOCKTBL", nullptr);
    std::unique_ptr<DBConnector> unnamed(DBConnector::createConnector(false));
    log.clear();
    try {
        unnamed->lockDB()->lockFirstTime(lockId, "r", "a", 1);
        FAIL() << "a lock was taken in a table without a name";
    } catch (const DBException& e) {
        EXPECT_EQ(1064u, e.code());
        auto line = log.findContaining("LockDBSql::lockFirstTime: Exception caught: ");
        ASSERT_TRUE(line);
        EXPECT_EQ("LockManager", line->ident);
        EXPECT_EQ(LOG_LOCAL3, line->facility);
        EXPECT_EQ(LOG_ERR, line->priority);
        EXPECT_EQ(std::string("LockDBSql::lockFirstTime: Exception caught: ") + e.what(),
                  line->text);
    }
    EXPECT_EQ(0, log.countContaining("executeUpdate: SqlException caught"));
}

namespace {

class DbSessions : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        sid = uniqueName("sid");
        connector.reset(DBConnector::createConnector(false));
    }
    void TearDown() override {
        if (!sid.empty()) DbAdmin().exec("DELETE FROM USERSESSION WHERE SID='" + sid + "'");
    }
    void addSession(const std::string& ip, const std::string& values) {
        DbAdmin().exec("INSERT INTO USERSESSION VALUES ('" + sid + "','" + ip + "'," + values +
                       ")");
    }
    std::string sid;
    std::unique_ptr<DBConnector> connector;
};

}  // namespace

TEST_F(DbSessions, signedOnSessionGivesItsPriorityAndFlag) {
    addSession("10.0.0.1", "'Y', 5, 3");
    int priority = -1;
    bool flag = false;
    EXPECT_TRUE(connector->sessionDB()->checkSession(sid, "10.0.0.1", priority, flag));
    EXPECT_EQ(5, priority);
    EXPECT_TRUE(flag);
}

TEST_F(DbSessions, nullColumnsLeaveTheCallersValues) {
    addSession("10.0.0.2", "'y', NULL, NULL");
    int priority = 42;
    bool flag = true;
    EXPECT_TRUE(connector->sessionDB()->checkSession(sid, "10.0.0.2", priority, flag));
    EXPECT_EQ(42, priority);
    EXPECT_TRUE(flag);
}

TEST_F(DbSessions, unknownOrSignedOffSessionsAreNotSignedOn) {
    addSession("10.0.0.3", "'N', 1, 0");
    addSession("10.0.0.4", "NULL, 1, 0");
    int priority = 0;
    bool flag = false;
    SessionDB* sessions = connector->sessionDB();
    EXPECT_FALSE(sessions->checkSession(sid, "10.0.0.3", priority, flag));
    EXPECT_FALSE(sessions->checkSession(sid, "10.0.0.4", priority, flag));
    EXPECT_FALSE(sessions->checkSession(sid, "10.9.9.9", priority, flag));
    EXPECT_EQ(0, priority);
}
