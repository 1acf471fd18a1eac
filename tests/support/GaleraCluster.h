#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

// The private Galera cluster of scripts/galera, as its `env` command describes it: HAProxy at
// MYSQL_HOST:MYSQL_TCP_PORT, the three nodes at 127.0.0.1:RH_GALERA_NODE<N>_PORT, its folder in
// RH_GALERA_DIR.
struct GaleraCluster {
    std::string dir;
    std::vector<int> nodePorts;  // node N at nodePorts[N - 1]

    // The cluster of the environment; false with why when the environment names none.
    static bool fromEnvironment(GaleraCluster& cluster, std::string& why);

    // SIGKILLs node n (1-based), as a crashed database host; returns once it is dead.
    void kill(int n) const;
    // Starts node n again and returns once it is a synced member of the cluster.
    void revive(int n) const;
    // The value of a global status variable of node n, read over its own port; -1 when the
    // node does not answer.
    long long status(int n, const std::string& variable) const;
};

// In a test: without a cluster in the environment the test is skipped, saying how to start
// one; when RH_GALERA_REQUIRED=1 (the cluster stage of scripts/test) it fails instead.
#define RH_REQUIRE_GALERA(cluster)                                                           \
    do {                                                                                     \
        std::string rhWhy_;                                                                  \
        if (!GaleraCluster::fromEnvironment(cluster, rhWhy_)) {                              \
            const char* rhRequired_ = getenv("RH_GALERA_REQUIRED");                          \
            if (rhRequired_ != nullptr && std::string(rhRequired_) == "1") FAIL() << rhWhy_; \
            GTEST_SKIP() << rhWhy_                                                           \
                         << " (start a cluster with scripts/galera start DIR and "           \
                            "eval \"$(scripts/galera env DIR)\")";                           \
        }                                                                                    \
    } while (0)
