#pragma once

#include <string>

#include "KSException.h"
#include "RhExport.h"

// A programming error: a null argument or an argument that breaks a precondition. The code is
// always 1. expression names the failed condition or argument ("name", "filename", ...), file
// the raising source given without extension ("backend/imutils/src/KSProperties"), line the
// source line. Null expression or file texts are stored as empty texts.
//
// Prints as "ASSERT (expression) in file at line N." followed by a newline and the message.
class RH_EXPORT KSAssertionException : public KSException {
  public:
    // The message is the "ASSERT (...) in ... at line N." text itself, so the printed form shows
    // that line twice.
    KSAssertionException(const char* expression, long line, const char* file);
    // The message is the printf-style expansion of format, cut to 1023 characters.
    KSAssertionException(const char* expression, long line, const char* file, const char* format,
                         ...) __attribute__((format(printf, 5, 6)));

    void toString(std::string& out) const override;
    using KSException::toString;

    const std::string& getExpression() const { return expression_; }
    const std::string& getFile() const { return file_; }
    long getLine() const { return line_; }

  private:
    std::string headline() const;

    std::string expression_;
    std::string file_;
    long line_;
};

// Throws KSAssertionException(#arg, __LINE__, file) when arg is null. file is the raising
// source's path without extension, e.g. "backend/repositoryhandler/src/libs/KSRepositoryHandler".
#define KS_ASSERT_NOT_NULL(arg, file)                                           \
    do {                                                                        \
        if ((arg) == nullptr) throw KSAssertionException(#arg, __LINE__, file); \
    } while (0)
