#pragma once

#include <string>

#include "KSException.h"
#include "RhExport.h"

// A wait ran out of time (for instance a lock that could not be obtained in its budget).
// Prints as "Timeout Exception: [code] message".
class RH_EXPORT KSTimeoutException : public KSException {
  public:
    KSTimeoutException(int code, std::string message);

    void toString(std::string& out) const override;
    using KSException::toString;
};
