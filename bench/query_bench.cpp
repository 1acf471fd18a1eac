// The query builder against hand-written SQL, on 100,000 studies with 1,000,000 instances in the
// private server of scripts/mariadb (loaded once, server-side, into the example tables;
// RH_BENCH_QUERY_STUDIES=N loads N studies instead, with N / 2 patients, 2 N series and 10 N
// instances, for quicker runs while iterating). Each kind of search (single value, prefix
// wildcard, date range, UID list of 1,000, case-insensitive person name) runs through
// RawQueryDB::find and, as its floor, as a hand-written statement for the same match, prepared
// once through the bare client library, with the same values bound and the same columns
// returned; before timing, both must return the same rows and read them through the same
// indexes. Subject and floor alternate in blocks of about 25 ms for 21 rounds
// (bench/InterleavedRatio.h); the ratios are of wall-clock time, since most of a search is the
// server's work. BM_build measures the builder's own cost per query (parsing and SQL generation,
// no server).
//
// Needs the environment printed by "scripts/mariadb env DIR" and administrator access over the
// socket (to size the buffer pool and load the rows); skips with a message without them.

#include <mysql.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBConnectorSql.h"
#include "InterleavedRatio.h"
#include "MysqlCompat.h"
#include "QueryMapping.h"
#include "QuerySqlBuilder.h"
#include "RawQueryDB.h"
#include "SqlConnection.h"

namespace {

using namespace kelp::db;

// Runs before timing, so that neither side pays for reading cold pages into the buffer pool.
constexpr int kWarmUp = 20;
// The length of one block of calls of either side.
constexpr double kBlockSeconds = 0.025;

std::string envText(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

// The size of the loaded archive: RH_BENCH_QUERY_STUDIES studies (default 100,000), with half
// as many patients, two series per study and ten instances per study.
struct Scale {
    long studies, patients, series, instances;
};

const Scale& scale() {
    static const Scale value = [] {
        long studies = atol(envText("RH_BENCH_QUERY_STUDIES").c_str());
        if (studies < 1000) studies = 100000;
        return Scale{studies, studies / 2, studies * 2, studies * 10};
    }();
    return value;
}

MYSQL* connectAs(const char* user) {
    MYSQL* handle = mysql_init(nullptr);
    if (!mysql_real_connect(handle, nullptr, user, nullptr, envText("DBNAME").c_str(), 0,
                            envText("MYSQL_UNIX_PORT").c_str(), 0)) {
        std::string error = mysql_error(handle);
        mysql_close(handle);
        throw std::runtime_error(error);
    }
    mysql_set_character_set(handle, "utf8mb4");
    return handle;
}

void exec(MYSQL* handle, const std::string& sql) {
    if (mysql_query(handle, sql.c_str()) != 0) throw std::runtime_error(mysql_error(handle));
    MYSQL_RES* result = mysql_store_result(handle);
    if (result) mysql_free_result(result);
}

long long count(MYSQL* handle, const std::string& sql) {
    if (mysql_query(handle, sql.c_str()) != 0) throw std::runtime_error(mysql_error(handle));
    MYSQL_RES* result = mysql_store_result(handle);
    MYSQL_ROW row = mysql_fetch_row(result);
    long long value = row && row[0] ? atoll(row[0]) : 0;
    mysql_free_result(result);
    return value;
}

// Fills the example tables on the server from its sequence tables; a later run of the same scale
// reuses them.
void loadOnce() {
    const long kStudies = scale().studies, kPatients = scale().patients, kSeries = scale().series,
               kInstances = scale().instances;
    MYSQL* root = connectAs("root");
    exec(root, "SET GLOBAL innodb_buffer_pool_size = 512 * 1024 * 1024");
    if (count(root, "SELECT COUNT(*) FROM STUDY") == kStudies &&
        count(root, "SELECT COUNT(*) FROM INSTANCE") == kInstances) {
        mysql_close(root);
        return;
    }
    for (const char* table : {"SERIESREQUEST", "INSTANCE", "SERIES", "STUDY", "PATIENT"})
        exec(root, std::string("TRUNCATE TABLE ") + table);
    exec(root, "SET SESSION unique_checks = 0");
    exec(root,
         "INSERT INTO PATIENT (PatientKey, PatientID, PatientName, PatientBirthDate, PatientSex) "
         "SELECT seq, CONCAT('P', seq), CONCAT(ELT(1 + seq % 12, 'SMITH', 'JONES', 'MÜLLER', "
         "'ИВАНОВ', 'GARCÍA', 'NGUYEN', 'O''BRIEN', 'SATO', 'KOWALSKI', 'DUBOIS', 'ROSSI', "
         "'LARSEN'), '^', ELT(1 + (seq DIV 12) % 8, 'MARY', 'JOHN', 'ÉLODIE', 'ИВАН', 'ANA', "
         "'LI', 'PIOTR', 'EMMA'), seq), '1950-01-01' + INTERVAL (seq % 20000) DAY, "
         "IF(seq % 2, 'F', 'M') FROM seq_1_to_" +
             std::to_string(kPatients));
    exec(root,
         "INSERT INTO STUDY (StudyKey, PatientKey, StudyInstanceUID, StudyDate, StudyTime, "
         "AccessionNumber, StudyDescription) SELECT seq, 1 + seq % " +
             std::to_string(kPatients) +
             ", CONCAT('1.2.826.0.1.3680043.', seq), '2015-01-01' + INTERVAL (seq % 3650) DAY, "
             "SEC_TO_TIME(seq % 86400), CONCAT('A', seq), ELT(1 + seq % 4, 'CT HEAD', "
             "'MR KNEE', 'CR CHEST', 'US ABDOMEN') FROM seq_1_to_" +
             std::to_string(kStudies));
    exec(root,
         "INSERT INTO SERIES (SeriesKey, StudyKey, SeriesInstanceUID, Modality) SELECT seq, 1 + "
         "seq % " +
             std::to_string(kStudies) +
             ", CONCAT('1.2.826.0.1.3680043.2.', seq), ELT(1 + seq % 4, 'CT', 'MR', 'CR', 'US') "
             "FROM seq_1_to_" +
             std::to_string(kSeries));
    exec(root,
         "INSERT INTO INSTANCE (InstanceKey, SeriesKey, SOPInstanceUID, SOPClassUID, "
         "AcquisitionDateTime) SELECT seq, 1 + seq % " +
             std::to_string(kSeries) +
             ", CONCAT('1.2.826.0.1.3680043.3.', seq), '1.2.840.10008.5.1.4.1.1.2', "
             "'2015-01-01' + INTERVAL (seq % 3650) DAY + INTERVAL (seq % 86400) SECOND FROM "
             "seq_1_to_" +
             std::to_string(kInstances));
    exec(root, "ANALYZE TABLE PATIENT, STUDY, SERIES, INSTANCE");
    mysql_close(root);
}

// One kind of search: the keys the builder gets, and the hand-written statement with its values.
struct Kind {
    const char* name;
    std::vector<MatchingKey> keys;
    QueryOptions options;
    std::string where;  // of the hand-written statement
    std::vector<std::string> values;
};

std::string uidList() {
    std::string list;
    for (int i = 0; i < 1000; ++i)
        list += (i ? "\\" : "") + std::string("1.2.826.0.1.3680043.") + std::to_string(1 + i * 97);
    return list;
}

Kind makeKind(const char* name, MatchingKey key, std::string where,
              std::vector<std::string> values) {
    Kind kind;
    kind.name = name;
    kind.keys.push_back(std::move(key));
    kind.where = std::move(where);
    kind.values = std::move(values);
    return kind;
}

std::vector<Kind> kinds() {
    std::vector<Kind> out;
    out.push_back(
        makeKind("single", {0x00080050, "SH", "A54321", {}}, "s.AccessionNumber = ?", {"A54321"}));
    out.push_back(makeKind("prefix", {0x00100010, "PN", "JONES^JOHN1*", {}},
                           "p.PatientName LIKE ? ESCAPE '!'", {"JONES^JOHN1%"}));
    out.push_back(makeKind("daterange", {0x00080020, "DA", "20200101-20200107", {}},
                           "s.StudyDate BETWEEN ? AND ?", {"2020-01-01", "2020-01-07"}));
    const std::string uids = uidList();
    Kind list = makeKind("uidlist", {0x0020000D, "UI", uids, {}}, "s.StudyInstanceUID IN (", {});
    for (size_t start = 0; start <= uids.size();) {
        size_t end = uids.find('\\', start);
        if (end == std::string::npos) end = uids.size();
        list.where += list.values.empty() ? "?" : ",?";
        list.values.push_back(uids.substr(start, end - start));
        start = end + 1;
    }
    list.where += ")";
    out.push_back(list);
    Kind folded = makeKind("nameci", {0x00100010, "PN", "jones^john1*", {}},
                           "p.PatientNameFolded LIKE ? ESCAPE '!'", {"jones^john1%"});
    folded.options.caseInsensitivePersonNames = true;
    out.push_back(folded);
    return out;
}

const std::vector<uint32_t> kReturnKeys = {0x0020000D, 0x00100010, 0x00080020, 0x00080050};

// The floor: the hand-written statement, prepared once, with its values bound once, on the
// connection handle (which it borrows). It runs on the builder's own connection, so that both
// sides are served by the same server thread: on a machine with other work, one connection's
// server thread can sit for seconds on a busy core while another's has a core to itself, which
// would make the comparison one of thread placement.
class HandWritten {
  public:
    HandWritten(const Kind& kind, MYSQL* handle)
        : handle_(handle),
          sql_(
              "SELECT s.StudyInstanceUID, p.PatientName, s.StudyDate, s.AccessionNumber FROM "
              "PATIENT p JOIN STUDY s ON s.PatientKey = p.PatientKey WHERE " +
              kind.where + " ORDER BY s.StudyKey"),
          values_(kind.values) {
        const std::string& sql = sql_;
        stmt_ = mysql_stmt_init(handle_);
        if (mysql_stmt_prepare(stmt_, sql.c_str(), sql.size()) != 0)
            throw std::runtime_error(mysql_stmt_error(stmt_));
        params_.resize(values_.size());
        lengths_.resize(values_.size());
        for (size_t i = 0; i < values_.size(); ++i) {
            lengths_[i] = values_[i].size();
            params_[i].buffer_type = MYSQL_TYPE_STRING;
            params_[i].buffer = &values_[i][0];
            params_[i].buffer_length = values_[i].size();
            params_[i].length = &lengths_[i];
        }
        results_.resize(4);
        for (size_t i = 0; i < 4; ++i) {
            results_[i].buffer_type = MYSQL_TYPE_STRING;
            results_[i].buffer = buffers_[i];
            results_[i].buffer_length = sizeof buffers_[i];
            results_[i].length = &resultLengths_[i];
            results_[i].is_null = &nulls_[i];
        }
        mysql_stmt_bind_param(stmt_, params_.data());
        mysql_stmt_bind_result(stmt_, results_.data());
    }
    ~HandWritten() { mysql_stmt_close(stmt_); }
    size_t run() {
        if (mysql_stmt_execute(stmt_) != 0 || mysql_stmt_store_result(stmt_) != 0)
            throw std::runtime_error(mysql_stmt_error(stmt_));
        size_t rows = 0;
        std::vector<std::string> row(4);
        while (mysql_stmt_fetch(stmt_) == 0) {
            for (size_t i = 0; i < 4; ++i)
                row[i].assign(buffers_[i], nulls_[i] ? 0 : resultLengths_[i]);
            ++rows;
        }
        mysql_stmt_free_result(stmt_);
        return rows;
    }
    // The rows of one run, NULL as empty.
    std::vector<std::vector<std::string>> rows() {
        if (mysql_stmt_execute(stmt_) != 0 || mysql_stmt_store_result(stmt_) != 0)
            throw std::runtime_error(mysql_stmt_error(stmt_));
        std::vector<std::vector<std::string>> out;
        while (mysql_stmt_fetch(stmt_) == 0) {
            out.emplace_back();
            for (size_t i = 0; i < 4; ++i)
                out.back().emplace_back(buffers_[i], nulls_[i] ? 0 : resultLengths_[i]);
        }
        mysql_stmt_free_result(stmt_);
        return out;
    }

    // The server's plan for the statement with its values (EXPLAIN FORMAT=JSON).
    std::string plan() {
        const std::string sql = "EXPLAIN FORMAT=JSON " + sql_;
        MYSQL_STMT* explain = mysql_stmt_init(handle_);
        std::string text(1 << 16, '\0');
        unsigned long length = 0;
        MYSQL_BIND result{};
        result.buffer_type = MYSQL_TYPE_STRING;
        result.buffer = &text[0];
        result.buffer_length = text.size();
        result.length = &length;
        const bool ok = mysql_stmt_prepare(explain, sql.c_str(), sql.size()) == 0 &&
                        mysql_stmt_bind_param(explain, params_.data()) == 0 &&
                        mysql_stmt_bind_result(explain, &result) == 0 &&
                        mysql_stmt_execute(explain) == 0 && mysql_stmt_fetch(explain) == 0;
        const std::string error = ok ? "" : mysql_stmt_error(explain);
        mysql_stmt_close(explain);
        if (!ok) throw std::runtime_error(error);
        text.resize(std::min<size_t>(length, text.size()));
        return text;
    }

  private:
    MYSQL* handle_;
    std::string sql_;
    MYSQL_STMT* stmt_;
    std::vector<std::string> values_;
    std::vector<unsigned long> lengths_;
    std::vector<MYSQL_BIND> params_;
    std::vector<MYSQL_BIND> results_;
    char buffers_[4][256];
    unsigned long resultLengths_[4] = {};
    kelp::db::MysqlFlag nulls_[4] = {};
};

bool ready(benchmark::State& state) {
    static std::string error = [] {
        if (envText("MYSQL_UNIX_PORT").empty())
            return std::string("no private server: eval \"$(scripts/mariadb env DIR)\" first");
        try {
            loadOnce();
        } catch (const std::exception& e) {
            return std::string("cannot load the rows: ") + e.what();
        }
        return std::string();
    }();
    if (!error.empty()) state.SkipWithError(error.c_str());
    return error.empty();
}

const QueryMapping& mapping() {
    static const QueryMapping loaded = QueryMapping::load(RH_SOURCE_DIR "/db/query-mapping.cfg");
    return loaded;
}

QueryRequest requestFor(const Kind& kind) {
    QueryRequest request;
    request.level = QueryLevel::Study;
    request.keys = kind.keys;
    request.options = kind.options;
    request.returnKeys = kReturnKeys;
    return request;
}

// The builder's rows in the floor's text form (dates as 2020-01-01).
std::vector<std::vector<std::string>> asFloorRows(const QueryAnswer& answer) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& row : answer.rows) {
        rows.emplace_back();
        for (const auto& value : row) rows.back().push_back(value.value_or(""));
        std::string& date = rows.back()[2];
        if (date.size() == 8)
            date = date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6);
    }
    return rows;
}

// The indexes a plan reads through, in the plan's order.
std::vector<std::string> indexesOf(const std::string& plan) {
    std::vector<std::string> keys;
    const std::string marker = "\"key\": \"";
    for (size_t at = plan.find(marker); at != std::string::npos; at = plan.find(marker, at)) {
        at += marker.size();
        keys.push_back(plan.substr(at, plan.find('"', at) - at));
    }
    return keys;
}

// Calls per block so that one block of the floor lasts about kBlockSeconds.
template <class Body>
long callsPerBlock(Body& floor) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kWarmUp; ++i) floor();
    const double each =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / kWarmUp;
    return std::max(1L, std::min(5000L, static_cast<long>(kBlockSeconds / each)));
}

void BM_query(benchmark::State& state, int which) {
    if (!ready(state)) return;
    const Kind kind = kinds()[which];
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
    const QueryRequest request = requestFor(kind);
    try {
        const QueryAnswer first = raw->find(mapping(), request, 0);  // opens the connection
        HandWritten statement(kind,
                              dynamic_cast<DBConnectorSql&>(*connector).connectionEx().handle());
        if (asFloorRows(first) != statement.rows()) {
            state.SkipWithError("the builder and the hand-written statement differ in their rows");
            return;
        }
        const std::vector<std::string> indexes = indexesOf(raw->explain(mapping(), request));
        if (indexes.empty() || indexes != indexesOf(statement.plan())) {
            state.SkipWithError("the builder and the hand-written statement use other indexes");
            return;
        }
        size_t rows = 0;
        auto subject = [&] { rows = raw->find(mapping(), request, 0).rows.size(); };
        auto floor = [&] { benchmark::DoNotOptimize(statement.run()); };
        for (int i = 0; i < kWarmUp; ++i) subject();
        InterleaveOptions options;
        options.clock = BenchClock::Wall;  // the server's work is most of a search
        options.callsPerBlock = callsPerBlock(floor);
        for (auto _ : state) reportRatio(state, interleavedRatio(subject, floor, options));
        state.counters["rows"] = static_cast<double>(rows);
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

void BM_build(benchmark::State& state, int which) {
    const Kind kind = kinds()[which];
    const QueryRequest request = requestFor(kind);
    QuerySqlBuilder builder(mapping());
    for (auto _ : state) benchmark::DoNotOptimize(builder.build(request));
}

BENCHMARK_CAPTURE(BM_query, single, 0)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_query, prefix, 1)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_query, daterange, 2)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_query, uidlist, 3)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_query, nameci, 4)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_build, single, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_build, prefix, 1)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_build, daterange, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_build, uidlist, 3)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_build, nameci, 4)->Unit(benchmark::kMicrosecond);

}  // namespace

RH_BENCHMARK_MAIN();
