// A dead mount whose retry time has come is revived by whichever thread asks first: many threads
// asking at once must all see the configuration re-read in full, never half of it. Run under
// ThreadSanitizer, this also shows that the re-read is not a data race.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ClockControl.h"
#include "KSClock.h"
#include "KSMountPointHandler.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

constexpr int kThreads = 16;

// Every limit at 0: whatever the fill level, switch, full, clean, move and hard full are set.
const ScratchRepository::Keys kRevivedConfig = {
    {"switchLimit", "0"},        {"fullLimit", "0"},        {"cleanLimit", "0"},
    {"moveLimit", "0"},          {"hardFullLimit", "0"},    {"type", "fast"},
    {"nightManagement", "true"}, {"nightVolumemul", "2.5"}, {"nightLowerPercent", "7"},
    {"deleteOld", "3"},          {"countSize", "false"}};
// Every limit at 100: nothing is set.
const ScratchRepository::Keys kRoomyConfig = {{"switchLimit", "100"},
                                              {"fullLimit", "100"},
                                              {"cleanLimit", "100"},
                                              {"moveLimit", "100"},
                                              {"hardFullLimit", "100"}};
constexpr uint32_t kRevivedStatus =
    MOUNT_SWITCH | MOUNT_FULL | MOUNT_CLEAN | MOUNT_MOVE | MOUNT_HARDFULL;

}  // namespace

TEST(MountRevivalConcurrency, manyThreadsSeeOneCompleteConfiguration) {
    ClockGuard clock;
    TempTree locks;
    ScopedEnv lockEnv("LOCK_VAR", locks.root().c_str());
    ScratchRepository repo;
    const std::string mountPath = repo.addMount("p1", kRoomyConfig);
    repo.addMount("p2");
    repo.writeConfig({{"isShared", "false"},
                      {"remindLimit", "0"},
                      {"warnLimit", "0"},
                      {"warn2Limit", "0"},
                      {"warn3Limit", "0"}});
    std::shared_ptr<KSRepositoryHandler> handler =
        getRepository(nullptr, repo.path().c_str(), true);
    KSMountPointHandler& mount = *handler->mounts().at(0);
    ASSERT_EQ(0u, mount.checkStatus(false));

    const std::string config = mountPath + "/repositorypart.cfg";
    const std::string takenOut = mountPath + "/repositorypart.no";
    // Several rounds make a missed synchronisation likely to show in one of them.
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_EQ(0, std::rename(config.c_str(), takenOut.c_str()));
        ASSERT_EQ(MOUNT_DEAD, mount.checkStatus(false));
        ScratchRepository::writeProperties(config, round % 2 == 0 ? kRevivedConfig : kRoomyConfig);
        const uint32_t expected = round % 2 == 0 ? kRevivedStatus : 0u;
        KSClock::advanceForTesting(300);

        std::atomic<int> ready{0};
        std::vector<uint32_t> seen(kThreads, MOUNT_DEAD);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < kThreads) std::this_thread::yield();
                seen[i] = mount.checkStatus(i % 2 == 0);
            });
        }
        for (std::thread& thread : threads) thread.join();
        for (int i = 0; i < kThreads; ++i) EXPECT_EQ(expected, seen[i]) << "thread " << i;
        EXPECT_EQ(expected, mount.checkStatus(true));
    }

    // The last round read the roomy limits again; the other keys kept what the revived
    // configuration had set.
    const KSMountPointHandler::Config& read = mount.config();
    EXPECT_EQ(100.0, read.switchLimit);
    EXPECT_EQ(100.0, read.hardFullLimit);
    EXPECT_TRUE(read.fast);
    EXPECT_TRUE(read.nightManagement);
    EXPECT_EQ(2.5, read.nightVolumemul);
    EXPECT_EQ(7.0, read.nightLowerPercent);
    EXPECT_EQ(3.0, read.deleteOld);
    EXPECT_FALSE(read.countSize);
}
