// Database locks whose replies are lost: a real TCP proxy in front of the server closes the
// connection right after the server answered a lock statement, so the statement has run and the
// connector repeats it on a new connection. Neither the repeated insert nor the repeated delete
// may change who holds the lock.
//
// The proxy forwards to MYSQL_HOST:MYSQL_TCP_PORT of the environment, so pointing those at
// another server (a cluster behind its load balancer, with MYSQL_UNIX_PORT unset) runs the same
// tests there.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ClockControl.h"
#include "DBConnector.h"
#include "DBConnectorSql.h"
#include "DbTestEnv.h"
#include "KSClock.h"
#include "KSDirtyFlagHandler.h"
#include "KSPathUtils.h"
#include "KSSemaphoreGlobal.h"
#include "LockDB.h"
#include "LockDBSql.h"
#include "LostReplyProxy.h"
#include "SmartSemaphore.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "repohandler.h"

using kelp::db::DBConnector;
using kelp::db::LockDBSql;

namespace {

const char kInsert[] = "INSERT INTO NVLOCK";
const char kDelete[] = "DELETE FROM NVLOCK";

std::unique_ptr<DBConnector> directConnector() {
    return std::unique_ptr<DBConnector>(DBConnector::createConnector(false));
}

class LostLockReply : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        std::string why;
        if (!tcpServerOfEnvironment(host_, port_, why)) GTEST_SKIP() << why;
        proxy_ = std::make_unique<LostReplyProxy>(host_, port_);
        proxy_->start();
        lockId_ = uniqueName("KSRepositoryHandler-lost");
    }
    void TearDown() override {
        proxy_.reset();
        if (!lockId_.empty())
            admin().exec("DELETE FROM NVLOCK WHERE LCKRESOURCE LIKE '" + lockId_ + "%'");
    }

    // A connector whose every connection goes through the proxy.
    std::unique_ptr<DBConnector> proxiedConnector() { return connectorThroughPort(proxy_->port()); }
    DbAdmin& admin() {
        if (!admin_) admin_ = std::make_unique<DbAdmin>();
        return *admin_;
    }
    std::vector<std::vector<std::string>> rowsOf(const std::string& resource) {
        return admin().rows("SELECT LCKACTOR FROM NVLOCK WHERE LCKRESOURCE='" + resource + "'");
    }

    std::string host_;
    int port_ = 0;
    std::unique_ptr<LostReplyProxy> proxy_;
    std::string lockId_;
    std::unique_ptr<DbAdmin> admin_;
};

}  // namespace

TEST_F(LostLockReply, lostInsertReplyStillGivesTheLockAtOnceAndTheReleaseLeavesNoRow) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    auto connector = proxiedConnector();
    SyslogCapture log;
    proxy_->dropNext(kInsert, 1);

    SmartSemaphore semaphore(true, lockId_.c_str(), connector.get());
    EXPECT_TRUE(semaphore.lock());
    EXPECT_EQ(1, proxy_->dropped());
    EXPECT_EQ(0, KSClock::offsetMillisForTesting()) << "the lock was waited for";
    EXPECT_TRUE(log.findEqual("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    auto* global = static_cast<KSSemaphoreGlobal*>(semaphore.semaphore());
    auto rows = rowsOf(lockId_);
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ(global->token(), rows[0][0]);

    semaphore.unlock();
    EXPECT_TRUE(rowsOf(lockId_).empty());
}

TEST_F(LostLockReply, repeatedInsertMeetingAnotherHoldersRowAnswersBusy) {
    auto connector = proxiedConnector();
    auto other = directConnector();
    ASSERT_TRUE(other->lockDB()->lockFirstTime(lockId_, lockId_, "the other holder", 0));
    proxy_->dropNext(kInsert, 1);

    EXPECT_FALSE(connector->lockDB()->lockFirstTime(lockId_, lockId_, "me", 0));
    EXPECT_EQ(1, proxy_->dropped());
    auto rows = rowsOf(lockId_);
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ("the other holder", rows[0][0]);
}

// The first delete runs and its reply is lost; before the connector repeats it, another process
// takes the lock. The repeated delete must leave that lock alone.
TEST_F(LostLockReply, lostDeleteReplyNeverRemovesTheNextHoldersRow) {
    auto connector = proxiedConnector();
    auto next = directConnector();
    KSSemaphoreGlobal holder(lockId_, connector.get());
    KSSemaphoreGlobal nextHolder(lockId_, next.get());
    ASSERT_TRUE(holder.lockResource());
    bool nextTook = false;
    proxy_->onDrop([&] { nextTook = nextHolder.lockResource(); });
    proxy_->dropNext(kDelete, 1);

    holder.unlock();
    EXPECT_EQ(1, proxy_->dropped());
    ASSERT_TRUE(nextTook);
    auto rows = rowsOf(lockId_);
    ASSERT_EQ(1u, rows.size()) << "the next holder's lock was removed";
    EXPECT_EQ(nextHolder.token(), rows[0][0]);

    nextHolder.unlock();
    EXPECT_TRUE(rowsOf(lockId_).empty());
}

TEST_F(LostLockReply, lostReplyOfAnExplicitUnlockLeavesTheNextHoldersLock) {
    TempTree tree;
    tree.write("repo/p1/repositorypart.cfg", "");
    tree.write("repo/repository.cfg", "isShared=\"true\"\nmountPoints=\"p1\"\n");
    const std::string repo = tree.path("repo");
    const std::string resource = lockId_.substr(std::string("KSRepositoryHandler-").size());
    std::unique_ptr<char[]> id(toResourceID(repo.c_str(), resource.c_str()));
    const std::string identity = id.get();
    lockId_ = identity;
    auto connector = proxiedConnector();
    auto next = directConnector();
    ASSERT_EQ(1, lockResource_(repo.c_str(), resource.c_str(), next.get()));

    // Released by the explicit unlock (whoever took it), taken again by a holder of its own while
    // the unlock's reply is lost.
    KSSemaphoreGlobal nextHolder(identity, next.get());
    bool nextTook = false;
    proxy_->onDrop([&] { nextTook = nextHolder.lockResource(); });
    proxy_->dropNext(kDelete, 1);
    EXPECT_EQ(1, unlockResource_(repo.c_str(), resource.c_str(), connector.get()));
    EXPECT_EQ(1, proxy_->dropped());
    ASSERT_TRUE(nextTook);
    auto rows = rowsOf(identity);
    ASSERT_EQ(1u, rows.size()) << "the next holder's lock was removed";
    EXPECT_EQ(nextHolder.token(), rows[0][0]);
    nextHolder.unlock();
}

TEST_F(LostLockReply, lostReplyOfAReleaseStillReportsTheLockGivenBack) {
    auto connector = proxiedConnector();
    ASSERT_TRUE(connector->lockDB()->lockFirstTime(lockId_, lockId_, "me", 0));
    proxy_->dropNext(kDelete, 1);
    EXPECT_TRUE(connector->lockDB()->releaseLockOf(lockId_, "me"));
    EXPECT_EQ(1, proxy_->dropped());
    EXPECT_TRUE(rowsOf(lockId_).empty());
    EXPECT_FALSE(connector->lockDB()->releaseLockOf(lockId_, "me")) << "nothing left to give back";
}

// Every reply to the insert lost, the repetitions too: the caller is told the lock failed while
// the server holds a row with the take's token. The process deletes it at its next lock.
TEST_F(LostLockReply, aTakeThatEndedInAnErrorLeavesNoRowOnceTheLockTableAnswersAgain) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    auto connector = proxiedConnector();
    proxy_->dropNext(kInsert, 1000);
    {
        KSSemaphoreGlobal failed(lockId_, connector.get());
        EXPECT_ANY_THROW(failed.lockResource());
    }
    EXPECT_GE(proxy_->dropped(), 1);
    ASSERT_EQ(1u, rowsOf(lockId_).size()) << "the server ran the insert";

    proxy_->dropNext(kInsert, 0);
    const std::string next = lockId_ + "-next";
    KSSemaphoreGlobal other(next, connector.get());
    ASSERT_TRUE(other.lockResource());
    EXPECT_TRUE(rowsOf(lockId_).empty()) << "the row nobody holds is gone";
    EXPECT_EQ(1u, rowsOf(next).size()) << "the new lock is held";
    other.unlock();
    EXPECT_TRUE(rowsOf(next).empty());
}

// The lock table away for a moment (every reply to the dirty file's lock insert lost, the
// connector's repetitions too): the mark waits for it, as for a busy lock, and reaches the file.
TEST_F(LostLockReply, aDirtyMarkWaitsForALockTableThatIsAwayAndReachesTheFile) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    auto connector = proxiedConnector();
    TempTree tree;
    const std::string repository = tree.mkdir("repo");
    KSDirtyFlagHandler flags;
    flags.setRepository(connector.get(), repository.c_str(), true);
    std::unique_ptr<char[]> fileLock(toResourceID(flags.lockName().c_str(), ""));
    struct RowsGone {  // even when the test fails
        std::string id;
        ~RowsGone() { DbAdmin().exec("DELETE FROM NVLOCK WHERE LCKRESOURCE='" + id + "'"); }
    } cleanup{fileLock.get()};
    proxy_->dropNext(kInsert, static_cast<int>(kelp::db::DBConnectorSql::kMaxAttempts));

    EXPECT_TRUE(flags.setDirty(connector.get(), "1.2.3", true));
    EXPECT_GE(proxy_->dropped(), 2) << "the insert failed for good once";
    EXPECT_EQ("1.2.3\n", TempTree::read(repository + "/.dirty"));
    EXPECT_TRUE(rowsOf(fileLock.get()).empty()) << "neither the failed take's row nor the lock";
}

namespace {

// A shared repository under a deep path, so that its lock ids are longer than any key column.
class LongLockIds : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_DB(); }
    void TearDown() override {
        if (!id_.empty()) DbAdmin().exec("DELETE FROM NVLOCK WHERE LCKRESOURCE='" + id_ + "'");
    }
    std::string id_;
};

}  // namespace

TEST_F(LongLockIds, fourHundredCharacterIdLocksRefusesASecondHolderAndLeavesNoRow) {
    TempTree tree;
    std::string deep = "repo";
    for (int i = 0; i < 5; ++i) deep = std::string(50, char('a' + i)) + "/" + deep;
    tree.write(deep + "/p1/repositorypart.cfg", "");
    tree.write(deep + "/repository.cfg", "isShared=\"true\"\nmountPoints=\"p1\"\n");
    const std::string repo = tree.path(deep);
    std::unique_ptr<char[]> prefix(toResourceID(repo.c_str(), ""));
    const size_t nameLength = 400 - strlen(prefix.get());
    ASSERT_GT(nameLength, 20u);
    std::string name = "1.2.840.10008." + std::string(nameLength - 14, '7');
    std::unique_ptr<char[]> id(toResourceID(repo.c_str(), name.c_str()));
    id_ = id.get();
    ASSERT_EQ(400u, id_.size());

    auto first = directConnector();
    auto second = directConnector();
    ASSERT_EQ(1, lockResource_(repo.c_str(), name.c_str(), first.get()));
    DbAdmin admin;
    auto rows = admin.rows("SELECT LCKID FROM NVLOCK WHERE LCKRESOURCE='" + id_ + "'");
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ(LockDBSql::storageKey(id_), rows[0][0]);
    EXPECT_LE(rows[0][0].size(), 255u);

    {
        ClockGuard clock;
        KSClock::setVirtualSleepForTesting(true);
        EXPECT_EQ(0, lockResource_(repo.c_str(), name.c_str(), second.get()));
    }
    EXPECT_EQ(1, unlockResource_(repo.c_str(), name.c_str(), second.get()));
    EXPECT_EQ(0, admin.number("SELECT COUNT(*) FROM NVLOCK WHERE LCKRESOURCE='" + id_ + "'"));
    EXPECT_EQ(1, lockResource_(repo.c_str(), name.c_str(), second.get()));
    EXPECT_EQ(1, unlockResource_(repo.c_str(), name.c_str(), first.get()));
    EXPECT_EQ(0, admin.number("SELECT COUNT(*) FROM NVLOCK WHERE LCKRESOURCE='" + id_ + "'"));
}
