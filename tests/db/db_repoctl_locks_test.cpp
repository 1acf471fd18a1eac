// repoctl locks and metrics on a shared repository: the lock rows of the repository with their
// holder, whether that holder still runs and their age by the database's clock, and removing
// the rows past an age, each only for the holder listed.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "DbTestEnv.h"
#include "JsonValue.h"
#include "KSPathUtils.h"
#include "RepoctlRun.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

using Env = std::vector<std::pair<std::string, std::string>>;

JsonValue parse(const RepoctlRun& run) {
    JsonValue value;
    std::string error;
    EXPECT_TRUE(JsonValue::parse(run.out, value, error)) << error << "\n" << run.out;
    return value;
}

std::string lockId(const std::string& scope, const char* name) {
    std::unique_ptr<char[]> id(toResourceID(scope.c_str(), name));
    return id.get();
}

// Deletes the repository's lock rows when the test ends, even when it fails.
class RowsOf {
  public:
    explicit RowsOf(std::string prefix) : prefix_(std::move(prefix)) {}
    ~RowsOf() {
        try {
            admin_.exec(where("DELETE FROM "));
        } catch (...) {
        }
    }
    long long count() { return admin_.number(where("SELECT COUNT(*) FROM ")); }
    DbAdmin& admin() { return admin_; }
    std::string table() const { return getenv("NVLOCKTBL"); }

  private:
    std::string where(const std::string& verb) const {
        return verb + table() + " WHERE LCKRESOURCE LIKE '" + prefix_ + "%'";
    }
    DbAdmin admin_;
    std::string prefix_;
};

}  // namespace

TEST(RepoctlLockRows, listsRowsWithTheirHolderAndRemovesOnlyTheOldOnes) {
    RH_REQUIRE_DB();
    TempTree state;
    const Env env = {{"LOCK_VAR", state.mkdir("locks")}, {"VAR", state.mkdir("var")}};
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "true"}});
    RowsOf rows(lockId(repo.path(), ""));
    ASSERT_EQ(runRepoctl({"lock", repo.path(), "old"}, env).code, 0);
    ASSERT_EQ(runRepoctl({"lock", repo.path(), "new"}, env).code, 0);
    rows.admin().exec("UPDATE " + rows.table() +
                      " SET LCKTIME = NOW() - INTERVAL 3 HOUR WHERE LCKID = '" +
                      lockId(repo.path(), "old") + "'");

    RepoctlRun run = runRepoctl({"locks", repo.path(), "--json"}, env);
    ASSERT_EQ(run.code, 0) << run.err;
    JsonValue doc = parse(run);
    EXPECT_TRUE(doc["shared"].boolean());
    ASSERT_EQ(doc["count"].number(), 2) << run.out;
    const JsonValue& old = doc["locks"][0];
    EXPECT_EQ(old["kind"].string(), "row");
    EXPECT_EQ(old["resource"].string(), "old");
    EXPECT_EQ(old["id"].string(), lockId(repo.path(), "old"));
    EXPECT_NEAR(old["age"].number(), 3 * 3600, 60);
    // The repoctl that took it has ended: its token says so.
    EXPECT_EQ(old["holder"].string().rfind("SEM:", 0), 0u) << old["holder"].string();
    EXPECT_EQ(old["holderState"].string(), "gone");
    EXPECT_LT(doc["locks"][1]["age"].number(), 60);

    run = runRepoctl({"metrics", repo.path()}, env);
    EXPECT_NE(run.out.find("repohandler_lock_rows{repository=\"" + repo.path() + "\"} 2\n"),
              std::string::npos)
        << run.out;

    run = runRepoctl({"locks", repo.path(), "--older-than", "2h", "--remove", "--json"}, env);
    EXPECT_EQ(run.code, 0) << run.err;
    doc = parse(run);
    ASSERT_EQ(doc["count"].number(), 1);
    EXPECT_TRUE(doc["locks"][0]["removed"].boolean());
    EXPECT_EQ(rows.count(), 1);
    EXPECT_EQ(runRepoctl({"lock", repo.path(), "old"}, env).code, 0);  // free again
    EXPECT_EQ(runRepoctl({"unlock", repo.path(), "old"}, env).code, 0);
    EXPECT_EQ(runRepoctl({"unlock", repo.path(), "new"}, env).code, 0);
    EXPECT_EQ(rows.count(), 0);
}

TEST(RepoctlLockRows, aHolderOnAnotherHostIsShownAsSuchAndItsRowKeptByTheAgeFilter) {
    RH_REQUIRE_DB();
    TempTree state;
    const Env env = {{"LOCK_VAR", state.mkdir("locks")}, {"VAR", state.mkdir("var")}};
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "true"}});
    RowsOf rows(lockId(repo.path(), ""));
    ASSERT_EQ(runRepoctl({"lock", repo.path(), "s1"}, env).code, 0);
    // A holder on another host: only that host can tell whether it still runs.
    rows.admin().exec("UPDATE " + rows.table() +
                      " SET LCKTIME = NOW() - INTERVAL 3 HOUR, LCKACTOR = "
                      "'SEM:otherhost:4242:100:0123abcd:89abcdef:1'"
                      " WHERE LCKID = '" +
                      lockId(repo.path(), "s1") + "'");
    RepoctlRun run = runRepoctl({"locks", repo.path(), "--json"}, env);
    const JsonValue doc = parse(run);
    ASSERT_EQ(doc["count"].number(), 1);
    EXPECT_EQ(doc["locks"][0]["holderState"].string(), "other host");
    run = runRepoctl({"locks", repo.path(), "--older-than", "4h", "--remove"}, env);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err, "0 locks\n");
    EXPECT_EQ(rows.count(), 1);
}
