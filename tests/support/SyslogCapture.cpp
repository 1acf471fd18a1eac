// Deliberately does not include <syslog.h>: fortified builds declare syslog there as an inline
// wrapper, which would clash with the definitions below.
#include "SyslogCapture.h"

#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

constexpr int kLevelMask = 0x07;
constexpr int kFacilityMask = 0x03f8;

struct Record {
    std::mutex mutex;
    std::string ident;
    int option = 0;
    int facility = 0;
    int openlogCalls = 0;
    std::vector<SyslogLine> lines;
    std::string raiseOn;  // raiseWhenLogged: the text and signal of the pending shot
    int raiseSignal = 0;
};

// Constructed on first use so that logging from static initialisers finds it ready; never
// destroyed so that logging from static destructors is safe too.
Record& record() {
    static Record* r = new Record;
    return *r;
}

void recordMessage(int priority, const char* format, va_list args) {
    if (format == nullptr) return;
    char buffer[8192];
    vsnprintf(buffer, sizeof buffer, format, args);
    Record& r = record();
    int raise = 0;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        SyslogLine line;
        line.ident = r.ident;
        line.option = r.option;
        line.facility = (priority & kFacilityMask) != 0 ? (priority & kFacilityMask) : r.facility;
        line.priority = priority & kLevelMask;
        line.text = buffer;
        if (r.raiseSignal != 0 && line.text.find(r.raiseOn) != std::string::npos) {
            raise = r.raiseSignal;
            r.raiseSignal = 0;
        }
        r.lines.push_back(std::move(line));
    }
    // Outside the lock: the signal's handler may log itself.
    if (raise != 0) kill(getpid(), raise);
}

}  // namespace

extern "C" {

void openlog(const char* ident, int option, int facility) {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.ident = ident != nullptr ? ident : "";
    r.option = option;
    r.facility = facility;
    ++r.openlogCalls;
}

// As the C library does: after closelog, messages go out under the default identity
// (recorded as ""), without options, to LOG_USER (8).
void closelog(void) {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.ident.clear();
    r.option = 0;
    r.facility = 8;
}

void vsyslog(int priority, const char* format, va_list args) {
    recordMessage(priority, format, args);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

void __vsyslog_chk(int priority, int, const char* format, va_list args) {
    recordMessage(priority, format, args);
}

void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordMessage(priority, format, args);
    va_end(args);
}

}  // extern "C"

SyslogCapture::SyslogCapture() {
    clear();
}

void SyslogCapture::clear() {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.lines.clear();
    r.openlogCalls = 0;
    r.raiseSignal = 0;
}

std::vector<SyslogLine> SyslogCapture::lines() const {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.lines;
}

std::optional<SyslogLine> SyslogCapture::findContaining(const std::string& text) const {
    for (const SyslogLine& line : lines())
        if (line.text.find(text) != std::string::npos) return line;
    return std::nullopt;
}

std::optional<SyslogLine> SyslogCapture::findEqual(const std::string& text) const {
    for (const SyslogLine& line : lines())
        if (line.text == text) return line;
    return std::nullopt;
}

int SyslogCapture::countContaining(const std::string& text) const {
    int n = 0;
    for (const SyslogLine& line : lines())
        if (line.text.find(text) != std::string::npos) ++n;
    return n;
}

void SyslogCapture::raiseWhenLogged(const std::string& text, int signal) {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.raiseOn = text;
    r.raiseSignal = signal;
}

int SyslogCapture::openlogCount() const {
    Record& r = record();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.openlogCalls;
}
