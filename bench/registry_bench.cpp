// The registry's hot path: getRepository() with the up-to-date check inside the 9-second quiet
// period, on 1 and 2 threads, against its floor measured in the same run: a shared-lock read of
// a reader-writer lock, a std::map lookup of the same key and one clock read.

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "FloorRatioReporter.h"
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

void BM_getRepository(benchmark::State& state) {
    const char* path = repository().path.c_str();
    getRepository(nullptr, path, true);  // loaded once; every later call is the hot path
    for (auto _ : state) {
        std::shared_ptr<KSRepositoryHandler> handler = getRepository(nullptr, path, true);
        benchmark::DoNotOptimize(handler.get());
    }
}

// The floor: what any registry must do per call.
pthread_rwlock_t floorLock = PTHREAD_RWLOCK_INITIALIZER;
std::map<std::string, std::shared_ptr<int>> floorMap;

void BM_floor_getRepository(benchmark::State& state) {
    const std::string key = repository().path;
    if (state.thread_index() == 0) {
        pthread_rwlock_wrlock(&floorLock);
        floorMap[key] = std::make_shared<int>(1);
        for (int i = 0; i < 16; ++i) floorMap[key + std::to_string(i)] = std::make_shared<int>(i);
        pthread_rwlock_unlock(&floorLock);
    }
    for (auto _ : state) {
        pthread_rwlock_rdlock(&floorLock);
        auto it = floorMap.find(key);
        benchmark::DoNotOptimize(it);
        time_t now = KSClock::now();
        benchmark::DoNotOptimize(now);
        pthread_rwlock_unlock(&floorLock);
    }
}

BENCHMARK(BM_floor_getRepository)->Threads(1)->Threads(2);
BENCHMARK(BM_getRepository)->Threads(1)->Threads(2);

}  // namespace

RH_BENCHMARK_MAIN();
