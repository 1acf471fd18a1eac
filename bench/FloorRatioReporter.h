#pragma once

// The console reporter of the benchmarks: after the usual table, one line per benchmark that
// reported a ratio to its floor (counters of reportRatio, InterleavedRatio.h): the median ratio
// of the interleaved rounds, the middle half and the whole range of the rounds' ratios. These
// are the figures to quote, together with the load of the machine they were measured on.
// Use RH_BENCHMARK_MAIN() instead of BENCHMARK_MAIN().

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

class FloorRatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.counters.count("xFloor") == 0) continue;
            std::string name = run.benchmark_name();
            const std::string once = "/iterations:1";  // one measurement of many rounds
            if (name.size() > once.size() &&
                name.compare(name.size() - once.size(), once.size(), once) == 0)
                name.erase(name.size() - once.size());
            lines_.push_back({name, run.counters});
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        if (lines_.empty()) return;
        std::printf("\n%-52s %8s %17s %17s %6s %12s %12s\n", "ratio to floor (median of rounds)",
                    "x floor", "middle half", "range", "rounds", "ns/call", "floor ns");
        for (const Line& line : lines_) {
            auto value = [&line](const char* name) {
                auto it = line.counters.find(name);
                return it == line.counters.end() ? 0.0 : it->second.value;
            };
            std::printf("%-52s %8.2f %7.2f - %7.2f %7.2f - %7.2f %6.0f %12.1f %12.1f\n",
                        line.name.c_str(), value("xFloor"), value("xFloor_p25"),
                        value("xFloor_p75"), value("xFloor_min"), value("xFloor_max"),
                        value("rounds"), value("ns"), value("floor_ns"));
        }
    }

  private:
    struct Line {
        std::string name;
        benchmark::UserCounters counters;
    };
    std::vector<Line> lines_;
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
