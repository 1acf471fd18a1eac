// The empty resource name names the repository's own maintenance lock (toResourceID(path, "")).
// While a real overload pass holds that lock, every entry that takes a resource name must refuse
// the empty one with its own error value and one log line, and leave the pass's lock alone.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "KSClock.h"
#include "KSPathUtils.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

constexpr time_t kDay = 86400;
const std::string kContent(32 * 1024, 'x');

// An overload pass in a thread of its own that stops inside its first deletion: the study
// callback (runjavacmd) of a deletion marks "started" and waits for "go". The destructor lets
// the pass go on and joins it, also when the test fails.
class BlockedOverloadPass {
  public:
    BlockedOverloadPass(const std::string& repository, const TempTree& taskd) : taskd_(taskd) {
        const std::string script = taskd_.write("runjavacmd",
                                                "#!/bin/sh\n"
                                                "case \"$*\" in *getinfo*) exit 0 ;; esac\n"
                                                "d=$(dirname \"$0\")\n"
                                                ": > \"$d/started\"\n"
                                                "while [ ! -f \"$d/go\" ]; do sleep 0.02; done\n"
                                                "exit 0\n");
        chmod(script.c_str(), 0755);
        thread_ = std::thread([this, repository] {
            checkOverload_(repository.c_str(), false, false, nullptr);
            finished_ = true;
        });
    }
    ~BlockedOverloadPass() {
        taskd_.write("go", "");
        thread_.join();
    }
    // True once the pass waits inside its first deletion (false if it ended without one).
    bool waitUntilInside() const {
        for (int i = 0; i < 3000 && !finished_; ++i) {
            if (entryExists(taskd_.path("started"))) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return entryExists(taskd_.path("started"));
    }
    bool finished() const { return finished_; }

  private:
    const TempTree& taskd_;
    std::atomic<bool> finished_{false};
    std::thread thread_;
};

class EmptyResourceName : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_MOUNTS();
        repo_.addTmpfsMount("p1", 256 * 4096, 2000, {{"moveLimit", "50"}, {"cleanLimit", "40"}});
        repo_.addTmpfsMount("p2", 1024 * 4096, 2000);
        repo_.writeConfig({{"isShared", "false"},
                           {"isClearable", "true"},
                           {"callback", "RepositoryStudyCallback"}});
        for (int i = 0; i < 20; ++i) {
            const std::string name = "r" + std::to_string(i);
            setTimes(putResource(repo_.mountPath(0), name, "image", kContent + name),
                     KSClock::now() - (40 - i) * kDay);
        }
    }
    const char* repo() const { return repo_.path().c_str(); }
    std::string repositoryLockFile() const {
        std::unique_ptr<char[]> id(toResourceID(repo_.path().c_str(), ""));
        return locks_.path(std::string("semaphore_") + id.get());
    }
    int resourcesOnFirstMount() const {
        int count = 0;
        for (int i = 0; i < 20; ++i)
            count += entryExists(
                resourceLocation(repo_.mountPath(0), ("r" + std::to_string(i)).c_str()));
        return count;
    }

    TempTree locks_, var_, tmp_, taskd_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScopedEnv varEnv_{"VAR", var_.root().c_str()};
    ScopedEnv tmpEnv_{"TMP", tmp_.root().c_str()};
    ScopedEnv adminEnv_{"KSADMIN_HOME", tmp_.root().c_str()};
    ScopedEnv taskdEnv_{"TASKD_HOME", taskd_.root().c_str()};
    ScratchRepository repo_;
};

}  // namespace

TEST_F(EmptyResourceName, isRefusedByEveryEntryWhileAnOverloadPassHoldsTheRepositoryLock) {
    SyslogCapture log;
    BlockedOverloadPass pass(repo_.path(), taskd_);
    ASSERT_TRUE(pass.waitUntilInside()) << "the overload pass deleted nothing";
    ASSERT_TRUE(entryExists(repositoryLockFile()));
    const int resourcesBefore = resourcesOnFirstMount();
    log.clear();

    EXPECT_EQ(0, lockResource_(repo(), "", nullptr));
    EXPECT_EQ(0, unlockResource_(repo(), "", nullptr));
    EXPECT_TRUE(entryExists(repositoryLockFile())) << "the running pass lost its lock";
    setDirty_(repo(), "", true, nullptr);
    EXPECT_EQ(0, isDirty_(repo(), "", nullptr));
    EXPECT_FALSE(entryExists(repo_.path() + "/.dirty")) << readFile(repo_.path() + "/.dirty");
    EXPECT_EQ(8, checkResourceStatus_(repo(), "", nullptr));
    struct utimbuf times = {1, 2};
    EXPECT_EQ(0, getTimeProperties_(repo(), "", &times, nullptr));
    EXPECT_EQ(1, times.actime);
    EXPECT_EQ(2, times.modtime);
    EXPECT_FALSE(setTimeProperties_(repo(), "", &times, nullptr));
    EXPECT_EQ(8, removeResourceOnMount_(repo(), "", "p1", true, true, nullptr));
    EXPECT_EQ(8, removeResource_(repo(), "", true, true, nullptr));

    const std::vector<SyslogLine> lines = log.lines();
    for (const char* operation :
         {"lockResource", "unlockResource", "setDirty", "isDirty", "checkResourceStatus",
          "getTimeProperties", "setTimeProperties", "removeResourceOnMount", "removeResource"}) {
        const std::string start = std::string(operation) + ": refusing the ";
        EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                                   [&start](const SyslogLine& line) {
                                       return line.text.rfind(start, 0) == 0;
                                   }))
            << operation;
    }
    EXPECT_EQ(9u, log.lines().size()) << "one line per refused call";
    EXPECT_EQ(0, log.countContaining("could not be locked"));
    EXPECT_EQ(0, log.countContaining("could not be unlocked"));
    EXPECT_FALSE(pass.finished());
    EXPECT_EQ(resourcesBefore, resourcesOnFirstMount());
    EXPECT_TRUE(entryExists(repositoryLockFile()));
}
