#include "GaleraCluster.h"

#include <mysql.h>

#include <cstdlib>
#include <stdexcept>

namespace {

std::string envText(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

void runScript(const std::string& command, const std::string& dir, int n) {
    const std::string line = std::string(RH_GALERA_SCRIPT) + " " + command + " '" + dir + "' " +
                             std::to_string(n) + " >&2";
    if (system(line.c_str()) != 0) throw std::runtime_error("failed: " + line);
}

}  // namespace

bool GaleraCluster::fromEnvironment(GaleraCluster& cluster, std::string& why) {
    cluster.dir = envText("RH_GALERA_DIR");
    cluster.nodePorts.clear();
    for (int n = 1; n <= 3; ++n) {
        const std::string name = "RH_GALERA_NODE" + std::to_string(n) + "_PORT";
        const int port = atoi(envText(name.c_str()).c_str());
        if (port <= 0) {
            why = "no Galera cluster in the environment (" + name + " is not set)";
            return false;
        }
        cluster.nodePorts.push_back(port);
    }
    if (cluster.dir.empty() || envText("MYSQL_HOST").empty()) {
        why = "no Galera cluster in the environment (RH_GALERA_DIR or MYSQL_HOST is not set)";
        return false;
    }
    return true;
}

void GaleraCluster::kill(int n) const {
    runScript("kill", dir, n);
}

void GaleraCluster::revive(int n) const {
    runScript("revive", dir, n);
}

long long GaleraCluster::status(int n, const std::string& variable) const {
    MYSQL* handle = mysql_init(nullptr);
    if (handle == nullptr) return -1;
    unsigned int timeout = 2;
    mysql_options(handle, MYSQL_OPT_CONNECT_TIMEOUT, &timeout);
    long long value = -1;
    const std::string user = envText("MED_USER").empty() ? "med" : envText("MED_USER");
    if (mysql_real_connect(handle, "127.0.0.1", user.c_str(), nullptr, nullptr,
                           unsigned(nodePorts.at(size_t(n - 1))), nullptr, 0) != nullptr) {
        const std::string sql = "SHOW GLOBAL STATUS LIKE '" + variable + "'";
        if (mysql_real_query(handle, sql.data(), sql.size()) == 0) {
            if (MYSQL_RES* result = mysql_store_result(handle)) {
                if (MYSQL_ROW row = mysql_fetch_row(result)) {
                    if (row[1] != nullptr) value = atoll(row[1]);
                }
                mysql_free_result(result);
            }
        }
    }
    mysql_close(handle);
    return value;
}
