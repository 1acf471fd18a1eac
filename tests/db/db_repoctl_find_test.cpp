// repoctl find: DICOM keys from the command line, matches printed as text or JSON, and where
// each study lives in a repository.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "DbTestEnv.h"
#include "QueryScratchSchema.h"
#include "ScratchRepository.h"
#include "repohandler.h"

namespace {

struct CommandRun {
    int status = -1;
    std::string output;
};

CommandRun repoctl(const std::string& arguments) {
    CommandRun run;
    FILE* pipe =
        popen((std::string(RH_TEST_BINARY_DIR) + "/repoctl " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) run.output.append(buffer, n);
    int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class RepoctlFind : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        schema = std::make_unique<QueryScratchSchema>(std::string(RH_TEST_SOURCE_DIR) +
                                                      "/db/query-mapping.cfg");
        mappingFile = repo.path() + "/mapping.cfg";
        schema->writeMapping(mappingFile);
        int64_t smith =
            schema->insert("PATIENT", {{"PatientName", "SMITH^JOHN"}, {"PatientID", "P1"}});
        int64_t doe = schema->insert("PATIENT", {{"PatientName", "Doe^Jane"}, {"PatientID", "P2"}});
        schema->insert("STUDY", {{"PatientKey", std::to_string(smith)},
                                 {"StudyInstanceUID", "1.2.840.9.1"},
                                 {"StudyDate", "2024-03-01"}});
        schema->insert("STUDY", {{"PatientKey", std::to_string(doe)},
                                 {"StudyInstanceUID", "1.2.840.9.2"},
                                 {"StudyDescription", "say \"ah\""}});
    }
    std::string find(const std::string& arguments) {
        return "find --mapping " + mappingFile + " " + arguments;
    }

    ScratchRepository repo;
    std::unique_ptr<QueryScratchSchema> schema;
    std::string mappingFile;
};

}  // namespace

TEST_F(RepoctlFind, keywordAndTagKeysPrintTheMatchesAndWhereEachStudyLives) {
    repo.addMount("m1");
    repo.writeConfig();
    int status = 0, existed = 0;
    char* location =
        createLocation_(repo.path().c_str(), "1.2.840.9.1", &status, &existed, false, nullptr);
    ASSERT_NE(nullptr, location);
    const std::string where = location;
    release(location);
    ASSERT_EQ(0, system(("mkdir -p '" + where + "'").c_str()));

    CommandRun run = repoctl(find("--repository " + repo.path() + " 'PatientName=SMITH*'"));
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "1.2.840.9.1")) << run.output;
    EXPECT_TRUE(contains(run.output, where)) << run.output;
    EXPECT_FALSE(contains(run.output, "1.2.840.9.2")) << run.output;

    run = repoctl(find("00100020=P2"));
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "1.2.840.9.2")) << run.output;
    EXPECT_FALSE(contains(run.output, "1.2.840.9.1")) << run.output;
}

TEST_F(RepoctlFind, jsonOutputEscapesValuesAndCaseInsensitiveNamesFindBothLetterCases) {
    CommandRun run = repoctl(find("--json --ci 'PatientName=*j*'"));
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "\"StudyInstanceUID\": \"1.2.840.9.1\"")) << run.output;
    EXPECT_TRUE(contains(run.output, "\"StudyDescription\": \"say \\\"ah\\\"\"")) << run.output;
    EXPECT_TRUE(contains(run.output, "\"StudyDate\": \"20240301\"")) << run.output;
}

TEST_F(RepoctlFind, hostileValuesFindNothingAndBadKeysFailNamingTheKey) {
    CommandRun run = repoctl(find("\"PatientName=x' OR '1'='1\""));
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_FALSE(contains(run.output, "1.2.840.9")) << run.output;

    run = repoctl(find("StudyDate=2024-13"));
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "(0008,0020)")) << run.output;

    run = repoctl(find("NoSuchKeyword=1"));
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "NoSuchKeyword")) << run.output;

    run = repoctl("find PatientName=x");  // no mapping given
    EXPECT_EQ(2, run.status) << run.output;
}
