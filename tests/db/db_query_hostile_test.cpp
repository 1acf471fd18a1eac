// Hostile values in matching keys: quotes, backslashes, '%', '_', NUL, invalid UTF-8, 64 KiB
// values, 10,000 UIDs and SQL fragments give a clear DBException or exactly the right rows, and
// the server's general log shows that none of them ever became SQL text: they appear only as
// values of executed prepared statements, never in a statement that was prepared or queried.
#include <gtest/gtest.h>
#include <mysql.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "QueryScratchSchema.h"
#include "RawQueryDB.h"

using namespace kelp::db;

namespace {

// The server's administrator over the socket (unix_socket authentication as root), for the
// general log only.
class ServerAdmin {
  public:
    ServerAdmin() {
        handle_ = mysql_init(nullptr);
        const char* socket = getenv("MYSQL_UNIX_PORT");
        if (socket == nullptr || mysql_real_connect(handle_, nullptr, "root", nullptr, "mysql", 0,
                                                    socket, 0) == nullptr) {
            error_ = mysql_error(handle_);
            mysql_close(handle_);
            handle_ = nullptr;
        }
    }
    ~ServerAdmin() {
        if (handle_) mysql_close(handle_);
    }
    bool ok() const { return handle_ != nullptr; }
    const std::string& error() const { return error_; }
    void exec(const std::string& sql) {
        if (mysql_query(handle_, sql.c_str()) != 0) throw std::runtime_error(mysql_error(handle_));
        MYSQL_RES* result = mysql_store_result(handle_);
        if (result) mysql_free_result(result);
    }
    // (command_type, argument) of the general log's entries of one connection.
    std::vector<std::pair<std::string, std::string>> logOf(const std::string& threadId) {
        exec("SELECT 1");
        std::vector<std::pair<std::string, std::string>> out;
        std::string sql =
            "SELECT command_type, argument FROM mysql.general_log WHERE thread_id = " + threadId;
        if (mysql_query(handle_, sql.c_str()) != 0) throw std::runtime_error(mysql_error(handle_));
        MYSQL_RES* result = mysql_store_result(handle_);
        while (MYSQL_ROW row = mysql_fetch_row(result)) {
            unsigned long* lengths = mysql_fetch_lengths(result);
            out.emplace_back(std::string(row[0], lengths[0]), std::string(row[1], lengths[1]));
        }
        mysql_free_result(result);
        return out;
    }

  private:
    MYSQL* handle_ = nullptr;
    std::string error_;
};

// Turns the general log on into its table for the scope, and back to how it was.
class GeneralLog {
  public:
    explicit GeneralLog(ServerAdmin& admin) : admin_(admin) {
        admin_.exec("SET GLOBAL log_output = 'TABLE'");
        admin_.exec("SET GLOBAL general_log = ON");
    }
    ~GeneralLog() {
        try {
            admin_.exec("SET GLOBAL general_log = OFF");
            admin_.exec("TRUNCATE TABLE mysql.general_log");
        } catch (const std::exception&) {
        }
    }

  private:
    ServerAdmin& admin_;
};

const std::string kMarker = "ZQX";

}  // namespace

TEST(QueryHostileValues, giveAClearErrorOrTheRightRowsAndNeverBecomeSqlText) {
    RH_REQUIRE_DB();
    ServerAdmin root;
    if (!root.ok()) {
        const char* ci = getenv("CI");
        if (ci && std::string(ci) == "true") FAIL() << "no administrator access: " << root.error();
        GTEST_SKIP() << "no administrator access to the server: " << root.error();
    }
    QueryScratchSchema schema(std::string(RH_TEST_SOURCE_DIR) + "/db/query-mapping.cfg");
    const std::vector<std::string> names = {"O'Brien^Pat", "50%_x", "50ab_x", "Back\\Slash",
                                            "ZQX\"quoted\""};
    for (size_t i = 0; i < names.size(); ++i) {
        int64_t patient = schema.insert("PATIENT", {{"PatientName", names[i]}});
        schema.insert("STUDY", {{"PatientKey", std::to_string(patient)},
                                {"StudyInstanceUID", "1.9." + std::to_string(i)}});
    }
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
    std::vector<std::vector<SqlField>> idRows;
    raw->executeQuery("SELECT CONNECTION_ID()", 0, idRows);
    const std::string threadId = idRows.at(0).at(0).value();

    struct Case {
        uint32_t tag;
        const char* vr;
        std::string value;
        std::set<std::string> rows;  // the studies expected
        bool refused;
    };
    std::string uids;
    for (int i = 0; i < 10000; ++i) uids += "1.8." + std::to_string(i) + "\\";
    uids += "1.9.0\\1.9.3";
    const std::vector<Case> cases = {
        {0x00100010, "PN", "O'Brien^Pat", {"1.9.0"}, false},
        {0x00100010, "PN", "50%_x", {"1.9.1"}, false},
        {0x00100010, "PN", "50%*", {"1.9.1"}, false},
        {0x00100010, "PN", "50?_x", {"1.9.1"}, false},
        {0x00100010, "PN", "50?_X", {}, false},
        {0x00100010, "PN", "ZQX\"quoted\"", {"1.9.4"}, false},
        {0x00100010, "PN", "ZQX' OR '1'='1", {}, false},
        {0x00100010, "PN", "ZQX'); DROP TABLE " + schema.table("PATIENT") + "; --", {}, false},
        {0x00100010, "PN", "ZQX\\'; SELECT SLEEP(5); --", {}, true},
        {0x00100010, "PN", "Back\\Slash", {}, true},
        {0x00100020, "LO", "ZQX' UNION SELECT PatientKey FROM PATIENT --*", {}, false},
        {0x00100020, "LO", std::string("ZQX\0' OR 1=1", 12), {}, true},
        {0x00100020, "LO", "ZQX\xC3\x28\xFF'", {}, true},
        {0x00100020, "LO", kMarker + std::string(65536, 'A'), {}, false},
        {0x00100020, "LO", kMarker + std::string(65536, '*') + "A?", {}, false},
        {0x00080050, "SH", "ZQX!%!_*", {}, false},
        {0x0020000D, "UI", uids, {"1.9.0", "1.9.3"}, false},
        {0x0020000D, "UI", "1.9.0' OR '1'='1", {}, true},
    };

    GeneralLog log(root);
    for (const Case& c : cases) {
        QueryRequest request;
        request.level = QueryLevel::Study;
        request.keys = {{c.tag, c.vr, c.value, {}}};
        request.returnKeys = {0x0020000D};
        const std::string shown = c.value.substr(0, 40);
        try {
            std::set<std::string> found;
            for (const auto& row : raw->find(schema.mapping(), request, 0).rows)
                found.insert(*row[0]);
            EXPECT_FALSE(c.refused) << shown << " was not refused";
            EXPECT_EQ(c.rows, found) << shown;
        } catch (const DBException& e) {
            EXPECT_TRUE(c.refused) << shown << ": " << e.what();
            EXPECT_NE(std::string::npos, std::string(e.what()).find("Matching key")) << e.what();
        }
    }
    EXPECT_EQ(5, schema.admin().number("SELECT COUNT(*) FROM " + schema.table("PATIENT")));

    int executedWithValues = 0;
    for (const auto& entry : root.logOf(threadId)) {
        const bool holdsValue = entry.second.find(kMarker) != std::string::npos ||
                                entry.second.find("O'Brien") != std::string::npos ||
                                entry.second.find("50%") != std::string::npos;
        if (entry.first == "Execute" && holdsValue) ++executedWithValues;
        if (entry.first == "Prepare" || entry.first == "Query") {
            EXPECT_FALSE(holdsValue) << entry.first << ": " << entry.second.substr(0, 200);
        }
    }
    // The values did reach the server, as bound parameters of executed statements.
    EXPECT_GE(executedWithValues, 8);
}
