#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "repohandler.h"

namespace {

using Keys = ScratchRepository::Keys;

// A handler for a scratch repository whose configuration is `keys` (plain folder mounts).
std::unique_ptr<KSRepositoryHandler> loadWith(ScratchRepository& repo, const Keys& keys) {
    repo.writeConfig(keys);
    return std::make_unique<KSRepositoryHandler>(nullptr, repo.path().c_str());
}

void setMtime(const std::string& file, time_t when) {
    struct utimbuf times = {when, when};
    ASSERT_EQ(utime(file.c_str(), &times), 0) << file;
}

}  // namespace

TEST(RepositoryConfigTest, mountPointsSplitAtBackslashesAndSkipEmptyPieces) {
    ScratchRepository repo;
    auto handler = loadWith(repo, {{"mountPoints", "a\\b\\\\c\\"}, {"isShared", "false"}});
    ASSERT_EQ(handler->mounts().size(), 3u);
    EXPECT_EQ(handler->mounts()[0]->path(), repo.path() + "/a");
    EXPECT_EQ(handler->mounts()[1]->path(), repo.path() + "/b");
    EXPECT_EQ(handler->mounts()[2]->path(), repo.path() + "/c");
}

TEST(RepositoryConfigTest, aDirectoryWithoutConfigurationIsOneUsableMountAtItselfWithDefaults) {
    ScratchRepository repo;
    KSRepositoryHandler handler(nullptr, repo.path().c_str());
    EXPECT_FALSE(handler.isUnusable());
    ASSERT_EQ(handler.mounts().size(), 1u);
    EXPECT_EQ(handler.mounts()[0]->path(), repo.path());
    EXPECT_EQ(handler.settings().remindLimit, 80.0);
    EXPECT_EQ(handler.settings().hardFullLimit, 99.9);
    EXPECT_EQ(handler.settings().numThreads, 64);
    EXPECT_TRUE(handler.isShared());
    EXPECT_TRUE(handler.settings().countSize);
    EXPECT_TRUE(handler.settings().authoritativeMode);
    EXPECT_TRUE(handler.isSingleMountNonClearable());
}

TEST(RepositoryConfigTest, timeKeysInDaysWinOverSecondsAndBadTextKeepsTheDefault) {
    ScratchRepository repo;
    auto handler = loadWith(repo, {{"nomoveTimeSeconds", "3600"},
                                   {"nomoveTime", "2"},
                                   {"warnmoveTimeSeconds", "7200"},
                                   {"moveTime", "3"}});
    EXPECT_EQ(handler->settings().nomoveTime, 172800u);
    EXPECT_EQ(handler->settings().warnmoveTime, 7200u);
    EXPECT_EQ(handler->settings().moveTime, 259200u);

    handler = loadWith(repo, {{"nomoveTime", "2d"},
                              {"warnmoveTimeSeconds", ""},
                              {"moveTime", "-1"},
                              {"nomoveTimeSeconds", "4294967295"}});
    EXPECT_EQ(handler->settings().nomoveTime, 86400u);
    EXPECT_EQ(handler->settings().warnmoveTime, 172800u);
    EXPECT_EQ(handler->settings().moveTime, 2592000u);
}

TEST(RepositoryConfigTest, naturalNumbersAreDigitsOnlyIn32BitArithmetic) {
    const struct {
        const char* text;
        unsigned value;
    } cases[] = {{"0", 0},           {"86400", 86400},    {"4294967294", 4294967294u},
                 {"4294967296", 0},  // wraps like the 32-bit accumulator
                 {"", 4294967295u},  {" 1", 4294967295u}, {"1.5", 4294967295u},
                 {"+3", 4294967295u}};
    for (const auto& c : cases) EXPECT_EQ(parseNatInt(c.text), c.value) << '"' << c.text << '"';
    EXPECT_EQ(parseNatInt(nullptr), 4294967295u);
}

TEST(RepositoryConfigTest, booleansAreTrueOnlyForTheExactTextTrueAndSharedUnlessFalse) {
    ScratchRepository repo;
    auto handler = loadWith(repo, {{"isShared", "no"},
                                   {"countSize", "yes"},
                                   {"isClearable", "TRUE"},
                                   {"isClearableMove", "true"},
                                   {"authoritativeMode", "false"},
                                   {"forceDedicated", "true"},
                                   {"numThreads", "7.9"}});
    const auto& s = handler->settings();
    EXPECT_TRUE(s.isShared);
    EXPECT_FALSE(s.countSize);
    EXPECT_FALSE(s.isClearable);
    EXPECT_TRUE(s.isClearableMove);
    EXPECT_FALSE(s.authoritativeMode);
    EXPECT_TRUE(s.forceDedicated);
    EXPECT_EQ(s.numThreads, 7);
    EXPECT_EQ(loadWith(repo, {{"numThreads", "1e300"}})->settings().numThreads, INT_MAX);

    handler = loadWith(repo, {{"isShared", "false"}, {"isClearable", "true"}});
    EXPECT_FALSE(handler->isShared());
    EXPECT_FALSE(handler->isSingleMountNonClearable());
    EXPECT_EQ(handler->getDbConnector(nullptr), nullptr) << "unshared repositories need none";
}

TEST(RepositoryConfigTest, extraConfigFilesOverrideInByteOrderAndOthersAreIgnored) {
    ScratchRepository repo;
    repo.writeFile("repository.20.b.cfg", "remindLimit=30\nwarnLimit=60\n");
    repo.writeFile("repository.10.a.cfg", "remindLimit=20\nwarn2Limit=70\n");
    repo.writeFile("repository.1.x.cfg", "warn3Limit=1\n");
    repo.writeFile("repository.10.x-y.cfg", "warn3Limit=2\n");
    repo.writeFile("repository.10.A.cfg.bak", "warn3Limit=3\n");
    auto handler = loadWith(repo, {{"remindLimit", "10"}, {"isShared", "false"}});
    EXPECT_EQ(handler->settings().remindLimit, 30.0);
    EXPECT_EQ(handler->settings().warnLimit, 60.0);
    EXPECT_EQ(handler->settings().warn2Limit, 70.0);
    EXPECT_EQ(handler->settings().warn3Limit, 92.0);
}

TEST(RepositoryConfigTest, extraFilesAloneConfigureARepositoryWithoutTheMainFile) {
    ScratchRepository repo;
    repo.writeFile("repository.05.only.cfg", "mountPoints=x\\y\nisShared=false\n");
    KSRepositoryHandler handler(nullptr, repo.path().c_str());
    ASSERT_EQ(handler.mounts().size(), 2u);
    EXPECT_EQ(handler.mounts()[1]->path(), repo.path() + "/y");
    EXPECT_FALSE(handler.isShared());
}

TEST(RepositoryConfigTest, legacyDirectoryIsTakenOnlyWhenItExists) {
    ScratchRepository repo;
    SyslogCapture capture;
    const std::string missing = repo.path() + "/nolegacy";
    auto handler = loadWith(repo, {{"legacyDir", missing}, {"maintainLegacyLinks", "true"}});
    EXPECT_TRUE(handler->settings().legacyDir.empty());
    EXPECT_FALSE(handler->settings().maintainLegacyLinks);
    auto line = capture.findEqual("Legacy directory \"" + missing + "\" does not exists.");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->priority, LOG_ERR);
    EXPECT_EQ(line->ident, "KSRepositoryHandler");

    repo.addMount("legacy");
    const std::string legacy = repo.path() + "/legacy";
    handler = loadWith(repo, {{"mountPoints", "p"},
                              {"legacyDir", legacy},
                              {"maintainLegacyLinks", "true"},
                              {"followLegacyLinks", "yes"}});
    EXPECT_EQ(handler->settings().legacyDir, legacy);
    EXPECT_TRUE(handler->settings().maintainLegacyLinks);
    EXPECT_FALSE(handler->settings().followLegacyLinks);
}

TEST(RepositoryConfigTest, onlyTheKnownResolverAndCallbackAreAccepted) {
    ScratchRepository repo;
    SyslogCapture capture;
    auto handler = loadWith(repo, {{"resolver", "rm -rf /"}, {"callback", "MyCallback"}});
    EXPECT_TRUE(handler->settings().resolver.empty());
    EXPECT_TRUE(handler->settings().callback.empty());
    EXPECT_TRUE(
        capture.findEqual("Invalid resolver detected, repohandler defaults to normal: rm -rf /")
            .has_value());
    EXPECT_TRUE(
        capture.findEqual("Invalid callback detected, repohandler defaults to normal: MyCallback")
            .has_value());

    handler = loadWith(
        repo, {{"resolver", "RepositoryDataResolver"}, {"callback", "RepositoryStudyCallback"}});
    EXPECT_EQ(handler->settings().resolver, "RepositoryDataResolver");
    EXPECT_EQ(handler->settings().callback, "RepositoryStudyCallback");
}

TEST(RepositoryConfigTest, anUnreadableConfigurationMakesTheRepositoryUnusableAndIsLogged) {
    ScratchRepository repo;
    repo.writeConfig({{"mountPoints", "p"}});
    const std::string file = repo.path() + "/repository.cfg";
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    ASSERT_EQ(chmod(repo.path().c_str(), 0755), 0);
    // Root reads any file, so the check runs as an unprivileged user in a child process.
    const int code = runInChild([&] {
        if (geteuid() == 0 && setuid(65534) != 0) return 10;
        SyslogCapture capture;
        KSRepositoryHandler handler(nullptr, repo.path().c_str());
        if (!handler.isUnusable()) return 1;
        if (!handler.mounts().empty()) return 2;
        if (handler.checkRepositoryStatus() != 256) return 3;
        auto line = capture.findEqual("Repository config file could not be loaded: " + file +
                                      ", error is:Permission denied");
        if (!line || line->priority != LOG_ERR) return 4;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

TEST(RepositoryRegistryTest, aMissingRepositoryReportsStatus256AndNullPathsAreRefused) {
    const std::string missing = "/tmp/rh-no-such-repository-" + std::to_string(getpid());
    EXPECT_EQ(getRepositoryStatus_(missing.c_str(), nullptr), 256);
    auto handler = getRepository(nullptr, missing.c_str(), true);
    EXPECT_TRUE(handler->isUnusable());
    EXPECT_TRUE(handler->mounts().empty());
    EXPECT_EQ(MountUnmount_(missing.c_str(), 0, false, nullptr), -1);
    EXPECT_THROW(getRepository(nullptr, nullptr, true), KSAssertionException);
    release(nullptr);
    release_(nullptr);
}

TEST(RepositoryRegistryTest, aChangedConfigurationIsReloadedOnlyAfterTheQuietPeriod) {
    ClockGuard clock;
    ScratchRepository repo;
    repo.writeConfig({{"isShared", "false"}, {"remindLimit", "10"}});
    auto first = getRepository(nullptr, repo.path().c_str(), true);
    EXPECT_EQ(getRepository(nullptr, (repo.path() + "/").c_str(), true), first)
        << "the normalised path is the key";

    repo.writeConfig({{"isShared", "false"}, {"remindLimit", "20"}});
    setMtime(repo.path() + "/repository.cfg", first->configModificationTime() + 100);
    KSClock::advanceForTesting(5);
    EXPECT_EQ(getRepository(nullptr, repo.path().c_str(), true), first);
    KSClock::advanceForTesting(5);
    EXPECT_EQ(getRepository(nullptr, repo.path().c_str(), false), first)
        << "without the check the stored handler is returned";
    auto second = getRepository(nullptr, repo.path().c_str(), true);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->settings().remindLimit, 20.0);
    EXPECT_EQ(first->settings().remindLimit, 10.0) << "holders keep the replaced handler";
    KSClock::advanceForTesting(10);
    EXPECT_EQ(getRepository(nullptr, repo.path().c_str(), true), second)
        << "an unchanged file keeps the handler after the quiet period";
}

TEST(RepositoryRegistryTest, spellingsOfOnePathShareOneHandler) {
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "false"}});
    auto handler = getRepository(nullptr, repo.path().c_str(), true);
    const std::string dir = repo.path().substr(repo.path().rfind('/') + 1);
    for (const std::string& spelling :
         {repo.path() + "/", repo.path() + "/.", "/tmp//" + dir, "/tmp/./" + dir,
          repo.path() + "/p1/..", "/tmp/" + dir + "//"}) {
        EXPECT_EQ(getRepository(nullptr, spelling.c_str(), true), handler) << spelling;
    }
    EXPECT_EQ(handler->path(), repo.path());
    EXPECT_NE(getRepository(nullptr, (repo.path() + "/p1").c_str(), true), handler);
}

TEST(RepositoryRegistryTest, touchingOnlyAnExtraConfigFileDoesNotReload) {
    ClockGuard clock;
    ScratchRepository repo;
    repo.writeConfig({{"isShared", "false"}});
    repo.writeFile("repository.10.a.cfg", "remindLimit=20\n");
    auto first = getRepository(nullptr, repo.path().c_str(), true);
    repo.writeFile("repository.10.a.cfg", "remindLimit=30\n");
    setMtime(repo.path() + "/repository.10.a.cfg", time(nullptr) + 100);
    KSClock::advanceForTesting(10);
    EXPECT_EQ(getRepository(nullptr, repo.path().c_str(), true), first);
    EXPECT_EQ(first->settings().remindLimit, 20.0);
}

TEST(RepositoryRegistryConcurrency, concurrentCallersAllGetTheSameHandler) {
    ScratchRepository repo;
    repo.writeConfig({{"isShared", "false"}});
    std::mutex mutex;
    std::set<KSRepositoryHandler*> seen;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 200; ++j) {
                auto handler = getRepository(nullptr, repo.path().c_str(), true);
                std::lock_guard<std::mutex> lock(mutex);
                seen.insert(handler.get());
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(seen.size(), 1u);
}

TEST(RepositoryHandlerConcurrency, parallelRunVisitsEveryMountOnceWithAtMostTheGivenThreads) {
    ScratchRepository repo;
    auto handler = loadWith(repo, {{"mountPoints", "a\\b\\c\\d\\e"}, {"isShared", "false"}});
    for (int threads : {0, 1, 3, 64}) {
        std::mutex mutex;
        std::multiset<std::string> visited;
        std::set<std::thread::id> ids;
        KSRepositoryHandler::parallelRun(handler->mounts(), threads,
                                         [&](KSMountPointHandler& mount) {
                                             std::lock_guard<std::mutex> lock(mutex);
                                             visited.insert(mount.path());
                                             ids.insert(std::this_thread::get_id());
                                         });
        EXPECT_EQ(visited.size(), 5u) << threads;
        for (const auto& mount : handler->mounts()) EXPECT_EQ(visited.count(mount->path()), 1u);
        EXPECT_LE(ids.size(), static_cast<size_t>(std::max(1, std::min(threads, 5))));
        if (threads < 2) {
            EXPECT_EQ(*ids.begin(), std::this_thread::get_id());
        }
    }
}

TEST(RepositoryHandlerConcurrency, threadsAskingAFreshRepositoryAllSeeItsMountsSetUp) {
    ScratchRepository repo;
    for (int i = 0; i < 6; ++i) repo.addMount("p" + std::to_string(i), {{"type", "fast"}});
    repo.writeConfig({{"isShared", "false"}, {"numThreads", "3"}});
    for (int round = 0; round < 5; ++round) {
        KSRepositoryHandler handler(nullptr, repo.path().c_str());
        std::atomic<int> notReady{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 6; ++t) {
            threads.emplace_back([&handler, &notReady, t] {
                KSMountPointHandler& mount = *handler.mounts()[t];
                mount.checkStatus(true);
                if (!mount.config().fast || !handler.mountHandlersInitialised()) ++notReady;
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(notReady.load(), 0);
        EXPECT_FALSE(handler.hasNonFastMount());
    }
}
