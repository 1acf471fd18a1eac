// How the connector classifies each server error it retries, with every fault raised on the
// real server: the deadlock codes (a SIGNAL from a trigger), the lost-connection codes (a SIGNAL
// for 4031, a connection killed while idle for 2006 and while running for 2013), and an error
// that is not a lost connection followed by a ping that fails (a procedure that kills its own
// connection: the client sees 1927).

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "DBConnectorSql.h"
#include "DbTestEnv.h"
#include "QueryBindings.h"
#include "RawQueryDB.h"
#include "SqlField.h"
#include "SyslogCapture.h"

using namespace kelp::db;

namespace {

std::unique_ptr<DBConnectorSql> makeConnector() {
    return std::unique_ptr<DBConnectorSql>(
        static_cast<DBConnectorSql*>(DBConnector::createConnector(false)));
}

std::string connectionId(DBConnector& connector) {
    std::unique_ptr<RawQueryDB> raw(connector.createRawQuery());
    std::vector<std::vector<SqlField>> rows;
    raw->executeQuery("SELECT CONNECTION_ID()", 0, rows);
    return rows.empty() ? "<none>" : rows[0].at(0).value();
}

// A counter in a MEMORY table: not transactional, so a failed statement's rollback does not
// give a decrement back.
struct Counter {
    Counter(DbAdmin& admin, const std::string& name, int value) : name(name), drop({name}) {
        admin.exec("CREATE TABLE " + name + " (LEFT_ INT) ENGINE=MEMORY");
        admin.exec("INSERT INTO " + name + " VALUES (" + std::to_string(value) + ")");
    }
    std::string name;
    ScopedTables drop;
};

// A table whose inserts the server fails with MYSQL_ERRNO `code` as many times as its counter
// says.
struct FailingTable {
    FailingTable(int failures, unsigned code)
        : name(uniqueName("failing")), counter(admin, name + "_left", failures), drop({name}) {
        admin.exec("CREATE TABLE " + name + " (V INT) ENGINE=InnoDB");
        admin.exec("CREATE TRIGGER " + name + "_fail BEFORE INSERT ON " + name +
                   " FOR EACH ROW BEGIN IF (SELECT LEFT_ FROM " + counter.name +
                   ") > 0 THEN UPDATE " + counter.name +
                   " SET LEFT_ = LEFT_ - 1; SIGNAL SQLSTATE 'HY000' SET MYSQL_ERRNO = " +
                   std::to_string(code) + ", MESSAGE_TEXT = 'raised by the test'; END IF; END");
    }
    DbAdmin admin;
    std::string name;
    Counter counter;
    ScopedTables drop;
};

class DbConnectorErrorCodes : public ::testing::Test {
  protected:
    void SetUp() override { RH_REQUIRE_DB(); }
    int logged(const std::string& text) const { return log.countContaining(text); }
    SyslogCapture log;
    QueryBindings none{0, 0};
};

}  // namespace

TEST_F(DbConnectorErrorCodes, eachDeadlockCodeIsRetriedAfterAPause) {
    for (unsigned code : {1213u, 1614u, 3058u, 3132u}) {
        SCOPED_TRACE(code);
        FailingTable table(2, code);
        auto connector = makeConnector();
        const std::string before = connectionId(*connector);
        log.clear();
        EXPECT_EQ(
            1u, connector->executeUpdate("INSERT INTO " + table.name + " VALUES (1)", none, true));
        EXPECT_EQ(2, logged("[" + std::to_string(code) + "] raised by the test"));
        EXPECT_EQ(2, logged("DBConnectorSql::executeUpdate: Retry query ["));
        EXPECT_EQ(0, logged("Connection lost"));
        EXPECT_EQ(before, connectionId(*connector));
        EXPECT_EQ(1, table.admin.number("SELECT COUNT(*) FROM " + table.name));
    }
}

// 4031 is what a MySQL 8 server sends before it closes an idle connection; raised here by a
// SIGNAL, the connection itself stays good, so the ping after it succeeds and it is kept.
TEST_F(DbConnectorErrorCodes, theClosedByServerCodeIsRetriedAtOnceWithoutAPause) {
    FailingTable table(2, 4031);
    auto connector = makeConnector();
    const std::string before = connectionId(*connector);
    log.clear();
    EXPECT_EQ(1u,
              connector->executeUpdate("INSERT INTO " + table.name + " VALUES (1)", none, true));
    EXPECT_EQ(2, logged("[4031] raised by the test"));
    EXPECT_EQ(2, logged("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    EXPECT_EQ(0, logged("Retry query"));
    EXPECT_EQ(before, connectionId(*connector));
}

TEST_F(DbConnectorErrorCodes, aConnectionKilledWhileIdleIsGoneAwayAndReplaced) {
    DbAdmin admin;
    auto connector = makeConnector();
    const std::string before = connectionId(*connector);
    admin.exec("KILL CONNECTION " + before);
    log.clear();
    EXPECT_EQ(0u, connector->executeUpdate("DO 1", none, true));
    // The statement is new to the connection, so its preparation meets the closed connection.
    EXPECT_EQ(1, logged("SqlException caught: Preparing statement failed: [2006]"));
    EXPECT_EQ(1, logged("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    EXPECT_EQ(0, logged("Retry query"));
    EXPECT_NE(before, connectionId(*connector));
}

// The statement waits for a user lock that the test holds; the test kills the waiting
// connection and then gives the lock up, so the statement run again on a new connection gets it.
TEST_F(DbConnectorErrorCodes, aConnectionKilledDuringAStatementIsLostAndTheStatementRunsAgain) {
    const std::string lock = uniqueName("held");
    DbAdmin holder;
    ASSERT_EQ(1, holder.number("SELECT GET_LOCK('" + lock + "', 0)"));
    auto connector = makeConnector();
    std::atomic<long long> victim{-1};
    std::thread killer([&holder, &lock, &victim] {
        long long found = -1;
        for (int i = 0; i < 1000 && found < 0; ++i) {
            found = holder.number(
                "SELECT ID FROM information_schema.PROCESSLIST WHERE INFO LIKE '%GET_LOCK(%" +
                lock + "%' AND ID <> CONNECTION_ID()");
            if (found < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (found >= 0) holder.exec("KILL CONNECTION " + std::to_string(found));
        holder.exec("DO RELEASE_LOCK('" + lock + "')");
        victim = found;
    });
    log.clear();
    EXPECT_EQ(0u, connector->executeUpdate("DO GET_LOCK('" + lock + "', 20)", none, true));
    killer.join();
    ASSERT_GE(victim.load(), 0) << "the statement was never seen waiting";
    EXPECT_EQ(1, logged("SqlException caught: Executing update failed: [2013]"));
    EXPECT_EQ(1, logged("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    EXPECT_EQ(0, logged("Retry query"));
    EXPECT_NE(std::to_string(victim.load()), connectionId(*connector));
}

TEST_F(DbConnectorErrorCodes, anErrorThatIsNoLostConnectionButAFailedPingReconnects) {
    DbAdmin admin;
    Counter once(admin, uniqueName("selfkill"), 1);
    const std::string procedure = once.name + "_p";
    admin.exec("CREATE PROCEDURE " + procedure +
               "() BEGIN DECLARE self BIGINT DEFAULT "
               "CONNECTION_ID(); IF (SELECT LEFT_ FROM " +
               once.name + ") > 0 THEN UPDATE " + once.name +
               " SET LEFT_ = LEFT_ - 1; KILL CONNECTION self; END IF; END");
    struct DropProcedure {
        ~DropProcedure() { admin.exec("DROP PROCEDURE IF EXISTS " + name); }
        DbAdmin& admin;
        std::string name;
    } dropProcedure{admin, procedure};
    auto connector = makeConnector();
    const std::string before = connectionId(*connector);
    log.clear();
    connector->executeUpdate("CALL " + procedure + "()", none, true);
    EXPECT_EQ(1, logged("SqlException caught: Executing update failed: [1927]"));
    EXPECT_EQ(1, logged("DBConnectorSql::executeUpdate: Connection lost - reconnect"));
    EXPECT_EQ(0, logged("Retry query"));
    EXPECT_EQ(0, admin.number("SELECT LEFT_ FROM " + once.name));
    EXPECT_NE(before, connectionId(*connector));
}
