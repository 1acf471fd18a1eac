// The registry's hot path inside the 9-second quiet period, against floors measured in the same
// run, interleaved:
// - BM_pinRepository: what every exported call does (KSRepositoryPin), on 1 and 2 threads at
//   once, against the same work without sharing: a lookup of the same key in a std::map of the
//   calling thread's own, and one clock read.
// - BM_pinTwoThreadsOverOne: the time per call with two threads calling at once over the time
//   per call with one (CPU time of the calling threads, see cpuNsPerCall); 1.0 is perfect
//   scaling. BM_floorTwoThreadsOverOne is the same for the floor: what the machine allows;
//   BM_getRepositoryTwoThreadsOverOne for the shared-pointer lookup.
// - BM_getRepository: the shared-pointer lookup for callers that want one, against a shared-lock
//   read of a reader-writer lock, a std::map lookup and one clock read.

#include <pthread.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "InterleavedRatio.h"
#include "KSClock.h"
#include "KSRepositoryHandler.h"
#include "KSRepositoryPin.h"

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

void pinOnce(const char* path) {
    KSRepositoryPin pin(nullptr, path, true);
    benchmark::DoNotOptimize(pin.get());
}

// The floor of a pin: the map lookup of the same key in a map of this thread's own, with as
// many entries as the shared floor's, and one clock read.
void floorOfPin(const char* path) {
    thread_local std::map<std::string, std::shared_ptr<int>, std::less<>> own;
    if (own.empty()) {
        own[path] = std::make_shared<int>(1);
        for (int i = 0; i < 16; ++i) own[path + std::to_string(i)] = std::make_shared<int>(i);
    }
    auto it = own.find(path);
    benchmark::DoNotOptimize(it);
    time_t now = KSClock::now();
    benchmark::DoNotOptimize(now);
}

// Mean CPU time per call of `threads` threads started together, each making `calls` calls.
// CPU time rather than elapsed time: on a machine shared with other work the threads do not
// always run at once, and waiting for a core is not a cost of the call; a cache line that moves
// between cores is, and stalls count as CPU time.
template <class Body>
double cpuNsPerCall(int threads, long calls, const Body& body) {
    std::atomic<long long> total{0};
    pthread_barrier_t ready;
    pthread_barrier_init(&ready, nullptr, static_cast<unsigned>(threads));
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < 100; ++i) body();  // the thread's first calls fill its caches
            pthread_barrier_wait(&ready);
            const double start = interleave_detail::nowNanos(BenchClock::ThreadCpu);
            for (long i = 0; i < calls; ++i) body();
            total +=
                static_cast<long long>(interleave_detail::nowNanos(BenchClock::ThreadCpu) - start);
        });
    for (std::thread& worker : workers) worker.join();
    pthread_barrier_destroy(&ready);
    return static_cast<double>(total.load()) / static_cast<double>(threads * calls);
}

// Median and spread of subject() / floor() over interleaved rounds; each returns ns per call.
template <class Subject, class Floor>
RatioFigures interleavedPerCall(const Subject& subject, const Floor& floor, int rounds = 21) {
    using interleave_detail::quantile;
    subject();
    floor();
    std::vector<double> ratios, subjects, floors;
    for (int round = 0; round < rounds; ++round) {
        double s = 0, f = 0;
        if (round % 2 == 0) {
            f = floor();
            s = subject();
        } else {
            s = subject();
            f = floor();
        }
        ratios.push_back(s / f);
        subjects.push_back(s);
        floors.push_back(f);
    }
    return summarizeRounds(std::move(ratios), std::move(subjects), std::move(floors), rounds);
}

constexpr long kCallsPerBlock = 100000;

void BM_pinRepository(benchmark::State& state) {
    const char* path = repository().path.c_str();
    getRepository(nullptr, path, true);
    const int threads = static_cast<int>(state.range(0));
    auto pin = [path] { pinOnce(path); };
    auto floor = [path] { floorOfPin(path); };
    for (auto _ : state) {
        reportRatio(state, interleavedPerCall(
                               [&] { return cpuNsPerCall(threads, kCallsPerBlock, pin); },
                               [&] { return cpuNsPerCall(threads, kCallsPerBlock, floor); }));
    }
}
BENCHMARK(BM_pinRepository)->ArgName("threads")->Arg(1)->Arg(2)->Iterations(1);

// Per call with two threads calling at once over per call with one: 1.0 is perfect scaling.
template <class Body>
void twoThreadsOverOne(benchmark::State& state, const Body& body) {
    for (auto _ : state) {
        reportRatio(state,
                    interleavedPerCall([&] { return cpuNsPerCall(2, kCallsPerBlock, body); },
                                       [&] { return cpuNsPerCall(1, kCallsPerBlock, body); }));
    }
}

void BM_pinTwoThreadsOverOne(benchmark::State& state) {
    const char* path = repository().path.c_str();
    getRepository(nullptr, path, true);
    twoThreadsOverOne(state, [path] { pinOnce(path); });
}
void BM_floorTwoThreadsOverOne(benchmark::State& state) {
    const char* path = repository().path.c_str();
    twoThreadsOverOne(state, [path] { floorOfPin(path); });
}
// What the shared-pointer lookup would scale like (for comparison).
void BM_getRepositoryTwoThreadsOverOne(benchmark::State& state) {
    const char* path = repository().path.c_str();
    getRepository(nullptr, path, true);
    twoThreadsOverOne(state,
                      [path] { benchmark::DoNotOptimize(getRepository(nullptr, path, true)); });
}
BENCHMARK(BM_pinTwoThreadsOverOne)->Iterations(1);
BENCHMARK(BM_floorTwoThreadsOverOne)->Iterations(1);
BENCHMARK(BM_getRepositoryTwoThreadsOverOne)->Iterations(1);

}  // namespace

RH_BENCHMARK_MAIN();
