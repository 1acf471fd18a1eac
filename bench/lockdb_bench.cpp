// Round trips of a database lock (LockDBSql::lockFirstTime + releaseLockOf) against the private
// server of scripts/mariadb, as a ratio to the floor measured in the same run: the same INSERT
// and DELETE through the bare client API, with both statements prepared once. Also reports the
// statements the connector prepared per 10,000 calls after warm-up (should be 0).
//
// Needs the environment printed by "scripts/mariadb env DIR"; skips with a message without it.

#include <mysql.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "InterleavedRatio.h"
#include "LockDB.h"
#include "MysqlCompat.h"
#include "RawQueryDB.h"

namespace {

const char kLockId[] = "bench-lock";
constexpr int kBlock = 200;
constexpr int kBlocks = 41;

std::string envText(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

// The floor: the lock's two statements on a plain client connection, prepared once.
class BareLock {
  public:
    BareLock() {
        handle_ = mysql_init(nullptr);
        std::string socket = envText("MYSQL_UNIX_PORT");
        if (!mysql_real_connect(handle_, nullptr, envText("MED_USER").c_str(), nullptr,
                                envText("DBNAME").c_str(), 0, socket.c_str(), CLIENT_FOUND_ROWS))
            throw std::runtime_error(mysql_error(handle_));
        std::string table = envText("NVLOCKTBL");
        insert_ = prepare("INSERT INTO " + table +
                          " (LCKID,LCKRESOURCE,LCKACTOR,LCKTYPE,LCKTIME,LCKCOUNTER) VALUES "
                          "(?,?,?,?,NOW(),1)");
        delete_ = prepare("delete from " + table +
                          " where  LCKID=? and COALESCE(LCKACTOR,'')=? and LCKCOUNTER<2");
    }
    ~BareLock() {
        mysql_stmt_close(insert_);
        mysql_stmt_close(delete_);
        mysql_close(handle_);
    }

    void roundTrip() {
        std::string id = kLockId, resource = "resource", actor = "actor";
        int32_t type = 1;
        unsigned long lengths[3] = {id.size(), resource.size(), actor.size()};
        MYSQL_BIND params[4];
        memset(params, 0, sizeof params);
        std::string* texts[3] = {&id, &resource, &actor};
        for (int i = 0; i < 3; ++i) {
            params[i].buffer_type = MYSQL_TYPE_STRING;
            params[i].buffer = texts[i]->data();
            params[i].buffer_length = texts[i]->size();
            params[i].length = &lengths[i];
        }
        params[3].buffer_type = MYSQL_TYPE_LONG;
        params[3].buffer = &type;
        run(insert_, params);
        MYSQL_BIND byHolder[2] = {params[0], params[2]};
        run(delete_, byHolder);
    }

  private:
    MYSQL_STMT* prepare(const std::string& sql) {
        MYSQL_STMT* stmt = mysql_stmt_init(handle_);
        if (mysql_stmt_prepare(stmt, sql.data(), sql.size()))
            throw std::runtime_error(mysql_stmt_error(stmt));
        return stmt;
    }
    static void run(MYSQL_STMT* stmt, MYSQL_BIND* params) {
        if (mysql_stmt_bind_param(stmt, params) || mysql_stmt_execute(stmt))
            throw std::runtime_error(mysql_stmt_error(stmt));
    }

    MYSQL* handle_;
    MYSQL_STMT* insert_;
    MYSQL_STMT* delete_;
};

long long prepares(kelp::db::DBConnector& connector) {
    std::unique_ptr<kelp::db::RawQueryDB> raw(connector.createRawQuery());
    std::vector<std::vector<kelp::db::SqlField>> rows;
    raw->executeQuery("SHOW SESSION STATUS LIKE 'Com_stmt_prepare'", 0, rows);
    return std::stoll(rows.at(0).at(1).value());
}

// Short blocks of the floor and of the library alternate (InterleavedRatio.h), and the median of
// the rounds' ratios counts: a burst of other load spoils a round or two, not the figure.
void BM_lockRoundTrip(benchmark::State& state) {
    if (envText("DBNAME").empty() || envText("MYSQL_UNIX_PORT").empty()) {
        state.SkipWithError("no private server: eval \"$(scripts/mariadb env DIR)\" first");
        return;
    }
    BareLock bare;
    std::unique_ptr<kelp::db::DBConnector> connector(kelp::db::DBConnector::createConnector(false));
    kelp::db::LockDB* locks = connector->lockDB();
    auto library = [locks] {
        if (!locks->lockFirstTime(kLockId, "resource", "actor", 1) ||
            !locks->releaseLockOf(kLockId, "actor"))
            throw std::runtime_error("the benchmark lock was busy");
    };
    library();  // warm-up: the statements are prepared here
    bare.roundTrip();
    long long preparedBefore = prepares(*connector);
    InterleaveOptions options;
    options.rounds = kBlocks;
    options.callsPerBlock = kBlock;
    options.clock = BenchClock::Wall;  // the server's work is part of the round trip
    auto floor = [&bare] { bare.roundTrip(); };
    for (auto _ : state) reportRatio(state, interleavedRatio(library, floor, options));
    // Warm-up and rounds, both closures.
    const long long calls = 2LL * (kBlocks + 1) * kBlock;
    long long prepared = prepares(*connector) - preparedBefore;
    state.counters["preparesPer10k"] =
        10000.0 * static_cast<double>(prepared) / static_cast<double>(calls);
}

}  // namespace

BENCHMARK(BM_lockRoundTrip)->Iterations(1)->Unit(benchmark::kMillisecond);

RH_BENCHMARK_MAIN();
