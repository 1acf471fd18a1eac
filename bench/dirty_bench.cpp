// Cost of asking the dirty set of a repository, reported as ratios against floors measured in
// the same run:
//   cached:   isDirty within the 60-second window, against a mutex-guarded lookup in a set of
//             the same names (the least the in-memory answer can cost: no file access at all);
//   uncached: isDirty that checks the file first, against one stat of the same file.

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>

#include "KSDirtyFlagHandler.h"

namespace {

double threadNanos() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// A repository directory whose .dirty file names `count` resources; removed at the end.
class DirtyRepository {
  public:
    explicit DirtyRepository(int count) {
        char pattern[] = "/tmp/dirty_bench.XXXXXX";
        path_ = mkdtemp(pattern);
        std::ofstream out(path_ + "/.dirty");
        for (int i = 0; i < count; ++i) {
            names_.insert(name(i));
            out << name(i) << "\n";
        }
    }
    ~DirtyRepository() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    static std::string name(int i) { return "1.2.840.113619.2.55.3." + std::to_string(i); }
    const std::string& path() const { return path_; }
    const std::set<std::string>& names() const { return names_; }

  private:
    std::string path_;
    std::set<std::string> names_;
};

constexpr int kRounds = 200000;

double setLookupFloor(const std::set<std::string>& names, const std::string& probe) {
    std::mutex mutex;
    const double start = threadNanos();
    for (int i = 0; i < kRounds; ++i) {
        std::lock_guard<std::mutex> guard(mutex);
        benchmark::DoNotOptimize(names.count(probe));
    }
    return (threadNanos() - start) / kRounds;
}

double statFloor(const std::string& file) {
    struct stat st;
    const double start = threadNanos();
    for (int i = 0; i < kRounds / 10; ++i) benchmark::DoNotOptimize(stat(file.c_str(), &st));
    return (threadNanos() - start) / (kRounds / 10);
}

void BM_isDirtyCached(benchmark::State& state) {
    DirtyRepository repo(static_cast<int>(state.range(0)));
    setenv("LOCK_VAR", repo.path().c_str(), 1);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repo.path().c_str(), false);
    const std::string probe = DirtyRepository::name(static_cast<int>(state.range(0)) / 2);
    const double floor = setLookupFloor(repo.names(), probe);
    const double start = threadNanos();
    for (auto _ : state) benchmark::DoNotOptimize(flags.isDirty(nullptr, probe.c_str(), true));
    const double perCall = (threadNanos() - start) / static_cast<double>(state.iterations());
    state.counters["xFloor"] = perCall / floor;
}

void BM_isDirtyUncached(benchmark::State& state) {
    DirtyRepository repo(static_cast<int>(state.range(0)));
    setenv("LOCK_VAR", repo.path().c_str(), 1);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repo.path().c_str(), false);
    const std::string probe = DirtyRepository::name(static_cast<int>(state.range(0)) / 2);
    const double floor = statFloor(flags.filePath()) + setLookupFloor(repo.names(), probe);
    const double start = threadNanos();
    for (auto _ : state) benchmark::DoNotOptimize(flags.isDirty(nullptr, probe.c_str(), false));
    const double perCall = (threadNanos() - start) / static_cast<double>(state.iterations());
    state.counters["xFloor"] = perCall / floor;
}

}  // namespace

BENCHMARK(BM_isDirtyCached)->Arg(10)->Arg(1000);
BENCHMARK(BM_isDirtyUncached)->Arg(10)->Arg(1000);
