// Two servers that share a repository on storage whose clients cache file attributes mark and
// clear dirty resources at the same time; afterwards, seen by a third client after the caches
// have expired, no mark may be lost and no cleared mark may have come back.
//
// The short run here (RH_TWO_SERVER_NAMES names per server, 100 by default, RH_TWO_SERVER_RUNS
// runs, 1 by default) is part of every test run; scripts/stress two-servers runs the long one.
// The worst run of each storage goes to build/reliability.txt
// (two-servers-<storage>-lost-marks, -cleared-marks-back, -changes-checked).

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>

#include "DbTestEnv.h"
#include "ReliabilityFigures.h"
#include "TwoServerSite.h"

namespace {

// The sanitizers' build runs every test again, slower: a smaller site there, and the figures
// stay those of the normal build.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kDefaultNames = 40;
constexpr bool kRecordsFigures = false;
#else
constexpr int kDefaultNames = 100;
constexpr bool kRecordsFigures = true;
#endif

struct Storage {
    const char* name;    // of the test instance
    const char* figure;  // of the reliability figures
    TwoServerRun run;
};

TwoServerRun site(SharedStorage storage, int cache, bool coarse = false, bool elsewhere = false) {
    TwoServerRun run;
    run.storage = storage;
    run.attributeCacheSeconds = cache;
    run.coarseTimestamps = coarse;
    run.differentPaths = elsewhere;
    return run;
}

TwoServerRun glusterSite(const char* mountOptions, bool cachesOff) {
    TwoServerRun run = site(SharedStorage::GlusterFs, 0);
    run.glusterMountOptions = mountOptions;
    run.glusterClientCachesOff = cachesOff;
    return run;
}

int fromEnvironment(const char* name, int fallback) {
    const char* text = getenv(name);
    const int value = text != nullptr ? atoi(text) : 0;
    return value > 0 ? value : fallback;
}

void PrintTo(const Storage& storage, std::ostream* out) {
    *out << storage.name;
}

class TwoServerDirtySet : public ::testing::TestWithParam<Storage> {};

}  // namespace

TEST_P(TwoServerDirtySet, noMarkIsLostAndNoClearedMarkComesBack) {
    RH_REQUIRE_DB();
    std::string why;
    // Without root, /dev/fuse or namespaces the site cannot exist here; missing programs are
    // a failure, since scripts/deps installs them.
    if (!twoServerSiteAvailable(why)) GTEST_SKIP() << why;
    ASSERT_EQ(twoServerProgramsMissing(), "");
    const Storage& storage = GetParam();
    TwoServerRun run = storage.run;
    run.namesPerServer = fromEnvironment("RH_TWO_SERVER_NAMES", kDefaultNames);
    const int runs = fromEnvironment("RH_TWO_SERVER_RUNS", 1);

    int worstLost = 0, worstBack = 0, checked = 0;
    for (int i = 0; i < runs; ++i) {
        const TwoServerOutcome outcome = runTwoServers(run);
        ASSERT_EQ(outcome.failure, "") << "run " << i + 1;
        EXPECT_EQ(outcome.marksLost, 0)
            << "run " << i + 1 << ": marks lost of " << outcome.mustStay << " that must stay";
        EXPECT_EQ(outcome.clearedMarksBack, 0)
            << "run " << i + 1 << ": cleared marks back of " << outcome.cleared;
        worstLost = std::max(worstLost, outcome.marksLost);
        worstBack = std::max(worstBack, outcome.clearedMarksBack);
        checked += outcome.mustStay + outcome.cleared;
        printf("%s run %d: %d of %d marks lost, %d of %d cleared marks back, servers %.1f s\n",
               storage.name, i + 1, outcome.marksLost, outcome.mustStay, outcome.clearedMarksBack,
               outcome.cleared, outcome.seconds);
    }
    if (!kRecordsFigures) return;
    const std::string prefix = std::string("two-servers-") + storage.figure;
    EXPECT_EQ("", recordReliabilityFigures({
                      {prefix + "-lost-marks", std::to_string(worstLost)},
                      {prefix + "-cleared-marks-back", std::to_string(worstBack)},
                      {prefix + "-changes-checked", std::to_string(checked)},
                  }));
}

std::string caseName(const ::testing::TestParamInfo<Storage>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    SharedStorage, TwoServerDirtySet,
    ::testing::Values(
        Storage{"plain_directory", "plain-directory", site(SharedStorage::PlainDirectory, 0)},
        Storage{"fuse_without_attribute_cache", "bindfs-no-cache", site(SharedStorage::Bindfs, 0)},
        Storage{"fuse_1s_attribute_cache", "bindfs-1s", site(SharedStorage::Bindfs, 1)},
        Storage{"fuse_3s_attribute_cache", "bindfs-3s", site(SharedStorage::Bindfs, 3)},
        Storage{"fuse_1s_cache_other_path_repository_id", "bindfs-1s-other-path-repository-id",
                site(SharedStorage::Bindfs, 1, false, true)},
        Storage{"fuse_1s_cache_coarse_ramfs_timestamps", "bindfs-1s-ramfs",
                site(SharedStorage::Bindfs, 1, true)},
        Storage{"glusterfs_default_client", "glusterfs-default-client",
                site(SharedStorage::GlusterFs, 0)},
        Storage{"glusterfs_without_fuse_caches", "glusterfs-attribute-entry-timeout-0",
                glusterSite("attribute-timeout=0,entry-timeout=0", false)},
        Storage{"glusterfs_client_caches_off", "glusterfs-client-caches-off",
                glusterSite("", true)}),
    caseName);
