// File-system helpers of the hashed layout and the legacy links, on real temporary directories.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSLegacyLinks.h"
#include "KSPathUtils.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "WorkingDirectory.h"
#include "repohandler.h"

namespace {

bool present(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool isLink(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

std::string linkText(const std::string& path) {
    char buffer[4096];
    const ssize_t n = readlink(path.c_str(), buffer, sizeof(buffer));
    return n < 0 ? "<none>" : std::string(buffer, static_cast<size_t>(n));
}

void setTimes(const std::string& path, time_t access, time_t modification) {
    struct utimbuf times = {access, modification};
    ASSERT_EQ(utime(path.c_str(), &times), 0) << path;
}

struct stat statOf(const std::string& path) {
    struct stat st = {};
    stat(path.c_str(), &st);
    return st;
}

TEST(LayoutFsHelpers, mkdirsCreatesEveryMissingAncestorAndFailsBelowAFile) {
    TempTree tree;
    EXPECT_EQ(mkdirs(tree.path("a/b/c").c_str(), 0755), 0);
    EXPECT_TRUE(present(tree.path("a/b/c")));
    EXPECT_EQ(mkdirs(tree.path("a/b/c/").c_str(), 0755), 0) << "existing levels are fine";
    EXPECT_EQ(statOf(tree.path("a/b")).st_mode & 0777, 0755u);

    tree.write("file", "x");
    EXPECT_EQ(mkdirs(tree.path("file/sub/deeper").c_str(), 0755), -1);
    EXPECT_EQ(mkdirs("", 0755), 0) << "the empty path makes nothing";
    EXPECT_EQ(mkdirs(nullptr, 0755), -1);
}

TEST(LayoutFsHelpers, createDirectoryMakesTheHashedLevelsOfTheResource) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    EXPECT_EQ(createDirectory(nullptr, mount.c_str(), "study1/"), 0);
    EXPECT_TRUE(present(tree.path("mount/SH/D_/Z4/study1")));

    EXPECT_EQ(createDirectory(nullptr, mount.c_str(), "study1"), 1) << "no slash: nothing to do";
    EXPECT_EQ(createDirectory(nullptr, "mount", "x/"), 2);
    EXPECT_EQ(createHashDirectory(nullptr, mount.c_str(), "a/"), 0);
    EXPECT_TRUE(present(tree.path("mount/BC/6J/AJ/a")));
}

TEST(LayoutFsHelpers, createDirectoryLinksEveryLevelIntoTheLegacyDirectory) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    const std::string legacy = tree.mkdir("legacy") + "/";
    EXPECT_EQ(createDirectory(legacy.c_str(), mount.c_str(), "a/study1/"), 0);
    const std::string hashedA = mount + "BC/6J/AJ/a/";
    EXPECT_EQ(linkText(tree.path("legacy/a")), hashedA);
    EXPECT_EQ(linkText(hashedA + "study1"), hashedA + "SH/D_/Z4/study1/");
    EXPECT_TRUE(present(tree.path("legacy/a/study1")));

    // A real legacy directory is left alone.
    tree.mkdir("legacy/own");
    EXPECT_EQ(createDirectory(legacy.c_str(), mount.c_str(), "own/"), 0);
    EXPECT_FALSE(isLink(tree.path("legacy/own")));
}

TEST(LayoutFsHelpers, removeDirectoryClimbsHashLevelsUntilOneIsNotEmpty) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    createDirectory(nullptr, mount.c_str(), "study1/");
    tree.mkdir("mount/SH/other");  // keeps the first hash level busy

    EXPECT_EQ(removeDirectory(nullptr, mount.c_str(), "study1/"), 0);
    EXPECT_FALSE(present(tree.path("mount/SH/D_/Z4/study1")));
    EXPECT_FALSE(present(tree.path("mount/SH/D_")));
    EXPECT_TRUE(present(tree.path("mount/SH")));

    rmdir(tree.path("mount/SH/other").c_str());
    createDirectory(nullptr, mount.c_str(), "study1/");
    EXPECT_EQ(removeHashDirectory(nullptr, mount.c_str(), "study1/"), 0);
    EXPECT_FALSE(present(tree.path("mount/SH")));
    EXPECT_TRUE(present(tree.path("mount"))) << "the walk ends at the first hash level";
    for (const char* empty : {"", "/", "//"}) {
        EXPECT_EQ(removeDirectory(nullptr, mount.c_str(), empty), -1) << "'" << empty << "'";
        EXPECT_TRUE(present(tree.path("mount"))) << "'" << empty << "' names the mount itself";
    }
}

TEST(LayoutFsHelpers, removeDirectoryOfANonEmptyResourceFailsAndKeepsEveryLevel) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    tree.write("mount/SH/D_/Z4/study1/file", "data");
    EXPECT_EQ(removeDirectory(nullptr, mount.c_str(), "study1/"), -1);
    EXPECT_EQ(TempTree::read(tree.path("mount/SH/D_/Z4/study1/file")), "data");
}

TEST(LayoutFsHelpers, removeDirectoryDropsDanglingLegacyLinks) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    const std::string legacy = tree.mkdir("legacy") + "/";
    createDirectory(legacy.c_str(), mount.c_str(), "study1/");
    ASSERT_TRUE(isLink(tree.path("legacy/study1")));
    EXPECT_EQ(removeDirectory(legacy.c_str(), mount.c_str(), "study1/"), 0);
    EXPECT_FALSE(isLink(tree.path("legacy/study1")));
    EXPECT_TRUE(present(tree.path("legacy")));

    // Only links go: a plain file under the resource's legacy name is data, not a stale link.
    const std::string plain = tree.write("legacy/study2", "keep");
    createDirectory(nullptr, mount.c_str(), "study2/");
    EXPECT_EQ(removeDirectory(legacy.c_str(), mount.c_str(), "study2/"), 0);
    EXPECT_EQ(TempTree::read(plain), "keep");

    // A legacy root without a slash names no directory; the working directory is not used.
    const std::string cwdLink = tree.path("cwd/study3");
    tree.mkdir("cwd");
    symlink(tree.path("nowhere").c_str(), cwdLink.c_str());
    createDirectory(nullptr, mount.c_str(), "study3/");
    WorkingDirectory inside(tree.path("cwd"));
    EXPECT_EQ(removeDirectory("legacy", mount.c_str(), "study3/"), 0);
    EXPECT_TRUE(isLink(cwdLink));
}

TEST(LayoutFsHelpers, relativePathsWithDotComponentsAreRefused) {
    TempTree tree;
    const std::string mount = tree.mkdir("area/mount") + "/";
    const std::string legacy = tree.mkdir("area/legacy") + "/";
    const std::string outside = tree.write("area/victim", "keep");
    SyslogCapture log;
    EXPECT_EQ(removeDirectory(legacy.c_str(), mount.c_str(), "../victim/"), -1);
    EXPECT_EQ(TempTree::read(outside), "keep");
    EXPECT_EQ(createDirectory(legacy.c_str(), mount.c_str(), "../escape/"), 1);
    EXPECT_FALSE(present(tree.path("area/escape")));
    EXPECT_EQ(removeDirectoryForFile(mount.c_str(), "../victim"), -1);
    EXPECT_EQ(createDirectoryForFile(mount.c_str(), "./x/f"), 1);
    EXPECT_GE(log.countContaining("refuses the relative path"), 4);
}

TEST(LayoutFsHelpers, directoriesForAFileAreCreatedAndRemovedLevelByLevel) {
    TempTree tree;
    const std::string mount = tree.mkdir("mount") + "/";
    EXPECT_EQ(createHashDirectoryForFile(mount.c_str(), "study1/a"), 0);
    const std::string fileDir = tree.path("mount/SH/D_/Z4/study1/BC/6J/AJ");
    EXPECT_TRUE(present(fileDir));
    EXPECT_EQ(createDirectoryForFile("mount", "study1/a"), 2);

    tree.write("mount/SH/D_/Z4/keep", "x");
    EXPECT_EQ(removeHashDirectoryForFile(mount.c_str(), "study1/a"), 0);
    EXPECT_FALSE(present(tree.path("mount/SH/D_/Z4/study1")));
    EXPECT_TRUE(present(tree.path("mount/SH/D_/Z4/keep")));
    EXPECT_EQ(removeDirectoryForFile(mount.c_str(), "study1/a"), -1) << "already gone";
}

TEST(LayoutFsHelpers, clearEmptyHashRemovesEmptyLevelsOnlyAfterTheResourceIsGone) {
    TempTree tree;
    tree.mkdir("m/AB/CD/EF/name");
    const std::string resource = tree.path("m/AB/CD/EF/name");
    clearEmptyHash(resource.c_str());
    EXPECT_TRUE(present(resource)) << "an existing resource keeps its levels";

    rmdir(resource.c_str());
    tree.write("m/AB/other", "x");
    clearEmptyHash(resource.c_str());
    EXPECT_FALSE(present(tree.path("m/AB/CD")));
    EXPECT_TRUE(present(tree.path("m/AB/other")));

    tree.mkdir("n/AB/CD/EF");
    clearEmptyHash(tree.path("n/AB/CD/EF/gone/").c_str());
    EXPECT_TRUE(present(tree.path("n/AB/CD/EF"))) << "a trailing slash stops at once";

    const std::string file = tree.write("f/AB/CD/EF", "not a hash level");
    clearEmptyHash(tree.path("f/AB/CD/EF/name").c_str());
    EXPECT_EQ(TempTree::read(file), "not a hash level") << "only directories are removed";
}

// The reservation that prepareHashLevels gives the last level keeps it for the resource it was
// handed out for: clean-ups after other resources leave it until it runs out.
TEST(LayoutFsHelpers, aReservedHashLevelStaysUntilItsOwnResourceIsRemovedOrItRunsOut) {
    ClockGuard clock;
    TempTree tree;
    const std::string mount = tree.mkdir("m");
    const std::string level = mount + "/AB/CD/EF";
    ASSERT_TRUE(prepareHashLevels(mount, level + "/", "x"));
    ASSERT_TRUE(present(level));

    clearEmptyHash((level + "/y").c_str());
    EXPECT_TRUE(present(level)) << "reserved for x, not for y";
    touchHashedDirs((level + "/z").c_str());
    clearEmptyHash((level + "/y").c_str());
    EXPECT_TRUE(present(level)) << "renewing the times keeps the reservation";
    clearEmptyHash((level + "/x").c_str());
    EXPECT_FALSE(present(mount + "/AB")) << "x was created and removed: its levels go";

    ASSERT_TRUE(prepareHashLevels(mount, level + "/", "x"));
    ASSERT_TRUE(prepareHashLevels(mount, level + "/", "y"));
    clearEmptyHash((level + "/x").c_str());
    clearEmptyHash((level + "/y").c_str());
    EXPECT_TRUE(present(level)) << "reserved for two: neither removal can tell it is the last";
    KSClock::advanceForTesting(121);
    clearEmptyHashLevels(mount, "AB/CD/EF");
    EXPECT_FALSE(present(mount + "/AB")) << "the reservation ran out";

    tree.write("f/AB/CD", "a file where a level should be");
    EXPECT_FALSE(prepareHashLevels(tree.path("f"), tree.path("f/AB/CD/EF/"), "x"));
}

TEST(LayoutFsHelpers, touchHashedDirsRenewsTheThreeLevelsAndTheMountButNothingAbove) {
    TempTree tree;
    tree.mkdir("top/m/AB/CD/EF/res");
    const time_t old = time(nullptr) - 10 * 86400;
    for (const char* dir :
         {"top", "top/m", "top/m/AB", "top/m/AB/CD", "top/m/AB/CD/EF", "top/m/AB/CD/EF/res"}) {
        setTimes(tree.path(dir), old, old);
    }
    touchHashedDirs(tree.path("top/m/AB/CD/EF/res").c_str());
    for (const char* dir : {"top/m", "top/m/AB", "top/m/AB/CD", "top/m/AB/CD/EF"}) {
        EXPECT_GT(statOf(tree.path(dir)).st_mtime, old) << dir;
    }
    EXPECT_EQ(statOf(tree.path("top")).st_mtime, old);
    EXPECT_EQ(statOf(tree.path("top/m/AB/CD/EF/res")).st_mtime, old);
}

TEST(LayoutFsHelpers, listDirAppendsEntriesAndCanLeaveDirectoriesOut) {
    TempTree tree;
    tree.write("d/file", "x");
    tree.mkdir("d/sub");
    std::list<std::string> names = {"kept"};
    EXPECT_EQ(listDir(tree.path("d").c_str(), &names, false, false), 3);
    names.sort();
    EXPECT_EQ(names, (std::list<std::string>{"file", "kept", "sub"}));

    std::list<std::string> files;
    EXPECT_EQ(listDir(tree.path("d").c_str(), &files, true, true), 1);
    EXPECT_EQ(files, std::list<std::string>{"file"});
}

TEST(LayoutFsHelpers, listDirReportsAVanishedDirectoryQuietlyAndOtherFailuresAsErrors) {
    TempTree tree;
    const std::string file = tree.write("plain", "x");
    SyslogCapture log;
    std::list<std::string> none;
    EXPECT_EQ(listDir(tree.path("missing").c_str(), &none, false, false), 0);
    EXPECT_EQ(listDir(file.c_str(), &none, true, false), 0);

    const auto vanished = log.findEqual("listDir could not open '" + tree.path("missing") +
                                        "'; errno : 2 (No such file or directory)\n");
    ASSERT_TRUE(vanished.has_value());
    EXPECT_EQ(vanished->priority, LOG_DEBUG) << "a directory removed meanwhile is no error";
    const auto notADirectory =
        log.findEqual("listDir could not open '" + file + "'; errno : 20 (Not a directory)\n");
    ASSERT_TRUE(notADirectory.has_value());
    EXPECT_EQ(notADirectory->priority, LOG_ERR);
}

TEST(LayoutFsHelpers, listDirScansWithoutChangingAccessTimesUnlessAskedToOpenPlainly) {
    TempTree tree;
    tree.write("d/file", "x");
    const std::string dir = tree.path("d");
    const time_t now = time(nullptr);
    const time_t oldAccess = now - 2 * 86400;
    setTimes(dir, oldAccess, now - 3 * 86400);

    std::list<std::string> names;
    listDir(dir.c_str(), &names, false, false);
    EXPECT_EQ(statOf(dir).st_atime, oldAccess);

    // The control: an ordinary open does renew the access time on this file system.
    listDir(dir.c_str(), &names, true, false);
    EXPECT_GT(statOf(dir).st_atime, oldAccess);
}

TEST(LayoutFsHelpers, isDanglingIsFalseOnlyForALinkWhoseTargetExists) {
    TempTree tree;
    tree.mkdir("dir");
    symlink(tree.path("dir").c_str(), tree.path("good").c_str());
    symlink(tree.path("nowhere").c_str(), tree.path("bad").c_str());
    const std::string longName(200, 'x');  // link text beyond the first 100-byte buffer
    tree.write(longName, "");
    symlink(tree.path(longName).c_str(), tree.path("long").c_str());

    EXPECT_FALSE(isDangling(tree.path("good").c_str()));
    EXPECT_FALSE(isDangling((tree.path("good") + "/").c_str()));
    EXPECT_FALSE(isDangling(tree.path("long").c_str())) << "link text longer than 100 bytes";
    EXPECT_TRUE(isDangling(tree.path("bad").c_str()));
    EXPECT_TRUE(isDangling(tree.path("dir").c_str())) << "not a link";
    EXPECT_TRUE(isNotLink(tree.path("dir").c_str()));
    EXPECT_FALSE(isNotLink(tree.path("good").c_str()));
    EXPECT_FALSE(isNotLink(tree.path("missing").c_str()));
    EXPECT_EQ(myunlink((tree.path("bad") + "/").c_str()), 0);
    EXPECT_FALSE(isLink(tree.path("bad")));
}

TEST(LayoutFsHelpers, statHelpersLogFailuresWithThePathAndErrno) {
    TempTree tree;
    const std::string file = tree.write("f", std::string(10000, 'x'));
    const std::string missing = tree.path("missing");
    SyslogCapture log;
    struct stat st;
    EXPECT_EQ(myStat(file.c_str(), &st), 0);
    EXPECT_EQ(myStat(missing.c_str(), &st), 8);
    EXPECT_TRUE(log.findEqual("The resource \"" + missing +
                              "\" can not be stat-ed. Error code is 2 - No such file or directory")
                    .has_value());

    EXPECT_EQ(lastModified2(missing.c_str()), 0) << "missing file: 0, silently";
    const std::string underFile = file + "/x";
    EXPECT_EQ(lastModified2(underFile.c_str()), -1);
    EXPECT_TRUE(log.findEqual("The file \"" + underFile +
                              "\" can not be stat-ed. Error code is 20 - Not a directory")
                    .has_value());
    EXPECT_EQ(lastModified(missing.c_str()), -1);

    setTimes(file, 3000, 2000);
    EXPECT_EQ(lastAccess(file.c_str(), nullptr), 3000) << "the later of access and modification";
    setTimes(file, 1000, 2000);
    EXPECT_EQ(lastAccess(file.c_str(), nullptr), 2000);
    EXPECT_EQ(lastModified2(file.c_str()), 2000);
}

TEST(LayoutFsHelpers, nullArgumentsOfTheStatHelpersThrowAssertions) {
    struct stat st;
    try {
        myStat(nullptr, &st);
        FAIL() << "no exception";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getMessage(), "null resource parameter in myStat");
        EXPECT_EQ(e.getFile(), "backend/repositoryhandler/src/libs/KSRepositoryHandler");
    }
    EXPECT_THROW(myStat("/", nullptr), KSAssertionException);
    EXPECT_THROW(lastModified2(nullptr), KSAssertionException);
    EXPECT_THROW(isDir("/", nullptr, nullptr), KSAssertionException);
}

TEST(LayoutFsHelpers, getSizeAddsAllocatedBlocksOfTheWholeTree) {
    TempTree tree;
    const std::string a = tree.write("r/a", std::string(20000, 'a'));
    const std::string b = tree.write("r/sub/b", std::string(9000, 'b'));
    const long expected = statOf(tree.path("r")).st_blocks + statOf(a).st_blocks +
                          statOf(tree.path("r/sub")).st_blocks + statOf(b).st_blocks;
    EXPECT_EQ(getSize(tree.path("r").c_str(), nullptr), expected);
    EXPECT_GE(getSize(a.c_str(), nullptr), 20000 / 512);
    EXPECT_EQ(getSize(tree.path("missing").c_str(), nullptr), -1);

    symlink(tree.path("nowhere").c_str(), tree.path("r/sub/dangling").c_str());
    EXPECT_EQ(getSize(tree.path("r").c_str(), nullptr), -1) << "one failing entry fails all";
}

TEST(LegacyLinks, setLinkRepointsALinkButNeverReplacesARealEntry) {
    TempTree tree;
    tree.mkdir("one");
    tree.mkdir("two");
    const std::string link = tree.path("link");
    EXPECT_TRUE(setLink(tree.path("one").c_str(), link.c_str()));
    EXPECT_EQ(linkText(link), tree.path("one"));
    EXPECT_TRUE(setLink(tree.path("two").c_str(), link.c_str()));
    EXPECT_EQ(linkText(link), tree.path("two"));

    SyslogCapture log;
    const std::string real = tree.write("realdir/content", "keep");
    EXPECT_FALSE(setLink(tree.path("one").c_str(), tree.path("realdir").c_str()));
    EXPECT_EQ(TempTree::read(real), "keep");
    EXPECT_TRUE(
        log.findEqual("Path '" + tree.path("realdir") + "' exists and is not a link.").has_value());

    const std::string blocked = tree.path("missingdir/link");
    EXPECT_FALSE(setLink(tree.path("one").c_str(), blocked.c_str()));
    EXPECT_TRUE(log.findEqual("Link to \"" + tree.path("one") + "\" could not be created at \"" +
                              blocked + "\". Cause: [2] No such file or directory")
                    .has_value());
}

TEST(LegacyLinks, aLinkBeingRepointedIsNeverMissing) {
    TempTree tree;
    tree.mkdir("one");
    tree.mkdir("two");
    const std::string link = tree.path("link");
    ASSERT_TRUE(setLink(tree.path("one").c_str(), link.c_str()));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i)
            setLink(tree.path(i % 2 ? "one" : "two").c_str(), link.c_str());
        done = true;
    });
    int missing = 0;
    struct stat st;
    while (!done)
        if (lstat(link.c_str(), &st) != 0) ++missing;
    writer.join();
    EXPECT_EQ(missing, 0) << "looks that found no link";
    EXPECT_EQ(linkText(link), tree.path("one")) << "the last repointing wins";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.root()),
                            std::filesystem::directory_iterator()),
              3)
        << "nothing is left beside the link";
}

TEST(LegacyLinks, checkLinkResolvesLinksAndReportsWhatItCannot) {
    TempTree tree;
    tree.mkdir("target/inner");
    symlink(tree.path("target/inner").c_str(), tree.path("first").c_str());
    symlink(tree.path("first").c_str(), tree.path("chain").c_str());
    symlink(tree.path("nowhere").c_str(), tree.path("dangling").c_str());
    SyslogCapture log;

    bool linked = false;
    std::string target;
    EXPECT_TRUE(checkLink(tree.path("chain").c_str(), linked, &target));
    EXPECT_TRUE(linked);
    EXPECT_EQ(target, tree.path("target/inner"));

    target = "stale";
    EXPECT_TRUE(checkLink(tree.path("dangling").c_str(), linked, &target));
    EXPECT_TRUE(linked);
    EXPECT_EQ(target, "");
    EXPECT_TRUE(log.findEqual("Path \"" + tree.path("dangling") +
                              "\" could not be resolved. Cause: [2] No such file or directory")
                    .has_value());

    target = "untouched";
    EXPECT_TRUE(checkLink(tree.path("target").c_str(), linked, &target));
    EXPECT_FALSE(linked);
    EXPECT_EQ(target, "untouched");

    EXPECT_FALSE(checkLink(tree.path("missing").c_str(), linked, nullptr));
    EXPECT_TRUE(log.findEqual("Path to \"" + tree.path("missing") +
                              "\" could not be stat-ed. Cause: [2] No such file or directory")
                    .has_value());
}

}  // namespace

namespace {

// Threads of one process prepare locations in one hash level, create their resource a moment
// later, remove it and clean up, as server threads do: the lock on the mount directory keeps
// them apart as it keeps processes apart, so no thread finds its level gone.
TEST(HashLevelConcurrency, threadsCreatingAndCleaningOneLevelNeverLoseAPreparedLevel) {
    TempTree tree;
    const std::string mount = tree.mkdir("m");
    const std::string level = mount + "/AB/CD/EF";
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string name = "r" + std::to_string(t);
            const std::string resource = level + "/" + name;
            for (int round = 0; round < kRounds; ++round) {
                if (!prepareHashLevels(mount, level + "/", name.c_str())) {
                    ++lost;
                    continue;
                }
                std::this_thread::yield();
                if (mkdir(resource.c_str(), 0755) != 0) {
                    ++lost;
                    continue;
                }
                rmdir(resource.c_str());
                clearEmptyHash(resource.c_str());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(lost.load(), 0);
}

}  // namespace
