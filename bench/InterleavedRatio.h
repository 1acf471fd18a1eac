#pragma once

// Ratios of a subject against its floor that hold up on a machine with other load: the subject
// and the floor run alternately, in short blocks, for a number of rounds, and the figure is the
// median of the per-round ratios, reported with their spread. A burst of load spoils a round
// or two, not the figure; a machine that is busy throughout shows as a wide spread.
//
//   void BM_thing(benchmark::State& state) {
//       for (auto _ : state)
//           reportRatio(state, interleavedRatio([&] { thing(); }, [&] { floorOfThing(); }));
//   }
//   BENCHMARK(BM_thing)->Iterations(1);   // one measurement of many rounds
//   RH_BENCHMARK_MAIN();                  // prints every ratio again, in one table, at the end
//
// The closures must not throw; each is called from the calling thread (or, with `threads` > 1,
// from that many threads at once, which must be safe for it).

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <utility>
#include <ctime>
#include <thread>
#include <vector>

#include "FloorRatioReporter.h"

enum class BenchClock {
    Wall,       // elapsed time: what a caller waits, including waits for the disk or the server
    ThreadCpu,  // CPU time of the calling thread: other processes on the machine count little
};

struct InterleaveOptions {
    int rounds = 21;             // an odd number, so the median is one round's ratio
    long callsPerBlock = 2000;   // calls of one closure per block (per thread)
    int threads = 1;             // blocks run on this many threads at once (BenchClock::Wall)
    BenchClock clock = BenchClock::ThreadCpu;
};

struct RatioFigures {
    double median = 0, p25 = 0, p75 = 0, min = 0, max = 0;  // subject / floor, per round
    double subjectNs = 0, floorNs = 0;  // median nanoseconds per call (per thread)
    int rounds = 0;
};

namespace interleave_detail {

inline double nowNanos(BenchClock clock) {
    timespec t;
    clock_gettime(clock == BenchClock::ThreadCpu ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// The value below which `share` of the sorted values lie (nearest rank).
inline double quantile(const std::vector<double>& sorted, double share) {
    size_t index = static_cast<size_t>(share * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

// Nanoseconds per call of one block. With several threads, all start together and the block
// lasts from the first thread's first call to the last thread's last one, as each thread reads
// the clock itself: on a busy machine the starting thread may not run again before the workers
// are done, so its own clock reads would bracket nothing.
template <class Body>
double block(Body& body, const InterleaveOptions& options) {
    if (options.threads <= 1) {
        const double start = nowNanos(options.clock);
        for (long i = 0; i < options.callsPerBlock; ++i) body();
        return (nowNanos(options.clock) - start) / static_cast<double>(options.callsPerBlock);
    }
    pthread_barrier_t ready;
    pthread_barrier_init(&ready, nullptr, static_cast<unsigned>(options.threads));
    std::vector<double> starts(options.threads), ends(options.threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < options.threads; ++t)
        workers.emplace_back([&, t] {
            pthread_barrier_wait(&ready);
            starts[t] = nowNanos(BenchClock::Wall);
            for (long i = 0; i < options.callsPerBlock; ++i) body();
            ends[t] = nowNanos(BenchClock::Wall);
        });
    for (std::thread& worker : workers) worker.join();
    pthread_barrier_destroy(&ready);
    const double elapsed = *std::max_element(ends.begin(), ends.end()) -
                           *std::min_element(starts.begin(), starts.end());
    return elapsed / static_cast<double>(options.callsPerBlock);
}

}  // namespace interleave_detail

// The figures of finished rounds: median ratio with its middle half and range, and the median
// time of each side.
inline RatioFigures summarizeRounds(std::vector<double> ratios, std::vector<double> subjects,
                                    std::vector<double> floors, int rounds) {
    using interleave_detail::quantile;
    std::sort(ratios.begin(), ratios.end());
    std::sort(subjects.begin(), subjects.end());
    std::sort(floors.begin(), floors.end());
    RatioFigures figures;
    figures.median = quantile(ratios, 0.5);
    figures.p25 = quantile(ratios, 0.25);
    figures.p75 = quantile(ratios, 0.75);
    figures.min = ratios.front();
    figures.max = ratios.back();
    figures.subjectNs = quantile(subjects, 0.5);
    figures.floorNs = quantile(floors, 0.5);
    figures.rounds = rounds;
    return figures;
}

// Runs one block of each closure per round, the floor first in even rounds and the subject
// first in odd ones (so that neither always runs in the other's wake), after one untimed block
// of each as warm-up.
template <class Subject, class Floor>
RatioFigures interleavedRatio(Subject subject, Floor floor, InterleaveOptions options = {}) {
    using interleave_detail::block;
    using interleave_detail::quantile;
    if (options.rounds < 1) options.rounds = 1;
    if (options.callsPerBlock < 1) options.callsPerBlock = 1;
    if (options.threads > 1) options.clock = BenchClock::Wall;  // other threads' CPU is unseen
    block(floor, options);
    block(subject, options);
    std::vector<double> ratios, subjects, floors;
    for (int round = 0; round < options.rounds; ++round) {
        double floorNs, subjectNs;
        if (round % 2 == 0) {
            floorNs = block(floor, options);
            subjectNs = block(subject, options);
        } else {
            subjectNs = block(subject, options);
            floorNs = block(floor, options);
        }
        subjects.push_back(subjectNs);
        floors.push_back(floorNs);
        ratios.push_back(subjectNs / floorNs);
    }
    return summarizeRounds(std::move(ratios), std::move(subjects), std::move(floors),
                           options.rounds);
}

// Puts the figures into the benchmark's counters, where FloorRatioReporter finds them: xFloor (the median ratio), its quartiles and extremes, and the median times per call.
inline void reportRatio(benchmark::State& state, const RatioFigures& figures) {
    state.counters["xFloor"] = figures.median;
    state.counters["xFloor_p25"] = figures.p25;
    state.counters["xFloor_p75"] = figures.p75;
    state.counters["xFloor_min"] = figures.min;
    state.counters["xFloor_max"] = figures.max;
    state.counters["ns"] = figures.subjectNs;
    state.counters["floor_ns"] = figures.floorNs;
    state.counters["rounds"] = figures.rounds;
}
