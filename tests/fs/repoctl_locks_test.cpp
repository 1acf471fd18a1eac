// repoctl locks on a repository that locks through files: which lock files are the
// repository's, their age and what they hold, and removing only those past a given age.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "JsonValue.h"
#include "KSPathUtils.h"
#include "RepoctlRun.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

using Env = std::vector<std::pair<std::string, std::string>>;

std::string lockFile(const std::string& locks, const std::string& scope, const char* name) {
    std::unique_ptr<char[]> id(toResourceID(scope.c_str(), name));
    return locks + "/semaphore_" + id.get();
}

void makeFile(const std::string& path, long ageSeconds) {
    std::ofstream(path).close();
    const struct timeval t[2] = {{time(nullptr) - ageSeconds, 0}, {time(nullptr) - ageSeconds, 0}};
    ASSERT_EQ(utimes(path.c_str(), t), 0) << path;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

JsonValue parse(const RepoctlRun& run) {
    JsonValue value;
    std::string error;
    EXPECT_TRUE(JsonValue::parse(run.out, value, error)) << error << "\n" << run.out;
    return value;
}

// A repository locking through files, with locks of every kind and of a neighbour.
class RepoctlLocks : public ::testing::Test {
  protected:
    void SetUp() override {
        repo.addMount("p1");
        repo.writeConfig({{"isShared", "false"}});
        ASSERT_EQ(runRepoctl({"lock", repo.path(), "fresh"}, env).code, 0);
        makeFile(lockFile(locks, repo.path(), "stale"), 3 * 3600);
        makeFile(lockFile(locks, repo.path(), ""), 5 * 3600);  // the maintenance lock
        makeFile(lockFile(locks, repo.path() + "/.dirty", ""), 600);
        // A repository whose path continues this one's: its locks are not listed.
        makeFile(lockFile(locks, repo.path() + "x", "stale"), 9 * 3600);
        makeFile(locks + "/semaphore_unrelated", 9 * 3600);
    }
    TempTree state;
    std::string locks = state.mkdir("locks");
    Env env = {{"LOCK_VAR", locks}, {"VAR", state.mkdir("var")}};
    ScratchRepository repo;
};

}  // namespace

TEST_F(RepoctlLocks, listsTheRepositorysLocksOldestFirstWithWhatTheyHold) {
    const RepoctlRun run = runRepoctl({"locks", repo.path(), "--json"}, env);
    ASSERT_EQ(run.code, 0) << run.err;
    const JsonValue doc = parse(run);
    EXPECT_EQ(doc["lockDirectory"].string(), locks);
    EXPECT_FALSE(doc["shared"].boolean());
    EXPECT_TRUE(doc["olderThan"].isNull());
    ASSERT_EQ(doc["count"].number(), 4) << run.out;
    const JsonValue& l = doc["locks"];
    EXPECT_EQ(l[0]["holds"].string(), "maintenance");
    EXPECT_TRUE(l[0]["resource"].isNull());
    EXPECT_NEAR(l[0]["age"].number(), 5 * 3600, 60);
    EXPECT_EQ(l[1]["holds"].string(), "resource");
    EXPECT_EQ(l[1]["resource"].string(), "stale");
    EXPECT_EQ(l[1]["file"].string(), lockFile(locks, repo.path(), "stale"));
    EXPECT_EQ(l[1]["kind"].string(), "file");
    EXPECT_NEAR(l[1]["since"].number(), time(nullptr) - 3 * 3600, 60);
    EXPECT_EQ(l[2]["holds"].string(), "dirtySet");
    EXPECT_EQ(l[3]["resource"].string(), "fresh");
    EXPECT_LT(l[3]["age"].number(), 60);
    EXPECT_TRUE(l[3]["holder"].isNull());

    const RepoctlRun older =
        runRepoctl({"locks", repo.path(), "--older-than", "2h", "--json"}, env);
    EXPECT_EQ(parse(older)["count"].number(), 2);
    EXPECT_EQ(parse(older)["olderThan"].number(), 7200);
    EXPECT_EQ(runRepoctl({"locks", repo.path(), "--older-than", "4h"}, env).out.find("stale"),
              std::string::npos);
}

TEST_F(RepoctlLocks, removeTakesOnlyTheLocksPastTheAgeAndReportsEach) {
    RepoctlRun run = runRepoctl({"locks", repo.path(), "--older-than", "2h", "--remove"}, env);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err, "2 locks\n");
    EXPECT_NE(run.out.find("resource    stale  " + lockFile(locks, repo.path(), "stale") +
                           "\n  removed\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("maintenance -  " + lockFile(locks, repo.path(), "") + "\n  removed\n"),
              std::string::npos)
        << run.out;
    EXPECT_FALSE(exists(lockFile(locks, repo.path(), "stale")));
    EXPECT_FALSE(exists(lockFile(locks, repo.path(), "")));
    EXPECT_TRUE(exists(lockFile(locks, repo.path(), "fresh")));
    EXPECT_TRUE(exists(lockFile(locks, repo.path() + "/.dirty", "")));
    EXPECT_TRUE(exists(lockFile(locks, repo.path() + "x", "stale")));
    EXPECT_TRUE(exists(locks + "/semaphore_unrelated"));

    // The removed lock can be taken at once; the fresh one is still held.
    EXPECT_EQ(runRepoctl({"lock", repo.path(), "stale"}, env).code, 0);
    run = runRepoctl({"locks", repo.path(), "--older-than", "0", "--remove", "--json"}, env);
    const JsonValue doc = parse(run);
    EXPECT_EQ(doc["count"].number(), 3);
    for (const JsonValue& lock : doc["locks"].array()) {
        EXPECT_TRUE(lock["removed"].boolean()) << lock["id"].string();
        EXPECT_TRUE(lock["notRemovedBecause"].isNull());
    }
    EXPECT_EQ(parse(runRepoctl({"locks", repo.path(), "--json"}, env))["count"].number(), 0);
}
