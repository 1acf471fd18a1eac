#include "KSTimeoutException.h"

KSTimeoutException::KSTimeoutException(int code, std::string message)
    : KSException(code, std::move(message)) {}

void KSTimeoutException::toString(std::string& out) const {
    out = "Timeout Exception: " + codeAndMessage();
}
