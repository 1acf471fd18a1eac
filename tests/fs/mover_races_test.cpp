// The mover and the hash levels under real conditions: copies that fill their target mount,
// and several processes creating, moving and removing resources of one hash level at once, on
// real tmpfs mounts.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSCandidateMove.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr unsigned long long kMountBytes = 2048 * 4096;

std::string prefixOf(const std::string& name) {
    std::unique_ptr<char[]> hashed(createHash(name.c_str()));
    return std::string(hashed.get(), 9);
}

// Distinct names that all share one hash prefix, so that they live in one hash level. The hash
// sums i^0, i^1 and i^2 weighted bytes; adding +k, -3k, +3k, -k to four neighbouring bytes
// changes none of the three sums.
std::vector<std::string> namesOfOneHashLevel(size_t count) {
    const std::string base(12, 'm');
    std::vector<std::string> names{base};
    for (int k = 1; k <= 3 && names.size() < count; ++k) {
        for (size_t at = 0; at + 4 <= base.size() && names.size() < count; ++at) {
            std::string name = base;
            name[at] = static_cast<char>(name[at] + k);
            name[at + 1] = static_cast<char>(name[at + 1] - 3 * k);
            name[at + 2] = static_cast<char>(name[at + 2] + 3 * k);
            name[at + 3] = static_cast<char>(name[at + 3] - k);
            names.push_back(name);
        }
    }
    return names;
}

class MoverRaces : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_MOUNTS(); }

    void makeRepository(size_t mounts, unsigned long long lastMountBytes = kMountBytes) {
        for (size_t i = 0; i < mounts; ++i) {
            repo_.addTmpfsMount("p" + std::to_string(i + 1),
                                i + 1 == mounts ? lastMountBytes : kMountBytes, 4000);
        }
        repo_.writeConfig({{"isShared", "false"}});
    }
    std::string at(size_t i, const std::string& name) const {
        return resourceLocation(repo_.mountPath(i), name.c_str());
    }
    std::shared_ptr<KSRepositoryHandler> handler() {
        return getRepository(nullptr, repo_.path().c_str(), true);
    }
    // Children write their figures here: one file per child.
    std::string figure(int child) const { return results_.path("child" + std::to_string(child)); }

    // Runs `body(child)` in `children` processes at once and returns their exit codes.
    std::vector<int> race(int children, const std::function<int(int)>& body) {
        std::vector<pid_t> pids;
        for (int child = 0; child < children; ++child) {
            pid_t pid = fork();
            if (pid == 0) {
                int code = 255;
                try {
                    code = body(child);
                } catch (...) {
                }
                _exit(code);
            }
            pids.push_back(pid);
        }
        std::vector<int> codes;
        for (pid_t pid : pids) {
            int status = 0;
            waitpid(pid, &status, 0);
            codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
        }
        return codes;
    }

    ScratchRepository repo_;
    TempTree locks_, results_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScopedEnv varEnv_{"VAR", locks_.root().c_str()};
};

TEST_F(MoverRaces, ACopyThatFillsTheTargetLeavesNoHalfCopyAndTheResourceStaysServable) {
    // p2 has room for about half of the resource.
    makeRepository(2, 64 * 4096);
    const std::string content(400 * 1024, 'z');
    const std::string origin = putResource(repo_.mountPath(0), "big", "image", content);
    SyslogCapture log;

    EXPECT_EQ(freeMount_(repo_.path().c_str(), repo_.mountPath(0).c_str(), false, nullptr), 1)
        << "not everything could be moved";

    EXPECT_EQ(readFile(origin + "/image"), content) << "the origin is complete";
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(1)).empty()) << "no half copy, no empty level";
    const std::string line = "The resource \"" + origin + "\" could not be renamed to \"" +
                             at(1, "big") + "\". Error code is 256 - cp -rp exited with status 1";
    EXPECT_TRUE(log.findEqual(line).has_value()) << "the line names cp's own failure";
    EXPECT_FALSE(handler()->dirtyFlags().isDirty(nullptr, "big", false));

    int status = -1;
    char* location =
        getLocation_(repo_.path().c_str(), "big", &status, false, true, false, false, nullptr);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(std::string(location), origin);
    EXPECT_EQ(status, 0) << "found, not a conflict";
    release(location);
    EXPECT_EQ(removeResource_(repo_.path().c_str(), "big", true, false, nullptr), 0);
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());
}

// Both walks of the maintenance: the move pass and the gathering of the oldest resources.
TEST_F(MoverRaces, TheMaintenanceWalksRemoveHashLevelsLeftEmptyOnceTheirReservationRanOut) {
    makeRepository(2);
    ClockGuard clock;
    const std::string kept = putResource(repo_.mountPath(0), "kept");
    for (size_t mount : {0, 1})
        ASSERT_TRUE(prepareHashLevels(repo_.mountPath(mount), repo_.mountPath(mount) + "/AB/CD/EF/",
                                      "gone"));
    KSMountPointHandler& p1 = *handler()->mounts()[0];
    KSMountPointHandler& p2 = *handler()->mounts()[1];
    std::string resume;
    std::map<int, double> ages;
    ResourceSet oldest;
    p1.moveResourcesNewInner(nullptr, resume, 86400, ages);
    p2.getOldestResources(nullptr, oldest, nullptr, 10, nullptr, "", 0);
    EXPECT_TRUE(entryExists(repo_.mountPath(0) + "/AB/CD/EF")) << "still reserved";
    EXPECT_TRUE(entryExists(repo_.mountPath(1) + "/AB/CD/EF")) << "still reserved";

    KSClock::advanceForTesting(121);
    p1.moveResourcesNewInner(nullptr, resume, 86400 * 365, ages);
    p2.getOldestResources(nullptr, oldest, nullptr, 10, nullptr, "", 0);
    EXPECT_FALSE(entryExists(repo_.mountPath(0) + "/AB"));
    EXPECT_FALSE(entryExists(repo_.mountPath(1) + "/AB"));
    EXPECT_TRUE(entryExists(kept)) << "levels holding a resource stay";
}

// Each child takes locations for its own names and creates them after a short delay, as a
// server writing a new study does, while the others remove their resources of the same hash
// level (and so clean the level up when it looks empty).
TEST_F(MoverRaces, ALocationHandedOutKeepsItsParentWhileNeighboursInItsHashLevelAreRemoved) {
    makeRepository(1);
    const std::vector<std::string> names = namesOfOneHashLevel(12);
    for (const std::string& name : names) ASSERT_EQ(prefixOf(name), prefixOf(names[0])) << name;
    constexpr int kChildren = 4;
    constexpr int kRounds = 150;
    const std::string repository = repo_.path();

    const std::vector<int> codes = race(kChildren, [&](int child) {
        int lost = 0;
        for (int round = 0; round < kRounds; ++round) {
            const std::string& name = names[child * 3 + round % 3];
            int status = 0, existed = 0;
            char* location =
                createLocation_(repository.c_str(), name.c_str(), &status, &existed, true, nullptr);
            if (location == nullptr) return 201;
            usleep(200);
            const bool made = mkdir(location, 0755) == 0;
            release(location);
            if (!made) {
                ++lost;
                continue;
            }
            if (removeResource_(repository.c_str(), name.c_str(), true, false, nullptr) != 0)
                return 202;
        }
        return std::min(lost, 200);
    });

    for (int child = 0; child < kChildren; ++child)
        EXPECT_EQ(codes[child], 0) << "child " << child << ": parents gone before the mkdir";
    // Every resource is gone; its levels go at the latest once the reservations ran out.
    ClockGuard clock;
    KSClock::advanceForTesting(3600);
    clearEmptyHashLevels(repo_.mountPath(0), prefixOf(names[0]));
    EXPECT_TRUE(hashLevelsOn(repo_.mountPath(0)).empty());
}

// One child moves a resource from p1 to p2 again and again; the others run the clean-up that
// follows the removal of a resource of the same hash level on p2, again and again, so the
// move's freshly made destination level is empty whenever they look.
TEST_F(MoverRaces, AMoveCountsAsDoneOnlyWhenTheResourceIsOnTheTarget) {
    makeRepository(2);
    const std::vector<std::string> names = namesOfOneHashLevel(8);
    constexpr int kCleaners = 2;
    constexpr int kMoves = 30;
    const std::string repository = repo_.path();
    const std::string p2 = repo_.mountPath(1);

    const std::vector<int> codes = race(1 + kCleaners, [&](int child) {
        if (child > 0) {
            // Until the mover is done (its figure file appears).
            const std::string removed = resourceLocation(p2, names[child].c_str());
            for (long round = 0; access(figure(0).c_str(), F_OK) != 0 && round < 2000000; ++round)
                clearEmptyHash(removed.c_str());
            return 0;
        }
        std::shared_ptr<KSRepositoryHandler> repo =
            getRepository(nullptr, repository.c_str(), true);
        KSMountPointHandler& target = *repo->mounts()[1];
        CandidateMove how;
        how.checkTime = false;
        how.skipDirty = false;
        int wrong = 0;
        for (int move = 0; move < kMoves; ++move) {
            ResourceEntry entry;
            entry.name = names[0];
            entry.path = putResource(repo_.mountPath(0), entry.name, "image", "payload");
            const std::string destination = resourceLocation(p2, entry.name.c_str());
            const CandidateMoveResult result = moveCandidate(*repo, how, entry, target);
            const bool onTarget = readFile(destination + "/image") == "payload" &&
                                  access(entry.path.c_str(), F_OK) != 0;
            if (result != CandidateMoveResult::Moved || !onTarget) ++wrong;
            removeResource_(repository.c_str(), entry.name.c_str(), true, false, nullptr);
        }
        std::ofstream(figure(0)) << wrong;
        return std::min(wrong, 200);
    });

    EXPECT_EQ(codes[0], 0) << "moves that did not end with the resource on the target";
    for (int child = 1; child <= kCleaners; ++child) EXPECT_EQ(codes[child], 0);
}

}  // namespace
