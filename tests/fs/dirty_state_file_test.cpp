// The dirty set shared by processes through the repository's .dirty file, on the file systems
// where sharing it is hard: coarse time stamps (ramfs), a full file system (a tiny tmpfs), and
// writers killed at any moment. Also the state-file cache's rule for trusting a copy.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KSDirtyFlagHandler.h"
#include "KSPathUtils.h"
#include "KSStateFileCache.h"
#include "ProcessGroup.h"
#include "RamfsMount.h"
#include "ScopedEnv.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"

namespace fs = std::filesystem;

namespace {

// Sizes are small for the test run; scripts/stress raises them through the environment.
int sizeFromEnvironment(const char* name, int fallback) {
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

// Replaces the line "name: value" in the figures file named by RH_RELIABILITY_FILE, if any,
// keeping every other line.
void recordFigure(const std::string& name, long value) {
    const char* file = getenv("RH_RELIABILITY_FILE");
    if (file == nullptr) return;
    std::vector<std::string> lines;
    {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);)
            if (line.compare(0, name.size() + 1, name + ":") != 0) lines.push_back(line);
    }
    lines.push_back(name + ": " + std::to_string(value));
    std::ofstream out(file, std::ios::trunc);
    for (const std::string& line : lines) out << line << "\n";
}

std::string readWhole(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

std::set<std::string> linesOf(const std::string& content) {
    std::set<std::string> names;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) names.insert(line);
    return names;
}

int64_t modifiedNanos(const std::string& file) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0) return -1;
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
}

// A name of fixed width, so that the file's size often stays the same from one version to the
// next and only its content tells versions apart.
std::string fixedName(const char* prefix, int process, int round) {
    char name[32];
    snprintf(name, sizeof name, "%s%d-%05d", prefix, process, round);
    return name;
}

// A repository directory (and a lock directory) on a file system of the test's choosing.
class SharedRepository {
  public:
    explicit SharedRepository(const std::string& base)
        : repository_(base + "/repo"),
          locks_(base + "/locks"),
          lockVar_("LOCK_VAR", locks_.c_str()) {
        fs::create_directories(repository_);
        fs::create_directories(locks_);
    }
    const std::string& path() const { return repository_; }
    std::string dirtyFile() const { return fs::canonical(repository_).string() + "/.dirty"; }
    // The lock file of the dirty file, which a killed writer may leave behind.
    std::string lockFile() const {
        std::unique_ptr<char[]> id(toResourceID(dirtyFile().c_str(), ""));
        return locks_ + "/semaphore_" + id.get();
    }

  private:
    std::string repository_;
    std::string locks_;
    ScopedEnv lockVar_;
};

constexpr int kProcesses = 3;

struct LockStepRecord {
    ProcessBarrier barrier;
    std::atomic<int> unseen{0};  // another process's mark missed by an uncached check
};

// Each round: every process marks a name of its own at the same moment (so the writes share
// time-stamp ticks), each then checks with an uncached query that it sees everybody's mark,
// and every other round each clears the mark of the round before.
int markInLockStep(const std::string& repository, int process, int rounds, LockStepRecord* record) {
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository.c_str(), false);
    for (int round = 0; round < rounds; ++round) {
        record->barrier.wait();
        flags.setDirty(nullptr, fixedName("p", process, round).c_str(), true);
        record->barrier.wait();
        for (int other = 0; other < kProcesses; ++other)
            if (!flags.isDirty(nullptr, fixedName("p", other, round).c_str(), false))
                ++record->unseen;
        record->barrier.wait();
        if (round % 2 == 1)
            flags.setDirty(nullptr, fixedName("p", process, round - 1).c_str(), false);
    }
    return 0;
}

}  // namespace

TEST(DirtySetOnCoarseClock, processesInLockStepLoseNoMarkAndSeeEachOthersAtOnce) {
    RH_REQUIRE_MOUNTS();
    RamfsMount ramfs;
    SharedRepository repo(ramfs.path());
    SharedObject<LockStepRecord> record;
    record->barrier.init(kProcesses);
    const int kRounds = sizeFromEnvironment("RH_DIRTY_ROUNDS", 150);

    ProcessGroup processes;
    for (int p = 0; p < kProcesses; ++p)
        processes.start([&, p] { return markInLockStep(repo.path(), p, kRounds, &*record); });
    ASSERT_TRUE(processes.waitAll(120));

    std::set<std::string> expected;
    for (int p = 0; p < kProcesses; ++p)
        for (int round = 0; round < kRounds; ++round)
            if (round % 2 == 1 || round == kRounds - 1) expected.insert(fixedName("p", p, round));
    const std::set<std::string> found = linesOf(readWhole(repo.dirtyFile()));
    int lost = 0, back = 0;
    for (const std::string& name : expected) lost += found.count(name) == 0;
    for (const std::string& name : found) back += expected.count(name) == 0;
    recordFigure("dirty_lockstep_marks", kProcesses * kRounds);
    recordFigure("dirty_lockstep_lost_marks", lost);
    recordFigure("dirty_lockstep_resurrected_marks", back);
    recordFigure("dirty_lockstep_unseen_marks", record->unseen.load());
    EXPECT_EQ(0, lost) << "marks lost";
    EXPECT_EQ(0, back) << "cleared marks back";
    EXPECT_EQ(0, record->unseen.load()) << "marks an uncached query did not see";
}

// The file is rewritten in place, as a tool other than the library might do it, keeping its
// inode and size, within the tick of the version this process read: every stamp stays equal.
TEST(DirtySetOnCoarseClock, aRewriteWithinTheTickOfTheLastReadIsSeenByTheNextUncachedQuery) {
    RH_REQUIRE_MOUNTS();
    RamfsMount ramfs;
    SharedRepository repo(ramfs.path());
    const std::string file = repo.dirtyFile();
    bool sameTick = false;
    for (int attempt = 0; attempt < 50 && !sameTick; ++attempt) {
        std::ofstream(file, std::ios::trunc) << "aaaa\n";
        const int64_t before = modifiedNanos(file);
        KSDirtyFlagHandler flags;
        flags.setRepository(nullptr, repo.path().c_str(), false);
        ASSERT_TRUE(flags.isDirty(nullptr, "aaaa", false));
        std::ofstream(file, std::ios::in | std::ios::out) << "bbbb\n";
        if (modifiedNanos(file) != before) continue;  // the tick ended in between: try again
        sameTick = true;
        EXPECT_TRUE(flags.isDirty(nullptr, "bbbb", false));
        EXPECT_FALSE(flags.isDirty(nullptr, "aaaa", false));
    }
    ASSERT_TRUE(sameTick) << "no rewrite fell into the same tick";
}

// A copy read in the tick of the file's last change is never trusted by its stamps; once the
// change is older than the margin, equal stamps are enough and the file is not read again.
TEST(StateFileCache, aCopyIsRacyUntilTheLastChangeIsOlderThanTheMarginThenStampsDecide) {
    TempTree dir;
    const std::string file = dir.path("state");
    std::ofstream(file) << "one\n";
    KSStateFileCache cache;
    cache.setPath(file);
    EXPECT_EQ(KSStateFileCache::Outcome::kChanged, cache.check());
    EXPECT_EQ("one\n", cache.content());
    EXPECT_FALSE(cache.settled());
    EXPECT_EQ(KSStateFileCache::Outcome::kUnchanged, cache.check());
    EXPECT_FALSE(cache.settled());

    std::this_thread::sleep_for(
        std::chrono::nanoseconds(KSStateFileCache::kRacyMarginNanos + 200'000'000));
    EXPECT_EQ(KSStateFileCache::Outcome::kUnchanged, cache.check());
    EXPECT_TRUE(cache.settled()) << "read after the margin: settled";

    std::ofstream(file, std::ios::trunc) << "two\n";
    EXPECT_EQ(KSStateFileCache::Outcome::kChanged, cache.check());
    EXPECT_EQ("two\n", cache.content());
    EXPECT_FALSE(cache.settled());
}

namespace {

constexpr int kKeptNames = 300;

std::string keptName(int i) {
    return "kept-1.2.840.113619.2.55.3.604688119.969.1268071029." + std::to_string(i);
}

// True when the content is one complete version of the set: every kept name, nothing foreign,
// the last line ended.
bool isWholeSet(const std::string& content) {
    if (content.empty() || content.back() != '\n') return false;
    std::set<std::string> names = linesOf(content);
    for (int i = 0; i < kKeptNames; ++i)
        if (names.erase(keptName(i)) == 0) return false;
    for (const std::string& name : names)
        if (name.compare(0, 6, "churn-") != 0) return false;
    return true;
}

}  // namespace

TEST(DirtySetFile, writersKilledAtRandomMomentsNeverLeaveItEmptyOrCutShort) {
    TempTree dir;
    SharedRepository repo(dir.root());
    {
        KSDirtyFlagHandler flags;
        flags.setRepository(nullptr, repo.path().c_str(), false);
        for (int i = 0; i < kKeptNames; ++i) flags.setDirty(nullptr, keptName(i).c_str(), true);
    }
    std::mt19937 random(20261124);
    const int kKills = sizeFromEnvironment("RH_DIRTY_KILLS", 40);
    int broken = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        ProcessGroup writer;
        pid_t pid = writer.start([&] {
            KSDirtyFlagHandler flags;
            flags.setRepository(nullptr, repo.path().c_str(), false);
            for (unsigned n = 0;; ++n)
                flags.setDirty(nullptr, ("churn-" + std::to_string(n % 7)).c_str(), n % 14 < 7);
            return 0;
        });
        // Readers take no lock: every version they see while the writer runs must be whole.
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::microseconds(2000 + random() % 20000);
        while (std::chrono::steady_clock::now() < until)
            broken += isWholeSet(readWhole(repo.dirtyFile())) ? 0 : 1;
        writer.killNow(pid);
        broken += isWholeSet(readWhole(repo.dirtyFile())) ? 0 : 1;
        unlink(repo.lockFile().c_str());  // a killed holder leaves its lock: the operator's job
    }
    recordFigure("dirty_write_kill_points", kKills);
    recordFigure("dirty_write_broken_sets", broken);
    EXPECT_EQ(0, broken) << "reads of an empty, cut or foreign set";

    KSDirtyFlagHandler after;
    after.setRepository(nullptr, repo.path().c_str(), false);
    for (int i = 0; i < kKeptNames; ++i)
        ASSERT_TRUE(after.isDirty(nullptr, keptName(i).c_str(), false));
}

TEST(DirtySetFile, aFullFileSystemKeepsTheLastSetWholeAndTheChangeIsWrittenLater) {
    RH_REQUIRE_MOUNTS();
    TmpfsMount disk(64 * TmpfsMount::kBlockSize, 64);
    SharedRepository repo(disk.path());
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repo.path().c_str(), false);
    for (int i = 0; i < 40; ++i) flags.setDirty(nullptr, keptName(i).c_str(), true);
    const std::string before = readWhole(repo.dirtyFile());
    ASSERT_LT(before.size(), TmpfsMount::kBlockSize);

    disk.fillBlocksTo(100);
    // Longer than what is left of the file's only block: the new version needs a second one.
    const std::string longName(TmpfsMount::kBlockSize - before.size() + 100, 'L');
    {
        SyslogCapture syslog;
        flags.setDirty(nullptr, longName.c_str(), true);
        EXPECT_EQ(1, syslog.countContaining("Writing the dirty file \"" + repo.dirtyFile() +
                                            "\" failed: No space left on device"));
    }
    EXPECT_EQ(before, readWhole(repo.dirtyFile())) << "the last complete set stays";
    EXPECT_TRUE(flags.isDirty(nullptr, longName.c_str(), true)) << "kept in this process";
    std::vector<std::string> leftovers;
    for (const auto& entry : fs::directory_iterator(repo.path()))
        if (entry.path().filename() != ".dirty") leftovers.push_back(entry.path().filename());
    EXPECT_TRUE(leftovers.empty()) << "a failed write leaves no file of its own";

    fs::remove_all(disk.path() + "/.fill");
    flags.setDirty(nullptr, "later", true);
    const std::set<std::string> written = linesOf(readWhole(repo.dirtyFile()));
    EXPECT_EQ(1u, written.count(longName)) << "the unwritten change went out with the next write";
    EXPECT_EQ(1u, written.count("later"));
    EXPECT_EQ(42u, written.size());
}
