#include "KSException.h"

#include <cstdarg>
#include <cstdio>

KSException::KSException() : code_(1), message_("Unknown exception") {}

KSException::KSException(int code) : code_(code) {}

KSException::KSException(const char* format, ...) : code_(1) {
    va_list args;
    va_start(args, format);
    message_ = formatMessage(format, args);
    va_end(args);
}

KSException::KSException(int code, const char* format, ...) : code_(code) {
    va_list args;
    va_start(args, format);
    message_ = formatMessage(format, args);
    va_end(args);
}

KSException::KSException(int code, std::string message)
    : code_(code), message_(std::move(message)) {}

KSException::~KSException() = default;

std::string KSException::formatMessage(const char* format, va_list args) {
    if (format == nullptr) return std::string();
    char buffer[1024];
    int n = vsnprintf(buffer, sizeof buffer, format, args);
    if (n < 0) return std::string();
    return std::string(buffer);
}

std::string KSException::codeAndMessage() const {
    char code[32];
    snprintf(code, sizeof code, "[%d]", code_);
    return std::string(code) + " " + message_;
}

void KSException::toString(std::string& out) const {
    out = "Unknown Exception: " + codeAndMessage();
}

std::string KSException::toString() const {
    std::string out;
    toString(out);
    return out;
}

void KSException::print(FILE* stream) const {
    if (stream == nullptr) return;
    fprintf(stream, "%s\n", toString().c_str());
}

void KSException::print(std::ostream& stream) const {
    stream << toString() << "\n";
}
