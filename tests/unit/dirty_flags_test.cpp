// The dirty set of a repository: its .dirty file, shared between processes, and the in-memory
// cache that spares file access for 60 seconds.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSDirtyFlagHandler.h"
#include "KSNomoveHandler.h"
#include "KSPathUtils.h"
#include "ScopedEnv.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace fs = std::filesystem;

namespace {

// A repository directory and a lock directory of its own for each test.
class DirtyFlagsTest : public ::testing::Test {
  protected:
    DirtyFlagsTest()
        : repository_(dir_.root() + "/repo"),
          locks_(dir_.root() + "/locks"),
          lockVar_("LOCK_VAR", (dir_.root() + "/locks").c_str()) {
        fs::create_directory(repository_);
        fs::create_directory(locks_);
        dirtyFile_ = repository_ + "/.dirty";
    }

    std::string readFile() const { return TempTree::read(dirtyFile_); }

    // Rewrites the file as another writer would, with a modification time of its own so the
    // change is visible however coarse the file system's clock is.
    void rewriteFile(const std::string& content, time_t mtime) const {
        std::ofstream(dirtyFile_, std::ios::binary | std::ios::trunc) << content;
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        utimensat(AT_FDCWD, dirtyFile_.c_str(), times, 0);
    }

    // The lock file that guards the dirty file, as another process would hold it.
    std::string fileLockPath() const {
        std::unique_ptr<char[]> id(toResourceID(dirtyFile_.c_str(), ""));
        return locks_ + "/semaphore_" + id.get();
    }

    TempTree dir_;
    std::string repository_;
    std::string locks_;
    ScopedEnv lockVar_;
    std::string dirtyFile_;
};

}  // namespace

TEST_F(DirtyFlagsTest, withoutAFileEveryResourceIsCleanAndCleaningOneWritesNothing) {
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    EXPECT_EQ(fs::canonical(repository_).string() + "/.dirty", flags.filePath());
    EXPECT_FALSE(flags.isDirty(nullptr, "a", false));
    flags.setDirty(nullptr, "a", false);
    EXPECT_FALSE(fs::exists(dirtyFile_));
}

TEST_F(DirtyFlagsTest, fileHoldsOneSortedNamePerLineAndFollowsEveryChange) {
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "c", true);
    flags.setDirty(nullptr, "a", true);
    flags.setDirty(nullptr, "b", true);
    EXPECT_EQ("a\nb\nc\n", readFile());
    EXPECT_TRUE(flags.isDirty(nullptr, "b", false));
    flags.setDirty(nullptr, "a", false);
    EXPECT_EQ("b\nc\n", readFile());
    EXPECT_FALSE(flags.isDirty(nullptr, "a", false));
    flags.clearDirtySet(nullptr);
    EXPECT_TRUE(fs::exists(dirtyFile_));
    EXPECT_EQ("", readFile());
    EXPECT_TRUE(flags.snapshot().empty());
    EXPECT_FALSE(fs::exists(fileLockPath())) << "the file lock is given back";
}

// With the file lock held by somebody else, any attempt to write would wait and log; a change
// that changes nothing must not even try.
TEST_F(DirtyFlagsTest, settingAFlagThatIsAlreadySetDoesNotWriteAgain) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);
    ASSERT_EQ("a\n", readFile());

    close(open(fileLockPath().c_str(), O_CREAT | O_EXCL | O_RDONLY, 0600));
    SyslogCapture syslog;
    flags.setDirty(nullptr, "a", true);
    EXPECT_EQ(0, KSClock::offsetMillisForTesting());
    EXPECT_EQ(0, syslog.countContaining("could not be locked"));
}

TEST_F(DirtyFlagsTest, lockedFileKeepsTheChangeInMemoryOnlyAndSaysSo) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);
    close(open(fileLockPath().c_str(), O_CREAT | O_EXCL | O_RDONLY, 0600));

    SyslogCapture syslog;
    flags.setDirty(nullptr, "b", true);
    EXPECT_TRUE(
        syslog.findEqual("The dirty mechanism \"" + flags.filePath() + "\" could not be locked."));
    EXPECT_EQ("a\n", readFile());
    EXPECT_EQ((std::set<std::string>{"a", "b"}), flags.snapshot());
    EXPECT_TRUE(fs::exists(fileLockPath())) << "somebody else's lock is left alone";
}

// A change that missed the file is reported. Called again, a mark is written even though this
// process already counts it as set; a clear that missed the file is not written later, where it
// could erase a mark another process set meanwhile.
TEST_F(DirtyFlagsTest, aChangeThatMissedTheFileIsReportedAndOnlyMarksAreWrittenLater) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    ASSERT_TRUE(flags.setDirty(nullptr, "a", true));
    close(open(fileLockPath().c_str(), O_CREAT | O_EXCL | O_RDONLY, 0600));
    {
        SyslogCapture syslog;
        EXPECT_FALSE(flags.setDirty(nullptr, "b", true));
        EXPECT_FALSE(flags.setDirty(nullptr, "a", false));
    }
    EXPECT_EQ("a\n", readFile());
    EXPECT_EQ((std::set<std::string>{"a", "b"}), flags.snapshot()) << "the clear is dropped";

    unlink(fileLockPath().c_str());
    EXPECT_TRUE(flags.setDirty(nullptr, "b", true)) << "the waiting mark is written now";
    EXPECT_EQ("a\nb\n", readFile());
}

TEST_F(DirtyFlagsTest, fileRewrittenByAnotherProcessIsSeenByTheNextUncachedQuery) {
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);

    EXPECT_EQ(0, runInChild([&] {
                  KSDirtyFlagHandler other;
                  other.setRepository(nullptr, repository_.c_str(), false);
                  const int code = other.isDirty(nullptr, "a", false) ? 0 : 1;
                  other.setDirty(nullptr, "b", true);
                  return code;
              }))
        << "the other process did not see this one's entry";
    EXPECT_EQ("a\nb\n", readFile());
    EXPECT_TRUE(flags.isDirty(nullptr, "b", false));

    flags.setDirty(nullptr, "c", true);
    EXPECT_EQ("a\nb\nc\n", readFile()) << "the other process's entry survives our write";
}

TEST_F(DirtyFlagsTest, cachedQueryIgnoresTheFileForSixtySeconds) {
    ClockGuard clock;
    // The window is counted in whole seconds of the clock: start at the beginning of a second,
    // so that the real time the test takes cannot carry it over one more.
    for (time_t start = time(nullptr); time(nullptr) == start;) usleep(1000);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);
    rewriteFile("b\n", time(nullptr) - 3600);

    EXPECT_TRUE(flags.isDirty(nullptr, "a", true));
    EXPECT_FALSE(flags.isDirty(nullptr, "b", true));
    KSClock::advanceForTesting(59);
    EXPECT_TRUE(flags.isDirty(nullptr, "a", true));
    EXPECT_FALSE(flags.isDirty(nullptr, "b", true));
    KSClock::advanceForTesting(2);
    EXPECT_TRUE(flags.isDirty(nullptr, "b", true));
    EXPECT_FALSE(flags.isDirty(nullptr, "a", true));
}

// A stat of the file path that fails is logged; with the path made unresolvable, the absence of
// that line shows that cached queries do not touch the file system at all.
TEST_F(DirtyFlagsTest, cachedQueryMakesNoFileAccessWithinTheWindow) {
    ClockGuard clock;
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);
    fs::rename(repository_, repository_ + ".moved");
    fs::create_symlink(repository_, repository_);  // a link to itself: stat fails with ELOOP

    SyslogCapture syslog;
    KSClock::advanceForTesting(59);
    EXPECT_TRUE(flags.isDirty(nullptr, "a", true));
    EXPECT_EQ(0, syslog.countContaining("can not be stat-ed"));
    KSClock::advanceForTesting(1);
    EXPECT_TRUE(flags.isDirty(nullptr, "a", true)) << "an unreadable file keeps the set";
    EXPECT_TRUE(syslog.findEqual("The file \"" + flags.filePath() +
                                 "\" can not be stat-ed. Error code is 40 - Too many levels of "
                                 "symbolic links"));
}

TEST_F(DirtyFlagsTest, fileRemovedByAnotherProcessMakesEverythingClean) {
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    flags.setDirty(nullptr, "a", true);
    fs::remove(dirtyFile_);
    EXPECT_FALSE(flags.isDirty(nullptr, "a", false));
    EXPECT_TRUE(flags.snapshot().empty());
}

TEST_F(DirtyFlagsTest, blankAndOverlongLinesAreTakenAsTheyStand) {
    const std::string longName(1500, 'x');
    rewriteFile("a\n\n" + longName + "\nlast", time(nullptr) - 60);
    KSDirtyFlagHandler flags;
    flags.setRepository(nullptr, repository_.c_str(), false);
    std::set<std::string> expected = {"", "a", std::string(1023, 'x'), std::string(477, 'x'),
                                      "last"};
    EXPECT_EQ(expected, flags.snapshot());
    EXPECT_TRUE(flags.isDirty(nullptr, "", false));

    flags.setDirty(nullptr, "a", false);
    EXPECT_EQ("\nlast\n" + std::string(477, 'x') + "\n" + std::string(1023, 'x') + "\n",
              readFile());
}

TEST_F(DirtyFlagsTest, badArgumentsAreRefusedWithoutTouchingTheFile) {
    KSDirtyFlagHandler flags;
    EXPECT_THROW(flags.setRepository(nullptr, nullptr, false), KSAssertionException);
    flags.setRepository(nullptr, repository_.c_str(), false);
    EXPECT_THROW(flags.isDirty(nullptr, nullptr, false), KSAssertionException);
    EXPECT_THROW(flags.setDirty(nullptr, nullptr, true), KSAssertionException);

    SyslogCapture syslog;
    flags.setDirty(nullptr, "a\nb", true);
    EXPECT_FALSE(fs::exists(dirtyFile_));
    EXPECT_EQ(1, syslog.countContaining("contains a line feed"));
}

// Threads of one process share one handler, and others stand for further processes with a
// handler of their own (the file lock excludes them as it excludes processes). Each thread
// marks and clears names of its own while querying uncached; afterwards the file holds exactly
// the marks that were not cleared.
TEST(DirtySetConcurrency, threadsWithSharedAndOwnHandlersLoseNoMark) {
    TempTree dir;
    const std::string repository = dir.mkdir("repo");
    ScopedEnv lockVar("LOCK_VAR", dir.mkdir("locks").c_str());
    KSDirtyFlagHandler shared;
    shared.setRepository(nullptr, repository.c_str(), false);
    constexpr int kThreads = 4;
    constexpr int kNames = 40;
    std::atomic<int> unseen{0};
    auto name = [](int thread, int i) {
        return "t" + std::to_string(thread) + "-" + std::to_string(i);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            KSDirtyFlagHandler own;
            own.setRepository(nullptr, repository.c_str(), false);
            KSDirtyFlagHandler& flags = t % 2 == 0 ? shared : own;
            for (int i = 0; i < kNames; ++i) {
                flags.setDirty(nullptr, name(t, i).c_str(), true);
                if (!flags.isDirty(nullptr, name(t, i).c_str(), false)) ++unseen;
                if (i % 2 == 1) flags.setDirty(nullptr, name(t, i - 1).c_str(), false);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::set<std::string> expected;
    for (int t = 0; t < kThreads; ++t)
        for (int i = 1; i < kNames; i += 2) expected.insert(name(t, i));
    KSDirtyFlagHandler after;
    after.setRepository(nullptr, repository.c_str(), false);
    EXPECT_EQ(expected, after.snapshot());
    EXPECT_EQ(0, unseen.load());
}

TEST(NomoveTest, noMoveSetFollowsEachChangeAndRefusesANullName) {
    KSNomoveHandler nomove;
    nomove.setNomove("a", true);
    nomove.setNomove("a", true);
    EXPECT_TRUE(nomove.isNomove("a"));
    EXPECT_FALSE(nomove.isNomove("b"));
    nomove.setNomove("a", false);
    EXPECT_FALSE(nomove.isNomove("a"));
    EXPECT_THROW(nomove.isNomove(nullptr), KSAssertionException);
    EXPECT_THROW(nomove.setNomove(nullptr, true), KSAssertionException);
}
