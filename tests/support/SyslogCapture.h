#pragma once

#include <optional>
#include <string>
#include <vector>

// Records syslog traffic of the test executable instead of sending it to the system log.
//
// SyslogCapture.cpp defines openlog, closelog, syslog, vsyslog, __syslog_chk and __vsyslog_chk;
// the test executables link the library statically, so these definitions take the place of the
// C library's as soon as a test uses SyslogCapture. Every message is kept with the ident of the
// last openlog, its option and facility (or the facility bits of the message's own priority),
// and the level part of the priority. One record per process, guarded by a mutex: every method
// is thread-safe.
struct SyslogLine {
    std::string ident;  // as passed to the last openlog; "" when none was
    int option = 0;     // openlog option, e.g. LOG_PID
    int facility = 0;   // e.g. LOG_LOCAL3
    int priority = 0;   // level only, e.g. LOG_ERR
    std::string text;   // the formatted message
};

class SyslogCapture {
  public:
    // Clears the record (lines, openlog count and a pending raiseWhenLogged).
    SyslogCapture();

    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;

    // Every message since the last clear, in order.
    std::vector<SyslogLine> lines() const;
    // The first message whose text contains / equals text.
    std::optional<SyslogLine> findContaining(const std::string& text) const;
    std::optional<SyslogLine> findEqual(const std::string& text) const;
    // Number of messages whose text contains text.
    int countContaining(const std::string& text) const;
    // openlog calls since the last clear.
    int openlogCount() const;
    // Sends `signal` to this process (a real kill(getpid(), signal)) right after the next
    // message containing `text` is recorded, in the thread that logged it and before its
    // syslog call returns; once. Lets a test deliver a signal at a chosen step of the code.
    void raiseWhenLogged(const std::string& text, int signal);

    void clear();
};
