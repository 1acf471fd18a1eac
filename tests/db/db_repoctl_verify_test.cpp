// repoctl verify on a shared repository: old lock rows are found by the database's own clock,
// and lock rows taken under another lock scope show servers that do not exclude each other.

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DbTestEnv.h"
#include "JsonValue.h"
#include "KSPathUtils.h"
#include "LockDBSql.h"
#include "RepoctlRun.h"
#include "ResourceFiles.h"
#include "ScratchRepository.h"

namespace {

class RepoctlVerifyRows : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        admin_ = std::make_unique<DbAdmin>();
        repo_.addMount("p1");
        repo_.addMount("p2");
        repo_.writeConfig();
        // Unique per test, so rows of other tests in the same table never match.
        held_ = "held" + repo_.path().substr(repo_.path().rfind('-'));
        putResource(repo_.mountPath(1), held_);
    }
    void TearDown() override {
        for (const std::string& key : keys_) {
            if (admin_) admin_->exec("DELETE FROM NVLOCK WHERE LCKID='" + key + "'");
        }
    }

    std::string ownId(const std::string& name) const {
        std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), name.c_str()));
        return id.get();
    }
    void insertRow(const std::string& id, long long ageSeconds) {
        const std::string key = kelp::db::LockDBSql::storageKey(id);
        keys_.push_back(key);
        admin_->exec(
            "INSERT INTO NVLOCK (LCKID,LCKRESOURCE,LCKACTOR,LCKTYPE,LCKTIME,LCKCOUNTER) VALUES ('" +
            key + "','" + id + "','SEM:elsewhere:1:2:3:4:5',0,NOW() - INTERVAL " +
            std::to_string(ageSeconds) + " SECOND,1)");
    }
    JsonValue verify(int expectedCode) {
        const RepoctlRun run = runRepoctl({"verify", repo_.path(), "--json"});
        EXPECT_EQ(run.code, expectedCode) << run.out << run.err;
        JsonValue document;
        std::string error;
        EXPECT_TRUE(JsonValue::parse(run.out, document, error)) << error << run.out;
        return document;
    }
    static std::set<std::string> found(const JsonValue& document) {
        std::set<std::string> kinds;
        for (const JsonValue& finding : document["findings"].array())
            kinds.insert(finding["kind"].string() + " " + finding["name"].string());
        return kinds;
    }

    ScratchRepository repo_;
    std::unique_ptr<DbAdmin> admin_;
    std::string held_;
    std::vector<std::string> keys_;
};

TEST_F(RepoctlVerifyRows, rowsOfTheRepositoryOlderThanADayAreStaleWhateverTheirLength) {
    const std::string longName = held_ + std::string(300, 'x');
    insertRow(ownId(held_ + "-old"), 2 * 86400);
    insertRow(ownId(longName), 3 * 86400);
    insertRow(ownId(held_ + "-fresh"), 60);
    insertRow(ownId(""), 2 * 86400);  // the repository's own maintenance lock
    std::unique_ptr<char[]> other(toResourceID("/elsewhere/repo", (held_ + "-old").c_str()));
    insertRow(other.get(), 2 * 86400);

    const JsonValue document = verify(1);
    EXPECT_EQ(found(document), (std::set<std::string>{"staleLockRow " + ownId(held_ + "-old"),
                                                      "staleLockRow " + ownId(longName),
                                                      "staleLockRow " + ownId("")}));
    for (const JsonValue& finding : document["findings"].array())
        EXPECT_GE(finding["ageSeconds"].number(), 2 * 86400);
    EXPECT_EQ(document["checked"]["lockRows"].number(), 4) << "the other repository's is not";
}

TEST_F(RepoctlVerifyRows, aRowByPathWhileTheRepositoryLocksByIdIsAScopeDifference) {
    repo_.writeConfig({{"repositoryId", "archive" + held_.substr(4)}});
    insertRow(ownId(held_), 10);
    const JsonValue document = verify(1);
    EXPECT_EQ(found(document), (std::set<std::string>{"lockScope " + ownId(held_)}));
    EXPECT_NE(document["findings"][0]["detail"].string().find(repo_.path()), std::string::npos);
}

TEST_F(RepoctlVerifyRows, rowsOfAnotherScopeNamingAResourceHereAreScopeDifferences) {
    const std::string byId = "KSRepositoryHandler-archive-9-" + held_;
    const std::string byOtherPath = "KSRepositoryHandler-_srv_other_mount-" + held_;
    insertRow(byId, 10);
    insertRow(byOtherPath, 10);
    insertRow("KSRepositoryHandler-archive-9-" + held_ + "-absent", 10);
    const JsonValue document = verify(1);
    EXPECT_EQ(found(document),
              (std::set<std::string>{"lockScope " + byId, "lockScope " + byOtherPath}));
    for (const JsonValue& finding : document["findings"].array()) {
        const std::string& detail = finding["detail"].string();
        EXPECT_TRUE(detail.find("\"archive-9\"") != std::string::npos ||
                    detail.find("\"_srv_other_mount\"") != std::string::npos)
            << detail;
    }
}

TEST_F(RepoctlVerifyRows, aSharedRepositoryWithoutOldOrForeignRowsIsClean) {
    insertRow(ownId(held_), 30);
    const JsonValue document = verify(0);
    EXPECT_TRUE(document["clean"].boolean());
}

}  // namespace
