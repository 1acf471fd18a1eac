#pragma once

#include <cstdarg>
#include <cstdio>
#include <ostream>
#include <string>

#include "RhExport.h"

// Base of the library's exception family: an integer code and a message. Thrown by value and
// caught by reference. Copyable; not synchronised (each instance belongs to one thread).
class RH_EXPORT KSException {
  public:
    // Code 1, message "Unknown exception".
    KSException();
    // The given code and an empty message.
    explicit KSException(int code);
    // Code 1; the message is the printf-style expansion of format, cut to 1023 characters.
    // A null format gives an empty message.
    explicit KSException(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // As above with the given code.
    KSException(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // The message is taken as is (no formatting, no length limit).
    KSException(int code, std::string message);
    virtual ~KSException();

    KSException(const KSException&) = default;
    KSException& operator=(const KSException&) = default;
    KSException(KSException&&) = default;
    KSException& operator=(KSException&&) = default;

    // Writes the printable form into out (replacing its contents).
    virtual void toString(std::string& out) const;
    std::string toString() const;

    // Writes toString() and a newline. A null stream writes nothing.
    void print(FILE* stream) const;
    void print(std::ostream& stream) const;

    int getCode() const { return code_; }
    const std::string& getMessage() const { return message_; }

  protected:
    // Expands format into at most 1023 characters; a null format gives "".
    static std::string formatMessage(const char* format, va_list args);
    // "[code] message", the common tail of every printable form.
    std::string codeAndMessage() const;

    void setMessage(std::string message) { message_ = std::move(message); }

  private:
    int code_;
    std::string message_;
};
