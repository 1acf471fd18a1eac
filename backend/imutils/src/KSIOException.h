#pragma once

#include <string>

#include "KSException.h"
#include "RhExport.h"

// An operating-system call on a file failed; the code is usually errno.
// Prints as "IO Exception: [code] message".
class RH_EXPORT KSIOException : public KSException {
  public:
    KSIOException(int code, std::string message);

    void toString(std::string& out) const override;
    using KSException::toString;
};
