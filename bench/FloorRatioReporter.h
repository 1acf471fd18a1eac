#pragma once

// A console reporter that, after the usual table, prints every benchmark "BM_x/..." as a ratio
// against the benchmark "BM_floor_x/..." with the same arguments and thread count, measured in
// the same run. Use RH_BENCHMARK_MAIN() instead of BENCHMARK_MAIN().

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

class FloorRatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-60s %12s %12s %8s\n", "benchmark", "ns/op", "floor ns/op", "x floor");
        for (const auto& [name, time] : times_) {
            if (name.rfind("BM_floor_", 0) == 0) continue;
            auto floor = times_.find("BM_floor_" + name.substr(3));
            if (name.rfind("BM_", 0) != 0 || floor == times_.end()) continue;
            std::printf("%-60s %12.1f %12.1f %8.2f\n", name.c_str(), time, floor->second,
                        time / floor->second);
        }
    }

  private:
    std::map<std::string, double> times_;
};

#define RH_BENCHMARK_MAIN()                                               \
    int main(int argc, char** argv) {                                     \
        benchmark::Initialize(&argc, argv);                               \
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
        FloorRatioReporter reporter;                                      \
        benchmark::RunSpecifiedBenchmarks(&reporter);                     \
        benchmark::Shutdown();                                            \
        return 0;                                                         \
    }
