// The database layer opens and closes syslog around each of its lines; the repository side's
// logger must not lose its identity because of that.

#include <gtest/gtest.h>
#include <syslog.h>

#include "DbSyslog.h"
#include "KSLogger.h"
#include "SyslogCapture.h"

TEST(DbSyslogTest, aDatabaseLineDoesNotStealTheRepositoryLoggersIdentity) {
    SyslogCapture capture;
    rh_logger.errorLog("before");
    kelp::db::dbSyslog("DBConnector", "DBConnectorSql::executeQuery: Retry query [%lu]", 3UL);
    rh_logger.errorLog("after");

    auto db = capture.findEqual("DBConnectorSql::executeQuery: Retry query [3]");
    ASSERT_TRUE(db.has_value());
    EXPECT_EQ(db->ident, "DBConnector");
    EXPECT_EQ(db->facility, LOG_LOCAL3);
    EXPECT_EQ(db->priority, LOG_ERR);

    auto after = capture.findEqual("after");
    ASSERT_TRUE(after.has_value());
    EXPECT_EQ(after->ident, "KSRepositoryHandler");
    EXPECT_EQ(after->option, LOG_PID);
}
