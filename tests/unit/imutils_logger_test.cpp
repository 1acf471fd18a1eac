#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "KSLogger.h"
#include "SyslogCapture.h"

namespace {

// Sets (or unsets, for null) an environment variable for the scope and restores it after.
class EnvVar {
  public:
    EnvVar(const char* name, const char* value) : name_(name) {
        const char* old = getenv(name);
        if (old != nullptr) old_ = old;
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~EnvVar() {
        if (old_)
            setenv(name_.c_str(), old_->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }

  private:
    std::string name_;
    std::optional<std::string> old_;
};

}  // namespace

TEST(KSLoggerTest, operatorThenErrorMessageReopensSyslogOnEachChannel) {
    EnvVar oper("LOG_OPER_FACILITY", "local5");
    EnvVar ordinary("LOG_FACILITY", "local2");
    SyslogCapture capture;
    KSLogger logger("KSRepositoryHandler");
    EXPECT_EQ(logger.currentFacility(), 2);

    logger.operInfoLog("moved %d resources", 4);
    logger.errorLog("disk %s failed", "/m1");

    EXPECT_EQ(capture.openlogCount(), 2);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "moved 4 resources");
    EXPECT_EQ(lines[0].facility, LOG_LOCAL5);
    EXPECT_EQ(lines[0].priority, LOG_INFO);
    EXPECT_EQ(lines[0].ident, "KSRepositoryHandler");
    EXPECT_EQ(lines[0].option, LOG_PID);
    EXPECT_EQ(lines[1].text, "disk /m1 failed");
    EXPECT_EQ(lines[1].facility, LOG_LOCAL2);
    EXPECT_EQ(lines[1].priority, LOG_ERR);
    EXPECT_EQ(logger.currentFacility(), LOG_CHANNEL_ORDINARY);
}

TEST(KSLoggerTest, messagesOnTheSameChannelOpenSyslogOnce) {
    EnvVar ordinary("LOG_FACILITY", "local7");
    SyslogCapture capture;
    KSLogger logger("same");
    logger.infoLog("one");
    logger.errorLog("two");
    logger.debugLog("three");
    EXPECT_EQ(capture.openlogCount(), 1);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].priority, LOG_INFO);
    EXPECT_EQ(lines[1].priority, LOG_ERR);
    EXPECT_EQ(lines[2].priority, LOG_DEBUG);
    for (const SyslogLine& line : lines) EXPECT_EQ(line.facility, LOG_LOCAL7);
}

TEST(KSLoggerTest, unknownOrMissingFacilityNamesFallBackToLocal0) {
    struct Case {
        const char* name;
        int facility;
    } cases[] = {{"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1},  {"local3", LOG_LOCAL3},
                 {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},  {"local9", LOG_LOCAL0},
                 {"local", LOG_LOCAL0},  {"local33", LOG_LOCAL0}, {"LOCAL3", LOG_LOCAL0},
                 {"", LOG_LOCAL0},       {nullptr, LOG_LOCAL0}};
    for (const Case& c : cases)
        EXPECT_EQ(KSLogger::facilityFromName(c.name), c.facility)
            << (c.name != nullptr ? c.name : "(unset)");

    EnvVar ordinary("LOG_FACILITY", "local9");
    EnvVar oper("LOG_OPER_FACILITY", nullptr);
    SyslogCapture capture;
    KSLogger logger("fallback");
    logger.infoLog("ordinary");
    logger.operInfoLog("operator");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].facility, LOG_LOCAL0);
    EXPECT_EQ(lines[1].facility, LOG_LOCAL0);
}

TEST(KSLoggerTest, missingIdentIsLoggedAsUnknownAndErrnoSurvives) {
    SyslogCapture capture;
    KSLogger logger(nullptr);
    errno = EACCES;
    logger.errorLog("failed: %m");
    EXPECT_EQ(errno, EACCES);
    auto line = capture.findContaining("failed: ");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->ident, "unknown");
    EXPECT_EQ(line->text, std::string("failed: ") + strerror(EACCES));
}

TEST(KSLoggerTest, theLibraryLoggerUsesTheRepositoryHandlerIdent) {
    SyslogCapture capture;
    rh_logger.operInfoLog("global %s", "operator");
    rh_logger.infoLog("global %s", "ordinary");
    auto oper = capture.findEqual("global operator");
    auto ordinary = capture.findEqual("global ordinary");
    ASSERT_TRUE(oper.has_value());
    ASSERT_TRUE(ordinary.has_value());
    EXPECT_EQ(oper->ident, "KSRepositoryHandler");
    EXPECT_EQ(oper->option, LOG_PID);
    EXPECT_EQ(ordinary->ident, "KSRepositoryHandler");
    EXPECT_EQ(capture.countContaining("global "), 2);
}
