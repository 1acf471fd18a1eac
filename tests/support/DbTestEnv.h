#pragma once

#include <mysql.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// Helpers of the tests that run against the private MariaDB server of scripts/mariadb, whose
// environment (DBNAME, MED_USER, MYSQL_UNIX_PORT, ...) the test runner exports.

// Whether the server of the environment answers; why names what is missing when it does not.
bool dbEnvironmentAvailable(std::string& why);

// In a test or SetUp: a missing server fails the test under CI=true and skips it otherwise.
#define RH_REQUIRE_DB()                                                             \
    do {                                                                            \
        std::string rhWhy_;                                                         \
        if (!dbEnvironmentAvailable(rhWhy_)) {                                      \
            const char* rhCi_ = getenv("CI");                                       \
            if (rhCi_ != nullptr && std::string(rhCi_) == "true") FAIL() << rhWhy_; \
            GTEST_SKIP() << rhWhy_                                                  \
                         << " (start it with scripts/mariadb start DIR and "        \
                            "eval \"$(scripts/mariadb env DIR)\")";                 \
        }                                                                           \
    } while (0)

// A plain client connection to the environment's server as MED_USER, independent of the library
// under test: sets up tables and triggers, inspects rows, kills connections. Closed on
// destruction. Every failure throws std::runtime_error with the server's text.
class DbAdmin {
  public:
    DbAdmin();
    ~DbAdmin();
    DbAdmin(const DbAdmin&) = delete;
    DbAdmin& operator=(const DbAdmin&) = delete;

    void exec(const std::string& sql);
    // All rows of a query, each column as text ("NULL" for NULL).
    std::vector<std::vector<std::string>> rows(const std::string& sql);
    // The first column of the first row as a number; -1 when there is no row or it is NULL.
    long long number(const std::string& sql);

  private:
    MYSQL* handle_;
};

// The TCP address of the environment's server (MYSQL_HOST and MYSQL_TCP_PORT), for tests that
// put something between the library and the server; false with why when none is given.
bool tcpServerOfEnvironment(std::string& host, int& port, std::string& why);

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// A connector of the library whose connections go to 127.0.0.1:port over TCP (a proxy in
// front of the environment's server) instead of the environment's address.
std::unique_ptr<kelp::db::DBConnector> connectorThroughPort(int port);

// A name unique to this test process, for rows and tables that parallel tests must not share.
std::string uniqueName(const std::string& prefix);

// Drops the named tables (and so their triggers) when the scope ends, even when the test fails.
class ScopedTables {
  public:
    explicit ScopedTables(std::vector<std::string> names) : names_(std::move(names)) {}
    ~ScopedTables();
    ScopedTables(const ScopedTables&) = delete;
    ScopedTables& operator=(const ScopedTables&) = delete;

  private:
    std::vector<std::string> names_;
};
