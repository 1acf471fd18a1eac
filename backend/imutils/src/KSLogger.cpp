#include "KSLogger.h"

#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

KSLogger rh_logger("KSRepositoryHandler");

namespace {

const LOG_FACILITY kChannelOfMode[5] = {LOG_CHANNEL_OPERATOR, LOG_CHANNEL_OPERATOR,
                                        LOG_CHANNEL_ORDINARY, LOG_CHANNEL_ORDINARY,
                                        LOG_CHANNEL_ORDINARY};

int priorityOfMode(LOG_MODE m) {
    switch (m) {
        case LOG_MODE_OPER_ERROR:
        case LOG_MODE_ERROR:
            return LOG_ERR;
        case LOG_MODE_DEBUG:
            return LOG_DEBUG;
        default:
            return LOG_INFO;
    }
}

}  // namespace

KSLogger::KSLogger(const char* ident) : currentFacility_(kNothingOpened) {
    if (ident != nullptr) {
        size_t n = strlen(ident) + 1;
        ident_.reset(new char[n]);
        memcpy(ident_.get(), ident, n);
    }
}

// closelog makes syslog forget the ident pointer that openlog kept, which is about to be freed.
// Another logger that opened syslog since then loses its ident until it reopens; with one
// logger per process (rh_logger) that only happens at exit.
KSLogger::~KSLogger() {
    if (currentFacility_.load() != kNothingOpened) closelog();
}

int KSLogger::facilityFromName(const char* name) {
    static const int kLocal[8] = {LOG_LOCAL0, LOG_LOCAL1, LOG_LOCAL2, LOG_LOCAL3,
                                  LOG_LOCAL4, LOG_LOCAL5, LOG_LOCAL6, LOG_LOCAL7};
    if (name == nullptr || strncmp(name, "local", 5) != 0) return LOG_LOCAL0;
    const char* digit = name + 5;
    if (digit[0] < '0' || digit[0] > '7' || digit[1] != '\0') return LOG_LOCAL0;
    return kLocal[digit[0] - '0'];
}

void KSLogger::openLog(LOG_FACILITY f) {
    const char* variable = f == LOG_CHANNEL_OPERATOR ? "LOG_OPER_FACILITY" : "LOG_FACILITY";
    int facility = facilityFromName(getenv(variable));
    openlog(ident_ ? ident_.get() : "unknown", LOG_PID, facility);
    currentFacility_.store(f);
}

void KSLogger::log(LOG_MODE m, const char* format, va_list args) {
    if (format == nullptr || m < LOG_MODE_OPER_INFO || m > LOG_MODE_DEBUG) return;
    int savedErrno = errno;
    LOG_FACILITY channel = kChannelOfMode[m];
    if (currentFacility_.load() != channel) openLog(channel);
    vsyslog(priorityOfMode(m), format, args);
    errno = savedErrno;
}

void KSLogger::debugLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log(LOG_MODE_DEBUG, format, args);
    va_end(args);
}

void KSLogger::infoLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log(LOG_MODE_INFO, format, args);
    va_end(args);
}

void KSLogger::operInfoLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log(LOG_MODE_OPER_INFO, format, args);
    va_end(args);
}

void KSLogger::errorLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    log(LOG_MODE_ERROR, format, args);
    va_end(args);
}
