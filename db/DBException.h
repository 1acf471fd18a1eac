#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "RhExport.h"

namespace kelp {
namespace db {

// The only exception that leaves the database layer. Built from a message alone its text is the
// message and its code 0; with a code the text is message " [" code "]". code is the MySQL error
// number when the server or client library reported one.
class RH_EXPORT DBException : public std::exception {
  public:
    explicit DBException(const std::string& message);
    DBException(const std::string& message, uint32_t code);
    ~DBException() override;

    const char* what() const noexcept override;
    uint32_t code() const { return code_; }

  private:
    std::string text_;
    uint32_t code_;
};

}  // namespace db
}  // namespace kelp
