// The registry's hot path: getRepository() with the up-to-date check inside the 9-second quiet
// period, on 1 and 2 threads, against its floor measured in the same run, interleaved: a
// shared-lock read of a reader-writer lock, a std::map lookup of the same key and one clock read.

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "InterleavedRatio.h"
#include "KSClock.h"
#include "KSRepositoryHandler.h"

namespace {

// A repository with one mount in a temporary directory, removed at exit.
struct BenchRepository {
    std::string path;
    BenchRepository() {
        char pattern[] = "/tmp/rh-registry-bench-XXXXXX";
        path = mkdtemp(pattern);
        std::ofstream(path + "/repository.cfg") << "mountPoints=\"m1\"\nisShared=\"false\"\n";
        std::string mount = path + "/m1";
        mkdir(mount.c_str(), 0755);
        std::ofstream(mount + "/repositorypart.cfg") << "";
    }
    ~BenchRepository() { std::system(("rm -rf '" + path + "'").c_str()); }
};

BenchRepository& repository() {
    static BenchRepository instance;
    return instance;
}

// The floor: what any registry must do per call.
pthread_rwlock_t floorLock = PTHREAD_RWLOCK_INITIALIZER;
std::map<std::string, std::shared_ptr<int>> floorMap;

// Subject and floor alternate in rounds, on state.range(0) threads at once.
void BM_getRepository(benchmark::State& state) {
    const char* path = repository().path.c_str();
    const std::string key = repository().path;
    getRepository(nullptr, path, true);  // loaded once; every later call is the hot path
    floorMap[key] = std::make_shared<int>(1);
    for (int i = 0; i < 16; ++i) floorMap[key + std::to_string(i)] = std::make_shared<int>(i);
    auto subject = [path] {
        std::shared_ptr<KSRepositoryHandler> handler = getRepository(nullptr, path, true);
        benchmark::DoNotOptimize(handler.get());
    };
    auto floor = [&key] {
        pthread_rwlock_rdlock(&floorLock);
        auto it = floorMap.find(key);
        benchmark::DoNotOptimize(it);
        time_t now = KSClock::now();
        benchmark::DoNotOptimize(now);
        pthread_rwlock_unlock(&floorLock);
    };
    InterleaveOptions options;
    options.threads = static_cast<int>(state.range(0));
    options.callsPerBlock = 20000;
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
}

BENCHMARK(BM_getRepository)->ArgName("threads")->Arg(1)->Arg(2)->Iterations(1);

}  // namespace

RH_BENCHMARK_MAIN();
