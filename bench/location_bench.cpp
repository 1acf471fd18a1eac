// getLocation_ of a clean resource found on the k-th of 4 mounts, against its floor measured in
// the same run, interleaved: the file-system calls any lookup must make on those same paths
// (for each mount visited, the test of its repositorypart.cfg and the probe of the resource's
// location).
// Once without the resource lock, once with the file lock, whose floor adds one
// open(O_CREAT|O_EXCL), close and unlink of a lock file. Then createLocation_ against the system
// calls one creation needs.
//
// The repository lies in /tmp, or in RH_BENCH_DIR: on a tmpfs (RH_BENCH_DIR=/dev/shm) the
// creations measure the library's own cost, which a disk's latency would otherwise cover.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "InterleavedRatio.h"
#include "KSPathUtils.h"
#include "repohandler.h"

namespace {

constexpr int kMounts = 4;
const char kResource[] = "1.2.840.113619.2.55.3.604688119.969.1268071029.320";

// Where the repository goes: RH_BENCH_DIR, else /tmp.
std::string benchRoot() {
    const char* dir = getenv("RH_BENCH_DIR");
    return dir != nullptr ? dir : "/tmp";
}

// A repository of four plain-directory mounts with one resource per mount (resource k lies on
// mount k), lock files in a directory of its own. Removed at exit.
struct BenchRepository {
    std::string path, lockDir;
    std::vector<std::string> mounts;

    BenchRepository() {
        std::string pattern = benchRoot() + "/rh-location-bench-XXXXXX";
        path = mkdtemp(&pattern[0]);
        lockDir = path + "/locks";
        mkdir(lockDir.c_str(), 0755);
        setenv("LOCK_VAR", lockDir.c_str(), 1);
        std::ofstream(path + "/repository.cfg")
            << "mountPoints=\"m1\\m2\\m3\\m4\"\nisShared=\"false\"\n";
        for (int i = 1; i <= kMounts; ++i) {
            mounts.push_back(path + "/m" + std::to_string(i));
            mkdir(mounts.back().c_str(), 0755);
            std::ofstream(mounts.back() + "/repositorypart.cfg") << "";
            std::string location = resourceLocation(mounts.back(), resourceOn(i).c_str());
            mkdirs(location.c_str(), 0755);
        }
    }
    ~BenchRepository() { std::system(("rm -rf '" + path + "'").c_str()); }

    static std::string resourceOn(int k) {
        return std::string(kResource) + "." + std::to_string(k);
    }
};

BenchRepository& repository() {
    static BenchRepository instance;
    return instance;
}

// Subject and floor interleaved, on the resource that lies on mount state.range(0).
void lookupAgainstFloor(benchmark::State& state, bool lock) {
    BenchRepository& repo = repository();
    const int k = static_cast<int>(state.range(0));
    const std::string name = BenchRepository::resourceOn(k);
    int status = -1;
    auto subject = [&] {
        char* location = getLocation_(repo.path.c_str(), name.c_str(), &status, false, lock, false,
                                      false, nullptr);
        benchmark::DoNotOptimize(location);
        release(location);
    };
    std::vector<std::string> configs, locations;
    for (int i = 0; i < k; ++i) {
        configs.push_back(repo.mounts[i] + "/repositorypart.cfg");
        locations.push_back(resourceLocation(repo.mounts[i], name.c_str()));
    }
    const std::string lockFile = repo.lockDir + "/semaphore_floor";
    auto floor = [&] {
        struct stat st;
        if (lock) close(open(lockFile.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0660));
        for (int i = 0; i < k; ++i) {
            benchmark::DoNotOptimize(stat(configs[i].c_str(), &st));
            benchmark::DoNotOptimize(access(locations[i].c_str(), F_OK));
        }
        if (lock) unlink(lockFile.c_str());
    };
    InterleaveOptions options;
    options.callsPerBlock = 2000;  // CPU time of this thread, the kernel's work for it included
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
    if (status != 0) state.SkipWithError("the resource was not found");
}

void BM_getLocation(benchmark::State& state) {
    lookupAgainstFloor(state, false);
}
void BM_getLocationLocked(benchmark::State& state) {
    lookupAgainstFloor(state, true);
}

BENCHMARK(BM_getLocation)->DenseRange(1, kMounts)->Iterations(1);
BENCHMARK(BM_getLocationLocked)->DenseRange(1, kMounts)->Iterations(1);

// New locations (the hash levels are made and reserved, the resource directory is not) against
// the system calls that one creation needs, made directly on the same repository: the lock file
// (open with O_EXCL, close, unlink), the lookup (for each of the 4 mounts the test of its
// repositorypart.cfg and the probe of the location), the status of every mount (the test of its
// repositorypart.cfg and statfs), the three hash levels (one mkdir each, on a directory of its
// own beside the mounts, so that as many levels exist already as for the subject) and the times
// of the levels and the mount (utime each). Not in the floor: the mount's clean-up lock (open,
// flock, close) and the reservation of the last level (utimensat; and a stat first when the level
// existed already), which keep concurrent clean-ups from removing a new location, beyond what a
// creation needs in itself, and the second test of the chosen mount's repositorypart.cfg, made
// by the mount's own status check just before its levels are made.
void BM_createLocation(benchmark::State& state) {
    BenchRepository& repo = repository();
    const std::string floorMount = repo.path + "/floor";
    mkdir(floorMount.c_str(), 0755);
    long made = 0, floorMade = 0;
    int status = 0, existed = 0;
    auto subject = [&] {
        const std::string name = "new." + std::to_string(made++);
        char* location =
            createLocation_(repo.path.c_str(), name.c_str(), &status, &existed, false, nullptr);
        benchmark::DoNotOptimize(location);
        release(location);
    };
    std::vector<std::string> configs;
    for (const std::string& mount : repo.mounts) configs.push_back(mount + "/repositorypart.cfg");
    auto floor = [&] {
        const std::string name = "new." + std::to_string(floorMade++);
        const std::string lockFile = repo.lockDir + "/semaphore_floor";
        close(open(lockFile.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0660));
        struct stat st;
        for (size_t i = 0; i < repo.mounts.size(); ++i) {
            benchmark::DoNotOptimize(stat(configs[i].c_str(), &st));
            benchmark::DoNotOptimize(
                access(resourceLocation(repo.mounts[i], name.c_str()).c_str(), F_OK));
        }
        struct statfs fs;
        for (size_t i = 0; i < repo.mounts.size(); ++i) {
            benchmark::DoNotOptimize(stat(configs[i].c_str(), &st));
            benchmark::DoNotOptimize(statfs(repo.mounts[i].c_str(), &fs));
        }
        std::string location = resourceLocation(floorMount, name.c_str());
        std::string levels[3];
        for (int level = 2; level >= 0; --level) {
            location.resize(location.rfind('/'));
            levels[level] = location;
        }
        for (const std::string& level : levels) mkdir(level.c_str(), 0755);
        for (int level = 2; level >= 0; --level) utime(levels[level].c_str(), nullptr);
        utime(floorMount.c_str(), nullptr);
        unlink(lockFile.c_str());
    };
    InterleaveOptions options;
    options.callsPerBlock = 200;
    options.clock = BenchClock::Wall;  // the kernel's work on the directories is the cost
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
    if (status != 0 || existed != 0) state.SkipWithError("a creation failed");
}
BENCHMARK(BM_createLocation)->Iterations(1);

}  // namespace

RH_BENCHMARK_MAIN();
