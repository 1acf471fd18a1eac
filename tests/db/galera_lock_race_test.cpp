// Connectors bound to different nodes of the Galera cluster race for the same lock ids. Each
// node accepts its own insert at once; certification at commit lets exactly one of them through
// and answers the others with a deadlock (1213). The connector repeats a deadlocked statement,
// and the repetition meets the winner's row (1062): the lock is refused, never granted twice.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DBConnector.h"
#include "DbTestEnv.h"
#include "GaleraCluster.h"
#include "KSSemaphoreGlobal.h"
#include "SyslogCapture.h"

using kelp::db::DBConnector;

namespace {

// Releases every racer together for each round, so the inserts of one id reach their nodes
// within microseconds of each other.
class StartLine {
  public:
    explicit StartLine(int racers) : racers_(racers) {}
    void await() {
        const int round = round_.load();
        if (waiting_.fetch_add(1) + 1 == racers_) {
            waiting_.store(0);
            round_.fetch_add(1);
            return;
        }
        while (round_.load() == round) std::this_thread::yield();
    }

  private:
    const int racers_;
    std::atomic<int> waiting_{0};
    std::atomic<int> round_{0};
};

long long certificationConflicts(const GaleraCluster& cluster) {
    long long sum = 0;
    for (int n = 1; n <= 3; ++n) {
        sum += cluster.status(n, "wsrep_local_cert_failures") +
               cluster.status(n, "wsrep_local_bf_aborts");
    }
    return sum;
}

}  // namespace

TEST(GaleraLockRace, insertsOfOneIdOnDifferentNodesGrantTheLockOnceAndRefuseTheRest) {
    GaleraCluster cluster;
    RH_REQUIRE_GALERA(cluster);
    const int ids = 300;
    const int racers = 3;  // one per node
    std::vector<std::string> names;
    for (int i = 0; i < ids; ++i) names.push_back(uniqueName("KSRepositoryHandler-galera-race"));
    struct Cleanup {
        const std::vector<std::string>& names;
        ~Cleanup() {
            try {
                DbAdmin admin;
                for (const std::string& name : names)
                    admin.exec("DELETE FROM NVLOCK WHERE LCKID='" + name + "'");
            } catch (const std::exception&) {
            }
        }
    } cleanup{names};

    std::vector<std::unique_ptr<DBConnector>> connectors;
    for (int n = 1; n <= racers; ++n)
        connectors.push_back(connectorThroughPort(cluster.nodePorts[size_t(n - 1)]));
    // Every racer's holders stay alive until the end, so each winner's row can be checked.
    std::vector<std::vector<std::unique_ptr<KSSemaphoreGlobal>>> held(racers);
    std::vector<std::vector<char>> won(racers, std::vector<char>(ids, 0));
    std::atomic<int> errors{0};
    const long long conflictsBefore = certificationConflicts(cluster);
    SyslogCapture log;
    StartLine line(racers);

    std::vector<std::thread> threads;
    for (int r = 0; r < racers; ++r) {
        threads.emplace_back([&, r] {
            for (int i = 0; i < ids; ++i) {
                auto semaphore = std::make_unique<KSSemaphoreGlobal>(names[size_t(i)],
                                                                     connectors[size_t(r)].get());
                line.await();
                try {
                    won[size_t(r)][size_t(i)] = semaphore->lockResource() ? 1 : 0;
                } catch (const std::exception&) {
                    ++errors;
                }
                held[size_t(r)].push_back(std::move(semaphore));
            }
        });
    }
    for (std::thread& t : threads) t.join();
    const long long conflicts = certificationConflicts(cluster) - conflictsBefore;
    const int retries = log.countContaining("Retry query");

    DbAdmin admin;
    int grantedTwice = 0, neverGranted = 0;
    for (int i = 0; i < ids; ++i) {
        int winners = 0, winner = -1;
        for (int r = 0; r < racers; ++r) {
            if (won[size_t(r)][size_t(i)]) {
                ++winners;
                winner = r;
            }
        }
        grantedTwice += winners > 1;
        neverGranted += winners == 0;
        if (winners == 1) {
            auto rows =
                admin.rows("SELECT LCKACTOR FROM NVLOCK WHERE LCKID='" + names[size_t(i)] + "'");
            ASSERT_EQ(1u, rows.size()) << names[size_t(i)];
            EXPECT_EQ(held[size_t(winner)][size_t(i)]->token(), rows[0][0])
                << "the row is the winner's";
        }
    }
    std::printf(
        "%d ids raced on %d nodes: %lld certification conflicts, %d deadlock retries, "
        "%d granted twice, %d never granted\n",
        ids, racers, conflicts, retries, grantedTwice, neverGranted);
    EXPECT_EQ(0, errors.load());
    EXPECT_EQ(0, grantedTwice) << "a lock was granted to two connectors";
    EXPECT_EQ(0, neverGranted) << "an id raced for was taken by nobody";
    EXPECT_GT(conflicts, 0) << "no insert lost certification: the race proved nothing";
    EXPECT_GT(retries, 0) << "no deadlock reached the connector's retry";

    for (auto& holders : held)
        for (auto& semaphore : holders) semaphore->unlock();
    long long left = 0;
    for (const std::string& name : names)
        left += admin.number("SELECT COUNT(*) FROM NVLOCK WHERE LCKID='" + name + "'");
    EXPECT_EQ(0, left) << "the winners' releases left rows";
}
