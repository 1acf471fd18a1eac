// The connector against the real server: its retry ladder with faults raised by the server
// itself, its log lines, and its per-thread statement caches counted by Com_stmt_prepare.
#include <syslog.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "DbWorker.h"
#include "LockDB.h"
#include "LockDBSql.h"
#include "QueryBindings.h"
#include "RawPSSupplier.h"
#include "RawQueryDB.h"
#include "ScopedEnv.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SyslogCapture.h"
#include "TempTree.h"

using namespace kelp::db;

namespace {

std::unique_ptr<DBConnectorSql> makeConnector() {
    return std::unique_ptr<DBConnectorSql>(
        static_cast<DBConnectorSql*>(DBConnector::createConnector(false)));
}

std::string firstValue(DBConnector& connector, const std::string& sql, size_t column = 0) {
    std::unique_ptr<RawQueryDB> raw(connector.createRawQuery());
    std::vector<std::vector<SqlField>> rows;
    raw->executeQuery(sql, 0, rows);
    return rows.empty() ? "<none>" : rows[0].at(column).value();
}

long long preparesOnConnection(DBConnector& connector) {
    return std::stoll(firstValue(connector, "SHOW SESSION STATUS LIKE 'Com_stmt_prepare'", 1));
}

std::string connectionId(DBConnector& connector) {
    return firstValue(connector, "SELECT CONNECTION_ID()");
}

// A table whose inserts the server fails with a deadlock (1213) as many times as a counter in a
// MEMORY table says. The counter is not transactional, so the failed statement's rollback does
// not give the decrement back.
struct DeadlockingTable {
    explicit DeadlockingTable(int failures)
        : name(uniqueName("deadlocking")), counter(name + "_left"), drop({name, counter}) {
        admin.exec("CREATE TABLE " + name + " (V INT) ENGINE=InnoDB");
        admin.exec("CREATE TABLE " + counter + " (LEFT_ INT) ENGINE=MEMORY");
        admin.exec("INSERT INTO " + counter + " VALUES (" + std::to_string(failures) + ")");
        admin.exec("CREATE TRIGGER " + name + "_fail BEFORE INSERT ON " + name +
                   " FOR EACH ROW BEGIN IF (SELECT LEFT_ FROM " + counter + ") > 0 THEN UPDATE " +
                   counter +
                   " SET LEFT_ = LEFT_ - 1; SIGNAL SQLSTATE '40001' SET MYSQL_ERRNO = 1213, "
                   "MESSAGE_TEXT = 'Deadlock found when trying to get lock'; END IF; END");
    }
    DbAdmin admin;
    std::string name;
    std::string counter;
    ScopedTables drop;
};

// Fails its first failures statements with an error of code 0 (as a wanting environment does),
// then prepares the text like a RawPSSupplier.
class FailingSupplier : public PSSupplier {
  public:
    FailingSupplier(DBConnectorSql& connector, const std::string& sql, int failures)
        : raw_(connector, sql), failures_(failures) {}
    PSHandle create() override {
        if (failures_-- > 0) throw SqlException(0, "Injected failure", "");
        return raw_.create();
    }
    void release(SqlStatement* statement) override { raw_.release(statement); }

  private:
    RawPSSupplier raw_;
    int failures_;
};

class DbConnector : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_DB(); }
    SyslogCapture log;
};

// The cases where several threads share one connector; they also run under ThreadSanitizer.
class DbConnectorConcurrency : public DbConnector {};

}  // namespace

TEST_F(DbConnector, deadlockNineteenTimesThenSuccessReturnsNormally) {
    DeadlockingTable table(19);
    auto connector = makeConnector();
    QueryBindings none(0, 0);
    log.clear();
    EXPECT_EQ(1u,
              connector->executeUpdate("INSERT INTO " + table.name + " VALUES (1)", none, true));
    EXPECT_EQ(19, log.countContaining("DBConnectorSql::executeUpdate: Retry query ["));
    EXPECT_TRUE(log.findEqual("DBConnectorSql::executeUpdate: Retry query [19]"));
    EXPECT_EQ(1, table.admin.number("SELECT COUNT(*) FROM " + table.name));
}

TEST_F(DbConnector, deadlockTwentyTimesThrowsWithItsCode) {
    DeadlockingTable table(20);
    auto connector = makeConnector();
    QueryBindings none(0, 0);
    log.clear();
    try {
        connector->executeUpdate("INSERT INTO " + table.name + " VALUES (1)", none, true);
        FAIL() << "the 20th deadlock did not end the call";
    } catch (const DBException& e) {
        EXPECT_EQ(1213u, e.code());
        std::string text = e.what();
        EXPECT_EQ(0u, text.find("Executing update failed: [1213] Deadlock found")) << text;
        EXPECT_EQ(text.size() - 7, text.rfind(" [1213]")) << text;
    }
    EXPECT_EQ(20, log.countContaining("DBConnectorSql::executeUpdate: SqlException caught: "));
    EXPECT_EQ(19, log.countContaining("Retry query"));
    EXPECT_EQ(0, table.admin.number("SELECT COUNT(*) FROM " + table.name));
    EXPECT_EQ(0, table.admin.number("SELECT LEFT_ FROM " + table.counter));
}

TEST_F(DbConnector, killedConnectionIsReplacedAtOnceAndStatementsPreparedAgain) {
    auto connector = makeConnector();
    LockDB* locks = connector->lockDB();
    std::string lockId = uniqueName("killed");
    ASSERT_TRUE(locks->lockFirstTime(lockId, "res", "actor", 1));
    ASSERT_TRUE(locks->releaseLockOf(lockId, "actor"));  // both statements are now cached
    ASSERT_TRUE(locks->lockFirstTime(lockId, "res", "actor", 1));
    std::string before = connectionId(*connector);
    DbAdmin admin;
    admin.exec("KILL CONNECTION " + before);
    log.clear();

    EXPECT_TRUE(locks->releaseLockOf(lockId, "actor"));

    EXPECT_TRUE(log.findEqual("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    EXPECT_EQ(0, log.countContaining("Retry query"));
    EXPECT_EQ(0, log.countContaining("Potential connection lost"));
    EXPECT_NE(before, connectionId(*connector));
    EXPECT_EQ(1, preparesOnConnection(*connector));
}

TEST_F(DbConnector, otherServerErrorsEndTheCallAtOnceAndKeepTheConnection) {
    std::string table = uniqueName("dupkey");
    ScopedTables drop({table});
    DbAdmin admin;
    admin.exec("CREATE TABLE " + table + " (ID INT PRIMARY KEY)");
    auto connector = makeConnector();
    QueryBindings none(0, 0);
    connector->executeUpdate("INSERT INTO " + table + " VALUES (1)", none, true);
    SqlConnection* connection = connector->connection();
    log.clear();
    try {
        connector->executeUpdate("INSERT INTO " + table + " VALUES (1)", none, true);
        FAIL() << "a duplicate key was accepted";
    } catch (const DBException& e) {
        EXPECT_EQ(1062u, e.code());
    }
    try {
        connector->executeUpdate("INSERT INTO " + table + " VALUS (2)", none, true);
        FAIL() << "a syntax error was accepted";
    } catch (const DBException& e) {
        EXPECT_EQ(1064u, e.code());
        EXPECT_EQ(0u, std::string(e.what()).find("Preparing statement failed: [1064] "));
    }
    EXPECT_EQ(2, log.countContaining("SqlException caught"));
    EXPECT_EQ(2u, log.lines().size());
    EXPECT_EQ(connection, connector->connection());
    EXPECT_TRUE(connection->ping());
}

TEST_F(DbConnector, errorsWithoutCodeAreRetriedUntilTheTwentiethAttempt) {
    auto connector = makeConnector();
    QueryBindings none(0, 0);
    FailingSupplier twice(*connector, "DO 1", 2);
    log.clear();
    EXPECT_EQ(0u, connector->executeUpdate(twice, none, false));
    EXPECT_EQ(2, log.countContaining("Potential connection lost (error code 0) - retry"));
    EXPECT_EQ(0, log.countContaining("SqlException caught"));

    FailingSupplier always(*connector, "DO 1", 1000);
    log.clear();
    try {
        connector->executeUpdate(always, none, false);
        FAIL() << "a statement failing every time succeeded";
    } catch (const DBException& e) {
        EXPECT_EQ(0u, e.code());
        EXPECT_STREQ("Injected failure: [0]  [0]", e.what());
    }
    EXPECT_EQ(19, log.countContaining("DBConnectorSql::executeUpdate: Potential connection lost"));
    EXPECT_TRUE(log.findEqual(
        "DBConnectorSql::executeUpdate: Potential connection lost (error code 0) - retry [19]"));
}

TEST_F(DbConnector, logLinesGoToTheDatabaseIdentityAtErrorPriority) {
    auto connector = makeConnector();
    QueryBindings bindings(0, 0);
    log.clear();
    EXPECT_THROW(connector->executeQuery("SELECT * FROM no_such_table_here", bindings),
                 DBException);
    auto line = log.findContaining("DBConnectorSql::executeQuery: SqlException caught: ");
    ASSERT_TRUE(line);
    EXPECT_EQ("DBConnector", line->ident);
    EXPECT_EQ(LOG_PID, line->option);
    EXPECT_EQ(LOG_LOCAL3, line->facility);
    EXPECT_EQ(LOG_ERR, line->priority);
}

TEST_F(DbConnector, environmentErrorsSurfaceAtFirstFacetRequest) {
    ScopedEnv noName("DBNAME", nullptr);
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(true));
    try {
        connector->lockDB();
        FAIL() << "a facet was made without DBNAME";
    } catch (const DBException& e) {
        EXPECT_EQ(0u, e.code());
        EXPECT_STREQ("Missing environment variable: DBNAME: [0] ", e.what());
    }
    EXPECT_THROW(delete connector->createRawQuery(), DBException);
}

TEST_F(DbConnectorConcurrency, eachThreadPreparesAStatementOnceAndForThreadHasItsOwnConnection) {
    auto connector = makeConnector();
    LockDB* locks = connector->lockDB();
    std::string lockId = uniqueName("once");
    long long start = preparesOnConnection(*connector);
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(locks->lockFirstTime(lockId, "r", "a", 1));
        ASSERT_TRUE(locks->releaseLockOf(lockId, "a"));
    }
    EXPECT_EQ(start + 2, preparesOnConnection(*connector));
    DbWorker other;
    other.run([&] { locks->releaseLockOf(lockId, "a"); });
    EXPECT_EQ(start + 3, preparesOnConnection(*connector));

    std::unique_ptr<DBConnector> own(connector->forThread());
    EXPECT_NE(connectionId(*connector), connectionId(*own));
    EXPECT_NE(static_cast<void*>(own->lockDB()), static_cast<void*>(locks));
}

TEST_F(DbConnectorConcurrency, seventeenthThreadEvictsTheLeastRecentlyUsedCache) {
    auto connector = makeConnector();
    auto* locks = static_cast<LockDBSql*>(connector->lockDB());
    std::vector<std::unique_ptr<DbWorker>> workers;
    for (int i = 0; i < 17; ++i) workers.push_back(std::make_unique<DbWorker>());
    long long start = preparesOnConnection(*connector);
    for (auto& worker : workers) worker->run([&] { locks->releaseLock("never-held"); });
    EXPECT_EQ(start + 17, preparesOnConnection(*connector));
    EXPECT_EQ(16u, locks->threadCount());

    workers[16]->run([&] { locks->releaseLock("never-held"); });
    EXPECT_EQ(start + 17, preparesOnConnection(*connector)) << "the newest thread kept its cache";
    workers[0]->run([&] { locks->releaseLock("never-held"); });
    EXPECT_EQ(start + 18, preparesOnConnection(*connector)) << "the oldest thread was evicted";
    workers[2]->run([&] { locks->releaseLock("never-held"); });
    EXPECT_EQ(start + 18, preparesOnConnection(*connector)) << "the third thread kept its cache";
    workers[1]->run([&] { locks->releaseLock("never-held"); });
    EXPECT_EQ(start + 19, preparesOnConnection(*connector)) << "the second thread was next";
}

TEST_F(DbConnectorConcurrency, reconnectDropsTheCachesOfEveryThread) {
    auto connector = makeConnector();
    LockDB* locks = connector->lockDB();
    DbWorker first, second;
    first.run([&] { locks->releaseLock("never-held"); });
    second.run([&] { locks->releaseLock("never-held"); });
    DbAdmin admin;
    admin.exec("KILL CONNECTION " + connectionId(*connector));

    first.run([&] { EXPECT_FALSE(locks->releaseLock("never-held")); });
    EXPECT_EQ(1, preparesOnConnection(*connector));
    second.run([&] { EXPECT_FALSE(locks->releaseLock("never-held")); });
    EXPECT_EQ(2, preparesOnConnection(*connector));
}

TEST_F(DbConnectorConcurrency, moreThreadsThanCacheEntriesShareOneConnectorSafely) {
    auto connector = makeConnector();
    LockDB* locks = connector->lockDB();
    std::string prefix = uniqueName("shared");
    std::atomic<int> taken{0}, released{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 24; ++t) {
        threads.emplace_back([&, t] {
            std::string id = prefix + "_" + std::to_string(t);
            for (int i = 0; i < 20; ++i) {
                taken += locks->lockFirstTime(id, "r", "a", t) ? 1 : 0;
                released += locks->releaseLock(id) ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(480, taken.load());
    EXPECT_EQ(480, released.load());
    EXPECT_EQ(16u, static_cast<LockDBSql*>(locks)->threadCount());
}

TEST_F(DbConnector, unreachableServerEndsAStatementAtOnceButAWantingEnvironmentIsRetried) {
    TempTree tree;
    tree.write("conf/db.cfg", "retryCount=0\n");
    ScopedEnv conf("CONF", tree.path("conf").c_str());
    QueryBindings none(0, 0);
    {
        ScopedEnv socket("MYSQL_UNIX_PORT", tree.path("stopped.sock").c_str());
        auto stopped = makeConnector();
        log.clear();
        try {
            stopped->executeUpdate("DO 1", none, true);
            FAIL() << "a statement ran without a server";
        } catch (const DBException& e) {
            EXPECT_EQ(2002u, e.code());
        }
        EXPECT_EQ(1u, log.lines().size());
    }
    ScopedEnv noUser("MED_USER", nullptr);
    auto wanting = makeConnector();
    log.clear();
    try {
        wanting->executeUpdate("DO 1", none, false);
        FAIL() << "a statement ran without MED_USER";
    } catch (const DBException& e) {
        EXPECT_EQ(0u, e.code());
        EXPECT_STREQ("Missing environment variable: MED_USER: [0]  [0]", e.what());
    }
    EXPECT_EQ(19, log.countContaining("Potential connection lost (error code 0)"));
}
