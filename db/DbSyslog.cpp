#include "DbSyslog.h"

#include <syslog.h>

#include <cstdarg>

#include "KSLogger.h"

namespace kelp {
namespace db {

void dbSyslog(const char* ident, const char* format, ...) {
    va_list args;
    va_start(args, format);
    openlog(ident, LOG_PID, LOG_LOCAL3);
    vsyslog(LOG_ERR | LOG_LOCAL3, format, args);
    closelog();
    // closelog also dropped the repository side's identity and channel.
    rh_logger.forgetOpenChannel();
    va_end(args);
}

}  // namespace db
}  // namespace kelp
