// Cost of hashing one resource name and of converting a path into its hashed form, reported
// as a ratio against a floor measured in the same run, interleaved: allocating and copying the
// same text, the least any function returning a new path must spend. CPU time of the calling
// thread, so other load on the machine counts little.

#include <cstring>
#include <string>

#include "InterleavedRatio.h"
#include "KSPathUtils.h"
#include "repohandler.h"

namespace {

const char* const kNames[] = {
    "study1",
    "1.2.840.113619.2.55.3.604688119.969.1268071029.320",
    "1.3.12.2.1107.5.1.4.73513.30000021051906391720300000045/1.3.12.2.1107.5.1.4.73513.3/",
};

template <typename Operation>
void measure(benchmark::State& state, Operation operation) {
    const char* name = kNames[state.range(0)];
    const size_t length = strlen(name);
    auto subject = [&] {
        char* result = operation(name);
        benchmark::DoNotOptimize(result);
        delete[] result;
    };
    auto floor = [&] {
        char* copy = new char[length + 10];
        memcpy(copy, name, length + 1);
        benchmark::DoNotOptimize(copy);
        delete[] copy;
    };
    InterleaveOptions options;
    options.callsPerBlock = 20000;
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
    state.SetLabel(std::to_string(length) + " chars");
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

BENCHMARK(BM_createHash)->DenseRange(0, 2)->Iterations(1);
BENCHMARK(BM_convertToHashedDirectory)->DenseRange(0, 2)->Iterations(1);
BENCHMARK(BM_convertToHashedFile)->DenseRange(0, 2)->Iterations(1);

RH_BENCHMARK_MAIN();
