#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ClockControl.h"
#include "KSRepositoryHandler.h"
#include "ScratchRepository.h"
#include "repohandler.h"

namespace {

constexpr unsigned long long kHundredBlocks = 100 * TmpfsMount::kBlockSize;

// A repository of three 100-block tmpfs mounts p1, p2, p3 filled to the given percentages.
struct ThreeMountRepository {
    ThreeMountRepository(double p1, double p2, double p3,
                         const ScratchRepository::Keys& keys = {}) {
        const double fill[] = {p1, p2, p3};
        for (int i = 0; i < 3; ++i) {
            repo.addTmpfsMount("p" + std::to_string(i + 1), kHundredBlocks, 1000);
            repo.tmpfs(i)->fillBlocksTo(fill[i]);
        }
        ScratchRepository::Keys all = keys;
        all.emplace_back("isShared", "false");
        repo.writeConfig(all);
        handler = std::make_unique<KSRepositoryHandler>(nullptr, repo.path().c_str());
    }
    std::string config(int i) const { return repo.mountPath(i) + "/repositorypart.cfg"; }
    std::string takenOut(int i) const { return repo.mountPath(i) + "/repositorypart.no"; }

    ScratchRepository repo;
    std::unique_ptr<KSRepositoryHandler> handler;
};

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace

TEST(RepositoryStatusTest, flagsCombineTheLiveMounts) {
    RH_REQUIRE_MOUNTS();
    const struct {
        double p1, p2, p3;
        int expected;
        const char* why;
    } cases[] = {
        {10, 20, 30, 0x00, "all below every limit"},
        {81, 85, 89, 0x01, "all past remind"},
        {81, 10, 89, 0x00, "one below remind"},
        {93, 93, 93, 0x1F, "all past switch, none full"},
        {95, 95, 50, 0x00, "one mount still takes resources"},
        {95, 94, 94, 0x7F, "all full"},
        {98, 98, 97, 0x7F, "all full, some clean"},
    };
    for (const auto& c : cases) {
        ThreeMountRepository r(c.p1, c.p2, c.p3);
        EXPECT_EQ(r.handler->checkRepositoryStatus(), c.expected) << c.why;
        EXPECT_EQ(r.handler->repositoryStatus(), c.expected) << c.why;
    }
}

TEST(RepositoryStatusTest, mountsPastTheirCleanLimitCannotTakeMovesWithoutBeingFull) {
    RH_REQUIRE_MOUNTS();
    ThreeMountRepository r(95, 95, 95, {{"fullLimit", "99"}, {"cleanLimit", "90"}});
    EXPECT_EQ(r.handler->checkRepositoryStatus(), REPOSITORY_CANNOTMOVE | MOUNT_SWITCH | 0x0F);
}

TEST(RepositoryStatusTest, deadMountsMakeTheRepositoryIncompleteOrMissing) {
    RH_REQUIRE_MOUNTS();
    ThreeMountRepository r(95, 10, 95);
    ASSERT_EQ(unlink(r.config(1).c_str()), 0);
    EXPECT_EQ(r.handler->checkRepositoryStatus(),
              REPOSITORY_INCOMPLETE | REPOSITORY_CANNOTMOVE | MOUNT_CLEAN | MOUNT_SWITCH | 0x0F)
        << "the live mounts are both full";
    ASSERT_EQ(unlink(r.config(0).c_str()), 0);
    ASSERT_EQ(unlink(r.config(2).c_str()), 0);
    EXPECT_EQ(r.handler->checkRepositoryStatus(), 256);
}

TEST(RepositoryStatusTest, anEmptyMountListIsMissing) {
    ScratchRepository repo;
    repo.writeConfig({{"isShared", "false"}});
    auto handler = std::make_unique<KSRepositoryHandler>(nullptr, repo.path().c_str());
    handler->mounts().clear();
    EXPECT_EQ(handler->checkRepositoryStatus(), 256);
}

TEST(RepositoryStatusTest, theExportedStatusCallAnswersForThePath) {
    RH_REQUIRE_MOUNTS();
    ThreeMountRepository r(93, 93, 93);
    EXPECT_EQ(getRepositoryStatus_(r.repo.path().c_str(), nullptr), 0x1F);
}

TEST(RepositoryMountAidTest, unmountingRenamesTheConfigAndMountingBringsItBackAtOnce) {
    RH_REQUIRE_MOUNTS();
    ClockGuard clock;
    ThreeMountRepository r(10, 10, 10);
    EXPECT_EQ(r.handler->MountUnmount(1, false), 0);
    EXPECT_FALSE(exists(r.config(1)));
    EXPECT_TRUE(exists(r.takenOut(1)));
    EXPECT_EQ(r.handler->repositoryStatus(), REPOSITORY_INCOMPLETE);
    EXPECT_EQ(r.handler->MountUnmount(1, false), 0) << "a mount taken out stays out";
    EXPECT_TRUE(exists(r.takenOut(1)));

    EXPECT_EQ(r.handler->MountUnmount(1, true), 0);
    EXPECT_TRUE(exists(r.config(1)));
    EXPECT_FALSE(exists(r.takenOut(1)));
    EXPECT_EQ(r.handler->repositoryStatus(), 0) << "an operator's mount is probed again at once";

    EXPECT_EQ(r.handler->MountUnmount(3, true), -1);
    EXPECT_EQ(r.handler->MountUnmount(-1, false), -1);
}

TEST(RepositoryMountAidTest, giveBackMountsRestoresEveryMountTakenOut) {
    RH_REQUIRE_MOUNTS();
    ThreeMountRepository r(10, 10, 10);
    const std::string path = r.repo.path();
    ASSERT_EQ(MountUnmount_(path.c_str(), 0, false, nullptr), 0);
    ASSERT_EQ(MountUnmount_(path.c_str(), 2, false, nullptr), 0);
    EXPECT_EQ(getRepositoryStatus_(path.c_str(), nullptr), REPOSITORY_INCOMPLETE);
    EXPECT_EQ(giveBackMounts_(path.c_str(), nullptr), 2);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(exists(r.config(i))) << i;
        EXPECT_FALSE(exists(r.takenOut(i))) << i;
    }
    EXPECT_EQ(getRepositoryStatus_(path.c_str(), nullptr), 0);
    EXPECT_EQ(giveBackMounts_(path.c_str(), nullptr), 0) << "nothing left to give back";
}

TEST(RepositoryMountAidTest, rndMountTogglesTheOnlyMount) {
    RH_REQUIRE_MOUNTS();
    ClockGuard clock;
    ScratchRepository repo;
    repo.addTmpfsMount("p1", kHundredBlocks, 1000);
    repo.writeConfig({{"isShared", "false"}});
    KSRepositoryHandler handler(nullptr, repo.path().c_str());
    const std::string config = repo.mountPath(0) + "/repositorypart.cfg";
    handler.rndMount();
    EXPECT_FALSE(exists(config));
    EXPECT_EQ(handler.repositoryStatus(), 256);
    handler.rndMount();
    EXPECT_TRUE(exists(config));
    KSClock::advanceForTesting(300);
    EXPECT_EQ(handler.checkRepositoryStatus(), 0);
}

TEST(RepositorySetupTest, setupReloadsTheConfigurationInPlace) {
    RH_REQUIRE_MOUNTS();
    ThreeMountRepository r(50, 50, 50);
    const std::string path = r.repo.path();
    EXPECT_EQ(getRepositoryStatus_(path.c_str(), nullptr), 0);
    auto handler = getRepository(nullptr, path.c_str(), true);
    r.repo.writeConfig({{"isShared", "false"}, {"switchLimit", "40"}, {"mountPoints", "p1\\p2"}});
    const time_t checked = setup_(path.c_str(), nullptr);
    EXPECT_GE(checked, time(nullptr) - 1);
    EXPECT_EQ(getRepository(nullptr, path.c_str(), false), handler) << "same handler, reloaded";
    EXPECT_EQ(handler->mounts().size(), 2u);
    EXPECT_EQ(getRepositoryStatus_(path.c_str(), nullptr), MOUNT_SWITCH);
}
