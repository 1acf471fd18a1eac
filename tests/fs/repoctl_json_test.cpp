// repoctl's --json output on real repositories: one strict JSON document per command, with the
// fields the README documents, and the exit status that goes with the answer.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "JsonValue.h"
#include "RepoctlRun.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

using Env = std::vector<std::pair<std::string, std::string>>;

// Runs repoctl with --json added and parses its standard output, which must be exactly one
// document.
JsonValue jsonOf(const std::vector<std::string>& arguments, const Env& env, int expectedCode) {
    std::vector<std::string> withJson = arguments;
    withJson.push_back("--json");
    const RepoctlRun run = runRepoctl(withJson, env);
    EXPECT_EQ(run.code, expectedCode) << arguments[0] << ": " << run.err << run.out;
    // No progress line: standard error is no terminal here, and --json keeps it quiet anyway.
    EXPECT_EQ(run.err.find_first_of("\r\033"), std::string::npos) << run.err;
    JsonValue value;
    std::string error;
    EXPECT_TRUE(JsonValue::parse(run.out, value, error)) << arguments[0] << ": " << error << "\n"
                                                         << run.out;
    return value;
}

std::vector<std::string> strings(const JsonValue& array) {
    std::vector<std::string> out;
    for (const JsonValue& v : array.array()) out.push_back(v.string());
    return out;
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A repository of plain folders with lock files and state of its own.
class RepoctlJson : public ::testing::Test {
  protected:
    RepoctlJson() { env = {{"LOCK_VAR", state.mkdir("locks")}, {"VAR", state.mkdir("var")}}; }
    TempTree state;
    Env env;
};

}  // namespace

TEST_F(RepoctlJson, statusNamesEveryBitWithItsNumberAndGivesEveryLimit) {
    RH_REQUIRE_MOUNTS();
    ScratchRepository repo;
    repo.addTmpfsMount("p1", 100 * TmpfsMount::kBlockSize, 1000, {{"switchLimit", "50"}});
    repo.addTmpfsMount("p2", 100 * TmpfsMount::kBlockSize, 1000);
    repo.addMount("p3");
    repo.tmpfs(0)->fillBlocksTo(60);
    repo.tmpfs(1)->fillBlocksTo(99);
    repo.writeConfig({{"isShared", "false"}, {"repositoryId", "site-1"}});
    ASSERT_EQ(unlink((repo.mountPath(2) + "/repositorypart.cfg").c_str()), 0);

    const JsonValue doc = jsonOf({"status", repo.path()}, env, 0);
    ASSERT_EQ(doc["repositories"].size(), 1u);
    const JsonValue& r = doc["repositories"][0];
    EXPECT_EQ(r["path"].string(), repo.path());
    EXPECT_TRUE(r["usable"].boolean());
    EXPECT_EQ(r["status"]["value"].number(), 144);
    EXPECT_EQ(strings(r["status"]["names"]), (std::vector<std::string>{"incomplete", "switch"}));
    EXPECT_FALSE(r["locks"]["shared"].boolean());
    EXPECT_EQ(r["locks"]["scopeBy"].string(), "repositoryId");
    EXPECT_EQ(r["locks"]["scope"].string(), "site-1");
    ASSERT_EQ(r["mounts"].size(), 3u);
    const JsonValue& p1 = r["mounts"][0];
    EXPECT_EQ(p1["path"].string(), repo.mountPath(0));
    EXPECT_NEAR(p1["usedPercent"].number(), 60.0, 0.01);
    EXPECT_EQ(p1["limits"]["switch"].number(), 50);
    EXPECT_EQ(p1["limits"]["hardFull"].number(), 99.9);
    EXPECT_EQ(p1["limits"]["remind"].number(), 80);
    EXPECT_EQ(p1["status"]["value"].number(), 0x010);
    EXPECT_EQ(strings(p1["status"]["names"]), std::vector<std::string>{"switch"});
    EXPECT_EQ(r["mounts"][1]["status"]["value"].number(), 0x0ff);
    EXPECT_EQ(r["mounts"][1]["status"]["names"].size(), 8u);
    const JsonValue& p3 = r["mounts"][2];
    EXPECT_TRUE(p3["usedPercent"].isNull());
    EXPECT_TRUE(p3["dead"].boolean());
    EXPECT_EQ(strings(p3["status"]["names"]), std::vector<std::string>{"dead"});

    // A missing repository is reported on standard error; the document still parses.
    const JsonValue two = jsonOf({"status", repo.path(), "/nonexistent/repo"}, env, 1);
    EXPECT_EQ(two["repositories"].size(), 1u);
}

TEST_F(RepoctlJson, resourceCommandsAnswerWithTheirStatusByNameAndNumber) {
    ScratchRepository repo;
    repo.addMount("p1");
    repo.addMount("p2");
    repo.addMount("fast", {{"type", "fast"}});
    const std::string legacy = state.mkdir("legacy");
    repo.writeConfig({{"isShared", "false"}, {"legacyDir", legacy}});
    const std::string& r = repo.path();

    JsonValue doc = jsonOf({"create", r, "s1", "--directory"}, env, 0);
    EXPECT_EQ(doc["status"]["value"].number(), 0);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"found"});
    EXPECT_FALSE(doc["existed"].boolean());
    const std::string location = doc["location"].string();
    ASSERT_EQ(location.rfind(repo.mountPath(0) + "/", 0), 0u) << location;
    ASSERT_TRUE(isDirectory(location));
    doc = jsonOf({"create", r, "s1", "--directory", "--exclusive"}, env, 1);
    EXPECT_EQ(doc["status"]["value"].number(), 8);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"erroneous"});
    EXPECT_TRUE(doc["location"].isNull());

    // A second copy on p2, as an interrupted move leaves it: both are listed, nothing merged.
    const std::string copy = repo.mountPath(1) + location.substr(repo.mountPath(0).size());
    ASSERT_EQ(system(("mkdir -p '" + copy + "'").c_str()), 0);
    doc = jsonOf({"locations", r, "s1"}, env, 0);
    EXPECT_EQ(strings(doc["locations"]), (std::vector<std::string>{location, copy}));
    doc = jsonOf({"locate", r, "s1", "--mount", "p2"}, env, 0);
    EXPECT_EQ(doc["location"].string(), copy);
    doc = jsonOf({"remove", r, "s1", "--mount", "p2"}, env, 0);
    EXPECT_TRUE(doc["removed"].boolean());
    EXPECT_EQ(doc["mount"].string(), "p2");
    EXPECT_FALSE(isDirectory(copy));
    EXPECT_TRUE(isDirectory(location));
    doc = jsonOf({"locations", r, "nothing"}, env, 1);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"missing"});

    doc = jsonOf({"times", r, "s1", "--set-access", "1000000000", "--set-modified", "1200000000"},
                 env, 0);
    EXPECT_EQ(doc["accessTime"].number(), 1000000000);
    EXPECT_EQ(doc["modificationTime"].number(), 1200000000);
    doc = jsonOf({"times", r, "s1", "--set-access", "1100000000"}, env, 0);
    EXPECT_EQ(doc["accessTime"].number(), 1100000000);
    EXPECT_EQ(doc["modificationTime"].number(), 1200000000);
    doc = jsonOf({"times", r, "nothing"}, env, 1);
    EXPECT_FALSE(doc["found"].boolean());

    EXPECT_EQ(jsonOf({"mount-for", r, "s1"}, env, 0)["mount"].string(), repo.mountPath(0));
    EXPECT_EQ(jsonOf({"mount-of", r, repo.mountPath(1) + "/AB/x"}, env, 0)["mount"].string(),
              repo.mountPath(1));
    EXPECT_TRUE(jsonOf({"mount-of", r, "/usr/lib"}, env, 1)["mount"].isNull());
    doc = jsonOf({"resource-status", r, "nothing"}, env, 1);
    EXPECT_EQ(doc["status"]["value"].number(), 4);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"missing"});
    EXPECT_EQ(strings(jsonOf({"list", r}, env, 0)["names"]), std::vector<std::string>{"s1"});

    doc = jsonOf({"unage", r, "s1"}, env, 0);
    EXPECT_EQ(doc["location"].string().rfind(repo.mountPath(2) + "/", 0), 0u)
        << doc["location"].string();
    EXPECT_TRUE(jsonOf({"unage", r, "nothing"}, env, 1)["location"].isNull());
    doc = jsonOf({"legacy", r, "old1"}, env, 0);
    EXPECT_TRUE(doc["created"].boolean());
    EXPECT_TRUE(isDirectory(legacy + "/old1"));

    doc = jsonOf({"remove", r, "s1"}, env, 0);
    EXPECT_EQ(doc["status"]["value"].number(), 0);
    EXPECT_TRUE(doc["status"]["names"].array().empty());
    doc = jsonOf({"remove", r, "s1"}, env, 1);
    EXPECT_EQ(doc["status"]["value"].number(), 4);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"missing"});
    doc = jsonOf({"hash", "study1", "../etc"}, env, 1);
    EXPECT_EQ(doc["names"][0]["location"].string(), "SH/D_/Z4/study1");
    EXPECT_FALSE(doc["names"][1]["valid"].boolean());
    EXPECT_TRUE(doc["names"][1]["location"].isNull());
}

TEST_F(RepoctlJson, locksDirtyMarksAndMountAidsReportWhatTheyDid) {
    ScratchRepository repo;
    repo.addMount("p1");
    repo.addMount("p2");
    // The mounts are plain folders on the machine's own disk: limits no disk reaches keep the
    // status independent of how full that disk happens to be.
    repo.writeConfig({{"isShared", "false"},   {"remindLimit", "0"},   {"warnLimit", "0"},
                      {"warn2Limit", "0"},     {"warn3Limit", "0"},    {"switchLimit", "101"},
                      {"fullLimit", "101"},    {"cleanLimit", "101"},  {"moveLimit", "101"},
                      {"hardFullLimit", "101"}});
    const std::string& r = repo.path();

    JsonValue doc = jsonOf({"lock", r, "s1"}, env, 0);
    EXPECT_TRUE(doc["locked"].boolean());
    std::string flat = "KSRepositoryHandler-" + r + "-s1";
    for (char& c : flat) c = c == '/' ? '_' : c;
    EXPECT_EQ(doc["lockId"].string(), flat);
    EXPECT_EQ(access((env[0].second + "/semaphore_" + flat).c_str(), F_OK), 0);
    EXPECT_TRUE(jsonOf({"unlock", r, "s1"}, env, 0)["unlocked"].boolean());
    doc = jsonOf({"unlock", r, "s1"}, env, 1);
    EXPECT_EQ(doc["result"].number(), 0);
    EXPECT_FALSE(doc["unlocked"].boolean());

    EXPECT_TRUE(jsonOf({"dirty", r, "set", "d1"}, env, 0)["dirty"].boolean());
    EXPECT_TRUE(jsonOf({"dirty", r, "set", "d2"}, env, 0)["dirty"].boolean());
    EXPECT_FALSE(jsonOf({"dirty", r, "clear", "d1"}, env, 0)["dirty"].boolean());
    doc = jsonOf({"dirty", r}, env, 0);
    EXPECT_EQ(doc["count"].number(), 1);
    EXPECT_EQ(strings(doc["names"]), std::vector<std::string>{"d2"});

    doc = jsonOf({"mount-out", r, "1"}, env, 0);
    EXPECT_TRUE(doc["done"].boolean());
    EXPECT_TRUE(jsonOf({"status", r}, env, 0)["repositories"][0]["mounts"][1]["dead"].boolean());
    doc = jsonOf({"mount-out", r, "7"}, env, 1);
    EXPECT_EQ(doc["result"].number(), -1);
    EXPECT_EQ(jsonOf({"giveback", r}, env, 0)["givenBack"].number(), 1);
    doc = jsonOf({"setup", r}, env, 0);
    EXPECT_EQ(doc["mounts"].number(), 2);
    EXPECT_EQ(doc["status"]["value"].number(), 0);
    EXPECT_NEAR(doc["checkedAt"].number(), static_cast<double>(time(nullptr)), 60);

    // One of the two mounts goes out at random: the repository is then incomplete.
    doc = jsonOf({"rnd-mount", r}, env, 0);
    EXPECT_EQ(doc["status"]["value"].number(), 128);
    EXPECT_EQ(strings(doc["status"]["names"]), std::vector<std::string>{"incomplete"});
    EXPECT_EQ(jsonOf({"giveback", r}, env, 0)["givenBack"].number(), 1);

    ASSERT_EQ(runRepoctl({"create", r, "e1", "--directory"}, env).code, 0);
    EXPECT_EQ(jsonOf({"empty", r, "--yes"}, env, 0)["left"].number(), 0);
    EXPECT_TRUE(jsonOf({"list", r}, env, 0)["names"].array().empty());
}
