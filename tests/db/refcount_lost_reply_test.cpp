// Reference counts whose replies are lost: a real TCP proxy in front of the server closes the
// connection right after the server answered a chosen statement, and the connector repeats the
// update on a new connection. Counting, the removal lock and object row deletes must still take
// effect exactly once. The proxy forwards to MYSQL_HOST:MYSQL_TCP_PORT of the environment.

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "LostReplyProxy.h"
#include "RefcountDB.h"

using kelp::db::DBConnector;
using kelp::db::DBException;
using kelp::db::RefcountDB;

namespace {

class LostRefcountReply : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        std::string host, why;
        int port = 0;
        if (!tcpServerOfEnvironment(host, port, why)) GTEST_SKIP() << why;
        proxy_ = std::make_unique<LostReplyProxy>(host, port);
        proxy_->start();
        id_ = uniqueName("lost-item");
        study_ = uniqueName("1.2.840.lost");
        connector_ = connectorThroughPort(proxy_->port());
        refs_ = connector_->refcountDB();
    }
    void TearDown() override {
        proxy_.reset();
        if (id_.empty()) return;
        admin().exec("DELETE FROM REFCOUNT WHERE ID='" + id_ + "'");
        admin().exec("DELETE FROM OBJECTFILE WHERE STYIUID='" + study_ + "'");
    }
    DbAdmin& admin() {
        if (!admin_) admin_ = std::make_unique<DbAdmin>();
        return *admin_;
    }
    long long counter(const std::string& referrer) {
        return admin().number("SELECT COUNTER FROM REFCOUNT WHERE ID='" + id_ +
                              "' AND TYPE='STUDY' AND REFERRER='" + referrer + "'");
    }
    // Token rows this process's updates left behind.
    long long tokensLeft() {
        return admin().number(
            "SELECT COUNT(*) FROM REFCOUNT WHERE TYPE='RETRYTOKEN' AND ID LIKE 'once:" +
            std::to_string(getpid()) + ":%'");
    }

    std::unique_ptr<LostReplyProxy> proxy_;
    std::string id_, study_;
    std::unique_ptr<DBConnector> connector_;
    RefcountDB* refs_ = nullptr;
    std::unique_ptr<DbAdmin> admin_;
};

}  // namespace

// The update's own reply lost: its transaction never committed. The COMMIT's reply lost: it
// did. Either way the repetition must leave exactly one step of counting.
TEST_F(LostRefcountReply, countingUpdatesWhoseRepliesAreLostCountOnce) {
    proxy_->dropNext("INSERT INTO REFCOUNT", 1);
    EXPECT_EQ(1u, refs_->addEntry(id_, "STUDY", "archive"));
    EXPECT_EQ(1, counter("archive"));
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(2u, refs_->addEntry(id_, "STUDY", "archive"));
    EXPECT_EQ(2, counter("archive"));
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(2u, refs_->addEntry(id_, "STUDY", "archive"));
    EXPECT_EQ(3, counter("archive"));
    EXPECT_EQ(3, proxy_->dropped());

    proxy_->dropNext("UPDATE REFCOUNT", 1);
    EXPECT_EQ(0u, refs_->removeEntry(id_, "STUDY", "archive"));
    EXPECT_EQ(2, counter("archive"));
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(0u, refs_->removeEntry(id_, "STUDY", "archive"));
    EXPECT_EQ(1, counter("archive")) << "a lost reply made the decrement count twice";
    EXPECT_EQ(5, proxy_->dropped());
    EXPECT_EQ(1, refs_->countEntries(id_, "STUDY"));
    EXPECT_EQ(0, tokensLeft());
}

TEST_F(LostRefcountReply, removalLockWhoseReplyIsLostIsTakenOnceAndItsReleaseSparesTheNextOne) {
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(1u, refs_->createLockEntryInDB(id_, "STUDY"));
    EXPECT_EQ(1, proxy_->dropped());
    EXPECT_EQ(0, counter("LOCKREMOVEREF"));
    auto other = connectorThroughPort(proxy_->port());
    EXPECT_THROW(other->refcountDB()->createLockEntryInDB(id_, "STUDY"), DBException)
        << "the removal lock is held";

    // The release commits, its reply is lost, and another process takes the removal lock before
    // the connector repeats the release.
    bool otherTook = false;
    auto direct = std::unique_ptr<DBConnector>(DBConnector::createConnector(false));
    proxy_->onDrop(
        [&] { otherTook = direct->refcountDB()->createLockEntryInDB(id_, "STUDY") == 1; });
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(1u, refs_->removeLockEntryFromDB(id_, "STUDY"));
    EXPECT_EQ(2, proxy_->dropped());
    ASSERT_TRUE(otherTook);
    EXPECT_EQ(0, counter("LOCKREMOVEREF")) << "the next holder's removal lock was deleted";
    EXPECT_EQ(0, tokensLeft());
}

TEST_F(LostRefcountReply, objectRowDeleteWhoseReplyIsLostSparesTheRowMadeAgain) {
    const std::string row =
        "INSERT INTO OBJECTFILE (STYIUID, FNAME) VALUES ('" + study_ + "','f1')";
    admin().exec(row);
    proxy_->onDrop([&] { DbAdmin().exec(row); });
    proxy_->dropNext("COMMIT", 1);
    EXPECT_EQ(1u, refs_->removeObjectFromDatabase(study_ + "/f1"));
    EXPECT_EQ(1, proxy_->dropped());
    EXPECT_EQ(1, admin().number("SELECT COUNT(*) FROM OBJECTFILE WHERE STYIUID='" + study_ + "'"))
        << "the repeated delete removed the row made after the first";
    EXPECT_EQ(0, tokensLeft());
}
