// Connection setup: the environment, the connect retries of db.cfg, and found rows.
#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
// Of the sanitizer run-time; GCC ships no header that declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "ClockControl.h"
#include "DBConnectorSql.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "KSClock.h"
#include "QueryBindings.h"
#include "RawQueryDB.h"
#include "ScopedEnv.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlStatement.h"
#include "TempTree.h"

using kelp::db::DBConnector;
using kelp::db::DBConnectorSql;
using kelp::db::DBException;
using kelp::db::QueryBindings;
using kelp::db::RawQueryDB;
using kelp::db::Sql;
using kelp::db::SqlException;
using kelp::db::SqlField;

namespace {

// A unix socket that accepts connections and closes them at once, as a server that is going
// down does: every connect attempt of the client fails, and each one is counted with its time.
class RefusingSocket {
  public:
    explicit RefusingSocket(const std::string& path) : path_(path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(fd_, 16) != 0)
            throw std::runtime_error("cannot listen on " + path);
        thread_ = std::thread([this] { serve(); });
    }
    ~RefusingSocket() {
        shutdown(fd_, SHUT_RDWR);
        close(fd_);
        thread_.join();
        unlink(path_.c_str());
    }
    std::vector<std::chrono::steady_clock::time_point> attempts() {
        std::lock_guard<std::mutex> guard(mutex_);
        return attempts_;
    }

  private:
    void serve() {
        for (;;) {
            int client = accept(fd_, nullptr, nullptr);
            if (client < 0) return;
            {
                std::lock_guard<std::mutex> guard(mutex_);
                attempts_.push_back(std::chrono::steady_clock::now());
            }
            close(client);
        }
    }

    std::string path_;
    int fd_;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::chrono::steady_clock::time_point> attempts_;
};

// Environment of a connection that goes to a RefusingSocket with the given db.cfg.
struct RefusedSetup {
    explicit RefusedSetup(const std::string& dbCfg)
        : conf(tree.write("conf/db.cfg", dbCfg)),
          refusing(tree.path("refusing.sock")),
          dbname("DBNAME", "rhtest"),
          user("MED_USER", "med"),
          socketEnv("MYSQL_UNIX_PORT", tree.path("refusing.sock").c_str()),
          confEnv("CONF", tree.path("conf").c_str()) {}
    TempTree tree;
    std::string conf;
    RefusingSocket refusing;
    ScopedEnv dbname, user, socketEnv, confEnv;
};

// The client handle of a connect that fails without CONF is never closed. In a sanitized build
// the leak checker is told that the handles made in this scope are left open on purpose.
struct HandlesLeftOpen {
    HandlesLeftOpen() {
#if defined(__SANITIZE_ADDRESS__)
        __lsan_disable();
#endif
    }
    ~HandlesLeftOpen() {
#if defined(__SANITIZE_ADDRESS__)
        __lsan_enable();
#endif
    }
};

// Bytes that the process has allocated and not freed.
long long allocatedBytes() {
#if defined(__SANITIZE_ADDRESS__)
    return static_cast<long long>(__sanitizer_get_current_allocated_bytes());
#else
    return static_cast<long long>(mallinfo2().uordblks);
#endif
}

std::string connectError(Sql& sql) {
    try {
        sql.getConnectionEx();
    } catch (const SqlException& e) {
        return e.what();
    }
    return "<connected>";
}

}  // namespace

TEST(DbConnection, environmentErrorsAreReportedAtFirstUseWithCodeZero) {
    struct Case {
        const char *dbname, *user, *socket, *host, *port, *expected;
    } cases[] = {
        {nullptr, "med", "/s", nullptr, nullptr, "Missing environment variable: DBNAME"},
        {nullptr, nullptr, "/s", nullptr, nullptr, "Missing environment variable: MED_USER"},
        {"db", "med", nullptr, nullptr, nullptr,
         "Missing environment variables: neither MYSQL_UNIX_PORT nor MYSQL_HOST is set"},
        {"db", "med", nullptr, "127.0.0.1", nullptr,
         "Missing environment variable: MYSQL_TCP_PORT (required for MYSQL_HOST)"},
        {"db", "med", nullptr, "127.0.0.1", "abc",
         "Invalid value for MYSQL_TCP_PORT environment variable: 'abc'"},
        {"db", "med", nullptr, "127.0.0.1", "0",
         "Invalid value for MYSQL_TCP_PORT environment variable: '0'"},
    };
    for (const Case& c : cases) {
        ScopedEnv a("DBNAME", c.dbname), b("MED_USER", c.user), d("MYSQL_UNIX_PORT", c.socket),
            e("MYSQL_HOST", c.host), f("MYSQL_TCP_PORT", c.port);
        Sql sql(false);  // never throws
        EXPECT_FALSE(sql.isValid()) << c.expected;
        try {
            sql.getConnectionEx();
            ADD_FAILURE() << "connected despite: " << c.expected;
        } catch (const SqlException& ex) {
            EXPECT_EQ(0u, ex.code());
            EXPECT_EQ(std::string(c.expected) + ": [0] ", ex.what());
        }
    }
}

TEST(DbConnection, socketWinsOverHostAndTrailingPortCharactersAreIgnored) {
    {
        ScopedEnv a("DBNAME", "db"), b("MED_USER", "u"), c("MYSQL_UNIX_PORT", "/run/x.sock"),
            d("MYSQL_HOST", "127.0.0.1"), e("MYSQL_TCP_PORT", "bad");
        Sql sql(false);
        EXPECT_TRUE(sql.isValid()) << sql.lastError();
        EXPECT_EQ("/run/x.sock", sql.unixSocket());
        EXPECT_EQ(0u, sql.port());
    }
    ScopedEnv a("DBNAME", "db"), b("MED_USER", "u"), c("MYSQL_UNIX_PORT", nullptr),
        d("MYSQL_HOST", "127.0.0.1"), e("MYSQL_TCP_PORT", "3306abc");
    Sql sql(false);
    EXPECT_TRUE(sql.isValid()) << sql.lastError();
    EXPECT_EQ(3306u, sql.port());
    Sql copy(sql);
    EXPECT_TRUE(copy.flag());
    EXPECT_EQ("127.0.0.1", copy.host());
    EXPECT_EQ(3306u, copy.port());
}

TEST(DbConnection, retryCountZeroMakesExactlyOneAttempt) {
    RefusedSetup setup("retryCount=0\nretrySleep=5000\n");
    Sql sql(false);
    std::string error = connectError(sql);
    EXPECT_EQ(0u, error.find("Connecting to mysql failed: [")) << error;
    EXPECT_EQ(1u, setup.refusing.attempts().size());
}

TEST(DbConnection, retriesAreSpacedByRetrySleep) {
    RefusedSetup setup("retryCount=3\nretrySleep=250\n");
    Sql sql(false);
    std::string error = connectError(sql);
    EXPECT_EQ(0u, error.find("Connecting to mysql failed")) << error;
    auto attempts = setup.refusing.attempts();
    ASSERT_EQ(4u, attempts.size());
    for (size_t i = 1; i < attempts.size(); ++i)
        EXPECT_GE(attempts[i] - attempts[i - 1], std::chrono::milliseconds(250));
}

TEST(DbConnection, nonNumericRetryCountMeansNoRetry) {
    RefusedSetup setup("retryCount=many\nretrySleep=0\n");
    Sql sql(false);
    connectError(sql);
    EXPECT_EQ(1u, setup.refusing.attempts().size());
}

TEST(DbConnection, withoutConfAFailedConnectEndsAtOnceWithALogicErrorThatNoRetryCatches) {
    RefusedSetup setup("retryCount=5\nretrySleep=0\n");
    ScopedEnv noConf("CONF", nullptr);
    HandlesLeftOpen leftOpen;
    Sql sql(false);
    EXPECT_THROW(sql.getConnectionEx(), std::logic_error);
    EXPECT_EQ(1u, setup.refusing.attempts().size());

    std::unique_ptr<DBConnectorSql> connector(
        static_cast<DBConnectorSql*>(DBConnector::createConnector(false)));
    QueryBindings none(0, 0);
    EXPECT_THROW(connector->executeUpdate("DO 1", none, false), std::logic_error);
    EXPECT_EQ(2u, setup.refusing.attempts().size());
}

TEST(DbConnection, withoutConfAFailedConnectLeavesItsClientHandleOpen) {
    RefusedSetup setup("retryCount=5\nretrySleep=0\n");
    ScopedEnv noConf("CONF", nullptr);
    // In a child, which leaves without the leak check of a sanitized build.
    const int code = runInChild([] {
        Sql sql(false);
        auto failsWithLogicError = [&sql] {
            try {
                sql.getConnectionEx();
            } catch (const std::logic_error&) {
                return true;
            } catch (...) {
            }
            return false;
        };
        if (!failsWithLogicError()) return 1;  // also sets the client library up
        constexpr int kCalls = 16;
        const long long before = allocatedBytes();
        for (int i = 0; i < kCalls; ++i)
            if (!failsWithLogicError()) return 1;
        const long long kept = allocatedBytes() - before;
        return kept >= kCalls * static_cast<long long>(sizeof(MYSQL)) ? 0 : 2;
    });
    EXPECT_EQ(0, code) << "1: no std::logic_error, 2: the client handles were closed";
    EXPECT_EQ(17u, setup.refusing.attempts().size()) << "one attempt per call";
}

// The pauses go through the clock seam, so their sum is counted without waiting.
TEST(DbConnection, withoutDbCfgOrOneOfItsKeysTheDefaultsAreThirtyRetriesOneSecondApart) {
    ClockGuard clock;
    KSClock::setVirtualSleepForTesting(true);
    struct Case {
        const char* dbCfg;  // null: no db.cfg at all
        size_t attempts;
        long long pausedMillis;
    };
    for (const Case& c : {Case{nullptr, 31, 30000}, Case{"retrySleep=250\n", 31, 7500},
                          Case{"retryCount=2\n", 3, 2000}, Case{"# nothing\n", 31, 30000}}) {
        SCOPED_TRACE(c.dbCfg != nullptr ? c.dbCfg : "no db.cfg");
        RefusedSetup setup(c.dbCfg != nullptr ? c.dbCfg : "");
        if (c.dbCfg == nullptr) {
            ASSERT_EQ(0, unlink(setup.conf.c_str()));
        }
        Sql sql(false);
        const long long before = KSClock::offsetMillisForTesting();
        const std::string error = connectError(sql);
        EXPECT_EQ(0u, error.find("Connecting to mysql failed: [")) << error;
        EXPECT_EQ(c.attempts, setup.refusing.attempts().size());
        EXPECT_EQ(c.pausedMillis, KSClock::offsetMillisForTesting() - before);
    }
}

TEST(DbConnection, rawQueryThatCannotConnectDoesNotConnectAgain) {
    RefusedSetup setup("retryCount=0\n");
    std::unique_ptr<DBConnectorSql> connector(
        static_cast<DBConnectorSql*>(DBConnector::createConnector(false)));
    RawQueryDB raw(*connector);
    std::vector<std::vector<SqlField>> rows;
    try {
        raw.executeQuery("SELECT 1", 0, rows);
        FAIL() << "a query ran without a server";
    } catch (const DBException& e) {
        EXPECT_EQ(0u, std::string(e.what()).find("Connecting to mysql failed: [")) << e.what();
    }
    EXPECT_EQ(1u, setup.refusing.attempts().size());
}

TEST(DbConnection, absentServerFailsWithTheClientErrorNumber) {
    TempTree tree;
    tree.write("conf/db.cfg", "retryCount=1\nretrySleep=0\n");
    ScopedEnv a("DBNAME", "db"), b("MED_USER", "u"),
        c("MYSQL_UNIX_PORT", tree.path("nobody.sock").c_str()),
        d("CONF", tree.path("conf").c_str());
    Sql sql(false);
    try {
        sql.getConnectionEx();
        FAIL() << "connected to a socket nobody listens on";
    } catch (const SqlException& e) {
        EXPECT_EQ(2002u, e.code());
        EXPECT_EQ("Connecting to mysql failed", e.message());
        EXPECT_EQ(sql.lastError(), e.detail());
    }
}

TEST(DbConnection, firstConnectThatSucceedsNeverNeedsDbCfg) {
    RH_REQUIRE_DB();
    ScopedEnv noConf("CONF", nullptr);
    Sql sql(false);
    auto connection = sql.getConnectionEx();
    EXPECT_TRUE(connection->ping());
}

namespace {

// What the client library answers when it cannot escape.
unsigned long failingEscape(MYSQL*, char*, const char*, unsigned long) {
    return static_cast<unsigned long>(-1);
}

struct RealEscapeAgain {
    ~RealEscapeAgain() { kelp::db::SqlConnection::setEscapeFunctionForTesting(nullptr); }
};

}  // namespace

TEST(DbConnection, escapeQuotesForTheServerAndAnErrorOfTheClientLibraryIsASqlException) {
    RH_REQUIRE_DB();
    Sql sql(false);
    auto connection = sql.getConnectionEx();
    std::string out;
    connection->escape("it's \"a\\b\"\n", out);
    EXPECT_EQ("it\\'s \\\"a\\\\b\\\"\\n", out);

    RealEscapeAgain restore;
    kelp::db::SqlConnection::setEscapeFunctionForTesting(&failingEscape);
    out = "unchanged";
    try {
        connection->escape("x", out);
        FAIL() << "the error return was taken for a length";
    } catch (const SqlException& e) {
        EXPECT_EQ(0u, std::string(e.what()).find("Escaping string failed: [")) << e.what();
    }
    EXPECT_EQ("unchanged", out);
}

TEST(DbConnection, updateToTheSameValueCountsTheFoundRow) {
    RH_REQUIRE_DB();
    std::string table = uniqueName("found_rows");
    ScopedTables drop({table});
    DbAdmin admin;
    admin.exec("CREATE TABLE " + table + " (ID INT PRIMARY KEY, V INT)");
    admin.exec("INSERT INTO " + table + " VALUES (1, 7)");
    Sql sql(false);
    auto connection = sql.getConnectionEx();
    auto statement = connection->prepareStatementEx("UPDATE " + table + " SET V=7 WHERE ID=1");
    QueryBindings bindings(0, 0);
    EXPECT_EQ(1u, statement->executeUpdateEx(bindings));
}
