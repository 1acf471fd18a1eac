// repoctl db-check: connects as the library would, from the environment, and reports the server
// version and whether each table the database layer uses exists.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBException.h"
#include "RawQueryDB.h"
#include "RepoctlCommand.h"

namespace {

using kelp::db::DBConnector;
using kelp::db::DBException;
using kelp::db::RawQueryDB;
using kelp::db::SqlField;

const char* envOrNull(const char* name) {
    return getenv(name);
}

void printEnvironment() {
    const char* names[] = {"DBNAME",     "MED_USER",       "MYSQL_UNIX_PORT",
                           "MYSQL_HOST", "MYSQL_TCP_PORT", "CONF"};
    for (const char* name : names) {
        const char* value = envOrNull(name);
        printf("%-16s %s\n", name, value ? value : "(not set)");
    }
}

void explainConnectFailure(const char* what) {
    fprintf(stderr, "repoctl db-check: cannot connect: %s\n", what);
    fprintf(stderr,
            "The connection is configured by the environment: DBNAME and MED_USER, and either\n"
            "MYSQL_UNIX_PORT (a socket) or MYSQL_HOST with MYSQL_TCP_PORT; connect retries are\n"
            "read from $CONF/db.cfg (retryCount, retrySleep in ms). For the private test server:\n"
            "  eval \"$(scripts/mariadb env build/mariadb)\"\n");
}

// Table names go into SQL text, so only plain identifiers are looked up.
bool isPlainIdentifier(const std::string& name) {
    if (name.empty() || name.size() > 64) return false;
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '$';
        if (!ok) return false;
    }
    return true;
}

std::string firstValue(RawQueryDB& raw, const std::string& sql) {
    std::vector<std::vector<SqlField>> rows;
    raw.executeQuery(sql, 0, rows);
    return rows.empty() || rows[0].empty() ? "" : rows[0][0].value();
}

// Prints one line per table; returns whether it exists.
bool checkTable(RawQueryDB& raw, const char* variable, const char* name) {
    const char* label = variable ? variable : "time limits";
    if (!name) {
        printf("%-16s (not set)\n", label);
        return false;
    }
    if (!isPlainIdentifier(name)) {
        printf("%-16s %s: not a plain table name\n", label, name);
        return false;
    }
    bool exists = firstValue(raw,
                             "SELECT COUNT(*) FROM information_schema.TABLES WHERE "
                             "TABLE_SCHEMA=DATABASE() AND TABLE_NAME='" +
                                 std::string(name) + "'") != "0";
    printf("%-16s %s: %s\n", label, name, exists ? "present" : "missing");
    return exists;
}

int runDbCheck(int argc, char** argv) {
    if (argc != 1) return repoctlUsage(argv[0]);
    printEnvironment();
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw;
    try {
        raw.reset(connector->createRawQuery());
        printf("server version   %s\n", firstValue(*raw, "SELECT VERSION()").c_str());
        bool all = true;
        for (const char* variable : {"NVLOCKTBL", "SESSIONTBL", "REFCOUNTTBL", "OBJECTTBL"})
            all &= checkTable(*raw, variable, envOrNull(variable));
        all &= checkTable(*raw, nullptr, "QueryTimeLimit");
        return all ? 0 : 1;
    } catch (const DBException& e) {
        explainConnectFailure(e.what());
    } catch (const std::exception& e) {
        explainConnectFailure(e.what());
    }
    return 1;
}

RepoctlRegistrar dbCheckCommand("db-check", "db-check",
                                "connect to the database of the environment and check its tables",
                                &runDbCheck);

}  // namespace
