// Searches built from DICOM matching keys, run by RawQueryDB on the private server.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "DBConnector.h"
#include "DBException.h"
#include "DbTestEnv.h"
#include "QueryScratchSchema.h"
#include "RawQueryDB.h"

using namespace kelp::db;

namespace {

class QueryFind : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        schema = std::make_unique<QueryScratchSchema>(std::string(RH_TEST_SOURCE_DIR) +
                                                      "/db/query-mapping.cfg");
        connector.reset(DBConnector::createConnector(false));
        raw.reset(connector->createRawQuery());
    }

    int64_t patient(const std::optional<std::string>& name, const std::string& id = "P") {
        return schema->insert("PATIENT", {{"PatientName", name}, {"PatientID", id}});
    }
    int64_t study(int64_t patientKey, const std::string& uid,
                  QueryScratchSchema::Values more = {}) {
        more["PatientKey"] = std::to_string(patientKey);
        more["StudyInstanceUID"] = uid;
        return schema->insert("STUDY", more);
    }

    // The Study Instance UIDs of the studies that match keys, in answer order.
    std::vector<std::string> studyUids(std::vector<MatchingKey> keys, QueryOptions options = {},
                                       uint64_t limit = 0, uint64_t offset = 0) {
        QueryRequest request;
        request.level = QueryLevel::Study;
        request.keys = std::move(keys);
        request.returnKeys = {0x0020000D};
        request.options = options;
        request.limit = limit;
        request.offset = offset;
        QueryAnswer answer = raw->find(schema->mapping(), request, 0);
        std::vector<std::string> uids;
        for (const auto& row : answer.rows) uids.push_back(row[0].value_or("(none)"));
        return uids;
    }

    std::unique_ptr<QueryScratchSchema> schema;
    std::unique_ptr<DBConnector> connector;
    std::unique_ptr<RawQueryDB> raw;
};

using Uids = std::vector<std::string>;

}  // namespace

TEST_F(QueryFind, singleValuesMatchExactlyAndCaseInsensitiveNamesFoldOnlyLetterCase) {
    study(patient("Smith^John"), "1.1");
    study(patient("SMITH^JOHN"), "1.2");
    study(patient("Smith^John "), "1.3");  // stored unpadded by a proper loader: a different name
    study(patient("Иванов^Иван"), "1.4");
    study(patient("Ívanov^Ivan"), "1.5");
    study(patient(std::nullopt), "1.6");
    EXPECT_EQ(Uids({"1.1"}), studyUids({{0x00100010, "PN", "Smith^John", {}}}));
    QueryOptions folded;
    folded.caseInsensitivePersonNames = true;
    EXPECT_EQ(Uids({"1.1", "1.2"}), studyUids({{0x00100010, "PN", "smith^john", {}}}, folded));
    EXPECT_EQ(Uids({"1.4"}), studyUids({{0x00100010, "PN", "ИВАНОВ*", {}}}, folded));
    EXPECT_EQ(Uids({"1.5"}), studyUids({{0x00100010, "PN", "ív*", {}}}, folded));
    EXPECT_EQ(Uids({"1.1", "1.2", "1.3", "1.4", "1.5", "1.6"}),
              studyUids({{0x00100010, "PN", "*", {}}}));
}

TEST_F(QueryFind, looseMatchesAreRecheckedBeforeLimitAndOffsetSoNoMatchIsCutOff) {
    // Sixty accented names that the accent-insensitive folded copy finds but that differ from
    // the key by more than letter case, then the one real match.
    for (int i = 0; i < 60; ++i)
        study(patient("Élodie^" + std::to_string(i)), "2." + std::to_string(i));
    study(patient("ELODIE^Real"), "2.100");
    study(patient("elodie^Other"), "2.101");
    QueryOptions folded;
    folded.caseInsensitivePersonNames = true;
    EXPECT_EQ(Uids({"2.100"}), studyUids({{0x00100010, "PN", "Elodie^*", {}}}, folded, 1));
    EXPECT_EQ(Uids({"2.101"}), studyUids({{0x00100010, "PN", "Elodie^*", {}}}, folded, 5, 1));
}

TEST_F(QueryFind, wildcardsTreatPercentUnderscoreAndTheEscapeCharacterLiterally) {
    int64_t p = patient("X");
    study(p, "3.1", {{"StudyDescription", "50% off_now!"}});
    study(p, "3.2", {{"StudyDescription", "50X offXnow!"}});
    study(p, "3.3", {{"StudyDescription", "5"}});
    EXPECT_EQ(Uids({"3.1"}), studyUids({{0x00081030, "LO", "50% off_*", {}}}));
    EXPECT_EQ(Uids({"3.1", "3.2"}), studyUids({{0x00081030, "LO", "50? off?now!", {}}}));
    EXPECT_EQ(Uids({"3.1", "3.2"}), studyUids({{0x00081030, "LO", "*!", {}}}));
    EXPECT_EQ(Uids({}), studyUids({{0x00081030, "LO", "5?", {}}}));
}

TEST_F(QueryFind, dateAndTimeRangesIncludeTheWholeOfTheirLastUnit) {
    int64_t p = patient("X");
    study(p, "4.1", {{"StudyDate", "2024-12-31"}, {"StudyTime", "10:59:59.999999"}});
    study(p, "4.2", {{"StudyDate", "2025-01-01"}, {"StudyTime", "11:00:00"}});
    study(p, "4.3", {{"StudyDate", "2024-12-30"}, {"StudyTime", "00:00:00"}});
    study(p, "4.4", {});
    EXPECT_EQ(Uids({"4.1", "4.3"}), studyUids({{0x00080020, "DA", "-20241231", {}}}));
    EXPECT_EQ(Uids({"4.1", "4.2"}), studyUids({{0x00080020, "DA", "20241231-", {}}}));
    EXPECT_EQ(Uids({"4.1", "4.3"}), studyUids({{0x00080030, "TM", "-10", {}}}));
    EXPECT_EQ(Uids({"4.1"}), studyUids({{0x00080030, "TM", "1059", {}}}));
    QueryOptions combined;
    combined.combinedDateTime = true;
    // One instant from 2024-12-30 10:00 to 2025-01-01 10:59:59.999999.
    EXPECT_EQ(Uids({"4.1"}), studyUids({{0x00080020, "DA", "20241230-20250101", {}},
                                        {0x00080030, "TM", "1000-1059", {}}},
                                       combined));
    // Without the option each key matches by itself.
    EXPECT_EQ(Uids({"4.1"}), studyUids({{0x00080020, "DA", "20241230-20250101", {}},
                                        {0x00080030, "TM", "1000-1059", {}}}));
}

TEST_F(QueryFind, dateTimesWithOffsetsCompareAsInstantsInTheEntitysOwnOffset) {
    int64_t p = patient("X");
    // The same instant, 2024-06-01 12:00 UTC, recorded in New York (-0400) and in Tokyo (+0900).
    int64_t newYork = study(p, "5.1", {{"TimezoneOffsetFromUTC", "-240"}});
    int64_t tokyo = study(p, "5.2", {{"TimezoneOffsetFromUTC", "540"}});
    int64_t nySeries = schema->insert(
        "SERIES", {{"StudyKey", std::to_string(newYork)}, {"SeriesInstanceUID", "5.1.1"}});
    int64_t tkSeries = schema->insert(
        "SERIES", {{"StudyKey", std::to_string(tokyo)}, {"SeriesInstanceUID", "5.2.1"}});
    schema->insert("INSTANCE", {{"SeriesKey", std::to_string(nySeries)},
                                {"SOPInstanceUID", "5.1.1.1"},
                                {"AcquisitionDateTime", "2024-06-01 08:00:00"}});
    schema->insert("INSTANCE", {{"SeriesKey", std::to_string(tkSeries)},
                                {"SOPInstanceUID", "5.2.1.1"},
                                {"AcquisitionDateTime", "2024-06-01 21:00:00"}});
    auto instances = [&](const std::string& value, QueryOptions options = {}) {
        QueryRequest request;
        request.level = QueryLevel::Instance;
        request.keys = {{0x0008002A, "DT", value, {}}};
        request.returnKeys = {0x00080018};
        request.options = options;
        std::set<std::string> uids;
        for (const auto& row : raw->find(schema->mapping(), request, 0).rows) uids.insert(*row[0]);
        return uids;
    };
    using Set = std::set<std::string>;
    EXPECT_EQ(Set({"5.1.1.1"}), instances("2024060108"));
    EXPECT_EQ(Set({"5.1.1.1", "5.2.1.1"}), instances("20240601070000-0500"));
    EXPECT_EQ(Set({"5.1.1.1", "5.2.1.1"}), instances("202406011200+0000-202406011200+0000"));
    EXPECT_EQ(Set({}), instances("202406011201+0000-"));
    QueryOptions utc;
    utc.timezoneAdjustment = true;
    utc.timezoneOffset = "+0000";
    EXPECT_EQ(Set({"5.1.1.1", "5.2.1.1"}), instances("2024060112", utc));
    EXPECT_EQ(Set({}), instances("2024060108", utc));
}

TEST_F(QueryFind, uidListsOfThousandsAndEmptyValueMatchingFindExactlyTheirEntities) {
    int64_t p = patient("X");
    study(p, "6.1", {{"AccessionNumber", ""}});
    study(p, "6.2", {});
    study(p, "6.3", {{"AccessionNumber", "A1"}});
    std::string uids = "6.3";
    for (int i = 0; i < 3000; ++i) uids += "\\9.9." + std::to_string(i);
    uids += "\\6.1";
    EXPECT_EQ(Uids({"6.1", "6.3"}), studyUids({{0x0020000D, "UI", uids, {}}}));
    QueryOptions empty;
    empty.emptyValueMatching = true;
    EXPECT_EQ(Uids({"6.1", "6.2"}), studyUids({{0x00080050, "SH", "\"\"", {}}}, empty));
    EXPECT_EQ(Uids({}), studyUids({{0x00080050, "SH", "\"\"", {}}}));
}

TEST_F(QueryFind, aSequenceMatchesWhenOneItemMatchesEveryKeyOfTheQueryItem) {
    int64_t st = study(patient("X"), "7.1");
    int64_t first = schema->insert(
        "SERIES", {{"StudyKey", std::to_string(st)}, {"SeriesInstanceUID", "7.1.1"}});
    int64_t second = schema->insert(
        "SERIES", {{"StudyKey", std::to_string(st)}, {"SeriesInstanceUID", "7.1.2"}});
    schema->insert("SERIESREQUEST", {{"SeriesKey", std::to_string(first)},
                                     {"RequestedProcedureID", "RP1"},
                                     {"AccessionNumber", "A9"}});
    schema->insert("SERIESREQUEST", {{"SeriesKey", std::to_string(second)},
                                     {"RequestedProcedureID", "RP1"},
                                     {"AccessionNumber", "A1"}});
    schema->insert("SERIESREQUEST", {{"SeriesKey", std::to_string(second)},
                                     {"RequestedProcedureID", "RP2"},
                                     {"AccessionNumber", "A9"}});
    QueryRequest request;
    request.level = QueryLevel::Series;
    request.keys = {
        {0x00400275, "SQ", "", {{0x00401001, "SH", "RP?", {}}, {0x00080050, "SH", "A9", {}}}}};
    request.returnKeys = {0x0020000E};
    QueryAnswer answer = raw->find(schema->mapping(), request, 0);
    ASSERT_EQ(2u, answer.rows.size());
    request.keys[0].item[0].value = "RP1";
    answer = raw->find(schema->mapping(), request, 0);
    ASSERT_EQ(1u, answer.rows.size());
    EXPECT_EQ("7.1.1", *answer.rows[0][0]);
}

TEST_F(QueryFind, answersCarryReturnValuesInDicomFormAndNameKeysWithoutColumn) {
    int64_t p = schema->insert(
        "PATIENT",
        {{"PatientName", "Doe^Jane"}, {"PatientID", "P7"}, {"PatientBirthDate", "1970-02-03"}});
    study(p, "8.1", {{"StudyDate", "2024-01-02"}, {"StudyTime", "01:02:03.5"}});
    QueryRequest request;
    request.level = QueryLevel::Study;
    request.keys = {{0x00100020, "LO", "P7", {}}, {0x00321032, "PN", "X", {}}};
    request.returnKeys = {0x0020000D, 0x00100030, 0x00080020, 0x00080030, 0x00081030, 0x7FE00010};
    QueryAnswer answer = raw->find(schema->mapping(), request, 30);
    ASSERT_EQ(1u, answer.rows.size());
    const auto& row = answer.rows[0];
    EXPECT_EQ("8.1", *row[0]);
    EXPECT_EQ("19700203", *row[1]);
    EXPECT_EQ("20240102", *row[2]);
    EXPECT_EQ("010203.500000", *row[3]);
    EXPECT_FALSE(row[4]);
    EXPECT_FALSE(row[5]);
    EXPECT_EQ((std::vector<uint32_t>{0x00321032, 0x7FE00010}), answer.unusedKeys);
    EXPECT_EQ(0, schema->admin().number(
                     "SELECT COUNT(*) FROM QueryTimeLimit WHERE PROCESSID = CONNECTION_ID()"));
}

TEST_F(QueryFind, datesAndTimesArriveAsDicomTextAndAReturnKeyAskedTwiceIsAnsweredTwice) {
    int64_t s = study(patient("Doe^Jane"), "8.2", {{"StudyTime", "23:59:59.999999"}});
    int64_t series =
        schema->insert("SERIES", {{"StudyKey", std::to_string(s)}, {"SeriesInstanceUID", "8.2.1"}});
    schema->insert("INSTANCE", {{"SeriesKey", std::to_string(series)},
                                {"SOPInstanceUID", "8.2.1.1"},
                                {"AcquisitionDateTime", "2024-02-29 00:00:00.000001"}});
    QueryRequest request;
    request.level = QueryLevel::Instance;
    request.keys = {{0x00100010, "PN", "doe^j*", {}}};
    request.options.caseInsensitivePersonNames = true;  // re-checks the name column
    request.returnKeys = {0x0008002A, 0x00080020, 0x00080030, 0x00100010, 0x00100010};
    QueryAnswer answer = raw->find(schema->mapping(), request, 0);
    ASSERT_EQ(1u, answer.rows.size());
    const auto& row = answer.rows[0];
    ASSERT_EQ(5u, row.size());
    EXPECT_EQ("20240229000000.000001", row[0].value_or("(none)"));
    EXPECT_FALSE(row[1]) << *row[1];  // no study date: absent, not a zero date
    EXPECT_EQ("235959.999999", row[2].value_or("(none)"));
    EXPECT_EQ("Doe^Jane", row[3].value_or("(none)"));
    EXPECT_EQ("Doe^Jane", row[4].value_or("(none)"));
}

TEST_F(QueryFind, aKeyThatCannotBeMatchedIsADbExceptionNamingIt) {
    try {
        studyUids({{0x00080020, "DA", "2024-13-01", {}}});
        FAIL() << "a malformed date was matched";
    } catch (const DBException& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("(0008,0020)")) << e.what();
    }
}

TEST_F(QueryFind, searchesOfOneShapeArePreparedOnceAndSurviveALostConnection) {
    study(patient("A"), "9.1");
    study(patient("B"), "9.2");
    auto sessionValue = [&](const std::string& sql) {
        std::vector<std::vector<SqlField>> rows;
        raw->executeQuery(sql, 0, rows);
        return rows.at(0).back().value();
    };
    const long before = std::stol(sessionValue("SHOW SESSION STATUS LIKE 'Com_stmt_prepare'"));
    EXPECT_EQ(Uids({"9.1"}), studyUids({{0x0020000D, "UI", "9.1", {}}}));
    EXPECT_EQ(Uids({"9.2"}), studyUids({{0x0020000D, "UI", "9.2", {}}}));
    EXPECT_EQ(Uids({"9.1"}), studyUids({{0x0020000D, "UI", "9.1", {}}}));
    EXPECT_EQ(1, std::stol(sessionValue("SHOW SESSION STATUS LIKE 'Com_stmt_prepare'")) - before);

    // A second shape in the cache: both statements of the lost connection are dropped.
    EXPECT_EQ(Uids({"9.1"}), studyUids({{0x00100010, "PN", "A", {}}}));
    schema->admin().exec("KILL CONNECTION " + sessionValue("SELECT CONNECTION_ID()"));
    EXPECT_EQ(Uids({"9.2"}), studyUids({{0x0020000D, "UI", "9.2", {}}}));
    EXPECT_EQ(Uids({"9.2"}), studyUids({{0x00100010, "PN", "B", {}}}));
}
