// Several processes lock the same few names through the lock table while a real proxy loses a
// few percent of the server's answers to the lock statements. A checker that does not use the
// library watches the critical sections: inside, each process creates a marker file for the
// name with O_EXCL, so a second process inside at the same time finds the file there.
//
// The processes reach the server of MYSQL_HOST:MYSQL_TCP_PORT (through the proxy), so the same
// run can be pointed at any server, a cluster behind its load balancer included. When the
// environment also names the nodes of a Galera cluster (RH_GALERA_NODE<N>_PORT, as scripts/galera
// exports them), the processes take turns between that address and the single nodes, each
// through a proxy of its own: lost replies and certification conflicts meet. The size of
// the run comes from the environment for longer runs elsewhere: RH_LOCK_PROCESSES (4),
// RH_LOCK_ROUNDS per process (80), RH_LOCK_DROP_PERCENT (5).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DbTestEnv.h"
#include "GaleraCluster.h"
#include "LostReplyProxy.h"
#include "SmartSemaphore.h"
#include "TempTree.h"

using kelp::db::DBConnector;

namespace {

// The lock table the library uses (NVLOCKTBL), so a run against another server finds its rows.
std::string lockTable() {
    const char* name = getenv("NVLOCKTBL");
    return name != nullptr && *name != '\0' ? name : "NVLOCK";
}

int envNumber(const char* name, int fallback) {
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

struct Tally {
    long rounds = 0;      // critical sections entered
    long violations = 0;  // entered while another process was inside
    long timeouts = 0;    // locks not obtained within the 30 seconds
    long errors = 0;      // exceptions and failing marker files
};

// One process's work: rounds locks over the names in turn, each held for a moment.
Tally work(const std::vector<std::string>& names, const std::string& markers, int worker,
           int rounds) {
    Tally tally;
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    for (int round = 0; round < rounds; ++round) {
        const std::string& name = names[size_t(worker + round) % names.size()];
        try {
            SmartSemaphore semaphore(true, name.c_str(), connector.get());
            if (!semaphore.lock()) {
                ++tally.timeouts;
                continue;
            }
            ++tally.rounds;
            const std::string marker = markers + "/" + name;
            int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd < 0) {
                ++(errno == EEXIST ? tally.violations : tally.errors);
                continue;  // the other process's marker stays theirs to remove
            }
            usleep(200 + 100 * unsigned(round % 8));
            close(fd);
            if (unlink(marker.c_str()) != 0) ++tally.errors;
            semaphore.unlock();
        } catch (...) {
            ++tally.errors;
        }
    }
    return tally;
}

// Deletes the lock rows of the names when the test ends, even when it fails.
struct RowsOfNames {
    const std::vector<std::string>& names;
    ~RowsOfNames() {
        try {
            DbAdmin admin;
            for (const std::string& name : names)
                admin.exec("DELETE FROM " + lockTable() + " WHERE LCKRESOURCE='" + name + "'");
        } catch (const std::exception&) {
            // The server is gone: nothing left to clean.
        }
    }
};

}  // namespace

TEST(LostReplyProcesses, processesLosingLockRepliesNeverShareANameLeaveNoRowAndNeverTimeOut) {
    RH_REQUIRE_DB();
    std::string host, why;
    int port = 0;
    if (!tcpServerOfEnvironment(host, port, why)) GTEST_SKIP() << why;
    const int processes = envNumber("RH_LOCK_PROCESSES", 4);
    const int rounds = envNumber("RH_LOCK_ROUNDS", 80);
    const double dropRate = envNumber("RH_LOCK_DROP_PERCENT", 5) / 100.0;
    TempTree tree;
    const std::string markers = tree.mkdir("markers");
    std::vector<std::string> names;
    for (int i = 0; i < 3; ++i) names.push_back(uniqueName("KSRepositoryHandler-procs"));
    RowsOfNames cleanup{names};

    // Workers are forked before the proxies start their threads; they wait for the start signal
    // (the pipe's write end closing) and then connect through their proxy.
    std::vector<std::unique_ptr<LostReplyProxy>> proxies;
    proxies.push_back(std::make_unique<LostReplyProxy>(host, port));
    GaleraCluster cluster;
    const bool onCluster = GaleraCluster::fromEnvironment(cluster, why);
    auto conflicts = [&] {
        long long sum = 0;
        for (int n = 1; onCluster && n <= 3; ++n)
            sum += cluster.status(n, "wsrep_local_cert_failures") +
                   cluster.status(n, "wsrep_local_bf_aborts");
        return sum;
    };
    const long long conflictsBefore = conflicts();
    if (onCluster) {
        for (int nodePort : cluster.nodePorts)
            proxies.push_back(std::make_unique<LostReplyProxy>("127.0.0.1", nodePort));
    }
    int go[2];
    ASSERT_EQ(0, pipe(go));
    std::vector<pid_t> workers;
    for (int worker = 0; worker < processes; ++worker) {
        const int proxyPort = proxies[size_t(worker) % proxies.size()]->port();
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(go[1]);
            char byte;
            while (read(go[0], &byte, 1) > 0) {
            }
            unsetenv("MYSQL_UNIX_PORT");
            setenv("MYSQL_HOST", "127.0.0.1", 1);
            setenv("MYSQL_TCP_PORT", std::to_string(proxyPort).c_str(), 1);
            Tally tally = work(names, markers, worker, rounds);
            std::ofstream(markers + "/.tally." + std::to_string(worker))
                << tally.rounds << " " << tally.violations << " " << tally.timeouts << " "
                << tally.errors << "\n";
            _exit(0);
        }
        workers.push_back(pid);
    }
    close(go[0]);
    unsigned seed = 17;
    for (auto& proxy : proxies) {
        proxy->dropAtRate({"INSERT INTO " + lockTable(), "DELETE FROM " + lockTable()}, dropRate,
                          seed++);
        proxy->start();
    }
    close(go[1]);

    Tally total;
    for (size_t worker = 0; worker < workers.size(); ++worker) {
        int status = 0;
        while (waitpid(workers[worker], &status, 0) < 0 && errno == EINTR) {
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "worker " << worker;
        Tally tally;
        std::ifstream in(markers + "/.tally." + std::to_string(worker));
        if (!(in >> tally.rounds >> tally.violations >> tally.timeouts >> tally.errors)) {
            ADD_FAILURE() << "worker " << worker << " left no tally";
            continue;
        }
        total.rounds += tally.rounds;
        total.violations += tally.violations;
        total.timeouts += tally.timeouts;
        total.errors += tally.errors;
    }

    long long left = 0;
    for (const std::string& name : names) {
        left += DbAdmin().number("SELECT COUNT(*) FROM " + lockTable() + " WHERE LCKRESOURCE='" +
                                 name + "'");
    }
    int dropped = 0, connections = 0;
    for (auto& proxy : proxies) {
        dropped += proxy->dropped();
        connections += proxy->connections();
    }
    std::printf(
        "%d processes, %ld critical sections, %d replies lost, %d connections, %ld violations, "
        "%ld time-outs, %lld rows left\n",
        processes, total.rounds, dropped, connections, total.violations, total.timeouts, left);
    if (onCluster) {
        std::printf(
            "spread over the load balancer and 3 Galera nodes: %lld certification "
            "conflicts\n",
            conflicts() - conflictsBefore);
    }
    EXPECT_EQ(0, total.violations) << "two processes were inside at once";
    EXPECT_EQ(0, total.timeouts);
    EXPECT_EQ(0, total.errors);
    EXPECT_EQ(long(processes) * rounds, total.rounds);
    EXPECT_GT(dropped, 0) << "no reply was lost: the run proved nothing";
    EXPECT_EQ(0, left) << "lock rows were left behind";
}
