// The query builder against hand-written SQL, on 100,000 studies with 1,000,000 instances in the
// private server of scripts/mariadb (loaded once, server-side, into the example tables). Each
// kind of search (single value, prefix wildcard, date range, UID list of 1,000, case-insensitive
// person name) runs through RawQueryDB::find and, as its floor, as a hand-written statement for
// the same match, prepared once on a bare client connection, with the same values bound and the
// same columns returned. BM_build measures the builder's own cost per query (parsing and SQL
// generation, no server). Ratios are of wall-clock time; run it with --benchmark_repetitions=5
// for medians and spread.
//
// Needs the environment printed by "scripts/mariadb env DIR" and administrator access over the
// socket (to size the buffer pool and load the rows); skips with a message without them.

#include <benchmark/benchmark.h>
#include <mysql.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "MysqlCompat.h"
#include "QueryMapping.h"
#include "QuerySqlBuilder.h"
#include "RawQueryDB.h"

namespace {

using namespace kelp::db;

constexpr int kStudies = 100000;
constexpr int kPatients = 50000;
constexpr int kSeries = 200000;
constexpr int kInstances = 1000000;
// Runs before timing, so that neither side pays for reading cold pages into the buffer pool.
constexpr int kWarmUp = 20;

std::string envText(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
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

// Fills the example tables once, on the server from its sequence tables; later runs reuse them.
void loadOnce() {
    MYSQL* root = connectAs("root");
    exec(root, "SET GLOBAL innodb_buffer_pool_size = 512 * 1024 * 1024");
    if (count(root, "SELECT COUNT(*) FROM INSTANCE") >= kInstances) {
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

// The floor: the hand-written statement, prepared once on a bare connection.
class HandWritten {
  public:
    explicit HandWritten(const Kind& kind) : values_(kind.values) {
        handle_ = connectAs(envText("MED_USER").c_str());
        std::string sql =
            "SELECT s.StudyInstanceUID, p.PatientName, s.StudyDate, s.AccessionNumber FROM "
            "PATIENT p JOIN STUDY s ON s.PatientKey = p.PatientKey WHERE " +
            kind.where + " ORDER BY s.StudyKey";
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
    ~HandWritten() {
        mysql_stmt_close(stmt_);
        mysql_close(handle_);
    }
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

  private:
    MYSQL* handle_;
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

void BM_query(benchmark::State& state) {
    if (!ready(state)) return;
    const Kind kind = kinds()[state.range(0)];
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
    const QueryRequest request = requestFor(kind);
    size_t rows = 0;
    for (int i = 0; i < kWarmUp; ++i) raw->find(mapping(), request, 0);
    for (auto _ : state) rows = raw->find(mapping(), request, 0).rows.size();
    state.SetLabel(kind.name);
    state.counters["rows"] = static_cast<double>(rows);
}

void BM_floor_query(benchmark::State& state) {
    if (!ready(state)) return;
    const Kind kind = kinds()[state.range(0)];
    HandWritten statement(kind);
    size_t rows = 0;
    for (int i = 0; i < kWarmUp; ++i) statement.run();
    for (auto _ : state) rows = statement.run();
    state.SetLabel(kind.name);
    state.counters["rows"] = static_cast<double>(rows);
}

void BM_build(benchmark::State& state) {
    const Kind kind = kinds()[state.range(0)];
    const QueryRequest request = requestFor(kind);
    QuerySqlBuilder builder(mapping());
    for (auto _ : state) benchmark::DoNotOptimize(builder.build(request));
    state.SetLabel(kind.name);
}

// 0 single value, 1 prefix wildcard, 2 date range, 3 UID list of 1,000, 4 case-insensitive name.
BENCHMARK(BM_floor_query)
    ->DenseRange(0, 4)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->UseRealTime();
BENCHMARK(BM_query)->DenseRange(0, 4)->Unit(benchmark::kMicrosecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_build)->DenseRange(0, 4)->Unit(benchmark::kMicrosecond);

// The searches wait on the server, so their ratios are of wall-clock time, not of this process's
// CPU time: after the usual table, each BM_query/N against BM_floor_query/N.
class RealTimeRatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With --benchmark_repetitions the median of the repetitions stands for the benchmark.
        for (const Run& run : runs) {
            const std::string name = run.run_name.str();
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                times_[name] = {run.GetAdjustedRealTime(), run.report_label};
                medians_.insert(name);
            } else if (run.run_type == Run::RT_Iteration && run.iterations > 0 &&
                       !medians_.count(name)) {
                times_[name] = {run.GetAdjustedRealTime(), run.report_label};
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-12s %14s %14s %8s\n", "search", "builder us", "hand SQL us", "x floor");
        for (const auto& [name, entry] : times_) {
            if (name.rfind("BM_query/", 0) != 0) continue;
            auto floor = times_.find("BM_floor_" + name.substr(3));
            if (floor == times_.end()) continue;
            std::printf("%-12s %14.1f %14.1f %8.2f\n", entry.second.c_str(), entry.first,
                        floor->second.first, entry.first / floor->second.first);
        }
    }

  private:
    std::map<std::string, std::pair<double, std::string>> times_;
    std::set<std::string> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RealTimeRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
