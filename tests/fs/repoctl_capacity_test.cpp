// repoctl's maintenance commands on real tmpfs mounts: check-overload and free-mount with
// --dry-run and --json, the record of each real run, and the age profile of `repoctl ages`.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "JsonValue.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "RepoctlLastRun.h"
#include "RepoctlRun.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "TmpfsMount.h"

namespace {

constexpr time_t kDay = 86400;
constexpr unsigned long long kSmall = 256 * 4096;
constexpr unsigned long long kLarge = 1024 * 4096;
const std::string kContent(32 * 1024, 'x');

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class RepoctlMaintenance : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    std::string put(size_t i, const std::string& name, double daysOld) {
        std::string location = putResource(repo_.mountPath(i), name, "image", kContent + name);
        const time_t when = KSClock::now() - static_cast<time_t>(daysOld * kDay);
        setTimes(location + "/image", when);
        setTimes(location, when);
        return location;
    }
    RepoctlRun repoctl(const std::vector<std::string>& arguments) {
        return runRepoctl(arguments, {{"VAR", var_.root()},
                                      {"LOCK_VAR", locks_.root()},
                                      {"TMP", var_.root()},
                                      {"KSADMIN_HOME", var_.root()}});
    }
    JsonValue json(const RepoctlRun& run) {
        JsonValue value;
        std::string error;
        EXPECT_TRUE(JsonValue::parse(run.out, value, error)) << error << "\n" << run.out;
        return value;
    }

    TempTree var_, locks_;
    ScopedEnv varEnv_{"VAR", var_.root().c_str()};
    ScratchRepository repo_;
};

TEST_F(RepoctlMaintenance, checkOverloadPrintsItsPlanAsJsonThenTheRealRunDoesItAndIsRecorded) {
    repo_.addTmpfsMount("p1", kSmall, 2000, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    repo_.writeConfig({{"isShared", "false"}, {"isClearable", "true"}});
    std::vector<std::string> byAge;
    for (int i = 0; i < 20; ++i) byAge.push_back(put(0, "r" + std::to_string(i), 40 - i));

    const RepoctlRun plan = repoctl({"check-overload", "--dry-run", repo_.path(), "--json"});

    ASSERT_EQ(plan.code, 0) << plan.err;
    const JsonValue planned = json(plan);
    EXPECT_TRUE(planned["dryRun"].boolean());
    const JsonValue& steps = planned["steps"];
    ASSERT_GT(steps.size(), 0u);
    ASSERT_LT(steps.size(), byAge.size());
    double planBytes = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i]["action"].string(), "delete");
        EXPECT_EQ(steps[i]["from"].string(), byAge[i]) << "oldest first";
        EXPECT_TRUE(steps[i]["to"].isNull());
        EXPECT_NEAR(steps[i]["ageSeconds"].number(), (40.0 - i) * kDay, 60.0);
        EXPECT_EQ(steps[i]["bytes"].number(), kContent.size() + ("r" + std::to_string(i)).size());
        planBytes += steps[i]["bytes"].number();
    }
    const JsonValue& mount = planned["mounts"][0];
    EXPECT_GE(mount["usedBefore"].number(), 50.0);
    EXPECT_LT(mount["usedAfter"].number(), 40.0);
    std::string names;
    for (const JsonValue& name : mount["statusBefore"]["names"].array())
        names += name.string() + " ";
    EXPECT_TRUE(contains(names, "clean move ")) << names;
    EXPECT_EQ(mount["statusAfter"]["value"].number(), 0.0);
    for (const std::string& location : byAge) EXPECT_TRUE(entryExists(location));
    RepoctlLastRun none;
    EXPECT_FALSE(none.load(repo_.path())) << "a dry run is not recorded";

    const RepoctlRun real = repoctl({"check-overload", repo_.path(), "--json"});

    ASSERT_EQ(real.code, 0) << real.err;
    const JsonValue done = json(real);
    EXPECT_FALSE(done["dryRun"].boolean());
    EXPECT_EQ(done["deleted"].number(), static_cast<double>(steps.size()));
    EXPECT_EQ(done["moved"].number(), 0.0);
    EXPECT_EQ(done["bytes"].number(), planBytes);
    EXPECT_FALSE(done["stopped"].boolean());
    for (size_t i = 0; i < byAge.size(); ++i) EXPECT_EQ(entryExists(byAge[i]), i >= steps.size());
    RepoctlLastRun recorded;
    ASSERT_TRUE(recorded.load(repo_.path()));
    EXPECT_EQ(recorded.command, "check-overload");
    EXPECT_EQ(recorded.deleted, steps.size());
    EXPECT_EQ(recorded.bytes, static_cast<unsigned long long>(planBytes));
    EXPECT_FALSE(recorded.stopped);
    EXPECT_EQ(recorded.exitCode, 0);
}

TEST_F(RepoctlMaintenance, aRunThatASignalStopsEndsInOrderAndIsRecordedAsStopped) {
    repo_.addTmpfsMount("p1", kSmall, 2000, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    repo_.writeConfig(
        {{"isShared", "false"}, {"isClearable", "true"}, {"callback", "RepositoryStudyCallback"}});
    std::vector<std::string> byAge;
    for (int i = 0; i < 20; ++i) byAge.push_back(put(0, "r" + std::to_string(i), 40 - i));
    // The first deletion's callback (run through sh by repoctl) sends SIGTERM to repoctl.
    TempTree taskd;
    const std::string script = taskd.write(
        "runjavacmd", "#!/bin/sh\nkill -TERM $(cut -d' ' -f4 /proc/$PPID/stat)\nexit 0\n");
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);

    const RepoctlRun run = runRepoctl(
        {"check-overload", repo_.path(), "--json"},
        {{"VAR", var_.root()}, {"LOCK_VAR", locks_.root()}, {"TASKD_HOME", taskd.root()}});

    ASSERT_EQ(run.code, 0) << run.err;
    const JsonValue done = json(run);
    EXPECT_TRUE(done["stopped"].boolean());
    EXPECT_EQ(done["deleted"].number(), 1.0) << "the run ends after the resource in hand";
    EXPECT_FALSE(entryExists(byAge[0]));
    EXPECT_TRUE(entryExists(byAge[1]));
    RepoctlLastRun recorded;
    ASSERT_TRUE(recorded.load(repo_.path()));
    EXPECT_TRUE(recorded.stopped);
    EXPECT_EQ(recorded.deleted, 1u);
}

TEST_F(RepoctlMaintenance, freeMountDryRunNamesEachMoveAndEachMountsLevelAndChangesNothing) {
    repo_.addTmpfsMount("p1", kSmall, 2000);
    repo_.addTmpfsMount("p2", kLarge, 2000);
    repo_.writeConfig({{"isShared", "false"}});
    const std::string a = put(0, "a", 3);
    const std::string b = put(0, "b", 1);

    const RepoctlRun run = repoctl({"free-mount", repo_.path(), repo_.mountPath(0), "--dry-run"});

    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "move   " + a + " -> " +
                                      resourceLocation(repo_.mountPath(1), "a") +
                                      "  age 3.0 d  32.0 KiB\n"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "move   " + b + " -> ")) << run.out;
    // 18 blocks of 256 go, and of the inodes those of the mount directory and its configuration
    // stay.
    EXPECT_TRUE(contains(run.out, "mount " + repo_.mountPath(0) +
                                      ": used 7.03 % -> 0.10 %  (move limit 99, clean limit 98)  "
                                      "ok -> ok\n"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "2 moves (64.0 KiB), 0 deletions (0 B); nothing was changed"))
        << run.out;
    EXPECT_TRUE(entryExists(a));
    EXPECT_TRUE(entryExists(b));
    EXPECT_FALSE(entryExists(resourceLocation(repo_.mountPath(1), "a")));

    const RepoctlRun real = repoctl({"free-mount", repo_.path(), repo_.mountPath(0)});
    EXPECT_EQ(real.code, 0) << real.err;
    EXPECT_TRUE(contains(real.out, "free-mount: checked 2  moved 2  deleted 0")) << real.out;
    RepoctlLastRun recorded;
    ASSERT_TRUE(recorded.load(repo_.path()));
    EXPECT_EQ(recorded.command, "free-mount");
    EXPECT_EQ(recorded.moved, 2u);
}

TEST_F(RepoctlMaintenance, usageErrorsSayWhatIsWrongInOneLineThenTheUsage) {
    repo_.addMount("p1");
    repo_.writeConfig({{"isShared", "false"}});
    struct Case {
        std::vector<std::string> arguments;
        int code;
        std::string firstLine;
    };
    const std::vector<Case> cases = {
        {{"check-overload"}, 2, "repoctl check-overload: one repository expected\n"},
        {{"check-overload", repo_.path(), "--bogus"},
         2,
         "repoctl check-overload: unknown option \"--bogus\"\n"},
        {{"free-mount", repo_.path()},
         2,
         "repoctl free-mount: a repository and a mount expected\n"},
        {{"free-mount", repo_.path(), "p1", "--night"},
         2,
         "repoctl free-mount: unknown option \"--night\"\n"},
        {{"ages"}, 2, "repoctl ages: one repository expected\n"},
        {{"ages", repo_.path(), "p1", "p2"}, 2, "repoctl ages: unexpected argument \"p2\"\n"},
        {{"ages", repo_.path(), "p9"},
         1,
         "repoctl ages: \"p9\" is no mount of " + repo_.path() + "\n"},
        {{"check-overload", repo_.path() + "/none", "--dry-run"},
         1,
         "repoctl check-overload: no repository directory \"" + repo_.path() + "/none\"\n"},
    };
    for (const Case& c : cases) {
        const RepoctlRun run = repoctl(c.arguments);
        EXPECT_EQ(run.code, c.code) << c.arguments[0] << " " << run.err;
        EXPECT_EQ(run.err.substr(0, c.firstLine.size()), c.firstLine) << run.err;
        if (c.code == 2) {
            EXPECT_TRUE(contains(run.err, "\nusage: repoctl " + c.arguments[0] + " ")) << run.err;
        }
        EXPECT_EQ(run.out, "");
    }
}

TEST_F(RepoctlMaintenance, agesShowsTheDataPerAgeBandWithTheSettingsMarkedAndKeepsAccessTimes) {
    repo_.addTmpfsMount("p1", kLarge, 2000);
    repo_.addTmpfsMount("p2", kLarge, 2000);
    repo_.writeConfig(
        {{"isShared", "false"}, {"moveTime", "10"}, {"nomoveTime", "3"}, {"warnmoveTime", "5"}});
    std::vector<std::string> all;
    for (int i = 0; i < 2; ++i) all.push_back(put(0, "new" + std::to_string(i), 0.5));
    for (int i = 0; i < 3; ++i) all.push_back(put(0, "mid" + std::to_string(i), 4));
    all.push_back(put(0, "aged", 12));
    for (int i = 0; i < 2; ++i) all.push_back(put(0, "ancient" + std::to_string(i), 400));
    all.push_back(put(1, "other", 400));
    // Access times of every level down to the files, which a listing or a read would renew.
    auto accessTimes = [&] {
        std::vector<long> times;
        for (const std::string& location : all) {
            for (std::string path = location + "/image"; path.size() > repo_.path().size() + 3;
                 path = path.substr(0, path.rfind('/'))) {
                struct stat st;
                EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
                times.push_back(st.st_atim.tv_sec * 1000000000L + st.st_atim.tv_nsec);
            }
        }
        return times;
    };
    const std::vector<long> atimes = accessTimes();

    const RepoctlRun run = repoctl({"ages", "--json", repo_.path(), "p1"});

    ASSERT_EQ(run.code, 0) << run.err;
    const JsonValue profile = json(run);
    EXPECT_EQ(profile["settings"]["moveTime"].number(), 10.0 * kDay);
    ASSERT_EQ(profile["mounts"].size(), 1u);
    const JsonValue& mount = profile["mounts"][0];
    EXPECT_EQ(mount["path"].string(), repo_.mountPath(0));
    EXPECT_EQ(mount["resources"].number(), 8.0);
    const double each = static_cast<double>(kContent.size());
    int marked = 0;
    for (const JsonValue& band : mount["bands"].array()) {
        const double from = band["fromDays"].number();
        std::string marks;
        for (const JsonValue& mark : band["marks"].array()) marks += mark.string();
        if (from == 0) {
            EXPECT_EQ(band["resources"].number(), 2.0);
        }
        if (from == 3) {
            EXPECT_EQ(marks, "nomoveTime");
            EXPECT_EQ(band["resources"].number(), 3.0);
            EXPECT_EQ(band["toDays"].number(), 5.0);
        }
        if (from == 5) {
            EXPECT_EQ(marks, "warnmoveTime");
        }
        if (from == 10) {
            EXPECT_EQ(marks, "moveTime");
            EXPECT_EQ(band["resources"].number(), 1.0);
            EXPECT_NEAR(band["olderBytes"].number(), 3 * each, 3 * 10.0);
        }
        if (from == 365) {
            EXPECT_EQ(band["resources"].number(), 2.0);
        }
        if (band["toSeconds"].isNull()) {
            EXPECT_EQ(from, 730.0);
        }
        marked += !marks.empty();
    }
    EXPECT_EQ(marked, 3);
    EXPECT_EQ(accessTimes(), atimes) << "the walk changed an access time";

    const RepoctlRun chart = repoctl({"ages", repo_.path()});
    ASSERT_EQ(chart.code, 0) << chart.err;
    EXPECT_TRUE(contains(chart.out, "(moveTime 10 d, nomoveTime 3 d, warnmoveTime 5 d)"))
        << chart.out;
    EXPECT_TRUE(contains(chart.out, "mount " + repo_.mountPath(1) + "\n")) << chart.out;
    EXPECT_TRUE(contains(chart.out, "#  <- moveTime\n") || contains(chart.out, " <- moveTime\n"))
        << chart.out;
    const size_t row = chart.out.find("  365 - 730 ");
    ASSERT_NE(row, std::string::npos) << chart.out;
    EXPECT_EQ(std::stoi(chart.out.substr(row + 12)), 2) << chart.out.substr(row, 80);
    EXPECT_TRUE(contains(chart.out, std::string(40, '#'))) << "the largest band fills the bar";
}

}  // namespace
