#pragma once

namespace kelp {
namespace db {

// Writes one line to the system log under ident ("DBConnector", "LockManager") with option
// LOG_PID, facility LOG_LOCAL3 and priority LOG_ERR. The log is opened and closed around the
// line, so the identity never leaks into other users of syslog in the process. Thread-safe as
// far as syslog itself is; never fails visibly.
void dbSyslog(const char* ident, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace db
}  // namespace kelp
