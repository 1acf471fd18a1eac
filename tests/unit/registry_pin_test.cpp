// The handler an exported call pins: many threads looking up and creating resources while
// another thread rewrites repository.cfg and moves the clock past the quiet period, and the
// release of replaced handlers by threads that are busy or idle at the replacement.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ClockControl.h"
#include "KSAssertionException.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSRepositoryPin.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "repohandler.h"

namespace {

// Limits no ordinary /tmp reaches, so that the plain-folder mounts always take new resources.
const ScratchRepository::Keys kRoomyLimits = {{"isShared", "false"},    {"switchLimit", "100"},
                                              {"fullLimit", "100"},     {"cleanLimit", "100"},
                                              {"moveLimit", "100"},     {"hardFullLimit", "100"},
                                              {"mountPoints", "m1\\m2"}};

// A repository of two plain-folder mounts whose repository.cfg can be replaced atomically (new
// file beside, rename), each version with its own remindLimit and modification time, so that
// readers never see half a file.
class ReloadingRepository {
  public:
    ReloadingRepository() {
        repo_.addMount("m1");
        repo_.addMount("m2");
        rewrite(1);
    }
    const std::string& path() const { return repo_.path(); }
    std::string mount(size_t i) const { return repo_.mountPath(i); }

    void rewrite(int version) {
        const std::string file = path() + "/repository.cfg";
        const std::string beside = file + ".new";
        ScratchRepository::Keys keys = kRoomyLimits;
        keys.emplace_back("remindLimit", std::to_string(version));
        ScratchRepository::writeProperties(beside, keys);
        struct utimbuf times = {1000000 + version, 1000000 + version};
        utime(beside.c_str(), &times);
        std::rename(beside.c_str(), file.c_str());
    }

    // Rewrites the configuration and moves past the quiet period; the next checked call
    // replaces the handler.
    void reload(int version) {
        rewrite(version);
        KSClock::advanceForTesting(10);  // past the 9-second quiet period
    }

  private:
    ScratchRepository repo_;
};

// Holds threads at a point until released.
class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

TEST(RegistryPinConcurrency, callsDuringReloadsAnswerFromCompleteHandlersAndReplacedOnesGo) {
    ClockGuard clock;
    TempTree locks;
    ScopedEnv lockVar("LOCK_VAR", locks.root().c_str());
    ReloadingRepository repo;
    const std::string existing = "1.2.3.existing";
    ASSERT_EQ(mkdirs(resourceLocation(repo.mount(1), existing.c_str()).c_str(), 0755), 0);

    std::vector<std::weak_ptr<KSRepositoryHandler>> handlers;
    handlers.push_back(getRepository(nullptr, repo.path().c_str(), true));
    const std::uint64_t replacementsBefore = KSRepositoryPin::replacements();

    constexpr int kWorkers = 4, kReloads = 12;
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0}, calls{0};
    Gate workersMayEnd;
    std::atomic<int> workersDone{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w] {
            for (int n = 0; !stop.load(); ++n) {
                int status = -1, existed = -1;
                char* found = getLocation_(repo.path().c_str(), existing.c_str(), &status, false,
                                           true, false, false, nullptr);
                if (found == nullptr || status != 0 || !startsWith(found, repo.mount(1) + "/")) {
                    ++failures;
                }
                release(found);
                const std::string name = "new." + std::to_string(w) + "." + std::to_string(n);
                char* made = createLocation_(repo.path().c_str(), name.c_str(), &status, &existed,
                                             true, nullptr);
                if (made == nullptr || status != 0 || existed != 0 ||
                    !(startsWith(made, repo.mount(0) + "/") ||
                      startsWith(made, repo.mount(1) + "/"))) {
                    ++failures;
                }
                release(made);
                calls += 2;
            }
            ++workersDone;
            workersMayEnd.wait();  // idle, alive, holding no call
        });
    }
    for (int version = 2; version <= kReloads + 1; ++version) {
        repo.reload(version);
        // A worker that noticed the change first may still be loading the new handler; the
        // registry answers the old one until it is in place, so wait for it (bounded).
        auto handler = getRepository(nullptr, repo.path().c_str(), true);
        for (int n = 0; n < 500 && handler->settings().remindLimit != version; ++n) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            handler = getRepository(nullptr, repo.path().c_str(), true);
        }
        EXPECT_EQ(handler->settings().remindLimit, version) << "a complete, current handler";
        EXPECT_EQ(handler->mounts().size(), 2u);
        handlers.push_back(handler);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop = true;
    while (workersDone.load() < kWorkers) std::this_thread::yield();

    // The workers are idle now; one more replacement must leave every earlier handler unused.
    repo.reload(kReloads + 2);
    auto current = getRepository(nullptr, repo.path().c_str(), true);
    int alive = 0;
    for (const auto& handler : handlers) alive += handler.expired() ? 0 : 1;
    workersMayEnd.open();
    for (auto& worker : workers) worker.join();

    EXPECT_EQ(failures.load(), 0) << "of " << calls.load() << " calls";
    EXPECT_GT(calls.load(), 2 * kWorkers);
    EXPECT_EQ(KSRepositoryPin::replacements() - replacementsBefore, kReloads + 1u);
    EXPECT_EQ(alive, 0) << "replaced handlers still held by idle threads, of " << handlers.size();
    EXPECT_EQ(current->settings().remindLimit, kReloads + 2);
}

TEST(RegistryPinConcurrency, aPinnedHandlerOutlivesItsReplacementAndGoesWhenItsThreadIsIdle) {
    ClockGuard clock;
    ReloadingRepository repo;
    std::weak_ptr<KSRepositoryHandler> first = getRepository(nullptr, repo.path().c_str(), true);
    Gate pinned, replaced, checked, end;
    std::atomic<KSRepositoryHandler*> pinnedHandler{nullptr};
    std::atomic<double> seenLimit{0};
    std::thread holder([&] {
        {
            KSRepositoryPin pin(nullptr, repo.path().c_str(), true);
            pinnedHandler = pin.get();
            pinned.open();
            replaced.wait();
            seenLimit = pin->settings().remindLimit;  // still a whole handler
        }
        checked.open();
        end.wait();  // idle from here on
    });
    pinned.wait();
    EXPECT_EQ(pinnedHandler.load(), first.lock().get());
    repo.reload(2);
    auto second = getRepository(nullptr, repo.path().c_str(), true);
    EXPECT_NE(second, first.lock());
    EXPECT_FALSE(first.expired()) << "the busy thread's pin keeps the old handler";
    replaced.open();
    checked.wait();
    EXPECT_TRUE(first.expired()) << "its thread, idle now, gave the replaced handler up";
    end.open();
    holder.join();
    EXPECT_EQ(seenLimit.load(), 1.0);
}

TEST(RegistryPinConcurrency, anIdleThreadGivesUpItsHandlerWhenTheRegistryReplacesIt) {
    ClockGuard clock;
    ReloadingRepository repo;
    Gate called, end;
    std::thread idle([&] {
        EXPECT_EQ(getRepositoryStatus_(repo.path().c_str(), nullptr) & 256, 0) << "usable";
        called.open();
        end.wait();
    });
    called.wait();
    std::weak_ptr<KSRepositoryHandler> first = getRepository(nullptr, repo.path().c_str(), true);
    repo.reload(2);
    auto second = getRepository(nullptr, repo.path().c_str(), true);
    EXPECT_NE(second, first.lock());
    EXPECT_TRUE(first.expired()) << "the idle thread's cache was emptied";
    end.open();
    idle.join();
}

TEST(RegistryPinTest, nestedPinsKeepTheOuterHandlerAcrossAReloadAndSeeTheNewOne) {
    ClockGuard clock;
    ReloadingRepository repo;
    KSRepositoryPin outer(nullptr, repo.path().c_str(), true);
    std::weak_ptr<KSRepositoryHandler> first = getRepository(nullptr, repo.path().c_str(), false);
    repo.reload(2);
    {
        KSRepositoryPin inner(nullptr, repo.path().c_str(), true);
        EXPECT_NE(inner.get(), outer.get());
        EXPECT_EQ(inner->settings().remindLimit, 2.0);
        KSRepositoryPin unchecked(nullptr, repo.path().c_str(), false);
        EXPECT_EQ(unchecked.get(), inner.get());
    }
    EXPECT_FALSE(first.expired());
    EXPECT_EQ(outer->settings().remindLimit, 1.0);
    EXPECT_THROW(KSRepositoryPin pin(nullptr, nullptr, true), KSAssertionException);
}

}  // namespace
