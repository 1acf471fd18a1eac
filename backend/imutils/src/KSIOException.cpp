#include "KSIOException.h"

KSIOException::KSIOException(int code, std::string message)
    : KSException(code, std::move(message)) {}

void KSIOException::toString(std::string& out) const {
    out = "IO Exception: " + codeAndMessage();
}
