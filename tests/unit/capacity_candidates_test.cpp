// Gathering the oldest resources of mounts and of a whole repository.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "KSClock.h"
#include "KSNomoveHandler.h"
#include "KSRepositoryHandler.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

constexpr time_t kDay = 86400;

std::vector<std::string> namesOf(const ResourceSet& set) {
    std::vector<std::string> names;
    for (const ResourceEntry& e : set) names.push_back(e.name);
    return names;
}

TEST(CandidateOrder, EqualTimesAreBothKeptGreaterPathFirstAndTheSameEntryOnce) {
    ResourceSet set;
    set.insert({"/m/a", "a", "a", 10});
    set.insert({"/m/b", "b", "b", 10});
    set.insert({"/m/c", "c", "c", 5});
    set.insert({"/m/b", "b", "b", 10});
    EXPECT_EQ(namesOf(set), (std::vector<std::string>{"c", "b", "a"}));
}

// Two plain-folder mounts with resources whose ages are set by hand.
class Candidates : public ::testing::Test {
  protected:
    void SetUp() override {
        repo_.addMount("p1");
        repo_.addMount("p2");
        repo_.writeConfig({{"isShared", "false"}});
        handler_ = getRepository(nullptr, repo_.path().c_str(), true);
    }
    // A resource `daysOld` days old on mount `mount`.
    std::string put(size_t mount, const std::string& name, int daysOld) {
        std::string location = putResource(repo_.mountPath(mount), name);
        setTimes(location, KSClock::now() - daysOld * kDay);
        return location;
    }

    TempTree locks_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScratchRepository repo_;
    std::shared_ptr<KSRepositoryHandler> handler_;
};

TEST_F(Candidates, MoreOldResourcesThanTheCollectNumberGiveTheOldestAndTheSingleNewest) {
    for (int i = 0; i < 8; ++i) put(i % 2, "r" + std::to_string(i), 10 + i);
    ResourceSet set;
    EXPECT_EQ(handler_->getGlobalOldestResources(nullptr, set, nullptr, 3, false, nullptr, -1), 4);
    // p1 (r0 r2 r4 r6) is walked with room for 3 and keeps r6 r4 r2; p2 adds r7 r5 r3 within
    // room for 6, so r1 never enters. The trim keeps the 3 oldest and the newest kept (r2).
    EXPECT_EQ(namesOf(set), (std::vector<std::string>{"r7", "r6", "r5", "r2"}));

    ResourceSet all;
    EXPECT_EQ(handler_->getGlobalOldestResources(nullptr, all, nullptr, 8, false, nullptr, -1), 8);
}

TEST_F(Candidates, YoungDirtyNoMoveAndRootLostFoundResourcesAreNeverCandidates) {
    put(0, "old", 10);
    put(0, "young", 0);
    put(0, "dirty", 10);
    put(0, "pinned", 10);
    // A resource-like tree inside the root lost+found is not walked; a resource that happens
    // to be called lost+found deeper down is an ordinary one.
    std::string hidden = repo_.mountPath(0) + "/lost+found/AA/BB/CC/inside";
    mkdirs(hidden.c_str(), 0755);
    setTimes(hidden, KSClock::now() - 20 * kDay);
    put(0, "lost+found", 10);
    handler_->setDirty(nullptr, "dirty", true);
    KSNomoveHandler nomove;
    nomove.setNomove("pinned", true);

    ResourceSet set;
    ResourceSet own;
    KSMountPointHandler& mount = *handler_->mounts()[0];
    EXPECT_EQ(mount.getOldestResources(nullptr, set, &nomove, 100, &own, "", 0), 2u);
    std::vector<std::string> names = namesOf(set);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"lost+found", "old"}));
    EXPECT_EQ(namesOf(own), namesOf(set));
    EXPECT_EQ(mount.getOldestResources(nullptr, set, &nomove, 0, &own, "", 0), 0u);
}

TEST_F(Candidates, ASetStopFlagMakesBothGatheringsAnswerStopped) {
    put(0, "old", 10);
    // The flag is never cleared, so it is raised in a child process only.
    int code = runInChild([this] {
        checkoverloadStopped = 1;
        ResourceSet set;
        if (handler_->mounts()[0]->getOldestResources(nullptr, set, nullptr, 10, nullptr, "", 0) !=
            0xFFFFFFFFu)
            return 1;
        if (handler_->getGlobalOldestResources(nullptr, set, nullptr, 10, false, nullptr, -1) != -1)
            return 2;
        return set.empty() ? 0 : 3;
    });
    EXPECT_EQ(code, 0);
}

}  // namespace
