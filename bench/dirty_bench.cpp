// Cost of asking the dirty set of a repository, reported as ratios against floors measured in
// the same run, interleaved, in CPU time of the calling thread:
//   cached:   isDirty within the 60-second window, against a mutex-guarded lookup in a set of
//             the same names (the least the in-memory answer can cost: no file access at all);
//   uncached: isDirty that checks the file first (a statx fetched from the server, the stamps
//             compared), against one stat of the same file and the same lookup: the plain
//             check by modification time; it must stay within 1.5 of it;
//   shared write: setDirty on a shared repository (database lock, change record read and
//             written), against the same on a database without the change table (the lock and
//             the file alone), in wall time: what the record adds to a write.

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>

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
    // The steady state: a copy read within 3 s of the file's last change is racily clean and
    // read whole at every check (KSStateFileCache); one read later is trusted by its stamps.
    std::this_thread::sleep_for(std::chrono::milliseconds(3200));
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

// A lock table without a change table beside it, made with the server's own client; the
// environment's (scripts/bench) otherwise.
const char* const kLocksWithoutRecords = "NVLOCKBENCHNOCHG";

bool makeLockTableWithoutRecords() {
    const std::string sql = std::string("CREATE TABLE IF NOT EXISTS ") + kLocksWithoutRecords +
                            " LIKE NVLOCK; DROP TABLE IF EXISTS " + kLocksWithoutRecords + "CHG";
    const char* user = getenv("MED_USER");
    const char* db = getenv("DBNAME");
    if (user == nullptr || db == nullptr) return false;
    return system(("mysql -u '" + std::string(user) + "' '" + db + "' -e '" + sql + "'").c_str()) ==
           0;
}

void BM_setDirtySharedWithChangeRecord(benchmark::State& state) {
    if (!makeLockTableWithoutRecords()) {
        state.SkipWithError("no database (run through scripts/bench)");
        return;
    }
    const std::string locks = getenv("NVLOCKTBL") != nullptr ? getenv("NVLOCKTBL") : "NVLOCK";
    DirtyRepository withRecord(10), withoutRecord(10);
    const std::string scope = "dirty-bench-" + std::to_string(getpid());
    KSDirtyFlagHandler recorded, unrecorded;
    recorded.setRepository(nullptr, withRecord.path().c_str(), true, (scope + "-a").c_str());
    unrecorded.setRepository(nullptr, withoutRecord.path().c_str(), true, (scope + "-b").c_str());
    bool markA = true, markB = true;
    // Every lock take makes its connector, which reads the lock table's name then.
    auto subject = [&] {
        setenv("NVLOCKTBL", locks.c_str(), 1);
        recorded.setDirty(nullptr, "toggled", markA);
        markA = !markA;
    };
    auto floor = [&] {
        setenv("NVLOCKTBL", kLocksWithoutRecords, 1);
        unrecorded.setDirty(nullptr, "toggled", markB);
        markB = !markB;
    };
    InterleaveOptions options;
    options.clock = BenchClock::Wall;
    options.rounds = 11;
    options.callsPerBlock = 40;
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
    setenv("NVLOCKTBL", locks.c_str(), 1);
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
BENCHMARK(BM_setDirtySharedWithChangeRecord)->Iterations(1);

RH_BENCHMARK_MAIN();
