// A maintenance process killed with SIGKILL at any moment loses nothing: afterwards every
// resource's complete content still lies on some mount, and a resource found on two mounts is
// in the dirty set, so its next lookup searches every mount instead of trusting a half copy.
//
// RH_CRASH_RUNS sets the number of kills (scripts/stress runs many; the default is quick).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "KSClock.h"
#include "KSPathUtils.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr int kResources = 20;
constexpr time_t kDay = 86400;

// FNV-1a over every file below `dir`: relative names and contents, in name order.
uint64_t digest(const std::string& dir, const std::string& relative = "",
                uint64_t hash = 1469598103934665603ull) {
    auto mix = [&hash](const std::string& text) {
        for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    };
    for (const std::string& name : entriesOf(dir)) {
        const std::string path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        mix(relative + "/" + name);
        if (S_ISDIR(st.st_mode)) {
            hash = digest(path, relative + "/" + name, hash);
        } else {
            mix(readFile(path));
        }
    }
    return hash;
}

// One repository about to be maintained: p1 past its move limit, p2 empty.
class Scenario {
  public:
    explicit Scenario(bool clearable) {
        repo_.addTmpfsMount("p1", 256 * 4096, 2000,
                            {{"moveLimit", "50"}, {"cleanLimit", "30"}, {"deleteOld", "0"}});
        repo_.addTmpfsMount("p2", 1024 * 4096, 2000);
        ScratchRepository::Keys keys{{"isShared", "false"}};
        if (clearable) {
            keys.emplace_back("isClearable", "true");
            keys.emplace_back("isClearableMove", "true");
        }
        repo_.writeConfig(keys);
        for (int i = 0; i < kResources; ++i) {
            const std::string name = "study" + std::to_string(i);
            const std::string location = resourceLocation(repo_.mountPath(0), name.c_str());
            for (int f = 0; f < 4; ++f)
                putResource(repo_.mountPath(0), name, "i" + std::to_string(f),
                            std::string(8000, static_cast<char>('a' + f)) + name);
            mkdirs((location + "/series").c_str(), 0755);
            std::ofstream(location + "/series/s") << name;
            // Reading a directory renews its access time, so the ages are set last.
            expected_[name] = digest(location);
            setTimes(location, KSClock::now() - (40 + i) * kDay);
        }
    }
    const std::string& path() const { return repo_.path(); }

    // Every resource complete somewhere; copies on two mounts only for dirty resources.
    void verify(int run) const {
        std::set<std::string> dirty;
        std::ifstream in(path() + "/.dirty");
        for (std::string line; std::getline(in, line);) dirty.insert(line);
        for (const auto& [name, content] : expected_) {
            int copies = 0;
            bool complete = false;
            for (size_t m = 0; m < 2; ++m) {
                const std::string location = resourceLocation(repo_.mountPath(m), name.c_str());
                if (!entryExists(location)) continue;
                ++copies;
                complete = complete || digest(location) == content;
            }
            EXPECT_TRUE(complete) << "run " << run << ": " << name << " lost";
            if (copies > 1) {
                EXPECT_EQ(dirty.count(name), 1u) << "run " << run << ": " << name << " twice";
            }
        }
    }

  private:
    ScratchRepository repo_;
    std::map<std::string, uint64_t> expected_;
};

// Runs the overload check in a child process group and kills the whole group (the copy
// commands included, as a power cut would) after `delay`; a negative delay lets it finish.
void maintainAndKill(const std::string& repository, std::chrono::microseconds delay) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setpgid(0, 0);
        checkOverload_(repository.c_str(), false, false, nullptr);
        _exit(0);
    }
    setpgid(child, child);  // both sides set it, so the kill below never misses the group
    if (delay.count() >= 0) {
        std::this_thread::sleep_for(delay);
        kill(-child, SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
}

TEST(CapacityCrash, AMaintenanceKilledAtAnyMomentLosesNoResource) {
    RH_REQUIRE_MOUNTS();
    const char* configured = getenv("RH_CRASH_RUNS");
    const int runs = configured != nullptr ? std::max(1, atoi(configured)) : 10;

    std::chrono::microseconds full{0};
    for (bool clearable : {false, true}) {
        TempTree locks, var;
        ScopedEnv lockEnv("LOCK_VAR", locks.root().c_str());
        ScopedEnv varEnv("VAR", var.root().c_str());
        Scenario scenario(clearable);
        auto start = std::chrono::steady_clock::now();
        maintainAndKill(scenario.path(), std::chrono::microseconds(-1));
        auto took = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - start);
        full = std::max(full, took);
        scenario.verify(-1);
    }

    for (int run = 0; run < runs; ++run) {
        // Fresh lock files: a killed process leaves its locks behind, as after a crash.
        TempTree locks, var;
        ScopedEnv lockEnv("LOCK_VAR", locks.root().c_str());
        ScopedEnv varEnv("VAR", var.root().c_str());
        Scenario scenario(run % 2 == 1);
        // Kill moments spread evenly over a whole uninterrupted run.
        auto delay = full * (run + 1) / (runs + 1);
        maintainAndKill(scenario.path(), delay);
        scenario.verify(run);
        if (HasFailure()) break;
    }
}

}  // namespace
