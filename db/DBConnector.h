#pragma once

#include <mutex>
#include <random>

#include "RhExport.h"

namespace kelp {
namespace db {

class MiscDB;
class ObjectDB;
class RawQueryDB;
class RefcountDB;
class SessionDB;
class StudyDB;
class LockDB;

// The handle through which all database work goes. It hands out facets, each owning the
// statements of one area; facets are created on first request and belong to the connector.
//
// Errors: every database failure leaves as DBException. A connector can always be created; a
// wanting environment (DBNAME, MED_USER, MYSQL_UNIX_PORT / MYSQL_HOST, MYSQL_TCP_PORT) surfaces
// as a DBException on first use. One exception: when a connect fails and CONF is unset (so the
// retry settings of $CONF/db.cfg cannot be found), std::logic_error leaves at once, unretried.
//
// Thread safety: one connector may be shared by threads; statements on it run one at a time on
// its single connection. A thread that works in parallel with others takes its own connector
// with forThread().
class RH_EXPORT DBConnector {
  public:
    // A new MySQL connector owned by the caller. Never throws for configuration errors.
    static DBConnector* createConnector(bool flag);

    DBConnector();
    virtual ~DBConnector();
    DBConnector(const DBConnector&) = delete;
    DBConnector& operator=(const DBConnector&) = delete;

    // The facets, created on first call (opening the connection; a failure to connect throws
    // DBException with code 0). Owned by the connector; never null.
    virtual RefcountDB* refcountDB() = 0;
    virtual LockDB* lockDB() = 0;
    virtual SessionDB* sessionDB() = 0;
    virtual StudyDB* studyDB() = 0;
    virtual ObjectDB* objectDB() = 0;
    virtual MiscDB* miscDB() = 0;
    // A new free-form query runner owned by the caller (the connection is opened first).
    virtual RawQueryDB* createRawQuery() = 0;
    // A new connector with the same parameters and its own connection, owned by the caller.
    virtual DBConnector* forThread() = 0;
    // Closes the connection if it no longer answers, dropping every cached statement; the next
    // statement reconnects. Does nothing to a healthy connection.
    virtual void reset() = 0;

    // Sleeps a random 0 to 100 ms (0 means no pause); spreads out competing deadlock retries.
    // Thread-safe.
    void randomSleep();

  private:
    std::mutex randomMutex_;
    std::mt19937 random_;
    std::uniform_int_distribution<int> distribution_{0, 100};
};

}  // namespace db
}  // namespace kelp
