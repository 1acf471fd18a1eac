// Several servers share one repository of real tmpfs mounts and lock it through the lock table
// of the Galera cluster: four processes, each with its own connector, two through HAProxy and
// two bound to nodes 2 and 3, create, look up (merging duplicates), remove, lock explicitly and
// mark resources dirty while one of them runs the maintenance, which moves the old resources off
// the small first mount (past its move limit from the start). Then the same with node 1, the
// node behind HAProxy and so behind most connections, killed with SIGKILL in the middle of the
// run and started again later.
//
// The checks do not rely on the library:
// - inside each explicit lock a process creates a marker file for the resource with O_EXCL, so
//   a second process inside at the same time finds it there;
// - every payload file read is compared with the content its resource must have;
// - the resources made before the run are never removed: each must still be found, intact;
// - a resource with copies on two mounts must be named in the repository's .dirty file;
// - no lock row of the repository is left.
//
// RH_GALERA_SECONDS sets the length of a run (12 by default; the kill comes after a quarter of
// it and the node is started again RH_GALERA_DOWN_SECONDS, 4 by default, later).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DBConnector.h"
#include "DbTestEnv.h"
#include "GaleraCluster.h"
#include "KSClock.h"
#include "KSPathUtils.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "repohandler.h"

using kelp::db::DBConnector;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWorkers = 4;  // 0 and 1 through HAProxy, 2 and 3 bound to nodes 2 and 3
const std::vector<std::string> kKept = {"kept-a", "kept-b", "kept-c"};
const std::vector<std::string> kPassing = {"pass-a", "pass-b", "pass-c"};

int envNumber(const char* name, int fallback) {
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

// What a resource's payload file must hold: its name, repeated, 4 KiB in all.
std::string payloadOf(const std::string& name) {
    std::string text;
    while (text.size() < 4096) text += name + "\n";
    return text;
}

std::string readFile(const std::string& path, bool& exists) {
    std::ifstream in(path, std::ios::binary);
    exists = bool(in);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

// Writes the payload beside and renames it into place: a reader sees all of it or nothing.
bool writePayload(const std::string& location, const std::string& name) {
    const std::string temporary = location + "/.payload." + std::to_string(getpid());
    {
        std::ofstream out(temporary, std::ios::binary);
        if (!(out << payloadOf(name))) return false;
    }
    return rename(temporary.c_str(), (location + "/payload").c_str()) == 0;
}

struct Tally {
    long operations = 0;
    long violations = 0;  // a second process inside an explicit lock
    long corrupted = 0;   // a payload that was not what it must be
    long lost = 0;        // a kept resource not found
    long timeouts = 0;    // a lock not obtained (status 16 or lockResource_ 0)
    long errors = 0;      // unexpected statuses and failures
    long merges = 0;      // duplicates made for the lookup to merge
    long reconnects = 0;  // connections the connector found lost
    long retries = 0;     // deadlocks and errors without a code the connector repeated
    long longestMs = 0;   // the longest single operation
    long maxLockWaitMs = 0;

    std::string line() const {
        std::ostringstream out;
        out << operations << ' ' << violations << ' ' << corrupted << ' ' << lost << ' ' << timeouts
            << ' ' << errors << ' ' << merges << ' ' << reconnects << ' ' << retries << ' '
            << longestMs << ' ' << maxLockWaitMs;
        return out.str();
    }
    bool read(std::istream& in) {
        return bool(in >> operations >> violations >> corrupted >> lost >> timeouts >> errors >>
                    merges >> reconnects >> retries >> longestMs >> maxLockWaitMs);
    }
    void add(const Tally& o) {
        operations += o.operations;
        violations += o.violations;
        corrupted += o.corrupted;
        lost += o.lost;
        timeouts += o.timeouts;
        errors += o.errors;
        merges += o.merges;
        reconnects += o.reconnects;
        retries += o.retries;
        longestMs = std::max(longestMs, o.longestMs);
        maxLockWaitMs = std::max(maxLockWaitMs, o.maxLockWaitMs);
    }
};

// One server's work on the shared repository until the stop file appears.
class Server {
  public:
    Server(const ScratchRepository& repo, const std::string& markers, int index, DBConnector* db)
        : repo_(repo),
          markers_(markers),
          index_(index),
          db_(db),
          random_(unsigned(index) * 7919u) {}

    Tally run(const std::string& stopFile) {
        SyslogCapture log;
        for (long round = 0; !entryExists(stopFile); ++round) {
            const auto start = Clock::now();
            step(round);
            ++tally_.operations;
            tally_.longestMs = std::max(tally_.longestMs, millisSince(start));
        }
        tally_.reconnects = log.countContaining("Connection lost - reconnect");
        tally_.retries = log.countContaining("retry [") + log.countContaining("Retry query");
        return tally_;
    }

  private:
    static long millisSince(Clock::time_point start) {
        return long(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    }

    const char* repository() const { return repo_.path().c_str(); }

    void step(long round) {
        // Server 0 also runs the maintenance, as one server of a site does.
        if (index_ == 0 && round % 25 == 24) {
            checkOverload_(repository(), false, false, db_);
            if (getRepositoryStatus_(repository(), db_) < 0) ++tally_.errors;
            return;
        }
        const bool kept = random_() % 2 == 0;
        const std::vector<std::string>& names = kept ? kKept : kPassing;
        const std::string& name = names[random_() % names.size()];
        switch (random_() % (kept ? 2 : 4)) {
            case 0:
                lookup(name, kept);
                break;
            case 1:
                exclusive(name, kept);
                break;
            case 2:
                create(name);
                break;
            default:
                remove(name);
                break;
        }
    }

    void lookup(const std::string& name, bool kept) {
        int status = -1;
        char* found =
            getLocation_(repository(), name.c_str(), &status, false, true, false, false, db_);
        const std::string location = found != nullptr ? found : "";
        release(found);
        if (status == 16) {
            ++tally_.timeouts;
        } else if (location.empty()) {
            if (kept)
                ++tally_.lost;
            else if (status != 4 && status != 36)
                ++tally_.errors;
        } else {
            checkPayload(location, name);
        }
    }

    // Outside the lock the location may go stale as soon as the lookup returns: a merge or the
    // maintenance may move the resource away, or copy it back in place, so the payload may be
    // missing or still being written there. What is there must be a part of the right content;
    // the whole content is checked under the explicit lock.
    void checkPayload(const std::string& location, const std::string& name) {
        bool exists = false;
        const std::string content = readFile(location + "/payload", exists);
        if (exists && payloadOf(name).compare(0, content.size(), content) != 0) ++tally_.corrupted;
    }

    void create(const std::string& name) {
        int status = -1, existed = -1;
        char* made = createLocation_(repository(), name.c_str(), &status, &existed, false, db_);
        release(made);
        if (status == 16)
            ++tally_.timeouts;
        else if (made == nullptr)
            ++tally_.errors;
    }

    void remove(const std::string& name) {
        const int status = removeResource_(repository(), name.c_str(), true, false, db_);
        if (status == 16)
            ++tally_.timeouts;
        else if (status != 0 && status != 4 && status != 36)
            ++tally_.errors;
    }

    // Under the explicit lock: the marker, then the payload written where it is missing, and
    // now and then a second copy on another mount with the resource marked dirty first, as a
    // creation during a mount's outage leaves it, for a later lookup to merge.
    void exclusive(const std::string& name, bool kept) {
        const auto asked = Clock::now();
        if (lockResource_(repository(), name.c_str(), db_) != 1) {
            ++tally_.timeouts;
            return;
        }
        tally_.maxLockWaitMs = std::max(tally_.maxLockWaitMs, millisSince(asked));
        const std::string marker = markers_ + "/" + name;
        const int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            ++(errno == EEXIST ? tally_.violations : tally_.errors);
        } else {
            insideLock(name, kept);
            close(fd);
            if (unlink(marker.c_str()) != 0) ++tally_.errors;
        }
        if (unlockResource_(repository(), name.c_str(), db_) != 1) ++tally_.errors;
    }

    void insideLock(const std::string& name, bool kept) {
        int status = -1;
        char* found =
            getLocation_(repository(), name.c_str(), &status, false, false, false, false, db_);
        const std::string location = found != nullptr ? found : "";
        release(found);
        if (location.empty()) {
            if (kept) ++tally_.lost;
            return;
        }
        bool exists = false;
        const std::string content = readFile(location + "/payload", exists);
        if (!exists && kept) {
            ++tally_.lost;
        } else if (!exists) {
            if (!writePayload(location, name)) ++tally_.errors;
        } else if (content != payloadOf(name)) {
            ++tally_.corrupted;
        }
        usleep(1000);
        if (random_() % 3 != 0) return;
        const size_t from = location.rfind(repo_.mountPath(0), 0) == 0 ? 0 : 1;
        const std::string copy = resourceLocation(repo_.mountPath(1 - from), name.c_str());
        if (entryExists(copy)) return;
        setDirty_(repository(), name.c_str(), true, db_);
        mkdirs(copy.c_str(), 0755);
        const std::string command = "cp -a '" + location + "/.' '" + copy + "/'";
        if (system(command.c_str()) != 0) ++tally_.errors;
        ++tally_.merges;
    }

    const ScratchRepository& repo_;
    const std::string markers_;
    const int index_;
    DBConnector* db_;
    std::mt19937 random_;
    Tally tally_;
};

std::set<std::string> dirtyNames(const std::string& repository) {
    std::set<std::string> names;
    std::ifstream in(repository + "/.dirty");
    std::string line;
    while (std::getline(in, line)) names.insert(line);
    return names;
}

// The prefix of every lock id of the repository (its resources and its dirty file).
std::string lockPrefix(const std::string& repository) {
    std::unique_ptr<char[]> id(toResourceID(repository.c_str(), ""));
    std::string prefix(id.get());
    return prefix.substr(0, prefix.size() - 1);
}

long long lockRowsOf(const std::string& repository) {
    return DbAdmin().number("SELECT COUNT(*) FROM NVLOCK WHERE LCKRESOURCE LIKE '" +
                            lockPrefix(repository) + "%'");
}

class GaleraSharedRepository : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_GALERA(cluster_);
        // The first mount is small and past its move limit from the start, so the maintenance
        // moves the old resources away from it while the servers work on them.
        repo_.addTmpfsMount("p1", 256 * 4096, 2000, {{"moveLimit", "1"}, {"cleanLimit", "0.5"}});
        repo_.addTmpfsMount("p2", 4096 * 1024, 2000);
        repo_.writeConfig({{"isShared", "true"}});
        markers_ = tree_.mkdir("markers");
        // The administrators' message command, run when the maintenance moves young resources.
        const std::string message = var_.root() + "/sendmessage.sh";
        std::ofstream(message) << "#!/bin/sh\nexit 0\n";
        ASSERT_EQ(0, chmod(message.c_str(), 0755));
        // The kept resources exist before the servers start, on the first mount, 40 days old.
        for (const std::string& name : kKept) {
            const std::string location =
                putResource(repo_.mountPath(0), name, "payload", payloadOf(name));
            ASSERT_FALSE(location.empty());
            setTimes(location, KSClock::now() - 40 * 86400);
        }
    }
    void TearDown() override {
        if (repo_.path().empty() || cluster_.nodePorts.empty()) return;
        try {
            DbAdmin().exec("DELETE FROM NVLOCK WHERE LCKRESOURCE LIKE '" +
                           lockPrefix(repo_.path()) + "%'");
        } catch (const std::exception&) {
        }
    }

    // Runs the four servers for `seconds`; `during` runs in this process meanwhile (started
    // once the servers are), and the servers stop when it has returned and `seconds` passed.
    Tally runServers(int seconds, const std::function<void()>& during) {
        const std::string stopFile = tree_.path("stop");
        std::vector<pid_t> servers;
        for (int index = 0; index < kWorkers; ++index) {
            fflush(nullptr);
            const pid_t pid = fork();
            if (pid < 0) ADD_FAILURE() << "fork failed";
            if (pid == 0) _exit(serve(index, stopFile));
            servers.push_back(pid);
        }
        const auto start = Clock::now();
        during();
        std::this_thread::sleep_until(start + std::chrono::seconds(seconds));
        std::ofstream(stopFile) << "stop\n";

        Tally total;
        for (int index = 0; index < kWorkers; ++index) {
            int status = 0;
            while (waitpid(servers[size_t(index)], &status, 0) < 0 && errno == EINTR) {
            }
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "server " << index;
            Tally tally;
            std::ifstream in(markers_ + "/.tally." + std::to_string(index));
            if (!tally.read(in)) {
                ADD_FAILURE() << "server " << index << " left no tally";
                continue;
            }
            total.add(tally);
        }
        return total;
    }

    int serve(int index, const std::string& stopFile) {
        try {
            std::unique_ptr<DBConnector> db =
                index < 2 ? std::unique_ptr<DBConnector>(DBConnector::createConnector(false))
                          : connectorThroughPort(cluster_.nodePorts[size_t(index - 1)]);
            Tally tally = Server(repo_, markers_, index, db.get()).run(stopFile);
            std::ofstream(markers_ + "/.tally." + std::to_string(index)) << tally.line() << "\n";
            return 0;
        } catch (const std::exception& e) {
            fprintf(stderr, "server %d: %s\n", index, e.what());
            return 1;
        }
    }

    // The state the servers left, checked with the servers gone.
    void checkInvariants(const Tally& total) {
        EXPECT_GT(total.operations, 100) << "too little work to prove anything";
        EXPECT_GT(total.merges, 0) << "no duplicate was made for a lookup to merge";
        EXPECT_EQ(0, total.violations) << "two servers were inside one explicit lock";
        EXPECT_EQ(0, total.corrupted);
        EXPECT_EQ(0, total.lost);
        EXPECT_EQ(0, total.timeouts);
        EXPECT_EQ(0, total.errors);

        const std::set<std::string> dirty = dirtyNames(repo_.path());
        std::unique_ptr<DBConnector> db(DBConnector::createConnector(false));
        for (const std::vector<std::string>* names : {&kKept, &kPassing}) {
            for (const std::string& name : *names) {
                int copies = 0;
                for (size_t mount = 0; mount < 2; ++mount)
                    copies += entryExists(resourceLocation(repo_.mountPath(mount), name.c_str()));
                if (copies > 1) {
                    EXPECT_EQ(1u, dirty.count(name)) << name << ": two clean copies";
                }
            }
        }
        for (const std::string& name : kKept) {
            int status = -1;
            char* found = getLocation_(repo_.path().c_str(), name.c_str(), &status, false, true,
                                       false, false, db.get());
            const std::string location = found != nullptr ? found : "";
            release(found);
            ASSERT_FALSE(location.empty()) << name << " was lost (status " << status << ")";
            bool exists = false;
            EXPECT_EQ(payloadOf(name), readFile(location + "/payload", exists)) << name;
        }
        EXPECT_EQ(0, lockRowsOf(repo_.path())) << "lock rows were left behind";
    }

    GaleraCluster cluster_;
    TempTree tree_, var_;
    // The maintenance keeps its move state and statistics under VAR and TMP.
    ScopedEnv varEnv_{"VAR", var_.root().c_str()};
    ScopedEnv tmpEnv_{"TMP", var_.root().c_str()};
    ScopedEnv adminEnv_{"KSADMIN_HOME", var_.root().c_str()};
    ScratchRepository repo_;
    std::string markers_;
};

void printFigures(const char* run, const Tally& t, long long rowsLeft, long downMs) {
    std::printf(
        "galera %s: 4 servers, %ld operations, %ld merges, %ld violations, %ld corrupted, %ld "
        "lost, %ld time-outs, %ld errors, %ld reconnects, %ld retries, %ld ms longest operation, "
        "%ld ms longest lock wait, %lld rows left, %ld ms node down\n",
        run, t.operations, t.merges, t.violations, t.corrupted, t.lost, t.timeouts, t.errors,
        t.reconnects, t.retries, t.longestMs, t.maxLockWaitMs, rowsLeft, downMs);
}

}  // namespace

TEST_F(GaleraSharedRepository, fourServersShareOneRepositoryWithoutBreakingItsInvariants) {
    const int seconds = envNumber("RH_GALERA_SECONDS", 12);
    const Tally total = runServers(seconds, [] {});
    printFigures("steady", total, lockRowsOf(repo_.path()), 0);
    checkInvariants(total);
}

TEST_F(GaleraSharedRepository, serversRecoverThroughHaproxyWhenTheBusiestNodeIsKilled) {
    const int seconds = envNumber("RH_GALERA_SECONDS", 12);
    const int down = envNumber("RH_GALERA_DOWN_SECONDS", 4);
    long downMs = 0;
    const Tally total = runServers(seconds, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 250));
        const auto killed = Clock::now();
        cluster_.kill(1);
        std::this_thread::sleep_for(std::chrono::seconds(down));
        cluster_.revive(1);
        downMs = long(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed).count());
        // The servers go on a while with the node back behind HAProxy.
        std::this_thread::sleep_for(std::chrono::seconds(2));
    });
    printFigures("node killed", total, lockRowsOf(repo_.path()), downMs);
    EXPECT_GT(total.reconnects, 0) << "no connection was lost: the kill proved nothing";
    checkInvariants(total);
}
