// repoctl db-check: connects as the library would, from the environment, and reports the server
// version and whether each table the database layer uses exists.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBException.h"
#include "JsonWriter.h"
#include "RawQueryDB.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"

namespace {

using kelp::db::DBConnector;
using kelp::db::DBException;
using kelp::db::RawQueryDB;
using kelp::db::SqlField;

const char* envOrNull(const char* name) {
    return getenv(name);
}

const char* const kVariables[] = {"DBNAME",     "MED_USER",       "MYSQL_UNIX_PORT",
                                  "MYSQL_HOST", "MYSQL_TCP_PORT", "CONF"};

void printEnvironment() {
    for (const char* name : kVariables) {
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

// What db-check found about one table.
struct TableCheck {
    std::string label;  // the variable naming it, or "time limits"
    std::string name;   // empty when the variable is not set
    const char* state;  // "present", "missing", "notSet", "notPlain"
};

TableCheck checkTable(RawQueryDB& raw, const char* variable, const char* name) {
    TableCheck check{variable ? variable : "time limits", name ? name : "", "notSet"};
    if (!name) return check;
    if (!isPlainIdentifier(name)) {
        check.state = "notPlain";
        return check;
    }
    const bool exists = firstValue(raw,
                                   "SELECT COUNT(*) FROM information_schema.TABLES WHERE "
                                   "TABLE_SCHEMA=DATABASE() AND TABLE_NAME='" +
                                       std::string(name) + "'") != "0";
    check.state = exists ? "present" : "missing";
    return check;
}

void printTable(const TableCheck& t) {
    if (t.name.empty()) {
        printf("%-16s (not set)\n", t.label.c_str());
    } else if (strcmp(t.state, "notPlain") == 0) {
        printf("%-16s %s: not a plain table name\n", t.label.c_str(), t.name.c_str());
    } else {
        printf("%-16s %s: %s\n", t.label.c_str(), t.name.c_str(), t.state);
    }
}

void writeJson(const std::string& version, const std::vector<TableCheck>& tables, bool all) {
    JsonWriter out(stdout);
    out.beginObject().key("environment").beginObject();
    for (const char* name : kVariables) {
        out.key(name);
        const char* value = envOrNull(name);
        value ? out.value(value) : out.null();
    }
    out.endObject().field("connected", true).field("serverVersion", version);
    out.key("tables").beginArray();
    for (const TableCheck& t : tables) {
        out.beginObject().field("variable", t.label).key("name");
        t.name.empty() ? out.null() : out.value(t.name);
        out.field("state", t.state).endObject();
    }
    out.endArray().field("complete", all).endObject().finish();
}

// repoctl db-check [--json]
int runDbCheck(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (!args.positional().empty()) return repoctlUsageError(argv[0], "takes no arguments");
    const bool json = args.has("--json");
    if (!json) printEnvironment();
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw;
    try {
        raw.reset(connector->createRawQuery());
        const std::string version = firstValue(*raw, "SELECT VERSION()");
        if (!json) printf("server version   %s\n", version.c_str());
        bool all = true;
        std::vector<TableCheck> tables;
        for (const char* variable : {"NVLOCKTBL", "SESSIONTBL", "REFCOUNTTBL", "OBJECTTBL"})
            tables.push_back(checkTable(*raw, variable, envOrNull(variable)));
        tables.push_back(checkTable(*raw, nullptr, "QueryTimeLimit"));
        // The change records of shared dirty sets live beside the lock table.
        if (const char* locks = envOrNull("NVLOCKTBL")) {
            const std::string changes = std::string(locks) + "CHG";
            TableCheck check = checkTable(*raw, nullptr, changes.c_str());
            check.label = "change records";
            tables.push_back(check);
        }
        for (const TableCheck& t : tables) {
            all &= strcmp(t.state, "present") == 0;
            if (!json) printTable(t);
        }
        if (json) writeJson(version, tables, all);
        return all ? 0 : 1;
    } catch (const std::exception& e) {
        explainConnectFailure(e.what());
        if (json) {
            JsonWriter out(stdout);
            out.beginObject().field("connected", false).field("error", e.what());
            out.endObject().finish();
        }
    }
    return 1;
}

RepoctlRegistrar dbCheckCommand(
    "db-check", "db-check [--json]",
    "connect to the database of the environment and check its tables", &runDbCheck,
    "Connects as the library does, from the environment (DBNAME, MED_USER, MYSQL_UNIX_PORT or\n"
    "MYSQL_HOST and MYSQL_TCP_PORT, CONF), prints the server version and whether each table\n"
    "named by NVLOCKTBL, SESSIONTBL, REFCOUNTTBL and OBJECTTBL, and QueryTimeLimit, exists.\n"
    "Exit status 1 when the connection fails or a table is missing or not set.\n"
    "--json: {environment: {DBNAME, ...}, connected, serverVersion, tables: [{variable, name,\n"
    "state (\"present\", \"missing\", \"notSet\", \"notPlain\")}], complete}, or\n"
    "{connected: false, error} when the connection fails.\n");

}  // namespace
