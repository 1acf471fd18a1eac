// Each usual kind of search stays on its index: the server's plan for the builder's statement
// reads the searched table through the index made for that search.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "DBConnector.h"
#include "DbTestEnv.h"
#include "QueryScratchSchema.h"
#include "RawQueryDB.h"

using namespace kelp::db;

TEST(QueryExplain, everyUsualKindOfSearchReadsThroughItsIndex) {
    RH_REQUIRE_DB();
    QueryScratchSchema schema(std::string(RH_TEST_SOURCE_DIR) + "/db/query-mapping.cfg");
    schema.exec(
        "INSERT INTO {PATIENT} (PatientKey, PatientID, PatientName) SELECT seq, CONCAT('P', seq), "
        "CONCAT(ELT(1 + seq % 4, 'SMITH', 'JONES', 'MÜLLER', 'ИВАНОВ'), '^', seq) FROM "
        "seq_1_to_3000");
    schema.exec(
        "INSERT INTO {STUDY} (StudyKey, PatientKey, StudyInstanceUID, StudyDate, StudyTime, "
        "AccessionNumber) SELECT seq, 1 + seq % 3000, CONCAT('1.2.3.', seq), '2015-01-01' + "
        "INTERVAL (seq % 3650) DAY, SEC_TO_TIME(seq % 86400), CONCAT('A', seq) FROM "
        "seq_1_to_20000");
    schema.exec(
        "INSERT INTO {SERIES} (SeriesKey, StudyKey, SeriesInstanceUID, Modality) SELECT seq, "
        "1 + seq % 6000, CONCAT('1.2.4.', seq), ELT(1 + seq % 4, 'CT', 'MR', 'CR', 'US') FROM "
        "seq_1_to_6000");
    schema.exec(
        "INSERT INTO {INSTANCE} (SeriesKey, SOPInstanceUID, AcquisitionDateTime) SELECT 1 + seq "
        "% 6000, CONCAT('1.2.5.', seq), '2015-01-01' + INTERVAL (seq * 7919 % 5000000) MINUTE "
        "FROM seq_1_to_12000");
    schema.exec("ANALYZE TABLE {PATIENT}, {STUDY}, {SERIES}, {INSTANCE}");

    std::string uids;
    for (int i = 1; i <= 1000; ++i) uids += (i > 1 ? "\\1.2.3." : "1.2.3.") + std::to_string(i * 5);
    struct Kind {
        QueryLevel level;
        MatchingKey key;
        bool caseInsensitive;
        std::string index;
    };
    const Kind kinds[] = {
        {QueryLevel::Study, {0x00080050, "SH", "A4321", {}}, false, "STUDY_AccessionNumber"},
        {QueryLevel::Study, {0x00100020, "LO", "P77", {}}, false, "PATIENT_PatientID"},
        {QueryLevel::Study, {0x00100010, "PN", "JONES^12*", {}}, false, "PATIENT_PatientName"},
        {QueryLevel::Study,
         {0x00100010, "PN", "иванов^12*", {}},
         true,
         "PATIENT_PatientNameFolded"},
        {QueryLevel::Study, {0x00080020, "DA", "20200101-20200107", {}}, false, "STUDY_StudyDate"},
        {QueryLevel::Study, {0x0020000D, "UI", uids, {}}, false, "STUDY_StudyInstanceUID"},
        {QueryLevel::Series, {0x0020000E, "UI", "1.2.4.99", {}}, false, "SERIES_SeriesInstanceUID"},
        {QueryLevel::Instance,
         {0x0008002A, "DT", "20200101-0500-202001011200-0500", {}},
         false,
         "INSTANCE_AcquisitionDateTime"},
    };
    std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
    std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
    for (const Kind& kind : kinds) {
        QueryRequest request;
        request.level = kind.level;
        request.keys = {kind.key};
        request.returnKeys = {0x0020000D};
        request.options.caseInsensitivePersonNames = kind.caseInsensitive;
        const std::string plan = raw->explain(schema.mapping(), request);
        EXPECT_NE(std::string::npos, plan.find("\"key\": \"" + kind.index + "\""))
            << kind.index << " not used:\n"
            << plan;
    }
}
