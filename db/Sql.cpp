#include "Sql.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "KSClock.h"
#include "KSException.h"
#include "KSProperties.h"
#include "SqlConnection.h"
#include "SqlException.h"

namespace kelp {
namespace db {

namespace {

std::mutex g_initMutex;
std::atomic<bool> g_clientInitialised{false};

struct RetrySettings {
    long count = 30;
    long sleepMillis = 1000;
};

long readLong(const KSProperties& props, const char* key, long fallback) {
    const char* text = props.getProperty(key);
    return text ? std::strtol(text, nullptr, 10) : fallback;
}

// Read only after a failed connect, so a server that answers at once never needs db.cfg.
RetrySettings readRetrySettings() {
    const char* conf = std::getenv("CONF");
    if (!conf) throw std::logic_error("CONF is not set: cannot locate db.cfg");
    std::string path = std::string(conf) + "/db.cfg";
    RetrySettings settings;
    KSProperties props;
    try {
        if (!props.load(path.c_str())) return settings;
    } catch (const KSException&) {
        return settings;
    }
    settings.count = readLong(props, "retryCount", 30);
    try {
        settings.sleepMillis = readLong(props, "retrySleep", 1000);
    } catch (const KSException&) {
        settings.sleepMillis = 1000;
    }
    return settings;
}

}  // namespace

Sql::Sql(bool flag) : flag_(flag) {
    readEnvironment();
}

Sql::Sql(const Sql& other)
    : database_(other.database_),
      user_(other.user_),
      unixSocket_(other.unixSocket_),
      host_(other.host_),
      port_(other.port_),
      flag_(true),
      valid_(true) {}

Sql::~Sql() = default;

bool Sql::checkEnv(const char* name, std::string& out, bool required) {
    const char* value = std::getenv(name);
    if (value) {
        out = value;
        return true;
    }
    if (required) lastError_ = std::string("Missing environment variable: ") + name;
    return false;
}

void Sql::readEnvironment() {
    valid_ = true;
    valid_ &= checkEnv("DBNAME", database_, true);
    valid_ &= checkEnv("MED_USER", user_, true);
    if (checkEnv("MYSQL_UNIX_PORT", unixSocket_, false)) return;
    if (!checkEnv("MYSQL_HOST", host_, false)) {
        lastError_ = "Missing environment variables: neither MYSQL_UNIX_PORT nor MYSQL_HOST is set";
        valid_ = false;
        return;
    }
    readTcpPort();
}

void Sql::readTcpPort() {
    std::string text;
    if (!checkEnv("MYSQL_TCP_PORT", text, true)) {
        lastError_ = "Missing environment variable: MYSQL_TCP_PORT (required for MYSQL_HOST)";
        valid_ = false;
        return;
    }
    port_ = static_cast<uint32_t>(std::strtol(text.c_str(), nullptr, 10));
    if (port_ == 0) {
        lastError_ = "Invalid value for MYSQL_TCP_PORT environment variable: '" + text + "'";
        valid_ = false;
    }
}

// The flag is tested before and after taking the mutex: the common case (initialised long ago)
// costs one atomic load, and two first callers cannot both initialise.
void Sql::initClientLibrary() {
    if (g_clientInitialised.load(std::memory_order_acquire)) return;
    std::lock_guard<std::mutex> guard(g_initMutex);
    if (g_clientInitialised.load(std::memory_order_relaxed)) return;
    if (mysql_server_init(0, nullptr, nullptr) != 0) {
        lastError_ = "Could not initialize MySQL client library";
        valid_ = false;
        throw SqlException(0, lastError_, "");
    }
    g_clientInitialised.store(true, std::memory_order_release);
}

std::unique_ptr<SqlConnection> Sql::getConnectionEx() {
    if (!valid_) throw SqlException(0, lastError_, "");
    initClientLibrary();
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    MYSQL* handle = unixSocket_.empty() ? connectTCPEx() : connectUnixPortEx();
    return std::make_unique<SqlConnection>(handle, mutex_);
}

MYSQL* Sql::connectUnixPortEx() {
    return openHandle(nullptr, 0, unixSocket_.c_str());
}

MYSQL* Sql::connectTCPEx() {
    return openHandle(host_.c_str(), port_, nullptr);
}

MYSQL* Sql::openHandle(const char* host, unsigned int port, const char* unixSocket) {
    if (!valid_) throw SqlException(0, lastError_, "");
    MYSQL* handle = mysql_init(nullptr);
    if (!handle) {
        lastError_ = "MySQL init failed: out of memory";
        throw SqlException(0, lastError_, "");
    }
    // Reconnecting silently would lose prepared statements behind the connector's back.
    MysqlFlag reconnect = 0;
    mysql_options(handle, MYSQL_OPT_RECONNECT, &reconnect);
    // When every attempt fails, connectWithRetryEx closes the handle. Without CONF the retry
    // settings cannot be found: the std::logic_error leaves from here as it is and the handle
    // stays open. That asymmetry is deliberate: a missing CONF is a set-up error of the
    // process, reported at once and untouched, not a connection failure to clean up after.
    return connectWithRetryEx(handle, host, user_.c_str(), nullptr, database_.c_str(), port,
                              unixSocket, CLIENT_FOUND_ROWS);
}

MYSQL* Sql::connectWithRetryEx(MYSQL* handle, const char* host, const char* user,
                               const char* password, const char* database, unsigned int port,
                               const char* unixSocket, unsigned long clientFlags) {
    auto connect = [&] {
        return mysql_real_connect(handle, host, user, password, database, port, unixSocket,
                                  clientFlags) != nullptr;
    };
    if (connect()) return handle;
    RetrySettings settings = readRetrySettings();
    for (long remaining = settings.count; remaining > 0; --remaining) {
        if (settings.sleepMillis > 0) KSClock::sleepMillis(settings.sleepMillis);
        if (connect()) return handle;
    }
    uint32_t code = mysql_errno(handle);
    lastError_ = mysql_error(handle);
    mysql_close(handle);
    throw SqlException(code, "Connecting to mysql failed", lastError_);
}

}  // namespace db
}  // namespace kelp
