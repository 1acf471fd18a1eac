// The reference-count facet on the real server.
#include <list>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "RefcountDB.h"

using namespace kelp::db;

namespace {

class DbRefcount : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        id = uniqueName("item");
        study = uniqueName("1.2.3");
        connector.reset(DBConnector::createConnector(false));
        refs = connector->refcountDB();
    }
    void TearDown() override {
        if (id.empty()) return;
        DbAdmin admin;
        admin.exec("DELETE FROM REFCOUNT WHERE ID LIKE '" + id + "%' OR ID LIKE '" + study + "%'");
        admin.exec("DELETE FROM OBJECTFILE WHERE STYIUID='" + study + "'");
    }
    long long counter(const std::string& referrer) {
        return DbAdmin().number("SELECT COUNTER FROM REFCOUNT WHERE ID='" + id +
                                "' AND TYPE='STUDY' AND REFERRER='" + referrer + "'");
    }

    std::string id, study;
    std::unique_ptr<DBConnector> connector;
    RefcountDB* refs = nullptr;
};

}  // namespace

TEST_F(DbRefcount, referencesCountUpAndTheLastRemovalDeletesTheRow) {
    EXPECT_EQ(1u, refs->addEntry(id, "STUDY", "archive"));
    EXPECT_EQ(2u, refs->addEntry(id, "STUDY", "archive"));
    EXPECT_EQ(0u, refs->createEntry(id, "STUDY", "archive"));
    EXPECT_EQ(1u, refs->createEntry(id, "STUDY", "viewer"));
    EXPECT_EQ(2, counter("archive"));
    EXPECT_EQ(3, refs->countEntries(id, "STUDY"));
    EXPECT_EQ(2, refs->countEntry(id, "STUDY", "archive"));
    EXPECT_TRUE(refs->entriesExist(id, "STUDY"));

    EXPECT_EQ(0u, refs->removeEntry(id, "STUDY", "archive"));
    EXPECT_EQ(1u, refs->removeEntry(id, "STUDY", "archive"));
    EXPECT_EQ(-1, counter("archive"));
    EXPECT_EQ(1u, refs->removeEntry(id, "STUDY", "viewer"));
    EXPECT_FALSE(refs->entriesExist(id, "STUDY"));
    EXPECT_EQ(0, refs->countEntries(id, "STUDY"));
}

TEST_F(DbRefcount, removalLockIsARowWithCounterZeroThatCountsForNothing) {
    EXPECT_EQ(1u, refs->createLockEntryInDB(id, "STUDY"));
    EXPECT_THROW(refs->createLockEntryInDB(id, "STUDY"), DBException);
    EXPECT_EQ(0, counter("LOCKREMOVEREF"));
    EXPECT_FALSE(refs->entriesExist(id, "STUDY"));
    std::list<std::string> entries;
    std::string text;
    EXPECT_EQ(1u, refs->listEntries(id, "STUDY", entries, text));
    EXPECT_EQ("LOCKREMOVEREF=0", text);
    EXPECT_EQ(1u, refs->removeLockEntryFromDB(id, "STUDY"));
    EXPECT_EQ(0u, refs->removeLockEntryFromDB(id, "STUDY"));
}

TEST_F(DbRefcount, objectTableRowIsTheDatabaseReferenceOfAnObjectFile) {
    std::string objectId = study + "/file1";
    DbAdmin().exec("INSERT INTO OBJECTFILE VALUES ('" + study + "','file1')");

    EXPECT_EQ(0u, refs->addEntry(objectId, "OBJECTFILE", "database"));
    EXPECT_EQ(0, DbAdmin().number("SELECT COUNT(*) FROM REFCOUNT WHERE ID='" + objectId + "'"));
    EXPECT_TRUE(refs->isObjectFileInDatabase(objectId));
    EXPECT_TRUE(refs->entriesExist(objectId, "OBJECTFILE"));
    EXPECT_EQ(1, refs->countEntries(objectId, "OBJECTFILE"));
    EXPECT_EQ(1, refs->countEntry(objectId, "OBJECTFILE", "database"));

    refs->addEntry(objectId, "OBJECTFILE", "cache");
    std::list<std::string> entries;
    std::string text;
    EXPECT_EQ(2u, refs->listEntries(objectId, "OBJECTFILE", entries, text));
    EXPECT_EQ("cache=1, database=1", text);
    EXPECT_EQ(2, refs->countEntries(objectId, "OBJECTFILE"));

    EXPECT_EQ(1u, refs->removeEntry(objectId, "OBJECTFILE", "database"));
    EXPECT_EQ(0, DbAdmin().number("SELECT COUNT(*) FROM OBJECTFILE WHERE STYIUID='" + study + "'"));
    EXPECT_FALSE(refs->isObjectFileInDatabase(objectId));
}

TEST_F(DbRefcount, objectFileIdWithoutSlashIsRejected) {
    try {
        refs->isObjectFileInDatabase("no-slash-here");
        FAIL() << "an id without a slash was accepted";
    } catch (const DBException& e) {
        EXPECT_STREQ(
            "ReferenceCounterImplDB: OBJECTFILE reference 'no-slash-here' is in unexpected format",
            e.what());
        EXPECT_EQ(0u, e.code());
    }
    std::string uid, name;
    RefcountDB::parseObjectId("1.2/3/file", uid, name);
    EXPECT_EQ("1.2/3", uid);
    EXPECT_EQ("file", name);
}
