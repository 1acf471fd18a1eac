// Dry runs of the maintenance on real tmpfs mounts: a plan changes nothing (file tree, access
// times, the dirty set, the state files in VAR), and on an unchanged repository the real run
// then deletes and moves exactly what the plan said, in the plan's order, and leaves each mount
// at the fill level the plan predicted.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "KSClock.h"
#include "KSMaintenancePlan.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "NightProperties.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr time_t kDay = 86400;
constexpr unsigned long long kSmall = 256 * 4096;
constexpr unsigned long long kLarge = 1024 * 4096;
const std::string kContent(32 * 1024, 'x');

// Content of a file read without touching its access time.
std::string quietRead(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_NOATIME);
    if (fd < 0) return "<unreadable>";
    std::string content;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) content.append(buffer, n);
    close(fd);
    return content;
}

// Everything below `root` as one text per path: type, size, times, and the content of state
// and configuration files, compared byte for byte instead of their access times (reading them
// is allowed; every handler reads them). The walk lists with O_NOATIME, so taking it changes
// nothing either.
void snapshot(const std::string& root, std::map<std::string, std::string>& into) {
    std::list<std::string> names;
    listDir(root.c_str(), &names, false, false);
    for (const std::string& name : names) {
        const std::string path = root + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        std::string text = std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " m" +
                           std::to_string(st.st_mtim.tv_sec) + "." +
                           std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode) && (name == ".dirty" || name.find(".cfg") != std::string::npos))
            text += " [" + quietRead(path) + "]";
        else
            text +=
                " a" + std::to_string(st.st_atim.tv_sec) + "." + std::to_string(st.st_atim.tv_nsec);
        into[path] = text;
        if (S_ISDIR(st.st_mode)) snapshot(path, into);
    }
}

class MaintenancePlan : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    void makeRepository(ScratchRepository::Keys keys, ScratchRepository::Keys p1Keys,
                        ScratchRepository::Keys p2Keys = {}, unsigned long long p2Size = kLarge) {
        repo_.addTmpfsMount("p1", kSmall, 2000, p1Keys);
        repo_.addTmpfsMount("p2", p2Size, 2000, p2Keys);
        keys.emplace_back("isShared", "false");
        repo_.writeConfig(keys);
    }
    void put(size_t i, const std::string& name, int daysOld) {
        std::string location = putResource(repo_.mountPath(i), name, "image", kContent + name);
        setTimes(location + "/image", KSClock::now() - daysOld * kDay);
        setTimes(location, KSClock::now() - daysOld * kDay);
        placed_.push_back(location);
    }
    std::map<std::string, std::string> everything() const {
        std::map<std::string, std::string> all;
        snapshot(repo_.path(), all);
        snapshot(var_.root(), all);
        snapshot(locks_.root(), all);
        return all;
    }
    // Names each path that the dry run made, removed or changed.
    static void expectSame(const std::map<std::string, std::string>& before,
                           const std::map<std::string, std::string>& after) {
        for (const auto& [path, text] : before) {
            auto it = after.find(path);
            if (it == after.end())
                ADD_FAILURE() << "the dry run removed " << path;
            else if (it->second != text)
                ADD_FAILURE() << "the dry run changed " << path << ": " << text << " -> "
                              << it->second;
        }
        for (const auto& [path, text] : after)
            if (before.count(path) == 0) ADD_FAILURE() << "the dry run made " << path;
    }
    double used(size_t i) const {
        return getRepository(nullptr, repo_.path().c_str(), true)->mounts()[i]->getUsedPercentage();
    }

    // Plans, checks that planning changed nothing and that the plan does something, then
    // runs `real` and checks that it did what the plan said.
    KSMaintenancePlan planThenRun(const std::function<KSMaintenancePlan()>& plan,
                                  const std::function<void()>& real) {
        const std::map<std::string, std::string> before = everything();
        KSMaintenancePlan planned = plan();
        expectSame(before, everything());
        EXPECT_FALSE(planned.steps.empty());

        real();

        std::vector<std::string> deletions;
        std::map<std::string, std::string> at;  // where each resource is after the steps -> origin
        for (const std::string& location : placed_) at[location] = location;
        for (const KSMaintenancePlan::Step& step : planned.steps) {
            if (step.action == KSMaintenancePlan::Action::Delete) deletions.push_back(step.from);
            auto it = at.find(step.from);
            if (it == at.end()) {
                ADD_FAILURE() << "the plan takes " << step.from << ", which is not there";
                continue;
            }
            const std::string origin = it->second;
            at.erase(it);
            if (!step.to.empty()) at[step.to] = origin;
        }
        std::list<std::string>* gone = getDeletedDirs_(repo_.path().c_str(), nullptr);
        EXPECT_EQ(std::vector<std::string>(gone->begin(), gone->end()), deletions)
            << "the real run deleted other resources or in another order";
        std::set<std::string> kept;
        for (const auto& [location, origin] : at) {
            kept.insert(origin);
            EXPECT_TRUE(entryExists(location)) << origin << " should be at " << location;
            if (location != origin) {
                EXPECT_FALSE(entryExists(origin)) << origin << " should have left";
            }
            const std::string name = location.substr(location.rfind('/') + 1);
            EXPECT_EQ(quietRead(location + "/image"), kContent + name);
        }
        for (const std::string& origin : placed_) {
            if (kept.count(origin) == 0) {
                EXPECT_FALSE(entryExists(origin)) << origin << " should be deleted";
            }
        }
        for (size_t i = 0; i < planned.mounts.size(); ++i)
            EXPECT_NEAR(planned.mounts[i].usedAfter, used(i), 0.001) << planned.mounts[i].path;
        return planned;
    }
    KSMaintenancePlan checkOverloadAsPlanned(bool night = false) {
        return planThenRun(
            [&] {
                return KSRepositoryHandler::planCheckOverload(nullptr, repo_.path().c_str(), night);
            },
            [&] { checkOverload_(repo_.path().c_str(), false, night, nullptr); });
    }
    int moves(const KSMaintenancePlan& plan) const {
        int n = 0;
        for (const auto& step : plan.steps) n += step.action == KSMaintenancePlan::Action::Move;
        return n;
    }

    TempTree locks_, var_, tmp_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScopedEnv varEnv_{"VAR", var_.root().c_str()};
    ScopedEnv tmpEnv_{"TMP", tmp_.root().c_str()};
    ScopedEnv adminEnv_{"KSADMIN_HOME", tmp_.root().c_str()};
    ScratchRepository repo_;
    std::vector<std::string> placed_;
};

TEST_F(MaintenancePlan, AMovingRepositoryMovesWhatThePlanSaid) {
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 14; ++i) put(0, "old" + std::to_string(i), 40 + i);
    for (int i = 0; i < 8; ++i) put(0, "young" + std::to_string(i), 2 + i);

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    EXPECT_EQ(moves(plan), static_cast<int>(plan.steps.size()));
    EXPECT_GE(plan.mounts[0].usedBefore, 50.0);
    EXPECT_LT(plan.mounts[0].usedAfter, 40.0);
    EXPECT_GT(plan.mounts[1].usedAfter, plan.mounts[1].usedBefore);
}

TEST_F(MaintenancePlan, APassThatCannotFreeEnoughIsPlannedWithItsNewMoveTime) {
    makeRepository({}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 14 + i);  // 3 past 30 days

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    ASSERT_EQ(plan.notes.size(), 1u);
    KSProperties state;
    ASSERT_TRUE(state.load(
        getRepository(nullptr, repo_.path().c_str(), true)->mounts()[0]->lastMoveFile().c_str()));
    ASSERT_NE(state.getProperty("movetime"), nullptr);
    EXPECT_NE(
        plan.notes[0].find(" would become " + std::string(state.getProperty("movetime")) + " days"),
        std::string::npos)
        << plan.notes[0];
}

TEST_F(MaintenancePlan, AClearableRepositoryDeletesWhatThePlanSaidOldestFirstSparingTheDirty) {
    makeRepository({{"isClearable", "true"}}, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 - i);
    getRepository(nullptr, repo_.path().c_str(), true)->setDirty(nullptr, "r0", true);

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    EXPECT_EQ(moves(plan), 0);
    EXPECT_EQ(plan.steps.front().from, placed_[1]) << "r0 waits in the dirty set";
    EXPECT_LT(plan.mounts[0].usedAfter, 40.0);
}

TEST_F(MaintenancePlan, AClearableMovingRepositoryDeletesTheMountsOwnOldAndMovesAsPlanned) {
    makeRepository({{"isClearable", "true"}, {"isClearableMove", "true"}},
                   {{"moveLimit", "50"}, {"cleanLimit", "30"}, {"deleteOld", "40"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 60 - 2 * i);
    put(1, "elsewhere", 90);

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    EXPECT_GT(moves(plan), 0);
    EXPECT_LT(moves(plan), static_cast<int>(plan.steps.size())) << "some are deleted";
}

TEST_F(MaintenancePlan, WithNoRoomAnywhereThePlanDeletesTheRepositorysOldestThenMoves) {
    repo_.addTmpfsMount("p1", kSmall, 2000,
                        {{"moveLimit", "50"}, {"cleanLimit", "40"}, {"deleteOld", "0"}});
    repo_.addTmpfsMount("p2", kSmall, 2000, {{"fullLimit", "30"}, {"cleanLimit", "33"}});
    repo_.writeConfig(
        {{"isShared", "false"}, {"isClearable", "true"}, {"isClearableMove", "true"}});
    for (int i = 0; i < 20; ++i) put(0, "a" + std::to_string(i), 40 + i);
    for (int i = 0; i < 10; ++i) put(1, "b" + std::to_string(i), 79 - i);
    ASSERT_TRUE(getRepository(nullptr, repo_.path().c_str(), true)->checkRepositoryStatus() &
                REPOSITORY_CANNOTMOVE);

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    ASSERT_EQ(plan.steps.front().action, KSMaintenancePlan::Action::Delete);
    EXPECT_EQ(plan.steps.front().from, resourceLocation(repo_.mountPath(1), "b0"));
    EXPECT_GT(moves(plan), 0);
}

TEST_F(MaintenancePlan, ResourcesMovedOntoAnOverfullMountAreMovedOnAgainAsPlanned) {
    repo_.addTmpfsMount("p1", kSmall, 2000, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
    // p2 takes moved resources until it passes its clean limit, and that is past its move limit.
    repo_.addTmpfsMount("p2", kSmall, 2000, {{"moveLimit", "41"}, {"cleanLimit", "40"}});
    repo_.addTmpfsMount("p3", kLarge, 2000);
    repo_.writeConfig({{"isShared", "false"}});
    for (int i = 0; i < 20; ++i) put(0, "a" + std::to_string(i), 40 + i);
    repo_.tmpfs(1)->fillBlocksTo(38);

    KSMaintenancePlan plan = checkOverloadAsPlanned();

    bool onward = false;
    for (const auto& step : plan.steps)
        onward |= step.fromMount == 1 &&
                  step.from.compare(0, repo_.mountPath(1).size(), repo_.mountPath(1)) == 0;
    EXPECT_TRUE(onward) << "p2 passes its move limit only by what the plan brought onto it";
}

TEST_F(MaintenancePlan, NightModeIsPlannedWithTheLoweredLimitsAndLeavesTheStatisticsAlone) {
    makeRepository({}, {{"nightManagement", "true"},
                        {"nightVolumemul", "0"},
                        {"moveLimit", "78"},
                        {"cleanLimit", "73"}});
    for (int i = 0; i < 20; ++i) put(0, "r" + std::to_string(i), 40 + i);
    const std::string statistics = NightProperties::statisticsFile(repo_.mountPath(0));
    {
        std::ofstream out(statistics);
        out << NightProperties::dateText(KSClock::now() - 20 * kDay) << "=3\n";  // old: dropped
        for (int ago = 1; ago <= 7; ++ago)
            out << NightProperties::dateText(KSClock::now() - ago * kDay) << "=10\n";
    }
    ASSERT_LT(getRepository(nullptr, repo_.path().c_str(), true)->mounts()[0]->getUsedPercentage(),
              73.0);

    KSMaintenancePlan plan = checkOverloadAsPlanned(true);

    EXPECT_DOUBLE_EQ(plan.mounts[0].moveLimit, 68.0);
    EXPECT_DOUBLE_EQ(plan.mounts[0].cleanLimit, 63.0);
    EXPECT_LT(plan.mounts[0].usedAfter, 63.0);
    EXPECT_DOUBLE_EQ(
        getRepository(nullptr, repo_.path().c_str(), true)->mounts()[0]->config().moveLimit, 68.0)
        << "the real run lowered its limits once, the plan's lowering stayed private";
}

TEST_F(MaintenancePlan, EmptyingAMountMovesWhatThePlanSaidToTheTargetsItNamed) {
    makeRepository({}, {}, {{"switchLimit", "20"}}, kSmall);
    repo_.addTmpfsMount("p3", kLarge, 2000);
    repo_.writeConfig({{"isShared", "false"}});
    for (int i = 0; i < 24; ++i) put(0, "r" + std::to_string(i), i);

    int planned = -2;
    KSMaintenancePlan plan = planThenRun(
        [&] {
            return KSRepositoryHandler::planFreeMount(nullptr, repo_.path().c_str(),
                                                      repo_.mountPath(0).c_str(), &planned);
        },
        [&] {
            EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr),
                      planned);
        });

    EXPECT_EQ(planned, 0);
    EXPECT_EQ(plan.steps.size(), 24u);
    std::set<int> targets;
    for (const auto& step : plan.steps) targets.insert(step.toMount);
    EXPECT_EQ(targets, (std::set<int>{1, 2})) << "p2 passes its switch limit on the way";
}

TEST_F(MaintenancePlan, PlanningARepositoryThatNeedsNothingPlansNothingAndSaysSo) {
    makeRepository({{"isClearable", "true"}}, {{"moveLimit", "90"}});
    for (int i = 0; i < 3; ++i) put(0, "r" + std::to_string(i), 40);

    KSMaintenancePlan plan =
        KSRepositoryHandler::planCheckOverload(nullptr, repo_.path().c_str(), false);

    EXPECT_TRUE(plan.steps.empty());
    ASSERT_EQ(plan.mounts.size(), 2u);
    EXPECT_DOUBLE_EQ(plan.mounts[0].usedAfter, plan.mounts[0].usedBefore);
}

}  // namespace
