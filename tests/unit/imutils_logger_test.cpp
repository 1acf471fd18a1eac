#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "KSLogger.h"
#include "ScopedEnv.h"
#include "SyslogCapture.h"

TEST(KSLoggerTest, switchingChannelsReopensSyslogWithTheChannelsFacility) {
    ScopedEnv oper("LOG_OPER_FACILITY", "local5");
    ScopedEnv ordinary("LOG_FACILITY", "local2");
    SyslogCapture capture;
    KSLogger logger("KSRepositoryHandler");

    logger.operInfoLog("moved %d resources", 4);
    logger.errorLog("disk %s failed", "/m1");
    EXPECT_EQ(capture.openlogCount(), 2);
    logger.infoLog("info");
    logger.debugLog("debug");
    EXPECT_EQ(capture.openlogCount(), 2) << "same channel must not reopen";

    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "moved 4 resources");
    EXPECT_EQ(lines[0].ident, "KSRepositoryHandler");
    EXPECT_EQ(lines[0].option, LOG_PID);
    const int facilities[] = {LOG_LOCAL5, LOG_LOCAL2, LOG_LOCAL2, LOG_LOCAL2};
    const int priorities[] = {LOG_INFO, LOG_ERR, LOG_INFO, LOG_DEBUG};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].facility, facilities[i]) << lines[i].text;
        EXPECT_EQ(lines[i].priority, priorities[i]) << lines[i].text;
    }
}

TEST(KSLoggerTest, unknownOrMissingFacilityNamesFallBackToLocal0) {
    struct {
        const char* name;
        int facility;
    } cases[] = {{"local3", LOG_LOCAL3},  {"local7", LOG_LOCAL7}, {"local9", LOG_LOCAL0},
                 {"local33", LOG_LOCAL0}, {"LOCAL3", LOG_LOCAL0}, {nullptr, LOG_LOCAL0}};
    for (const auto& c : cases)
        EXPECT_EQ(KSLogger::facilityFromName(c.name), c.facility) << (c.name ? c.name : "unset");

    ScopedEnv ordinary("LOG_FACILITY", "local9");
    ScopedEnv oper("LOG_OPER_FACILITY", nullptr);
    SyslogCapture capture;
    KSLogger logger("fallback");
    logger.infoLog("ordinary");
    logger.operInfoLog("operator");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].facility, LOG_LOCAL0);
    EXPECT_EQ(lines[1].facility, LOG_LOCAL0);
}

TEST(KSLoggerTest, identIsTheLibrarysOrUnknownAndErrnoSurvivesLogging) {
    SyslogCapture capture;
    rh_logger.operInfoLog("global %s", "operator");
    auto global = capture.findEqual("global operator");
    ASSERT_TRUE(global.has_value());
    EXPECT_EQ(global->ident, "KSRepositoryHandler");

    KSLogger logger(nullptr);
    errno = EACCES;
    logger.errorLog("failed: %m");
    EXPECT_EQ(errno, EACCES);
    auto line = capture.findContaining("failed: ");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->ident, "unknown");
    EXPECT_EQ(line->text, std::string("failed: ") + strerror(EACCES));
}
