#include "KSAssertionException.h"

#include <cstdarg>
#include <cstdio>

namespace {
std::string orEmpty(const char* text) {
    return text != nullptr ? std::string(text) : std::string();
}
}  // namespace

KSAssertionException::KSAssertionException(const char* expression, long line, const char* file)
    : KSException(1, std::string()),
      expression_(orEmpty(expression)),
      file_(orEmpty(file)),
      line_(line) {
    setMessage(headline());
}

KSAssertionException::KSAssertionException(const char* expression, long line, const char* file,
                                           const char* format, ...)
    : KSException(1, std::string()),
      expression_(orEmpty(expression)),
      file_(orEmpty(file)),
      line_(line) {
    va_list args;
    va_start(args, format);
    setMessage(formatMessage(format, args));
    va_end(args);
}

std::string KSAssertionException::headline() const {
    char number[32];
    snprintf(number, sizeof number, "%ld", line_);
    return "ASSERT (" + expression_ + ") in " + file_ + " at line " + number + ".";
}

void KSAssertionException::toString(std::string& out) const {
    out = headline() + "\n" + getMessage();
}
