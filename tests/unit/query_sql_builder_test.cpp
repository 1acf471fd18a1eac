// The SQL of a search: values only ever as bound parameters, index-friendly conditions, LIKE
// patterns escaped with an explicit escape character, UID lists in chunks, loose conditions
// re-checked, and refusals for keys the schema's levels cannot serve.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "DBException.h"
#include "QueryMapping.h"
#include "QuerySqlBuilder.h"

using namespace kelp::db;

namespace {

const QueryMapping& mapping() {
    static const QueryMapping loaded =
        QueryMapping::load(std::string(RH_TEST_SOURCE_DIR) + "/db/query-mapping.cfg");
    return loaded;
}

QueryRequest studies(std::vector<MatchingKey> keys) {
    QueryRequest request;
    request.level = QueryLevel::Study;
    request.keys = std::move(keys);
    request.returnKeys = {0x0020000D, 0x00100010};
    return request;
}

size_t markers(const std::string& sql) {
    return std::count(sql.begin(), sql.end(), '?');
}

}  // namespace

TEST(QuerySqlBuilder, valuesAreBoundAndNeverPartOfTheStatementText) {
    const std::string hostile = "x' OR '1'='1'; DROP TABLE STUDY; -- \"";
    QueryRequest request = studies({{0x00100020, "LO", hostile, {}},
                                    {0x00081030, "LO", "*" + hostile + "?", {}},
                                    {0x0020000D, "UI", "1.2.3\\1.2.4", {}}});
    request.limit = 10;
    BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
    EXPECT_EQ(std::string::npos, built.sql.find("DROP"));
    EXPECT_EQ(std::string::npos, built.sql.find("1.2.3"));
    EXPECT_EQ(markers(built.sql), built.params.size());
    EXPECT_EQ(hostile, built.params[0].text);
    EXPECT_NE(std::string::npos, built.sql.find("l1.`StudyInstanceUID` IN (?,?)"));
    EXPECT_TRUE(built.limitedInSql);
    EXPECT_NE(std::string::npos, built.sql.find("ORDER BY l1.`StudyKey` LIMIT ? OFFSET ?"));
    EXPECT_NE(std::string::npos,
              built.sql.find("FROM `PATIENT` l0 JOIN `STUDY` l1 ON l1.`PatientKey` = "
                             "l0.`PatientKey`"));
}

TEST(QuerySqlBuilder, wildcardsBecomeLikeWithEscapedPercentUnderscoreAndEscapeCharacter) {
    BuiltQuery built =
        QuerySqlBuilder(mapping()).build(studies({{0x00081030, "LO", "50%_a!b*c?", {}}}));
    EXPECT_NE(std::string::npos, built.sql.find("l1.`StudyDescription` LIKE ? ESCAPE '!'"));
    ASSERT_EQ(1u, built.params.size());
    EXPECT_EQ("50!%!_a!!b%c_", built.params[0].text);
}

TEST(QuerySqlBuilder, longUidListsAreSplitIntoChunksAndAbsurdOnesRefused) {
    std::string uids;
    for (int i = 0; i < 2500; ++i) uids += (i ? "\\1.2." : "1.2.") + std::to_string(i);
    BuiltQuery built = QuerySqlBuilder(mapping()).build(studies({{0x0020000D, "UI", uids, {}}}));
    EXPECT_EQ(2500u, built.params.size());
    size_t lists = 0;
    for (size_t at = built.sql.find(" IN ("); at != std::string::npos;
         at = built.sql.find(" IN (", at + 1))
        ++lists;
    EXPECT_EQ(3u, lists);

    for (int i = 2500; i < 70000; ++i) uids += "\\1.2." + std::to_string(i);
    EXPECT_THROW(QuerySqlBuilder(mapping()).build(studies({{0x0020000D, "UI", uids, {}}})),
                 DBException);
}

TEST(QuerySqlBuilder, caseInsensitiveNamesSearchTheFoldedCopyAndAreRecheckedBeforeTheLimit) {
    QueryRequest request = studies({{0x00100010, "PN", "иван*", {}}});
    request.options.caseInsensitivePersonNames = true;
    request.limit = 50;
    BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
    EXPECT_NE(std::string::npos, built.sql.find("l0.`PatientNameFolded` LIKE ? ESCAPE '!'"));
    EXPECT_EQ(std::string::npos, built.sql.find("LOWER("));
    EXPECT_FALSE(built.limitedInSql);
    EXPECT_EQ(std::string::npos, built.sql.find("LIMIT"));
    ASSERT_EQ(1u, built.rechecks.size());
    EXPECT_EQ(0x00100010u, built.rechecks[0].node.tag);
    // The name the re-check reads is the name the answer returns (return key 2): selected once.
    EXPECT_EQ(2u, built.columnCount);
    EXPECT_EQ(1u, built.rechecks[0].column);
}

TEST(QuerySqlBuilder, offsetAdjustedDateTimesKeepAPlainRangeTheIndexCanServe) {
    QueryRequest request;
    request.level = QueryLevel::Instance;
    request.keys = {{0x0008002A, "DT", "20240101-0500-", {}}};
    BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
    EXPECT_NE(std::string::npos, built.sql.find("l3.`AcquisitionDateTime` >= ? AND "
                                                "l3.`AcquisitionDateTime` >= TIMESTAMPADD(MINUTE, "
                                                "l1.`TimezoneOffsetFromUTC`, ?)"));
    ASSERT_EQ(2u, built.params.size());
    EXPECT_EQ(BoundValue::Type::DateTime, built.params[0].type);
    EXPECT_EQ(12 * 60 * 60 * 1000000LL, built.params[1].micros - built.params[0].micros);
}

TEST(QuerySqlBuilder, keysBelowTheQueryLevelAreRefusedAndReturnKeysWithoutColumnReported) {
    EXPECT_THROW(QuerySqlBuilder(mapping()).build(studies({{0x00080060, "CS", "CT", {}}})),
                 DBException);
    QueryRequest request = studies({{0x00321032, "PN", "X", {}}});
    request.returnKeys = {0x0020000D, 0x00080060, 0x00081030, 0x7FE00010};
    BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
    EXPECT_EQ((std::vector<int>{0, -1, 1, -1}), built.returnColumns);
    EXPECT_EQ((std::vector<uint32_t>{0x00321032, 0x00080060, 0x7FE00010}), built.unusedKeys);
}

TEST(QuerySqlBuilder, sequenceItemsMatchThroughOneExistsOnTheItemTable) {
    QueryRequest request;
    request.level = QueryLevel::Series;
    request.keys = {
        {0x00400275, "SQ", "", {{0x00401001, "SH", "RP1", {}}, {0x00080050, "SH", "A*", {}}}}};
    BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
    EXPECT_NE(std::string::npos,
              built.sql.find("EXISTS (SELECT 1 FROM `SERIESREQUEST` q0 WHERE q0.`SeriesKey` = "
                             "l2.`SeriesKey` AND q0.`RequestedProcedureID` = ? AND "
                             "q0.`AccessionNumber` LIKE ? ESCAPE '!')"));
    request.options.caseInsensitivePersonNames = true;
    request.level = QueryLevel::Study;
    EXPECT_THROW(QuerySqlBuilder(mapping()).build(request), DBException);
}
