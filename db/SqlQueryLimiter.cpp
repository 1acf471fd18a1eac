#include "SqlQueryLimiter.h"

#include <unistd.h>

#include <cstdio>

namespace kelp {
namespace db {

SqlQueryLimiter::SqlQueryLimiter(MYSQL* handle, unsigned long seconds)
    : handle_(handle), seconds_(seconds) {}

SqlQueryLimiter::~SqlQueryLimiter() {
    while (active_) {
        if (deleteLimit()) break;
        if (!hasLimit()) break;
        usleep(5000);
    }
}

void SqlQueryLimiter::init() {
    if (seconds_ == 0) return;
    char sql[256];
    snprintf(sql, sizeof sql,
             "INSERT INTO QueryTimeLimit (PROCESSID, EXPIRE, QSTATUS) VALUES( CONNECTION_ID(), "
             "TIMESTAMPADD( SECOND, %lu, NOW() ), 'R' )",
             seconds_);
    active_ = mysql_query(handle_, sql) == 0;
}

bool SqlQueryLimiter::deleteLimit() {
    if (!active_) return true;
    if (mysql_query(handle_,
                    "DELETE from QueryTimeLimit where PROCESSID = CONNECTION_ID() AND "
                    "QSTATUS='R'") != 0) {
        active_ = false;
        return false;
    }
    return mysql_affected_rows(handle_) >= 1;
}

bool SqlQueryLimiter::hasLimit() {
    if (!active_) return false;
    if (mysql_query(handle_,
                    "SELECT PROCESSID from QueryTimeLimit WHERE PROCESSID = CONNECTION_ID()") !=
        0) {
        active_ = false;
        return false;
    }
    MYSQL_RES* result = mysql_store_result(handle_);
    if (!result) {
        active_ = false;
        return false;
    }
    bool found = mysql_num_rows(result) > 0;
    mysql_free_result(result);
    return found;
}

}  // namespace db
}  // namespace kelp
