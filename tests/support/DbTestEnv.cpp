#include "DbTestEnv.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "DBConnector.h"
#include "ScopedEnv.h"

namespace {

const char* env(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

MYSQL* connectFromEnvironment(std::string& error) {
    MYSQL* handle = mysql_init(nullptr);
    if (handle == nullptr) {
        error = "mysql_init failed";
        return nullptr;
    }
    const char* socket = env("MYSQL_UNIX_PORT");
    const char* host = socket != nullptr ? nullptr : env("MYSQL_HOST");
    unsigned int port = socket != nullptr || env("MYSQL_TCP_PORT") == nullptr
                            ? 0
                            : static_cast<unsigned int>(atoi(env("MYSQL_TCP_PORT")));
    if (mysql_real_connect(handle, host, env("MED_USER"), nullptr, env("DBNAME"), port, socket,
                           CLIENT_FOUND_ROWS) == nullptr) {
        error = mysql_error(handle);
        mysql_close(handle);
        return nullptr;
    }
    return handle;
}

}  // namespace

bool dbEnvironmentAvailable(std::string& why) {
    for (const char* name : {"DBNAME", "MED_USER"}) {
        if (env(name) == nullptr) {
            why = std::string("no database server: ") + name + " is not set";
            return false;
        }
    }
    if (env("MYSQL_UNIX_PORT") == nullptr && env("MYSQL_HOST") == nullptr) {
        why = "no database server: neither MYSQL_UNIX_PORT nor MYSQL_HOST is set";
        return false;
    }
    std::string error;
    MYSQL* handle = connectFromEnvironment(error);
    if (handle == nullptr) {
        why = "the database server of the environment does not answer: " + error;
        return false;
    }
    mysql_close(handle);
    return true;
}

DbAdmin::DbAdmin() {
    std::string error;
    handle_ = connectFromEnvironment(error);
    if (handle_ == nullptr) throw std::runtime_error("DbAdmin: " + error);
}

DbAdmin::~DbAdmin() {
    mysql_close(handle_);
}

void DbAdmin::exec(const std::string& sql) {
    if (mysql_real_query(handle_, sql.data(), sql.size()) != 0) {
        throw std::runtime_error("DbAdmin: " + sql + ": " + mysql_error(handle_));
    }
    // Drain a result a statement may have produced, so the connection stays usable.
    if (MYSQL_RES* result = mysql_store_result(handle_)) mysql_free_result(result);
}

std::vector<std::vector<std::string>> DbAdmin::rows(const std::string& sql) {
    if (mysql_real_query(handle_, sql.data(), sql.size()) != 0) {
        throw std::runtime_error("DbAdmin: " + sql + ": " + mysql_error(handle_));
    }
    MYSQL_RES* result = mysql_store_result(handle_);
    if (result == nullptr) throw std::runtime_error("DbAdmin: no result for " + sql);
    std::vector<std::vector<std::string>> out;
    unsigned int columns = mysql_num_fields(result);
    while (MYSQL_ROW row = mysql_fetch_row(result)) {
        out.emplace_back();
        for (unsigned int i = 0; i < columns; ++i)
            out.back().push_back(row[i] != nullptr ? row[i] : "NULL");
    }
    mysql_free_result(result);
    return out;
}

long long DbAdmin::number(const std::string& sql) {
    auto all = rows(sql);
    if (all.empty() || all[0].empty() || all[0][0] == "NULL") return -1;
    return atoll(all[0][0].c_str());
}

bool tcpServerOfEnvironment(std::string& host, int& port, std::string& why) {
    const char* name = env("MYSQL_HOST");
    const char* number = env("MYSQL_TCP_PORT");
    if (name == nullptr || number == nullptr || atoi(number) <= 0) {
        why = "no TCP address of the database server: MYSQL_HOST and MYSQL_TCP_PORT are needed";
        return false;
    }
    host = name;
    port = atoi(number);
    return true;
}

// The connector reads its address when it is made and keeps it.
std::unique_ptr<kelp::db::DBConnector> connectorThroughPort(int port) {
    ScopedEnv socket("MYSQL_UNIX_PORT", nullptr);
    ScopedEnv host("MYSQL_HOST", "127.0.0.1");
    const std::string text = std::to_string(port);
    ScopedEnv tcp("MYSQL_TCP_PORT", text.c_str());
    return std::unique_ptr<kelp::db::DBConnector>(kelp::db::DBConnector::createConnector(false));
}

std::string uniqueName(const std::string& prefix) {
    static std::atomic<int> counter{0};
    return prefix + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

ScopedTables::~ScopedTables() {
    try {
        DbAdmin admin;
        for (const std::string& name : names_) admin.exec("DROP TABLE IF EXISTS " + name);
    } catch (const std::exception&) {
        // The server is gone: nothing left to clean.
    }
}
