// The builder's answers against the reference matcher: random entities with awkward values
// (empty and absent attributes, spaces, non-ASCII names, dates on range bounds, midnight,
// negative offsets) on the private server, and thousands of random keys, each answered by SQL
// and by the in-memory rules; both must name the same entities in the same order.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "KeyParser.h"
#include "QueryScratchSchema.h"
#include "RawQueryDB.h"
#include "ReferenceMatcher.h"

using namespace kelp::db;

namespace {

using Optional = std::optional<std::string>;

const char* const kNames[] = {
    "Smith^John",  "SMITH^JOHN",   "smith^john",   "Smith^Jo hn",  "Иванов^Иван",
    "ИВАНОВ^ИВАН", "Élodie^Marie", "ELODIE^MARIE", "élodie^marie", "O'Brien^Pat",
    "50%_off^x",   "Zoë^Ā",        "Σοφία",        "ΣΟΦΊΑ",        "a",
    "A",           "Li^Na=李^娜"};
const char* const kDates[] = {"20231231", "20240101", "20240229", "20241231",
                              "20250101", "19991231", "20000101"};
const char* const kTimes[] = {"000000",   "235959.999999", "105959.999999", "110000",
                              "101500.5", "120000",        "000000.000001"};
const char* const kDateTimes[] = {"20240101000000", "20231231235959.999999", "20240229120000",
                                  "20241231230000", "20250101000000.000001", "20240615073000",
                                  "20240101050000"};
const char* const kOffsets[] = {"+0000", "-0500", "+0530", "+0900", "-1200", "+1400", "-0330"};
const int kOffsetMinutes[] = {0, -300, 330, 540, -720, 840, -210};
const char* const kCodes[] = {"CT", "MR", "US", "C", "CT ", "ct"};
const char* const kIds[] = {"P1", "P2", "p1", "P 1", "P%1", "P_1", "ID!7"};

std::string serverDate(const std::string& d) {
    return d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2);
}
std::string serverTime(const std::string& t) {
    return t.substr(0, 2) + ":" + t.substr(2, 2) + ":" + t.substr(4);
}
std::string serverDateTime(const std::string& dt) {
    return serverDate(dt.substr(0, 8)) + " " + serverTime(dt.substr(8));
}

struct Instance {
    std::string uid;
    Optional acquisition;
};
struct Series {
    std::string uid;
    Optional modality;
    std::vector<std::map<uint32_t, std::string>> requests;
    std::vector<Instance> instances;
};
struct Study {
    std::string uid;
    Optional patientName, patientId, date, time, accession, description;
    int offsetMinutes = 0;
    std::vector<Series> series;
};

class Generator {
  public:
    explicit Generator(unsigned seed) : random_(seed) {}

    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
    bool chance(int percent) { return below(100) < percent; }
    template <class T, size_t N>
    std::string pick(const T (&items)[N]) {
        return items[below(static_cast<int>(N))];
    }
    // An attribute that is absent, empty, or one of the given values.
    template <class T, size_t N>
    Optional attribute(const T (&items)[N]) {
        int roll = below(10);
        if (roll == 0) return std::nullopt;
        if (roll == 1) return std::string();
        return pick(items);
    }
    Optional temporal(const char* const* items, size_t n) {
        if (below(8) == 0) return std::nullopt;
        return std::string(items[below(static_cast<int>(n))]);
    }

    // A text key derived from the value pool: exact, case-changed or with wildcards.
    std::string textKey(const std::string& base) {
        std::string key = base;
        switch (below(6)) {
            case 0:
                return key;
            case 1:
                if (!key.empty()) key[below(static_cast<int>(key.size()))] = '?';
                return key;
            case 2:
                return key.substr(0, below(static_cast<int>(key.size()) + 1)) + "*";
            case 3:
                return "*" + key.substr(below(static_cast<int>(key.size()) + 1));
            case 4:
                return below(2) ? "*" : "";
            default:
                return "\"\"";
        }
    }
    template <size_t N>
    std::string rangeKey(const char* const (&items)[N], bool allowSingle = true) {
        std::string a = pick(items), b = pick(items);
        if (b < a) std::swap(a, b);
        switch (below(allowSingle ? 5 : 4)) {
            case 0:
                return a + "-" + b;
            case 1:
                return "-" + b;
            case 2:
                return a + "-";
            case 3:
                return below(2) ? "" : "\"\"";
            default:
                return a;
        }
    }
    // A time key at a random precision (HH, HHMM, HHMMSS or with a fraction).
    std::string timeKey() {
        std::string t = pick(kTimes);
        int cut = below(4);
        std::string shortened = cut == 0   ? t.substr(0, 2)
                                : cut == 1 ? t.substr(0, 4)
                                : cut == 2 ? t.substr(0, 6)
                                           : t;
        return shortened;
    }
    std::string dateTimeBound() {
        std::string dt = pick(kDateTimes);
        static const size_t kCuts[] = {4, 6, 8, 10, 12, 14};
        size_t cut = kCuts[below(6)];
        std::string out = dt.substr(0, std::min(cut, dt.size()));
        if (chance(40)) out += pick(kOffsets);
        return out;
    }
    std::mt19937& engine() { return random_; }

  private:
    std::mt19937 random_;
};

class QueryProperty : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        schema = std::make_unique<QueryScratchSchema>(std::string(RH_TEST_SOURCE_DIR) +
                                                      "/db/query-mapping.cfg");
        connector.reset(DBConnector::createConnector(false));
        raw.reset(connector->createRawQuery());
    }

    void load(Generator& g, int studies) {
        for (int s = 0; s < studies; ++s) {
            Study study;
            study.uid = "1.2." + std::to_string(s);
            study.patientName = g.attribute(kNames);
            study.patientId = g.attribute(kIds);
            study.date = g.temporal(kDates, std::size(kDates));
            study.time = g.temporal(kTimes, std::size(kTimes));
            study.accession = g.attribute(kIds);
            study.description = g.attribute(kNames);
            study.offsetMinutes = kOffsetMinutes[g.below(std::size(kOffsetMinutes))];
            int64_t patient = schema->insert(
                "PATIENT", {{"PatientName", study.patientName}, {"PatientID", study.patientId}});
            Optional date = study.date ? Optional(serverDate(*study.date)) : std::nullopt;
            Optional time = study.time ? Optional(serverTime(*study.time)) : std::nullopt;
            int64_t studyKey = schema->insert(
                "STUDY", {{"PatientKey", std::to_string(patient)},
                          {"StudyInstanceUID", study.uid},
                          {"StudyDate", date},
                          {"StudyTime", time},
                          {"AccessionNumber", study.accession},
                          {"StudyDescription", study.description},
                          {"TimezoneOffsetFromUTC", std::to_string(study.offsetMinutes)}});
            int seriesCount = 1 + g.below(2);
            for (int r = 0; r < seriesCount; ++r) {
                Series series;
                series.uid = study.uid + "." + std::to_string(r);
                series.modality = g.attribute(kCodes);
                int64_t seriesKey =
                    schema->insert("SERIES", {{"StudyKey", std::to_string(studyKey)},
                                              {"SeriesInstanceUID", series.uid},
                                              {"Modality", series.modality}});
                int items = g.below(3);
                for (int i = 0; i < items; ++i) {
                    Optional id = g.attribute(kIds), accession = g.attribute(kIds);
                    std::map<uint32_t, std::string> item;
                    if (id) item[0x00401001] = *id;
                    if (accession) item[0x00080050] = *accession;
                    series.requests.push_back(item);
                    schema->insert("SERIESREQUEST", {{"SeriesKey", std::to_string(seriesKey)},
                                                     {"RequestedProcedureID", id},
                                                     {"AccessionNumber", accession}});
                }
                int instances = 1 + g.below(2);
                for (int i = 0; i < instances; ++i) {
                    Instance instance;
                    instance.uid = series.uid + "." + std::to_string(i);
                    instance.acquisition = g.temporal(kDateTimes, std::size(kDateTimes));
                    schema->insert(
                        "INSTANCE",
                        {{"SeriesKey", std::to_string(seriesKey)},
                         {"SOPInstanceUID", instance.uid},
                         {"AcquisitionDateTime",
                          instance.acquisition ? Optional(serverDateTime(*instance.acquisition))
                                               : std::nullopt}});
                    series.instances.push_back(instance);
                }
                study.series.push_back(series);
            }
            studies_.push_back(study);
        }
    }

    // Every entity of the level, in key order, as the matcher sees it, with its UID.
    std::vector<std::pair<std::string, ReferenceEntity>> entities(QueryLevel level) const {
        std::vector<std::pair<std::string, ReferenceEntity>> out;
        for (const Study& study : studies_) {
            ReferenceEntity entity;
            entity.offsetMinutes = study.offsetMinutes;
            auto put = [&](uint32_t tag, const Optional& value) {
                if (value) entity.values[tag] = *value;
            };
            put(0x00100010, study.patientName);
            put(0x00100020, study.patientId);
            put(0x0020000D, study.uid);
            put(0x00080020, study.date);
            put(0x00080030, study.time);
            put(0x00080050, study.accession);
            put(0x00081030, study.description);
            if (level == QueryLevel::Study) {
                out.emplace_back(study.uid, entity);
                continue;
            }
            for (const Series& series : study.series) {
                ReferenceEntity seriesEntity = entity;
                seriesEntity.values[0x0020000E] = series.uid;
                if (series.modality) seriesEntity.values[0x00080060] = *series.modality;
                seriesEntity.sequences[0x00400275] = series.requests;
                for (const Instance& instance : series.instances) {
                    ReferenceEntity instanceEntity = seriesEntity;
                    instanceEntity.values[0x00080018] = instance.uid;
                    if (instance.acquisition)
                        instanceEntity.values[0x0008002A] = *instance.acquisition;
                    out.emplace_back(instance.uid, instanceEntity);
                }
            }
        }
        return out;
    }

    QueryRequest randomRequest(Generator& g) {
        QueryRequest request;
        request.level = g.chance(60) ? QueryLevel::Study : QueryLevel::Instance;
        request.options.caseInsensitivePersonNames = g.chance(50);
        request.options.emptyValueMatching = g.chance(50);
        request.options.combinedDateTime = g.chance(50);
        request.options.timezoneAdjustment = g.chance(30);
        request.options.timezoneOffset = g.pick(kOffsets);
        int keys = 1 + g.below(3);
        for (int k = 0; k < keys; ++k) request.keys.push_back(randomKey(g, request.level));
        request.returnKeys = {request.level == QueryLevel::Study ? 0x0020000Du : 0x00080018u};
        if (g.chance(30)) {
            request.limit = 1 + g.below(5);
            request.offset = g.below(4);
        }
        return request;
    }

    MatchingKey randomKey(Generator& g, QueryLevel level) {
        int kinds = level == QueryLevel::Study ? 8 : 11;
        switch (g.below(kinds)) {
            case 0:
                return {0x00100010, "PN", g.textKey(g.pick(kNames)), {}};
            case 1:
                return {0x00100020, "LO", g.textKey(g.pick(kIds)), {}};
            case 2:
                return {0x00080020, "DA", g.rangeKey(kDates), {}};
            case 3:
                return {0x00080030, "TM", timeRange(g), {}};
            case 4:
                return {0x00080050, "SH", g.textKey(g.pick(kIds)), {}};
            case 5:
                return {0x00081030, "LO", g.textKey(g.pick(kNames)), {}};
            case 6: {
                std::string list;
                int n = 1 + g.below(4);
                for (int i = 0; i < n; ++i)
                    list += (i ? "\\" : "") + std::string("1.2.") +
                            std::to_string(g.below(static_cast<int>(studies_.size()) + 3));
                return {0x0020000D, "UI", list, {}};
            }
            case 7:
                return {0x00080020, "DA", g.rangeKey(kDates), {}};
            case 8:
                return {0x00080060, "CS", g.textKey(g.pick(kCodes)), {}};
            case 9: {
                std::string a = g.dateTimeBound(), b = g.dateTimeBound();
                int form = g.below(4);
                std::string value = form == 0   ? a
                                    : form == 1 ? a + "-"
                                    : form == 2 ? "-" + b
                                                : a + "-" + b;
                return {0x0008002A, "DT", value, {}};
            }
            default: {
                MatchingKey sequence{0x00400275, "SQ", "", {}};
                sequence.item.push_back({0x00401001, "SH", g.textKey(g.pick(kIds)), {}});
                if (g.chance(50))
                    sequence.item.push_back({0x00080050, "SH", g.textKey(g.pick(kIds)), {}});
                return sequence;
            }
        }
    }

    std::string timeRange(Generator& g) {
        std::string a = g.timeKey(), b = g.timeKey();
        if (b < a) std::swap(a, b);
        switch (g.below(4)) {
            case 0:
                return a + "-" + b;
            case 1:
                return "-" + b;
            case 2:
                return a + "-";
            default:
                return a;
        }
    }

    std::vector<Study> studies_;
    std::unique_ptr<QueryScratchSchema> schema;
    std::unique_ptr<DBConnector> connector;
    std::unique_ptr<RawQueryDB> raw;
};

std::string describe(const QueryRequest& request) {
    std::string text = QueryMapping::levelName(request.level);
    for (const MatchingKey& key : request.keys) {
        text += " " + KeyParser::tagName(key.tag) + "=" + key.value;
        for (const MatchingKey& item : key.item)
            text += " [" + KeyParser::tagName(item.tag) + "=" + item.value + "]";
    }
    const QueryOptions& o = request.options;
    text += std::string(" ci=") + (o.caseInsensitivePersonNames ? "1" : "0") +
            " empty=" + (o.emptyValueMatching ? "1" : "0") +
            " combined=" + (o.combinedDateTime ? "1" : "0") +
            " tz=" + (o.timezoneAdjustment ? o.timezoneOffset : "off") +
            " limit=" + std::to_string(request.limit) + " offset=" + std::to_string(request.offset);
    return text;
}

int envInt(const char* name, int fallback) {
    const char* text = getenv(name);
    return text && *text ? atoi(text) : fallback;
}

}  // namespace

TEST_F(QueryProperty, builderAndReferenceMatcherAgreeOnThousandsOfRandomKeys) {
    const unsigned seed = static_cast<unsigned>(envInt("RH_QUERY_SEED", std::random_device{}()));
    const int rounds = envInt("RH_QUERY_KEYS", 2000);
    SCOPED_TRACE("seed " + std::to_string(seed) + " (RH_QUERY_SEED repeats a run)");
    Generator g(seed);
    load(g, envInt("RH_QUERY_STUDIES", 120));
    const auto studyEntities = entities(QueryLevel::Study);
    const auto instanceEntities = entities(QueryLevel::Instance);

    int refused = 0, nonEmpty = 0;
    for (int round = 0; round < rounds; ++round) {
        QueryRequest request = randomRequest(g);
        std::vector<MatchNode> nodes;
        try {
            std::vector<uint32_t> unused;
            nodes = KeyParser(schema->mapping(), request.options).parse(request.keys, unused);
        } catch (const DBException& e) {
            ++refused;
            EXPECT_THROW(raw->find(schema->mapping(), request, 0), DBException) << e.what();
            continue;
        }
        std::vector<std::string> expected;
        uint64_t skipped = 0;
        const auto& all = request.level == QueryLevel::Study ? studyEntities : instanceEntities;
        for (const auto& entity : all) {
            if (!ReferenceMatcher::matches(nodes, entity.second)) continue;
            if (skipped++ < request.offset) continue;
            if (request.limit > 0 && expected.size() >= request.limit) break;
            expected.push_back(entity.first);
        }
        std::vector<std::string> actual;
        try {
            for (const auto& row : raw->find(schema->mapping(), request, 0).rows)
                actual.push_back(row[0].value_or("(none)"));
        } catch (const DBException& e) {
            ADD_FAILURE() << describe(request) << ": " << e.what();
            continue;
        }
        if (!expected.empty()) ++nonEmpty;
        ASSERT_EQ(expected, actual) << describe(request);
    }
    // The random keys must mostly be valid and mostly find something, or they prove little.
    EXPECT_LT(refused, rounds / 5);
    EXPECT_GT(nonEmpty, rounds / 3);
    RecordProperty("refused", refused);
    RecordProperty("nonEmpty", nonEmpty);
}
