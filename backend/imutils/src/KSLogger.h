#pragma once

#include <atomic>
#include <cstdarg>
#include <memory>

// Logging channels. The facility of each comes from an environment variable at open time:
// LOG_OPER_FACILITY for the operator channel, LOG_FACILITY for the ordinary one.
enum LOG_FACILITY { LOG_CHANNEL_OPERATOR = 0, LOG_CHANNEL_ORDINARY = 1 };

// Message kinds. Operator kinds go to the operator channel, the others to the ordinary one.
enum LOG_MODE {
    LOG_MODE_OPER_INFO = 0,
    LOG_MODE_OPER_ERROR = 1,
    LOG_MODE_INFO = 2,
    LOG_MODE_ERROR = 3,
    LOG_MODE_DEBUG = 4
};

// Writes the library's diagnostics to syslog. syslog has one open channel per process, so the
// logger reopens it (openlog with LOG_PID) whenever a message needs the other channel than the
// one opened last. Thread-safe in the sense that no message is lost: concurrent callers may
// reopen more often than needed. Logging never throws and never changes errno.
class KSLogger {
  public:
    // Copies ident; null means "unknown" is passed to openlog. Nothing is opened yet.
    explicit KSLogger(const char* ident);
    // Calls closelog when this logger opened syslog, which may still point at its ident.
    ~KSLogger();

    KSLogger(const KSLogger&) = delete;
    KSLogger& operator=(const KSLogger&) = delete;

    // Opens syslog for channel f with the facility named by its environment variable:
    // "local0" ... "local7" map to LOG_LOCAL0 ... LOG_LOCAL7; unset or anything else is LOG_LOCAL0.
    void openLog(LOG_FACILITY f);

    // Logs one message of kind m: LOG_ERR for the error kinds, LOG_DEBUG for debug, LOG_INFO
    // otherwise. format must not be null.
    void log(LOG_MODE m, const char* format, va_list args);

    void debugLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void infoLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void operInfoLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void errorLog(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // The channel opened last, or 2 when nothing has been opened yet.
    int currentFacility() const { return currentFacility_.load(); }

    // For code that opens syslog under another identity and closes it again (the database
    // layer does, around each of its lines): the next message of this logger opens its channel
    // anew instead of going out under the default identity.
    void forgetOpenChannel() { currentFacility_.store(kNothingOpened); }

    // Maps an environment text such as "local3" to its syslog facility (LOG_LOCAL0 when unknown).
    static int facilityFromName(const char* name);

  private:
    static constexpr int kNothingOpened = 2;

    // openlog keeps the pointer it is given, so the ident lives as long as the logger.
    std::unique_ptr<char[]> ident_;
    std::atomic<int> currentFacility_;
};

// The library's one logger, ident "KSRepositoryHandler".
extern KSLogger rh_logger;
