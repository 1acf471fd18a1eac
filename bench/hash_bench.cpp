// Cost of hashing one resource name and of converting a path into its hashed form, reported
// as a ratio against a floor measured in the same run: allocating and copying the same text.

#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>
#include <string>

#include "KSPathUtils.h"
#include "repohandler.h"

namespace {

// CPU time of this thread: other load on the machine does not enter the ratios.
double threadNanos() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

const char* const kNames[] = {
    "study1",
    "1.2.840.113619.2.55.3.604688119.969.1268071029.320",
    "1.3.12.2.1107.5.1.4.73513.30000021051906391720300000045/1.3.12.2.1107.5.1.4.73513.3/",
};

// Nanoseconds per copy of `name` into a new array, the least any function returning a new
// path must spend.
double floorNanos(const char* name) {
    constexpr int kRounds = 200000;
    const size_t length = strlen(name);
    const double start = threadNanos();
    for (int i = 0; i < kRounds; ++i) {
        char* copy = new char[length + 10];
        memcpy(copy, name, length + 1);
        benchmark::DoNotOptimize(copy);
        delete[] copy;
    }
    return (threadNanos() - start) / kRounds;
}

template <typename Operation>
void measure(benchmark::State& state, Operation operation) {
    const char* name = kNames[state.range(0)];
    const double floor = floorNanos(name);
    const double start = threadNanos();
    for (auto _ : state) {
        char* result = operation(name);
        benchmark::DoNotOptimize(result);
        delete[] result;
    }
    const double perCall = (threadNanos() - start) / static_cast<double>(state.iterations());
    state.counters["xFloor"] = perCall / floor;
    state.SetLabel(std::to_string(strlen(name)) + " chars");
}

void BM_createHash(benchmark::State& state) {
    measure(state, createHash);
}

void BM_convertToHashedDirectory(benchmark::State& state) {
    measure(state, [](const char* name) { return convertToHashed_(name, false); });
}

void BM_convertToHashedFile(benchmark::State& state) {
    measure(state, [](const char* name) { return convertToHashed_(name, true); });
}

}  // namespace

BENCHMARK(BM_createHash)->DenseRange(0, 2);
BENCHMARK(BM_convertToHashedDirectory)->DenseRange(0, 2);
BENCHMARK(BM_convertToHashedFile)->DenseRange(0, 2);
