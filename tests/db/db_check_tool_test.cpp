// repoctl db-check, run as a real process against the private server.
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "DbTestEnv.h"
#include "ScopedEnv.h"

namespace {

struct Outcome {
    int exitCode;
    std::string output;
};

Outcome runDbCheck() {
    std::string command = std::string(RH_TEST_BINARY_DIR) + "/repoctl db-check 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[512];
    while (pipe && fgets(buffer, sizeof buffer, pipe)) output += buffer;
    int status = pipe ? pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

}  // namespace

TEST(DbCheckTool, reportsTheServerVersionAndEachTable) {
    RH_REQUIRE_DB();
    ScopedEnv lockTable("NVLOCKTBL", "NVLOCK"), missing("SESSIONTBL", "NO_SUCH_SESSIONS");
    Outcome outcome = runDbCheck();
    EXPECT_EQ(1, outcome.exitCode) << outcome.output;
    EXPECT_NE(std::string::npos, outcome.output.find("server version   ")) << outcome.output;
    EXPECT_NE(std::string::npos, outcome.output.find("NVLOCKTBL        NVLOCK: present"))
        << outcome.output;
    EXPECT_NE(std::string::npos, outcome.output.find("NO_SUCH_SESSIONS: missing"))
        << outcome.output;
}

TEST(DbCheckTool, reportsTheChangeTableBesideTheLockTable) {
    RH_REQUIRE_DB();
    {
        ScopedEnv lockTable("NVLOCKTBL", "NVLOCK");
        Outcome outcome = runDbCheck();
        EXPECT_NE(std::string::npos, outcome.output.find("change records   NVLOCKCHG: present"))
            << outcome.output;
    }
    ScopedEnv lockTable("NVLOCKTBL", "NO_SUCH_LOCKS");
    Outcome outcome = runDbCheck();
    EXPECT_EQ(1, outcome.exitCode) << outcome.output;
    EXPECT_NE(std::string::npos,
              outcome.output.find("change records   NO_SUCH_LOCKSCHG: missing"))
        << outcome.output;
}

TEST(DbCheckTool, explainsAMissingEnvironment) {
    ScopedEnv noName("DBNAME", nullptr);
    Outcome outcome = runDbCheck();
    EXPECT_EQ(1, outcome.exitCode) << outcome.output;
    EXPECT_NE(std::string::npos,
              outcome.output.find("cannot connect: Missing environment variable: DBNAME"))
        << outcome.output;
    EXPECT_NE(std::string::npos, outcome.output.find("scripts/mariadb env")) << outcome.output;
}
