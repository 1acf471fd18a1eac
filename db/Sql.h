#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "MysqlCompat.h"

namespace kelp {
namespace db {

class SqlConnection;

// The parameters of one MySQL connection, read from the process environment (DBNAME, MED_USER,
// and MYSQL_UNIX_PORT or MYSQL_HOST with MYSQL_TCP_PORT), and the factory of connections made
// with them. Connections are opened without a password.
//
// The constructor never throws: a wanting environment clears isValid() and keeps the reason in
// lastError(), and the first connect throws SqlException(0, reason, ""). The recursive mutex is
// shared by every SqlConnection and SqlStatement made from this object; one connection serves one
// call at a time. Not copy-assignable; a copy (used by DBConnector::forThread) takes the
// parameters and gets its own mutex.
class Sql {
  public:
    explicit Sql(bool flag);
    Sql(const Sql& other);
    Sql& operator=(const Sql&) = delete;
    ~Sql();

    // Stores the value of environment variable name in out and returns true when it is set.
    // When it is unset returns false, and if required also sets lastError() to
    // "Missing environment variable: " name.
    bool checkEnv(const char* name, std::string& out, bool required);

    // A new open connection owned by the caller, bound to this object's mutex. Throws
    // SqlException: code 0 for environment and client-library errors, the MySQL error number
    // when every connect attempt failed (see connectWithRetryEx). A failed first attempt with
    // CONF unset throws std::logic_error instead, at once, and the client handle it was made
    // with is left open (never closed, so its memory is lost): a process without CONF is set
    // up wrongly, and the error leaves as it is.
    std::unique_ptr<SqlConnection> getConnectionEx();

    // A connected client handle over the unix socket / over TCP, owned by the caller (close it
    // with mysql_close). Throws as getConnectionEx; the handle is closed when the attempts fail
    // and left open on the std::logic_error for an unset CONF.
    MYSQL* connectUnixPortEx();
    MYSQL* connectTCPEx();

    // mysql_real_connect on handle; on failure retries as configured in $CONF/db.cfg (retryCount
    // further attempts, default 30; retrySleep milliseconds before each, default 1000, slept
    // through KSClock so that tests need not wait). When all fail the handle is closed and
    // SqlException(errno, "Connecting to mysql failed", text) is thrown. If CONF is unset after
    // a failed first attempt, std::logic_error leaves at once and the handle stays open: the
    // caller gave it, the caller keeps it.
    MYSQL* connectWithRetryEx(MYSQL* handle, const char* host, const char* user,
                              const char* password, const char* database, unsigned int port,
                              const char* unixSocket, unsigned long clientFlags);

    std::recursive_mutex& mutex() { return mutex_; }
    bool isValid() const { return valid_; }
    bool flag() const { return flag_; }
    const std::string& lastError() const { return lastError_; }
    const std::string& database() const { return database_; }
    const std::string& user() const { return user_; }
    const std::string& unixSocket() const { return unixSocket_; }
    const std::string& host() const { return host_; }
    uint32_t port() const { return port_; }

  private:
    void readEnvironment();
    void readTcpPort();
    void initClientLibrary();
    MYSQL* openHandle(const char* host, unsigned int port, const char* unixSocket);

    std::string database_;
    std::string user_;
    std::string unixSocket_;
    std::string host_;
    uint32_t port_ = 0;
    bool flag_;
    bool valid_ = true;
    std::string lastError_;
    std::recursive_mutex mutex_;
};

}  // namespace db
}  // namespace kelp
