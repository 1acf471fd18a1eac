// Cost of asking the dirty set of a repository, reported as ratios against floors measured in
// the same run, interleaved, in CPU time of the calling thread:
//   cached:   isDirty within the 60-second window, against a mutex-guarded lookup in a set of
//             the same names (the least the in-memory answer can cost: no file access at all);
//   uncached: isDirty that checks the file first, against one stat of the same file and the
//             same lookup.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>

#include "InterleavedRatio.h"
#include "KSDirtyFlagHandler.h"

namespace {

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

void isDirtyAgainst(benchmark::State& state, bool cached) {
    DirtyRepository repo(static_cast<int>(state.range(0)));
    setenv("LOCK_VAR", repo.path().c_str(), 1);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repo.path().c_str(), false);
    const std::string probe = DirtyRepository::name(static_cast<int>(state.range(0)) / 2);
    const std::string file = flags.filePath();
    std::mutex mutex;
    auto subject = [&] { benchmark::DoNotOptimize(flags.isDirty(nullptr, probe.c_str(), cached)); };
    auto floor = [&] {
        if (!cached) {
            struct stat st;
            benchmark::DoNotOptimize(stat(file.c_str(), &st));
        }
        std::lock_guard<std::mutex> guard(mutex);
        benchmark::DoNotOptimize(repo.names().count(probe));
    };
    InterleaveOptions options;
    options.callsPerBlock = cached ? 20000 : 2000;
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
}

void BM_isDirtyCached(benchmark::State& state) {
    isDirtyAgainst(state, true);
}

void BM_isDirtyUncached(benchmark::State& state) {
    isDirtyAgainst(state, false);
}

}  // namespace

BENCHMARK(BM_isDirtyCached)->Arg(10)->Arg(1000)->Iterations(1);
BENCHMARK(BM_isDirtyUncached)->Arg(10)->Arg(1000)->Iterations(1);

RH_BENCHMARK_MAIN();
