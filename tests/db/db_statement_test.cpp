// Statements, bindings, text queries and their time limit on the real server.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "QueryBindings.h"
#include "RawQueryDB.h"
#include "ScopedEnv.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlResult.h"
#include "SqlStatement.h"

using namespace kelp::db;

namespace {

class DbStatements : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        sql = std::make_unique<Sql>(false);
        connection = sql->getConnectionEx();
    }
    std::vector<std::vector<SqlField>> query(const std::string& text, unsigned long seconds) {
        std::vector<std::vector<SqlField>> rows;
        auto result = connection->executeQueryEx(text, seconds);
        while (result->fetch()) {
            rows.emplace_back();
            result->getRecord(rows.back());
        }
        return rows;
    }
    std::string connectionId() { return query("SELECT CONNECTION_ID()", 0)[0][0].value(); }

    std::unique_ptr<Sql> sql;
    std::unique_ptr<SqlConnection> connection;
};

}  // namespace

TEST_F(DbStatements, syntaxErrorFailsThePrepareAndLeavesTheConnectionUsable) {
    try {
        connection->prepareStatementEx("SELEC 1");
        FAIL() << "a statement with a syntax error was prepared";
    } catch (const SqlException& e) {
        EXPECT_EQ(1064u, e.code());
        EXPECT_EQ("Preparing statement failed", e.message());
        EXPECT_EQ(connection->lastError(), e.detail());
    }
    EXPECT_EQ("1", query("SELECT 1", 0)[0][0].value());
}

TEST_F(DbStatements, timeLimitRowExistsOnlyWhileTheQueryRuns) {
    const std::string countOwn =
        "SELECT COUNT(*) FROM QueryTimeLimit WHERE PROCESSID=CONNECTION_ID() AND QSTATUS='R' "
        "AND EXPIRE > NOW() + INTERVAL 20 SECOND";
    EXPECT_EQ("0", query(countOwn, 0)[0][0].value());
    EXPECT_EQ("1", query(countOwn, 30)[0][0].value());
    EXPECT_THROW(query("SELECT * FROM no_such_table_either", 30), SqlException);
    DbAdmin admin;
    EXPECT_EQ(
        0, admin.number("SELECT COUNT(*) FROM QueryTimeLimit WHERE PROCESSID=" + connectionId()));
}

TEST_F(DbStatements, failingTextQueryNamesTheStep) {
    try {
        query("SELECT * FROM no_such_table_either", 0);
        FAIL();
    } catch (const SqlException& e) {
        EXPECT_EQ(1146u, e.code());
        EXPECT_EQ(0u, std::string(e.what()).find("Executing raw query failed: [1146] "));
    }
}

TEST_F(DbStatements, recordsCarryColumnNamesAndNulls) {
    auto rows = query("SELECT 'a''b' AS first, NULL AS second, '' AS third", 0);
    ASSERT_EQ(1u, rows.size());
    ASSERT_EQ(3u, rows[0].size());
    EXPECT_EQ("first", rows[0][0].name());
    EXPECT_EQ("a'b", rows[0][0].value());
    EXPECT_TRUE(rows[0][1].isNull());
    EXPECT_EQ("", rows[0][1].value());
    EXPECT_FALSE(rows[0][2].isNull());
    std::string escaped;
    connection->escape("it's", escaped);
    EXPECT_EQ("it\\'s", escaped);
}

TEST_F(DbStatements, boundParametersAndResultsRoundTrip) {
    auto statement = connection->prepareStatementEx("SELECT CONCAT(?, '!'), ? + 1");
    char text[] = "hello";
    unsigned long textLength = 5;
    long long number = 41;
    QueryBindings bindings(2, 2);
    bindings.bindParam(0, MYSQL_TYPE_STRING, text, sizeof text, &textLength, nullptr, SIGNED_VALUE);
    bindings.bindParam(1, MYSQL_TYPE_LONGLONG, &number, sizeof number, nullptr, nullptr,
                       SIGNED_VALUE);
    char out[4] = {};
    long long sum = 0;
    QueryResult outText(MYSQL_TYPE_STRING, out, sizeof out, SIGNED_VALUE);
    QueryResult outSum(MYSQL_TYPE_LONGLONG, &sum, sizeof sum, SIGNED_VALUE);
    bindings.bindResult(0, outText);
    bindings.bindResult(1, outSum);
    statement->executeAndStoreEx(bindings);
    EXPECT_EQ(MYSQL_DATA_TRUNCATED, statement->fetch());
    EXPECT_TRUE(outText.isTruncated());
    EXPECT_EQ(6u, outText.length());
    EXPECT_EQ(42, sum);
    EXPECT_EQ(MYSQL_NO_DATA, statement->fetch());
}

TEST(DbBindings, zeroBufferLengthKeepsTheLengthBoundBefore) {
    QueryBindings bindings(1, 0);
    char buffer[16];
    bindings.bindParam(0, MYSQL_TYPE_STRING, buffer, sizeof buffer, nullptr, nullptr,
                       UNSIGNED_VALUE);
    bindings.bindParam(0, MYSQL_TYPE_STRING, buffer, 0, nullptr, nullptr,
                       static_cast<SignedFlag>(0));
    EXPECT_EQ(16u, bindings.params()[0].buffer_length);
    EXPECT_TRUE(bindings.params()[0].is_unsigned);
    EXPECT_EQ(nullptr, bindings.results());
}

TEST(DbTcp, hostAndPortAreUsedWithoutASocket) {
    RH_REQUIRE_DB();
    if (getenv("MYSQL_HOST") == nullptr || getenv("MYSQL_TCP_PORT") == nullptr)
        GTEST_SKIP() << "the environment has no TCP address";
    ScopedEnv noSocket("MYSQL_UNIX_PORT", nullptr);
    Sql sql(false);
    auto connection = sql.getConnectionEx();
    auto result = connection->executeQueryEx("SELECT USER()", 0);
    ASSERT_TRUE(result->fetch());
    std::vector<SqlField> row;
    result->getRecord(row);
    EXPECT_NE(std::string::npos, row[0].value().find("@127.0.0.1")) << row[0].value();
}

TEST(DbRawQuery, rawQueryRunsWithATimeLimitAndSurvivesAKilledConnection) {
    RH_REQUIRE_DB();
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
    std::vector<std::vector<SqlField>> rows;
    EXPECT_EQ(1u, raw->executeQuery("SELECT CONNECTION_ID(), (SELECT COUNT(*) FROM QueryTimeLimit "
                                    "WHERE PROCESSID=CONNECTION_ID())",
                                    30, rows));
    EXPECT_EQ("1", rows[0][1].value());
    DbAdmin().exec("KILL CONNECTION " + rows[0][0].value());
    EXPECT_EQ(1u, raw->executeQuery("SELECT CONNECTION_ID()", 0, rows));
    EXPECT_NE(rows[0][0].value(), rows[1][0].value());
    try {
        raw->executeQuery("SELECT * FROM no_such_table_at_all", 0, rows);
        FAIL() << "a query of a missing table succeeded";
    } catch (const DBException& e) {
        EXPECT_EQ(1146u, e.code());
    }
}
