// The maintenance's hot paths against the tools an administrator would use instead, timed in
// the same run, interleaved:
//   - gathering the oldest resources of a mount against
//     find MOUNT -mindepth 4 -maxdepth 4 -printf '%A@ %T@ %p\n' over the same hashed tree;
//   - the memory the gathering holds at its peak (bounded by the collect number);
//   - moving one resource of 1,000 files / 100 MB between two mounts against the bare
//     cp -rp + diff -q -r + rm -fr of the same tree.
// RH_BENCH_DIR chooses where the trees are made (default /dev/shm, else /tmp).

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "InterleavedRatio.h"
#include "KSCandidateMove.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"

// Every allocation of the process is counted, so the peak of one gathering can be read.
namespace {
std::atomic<long long> liveBytes{0};
std::atomic<long long> peakBytes{0};

void noteAllocated(void* p) {
    if (p == nullptr) return;
    long long now = liveBytes += static_cast<long long>(malloc_usable_size(p));
    long long peak = peakBytes.load();
    while (now > peak && !peakBytes.compare_exchange_weak(peak, now)) {
    }
}
}  // namespace

// These replace the global allocation functions, so malloc and free are the right pair here.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
    void* p = malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw std::bad_alloc();
    noteAllocated(p);
    return p;
}
void operator delete(void* p) noexcept {
    if (p == nullptr) return;
    liveBytes -= static_cast<long long>(malloc_usable_size(p));
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    operator delete(p);
}

namespace {

std::string benchRoot() {
    if (const char* dir = getenv("RH_BENCH_DIR")) return dir;
    struct stat st;
    return stat("/dev/shm", &st) == 0 ? "/dev/shm" : "/tmp";
}

int run(const std::string& command) {
    return system(command.c_str());
}

// A repository with mounts m1 and m2 and `resources` one-file resources on m1 in the hashed
// layout, aged from 10 days upwards. Made once per size and removed at exit.
class Tree {
  public:
    explicit Tree(int resources) {
        std::string pattern = benchRoot() + "/rh-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) abort();
        root_ = pattern;
        for (const char* m : {"/m1", "/m2", "/locks"}) mkdir((root_ + m).c_str(), 0755);
        std::ofstream(root_ + "/m1/repositorypart.cfg").flush();
        std::ofstream(root_ + "/m2/repositorypart.cfg").flush();
        std::ofstream(root_ + "/repository.cfg") << "isShared=\"false\"\nmountPoints=\"m1\\m2\"\n";
        setenv("LOCK_VAR", (root_ + "/locks").c_str(), 1);
        const time_t now = time(nullptr);
        for (int i = 0; i < resources; ++i) {
            std::string name = "1.2.840.10008." + std::to_string(i);
            std::string location = resourceLocation(mount(), name.c_str());
            mkdirs(location.c_str(), 0755);
            struct utimbuf times {
                now - 864000 - i, now - 864000 - i
            };
            utime(location.c_str(), &times);
        }
        repository_ = getRepository(nullptr, root_.c_str(), true);
    }
    ~Tree() { run("rm -rf '" + root_ + "'"); }
    std::string mount(int i = 1) const { return root_ + "/m" + std::to_string(i); }
    KSRepositoryHandler& repository() { return *repository_; }

  private:
    std::string root_;
    std::shared_ptr<KSRepositoryHandler> repository_;
};

Tree& treeOf(int resources) {
    static std::map<int, std::unique_ptr<Tree>> trees;
    auto& tree = trees[resources];
    if (!tree) tree = std::make_unique<Tree>(resources);
    return *tree;
}

// Rounds of the gathering and of find alternate (InterleavedRatio.h); wall-clock time, since
// both are mostly the file system's work.
InterleaveOptions fewLongRounds() {
    InterleaveOptions options;
    options.rounds = 5;
    options.callsPerBlock = 1;
    options.clock = BenchClock::Wall;
    return options;
}

void BM_OldestResourcesAgainstFind(benchmark::State& state) {
    Tree& tree = treeOf(static_cast<int>(state.range(0)));
    KSMountPointHandler& mount = *tree.repository().mounts()[0];
    const std::string find =
        "find '" + tree.mount() + "' -mindepth 4 -maxdepth 4 -printf '%A@ %T@ %p\\n' > /dev/null";
    long long peak = 0;
    auto subject = [&] {
        ResourceSet result;
        const long long before = liveBytes.load();
        peakBytes = before;
        benchmark::DoNotOptimize(
            mount.getOldestResources(nullptr, result, nullptr, 100, nullptr, "", 0));
        peak = std::max(peak, peakBytes.load() - before);
    };
    auto floor = [&] { run(find); };
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, fewLongRounds()));
    state.counters["peak_KiB"] = static_cast<double>(peak) / 1024.0;
}
BENCHMARK(BM_OldestResourcesAgainstFind)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// One resource of 1,000 files of 100 KiB, moved back and forth between m1 and m2: by the
// library, and by hand with cp -rp + diff -q -r + rm -fr onto the other mount.
void BM_MoveAgainstCopyCompareRemove(benchmark::State& state) {
    Tree& tree = treeOf(1);
    KSRepositoryHandler& repository = tree.repository();
    const std::string name = "1.2.840.10008.big";
    const std::string source = resourceLocation(tree.mount(1), name.c_str());
    mkdirs(source.c_str(), 0755);
    run("cd '" + source +
        "' && for i in $(seq 1 1000); do head -c 102400 /dev/urandom > f$i; done");
    CandidateMove how;
    how.checkTime = false;
    int here = 1;  // the mount that holds the resource now
    bool failed = false;
    auto subject = [&] {
        const int there = 3 - here;
        ResourceEntry entry;
        entry.name = name;
        entry.path = resourceLocation(tree.mount(here), name.c_str());
        if (moveCandidate(repository, how, entry, *repository.mounts()[there - 1]) !=
            CandidateMoveResult::Moved)
            failed = true;
        here = there;
    };
    auto floor = [&] {
        const int there = 3 - here;
        const std::string from = resourceLocation(tree.mount(here), name.c_str());
        const std::string to = resourceLocation(tree.mount(there), name.c_str());
        std::unique_ptr<char[]> parent(baseDir(to.c_str()));
        mkdirs(parent.get(), 0755);
        run("cp -rp '" + from + "' '" + to + "' && diff -q -r '" + from + "' '" + to +
            "' && rm -fr '" + from + "'");
        here = there;
    };
    for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, fewLongRounds()));
    if (failed) state.SkipWithError("a move failed");
}
BENCHMARK(BM_MoveAgainstCopyCompareRemove)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

RH_BENCHMARK_MAIN();
