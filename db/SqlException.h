#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace kelp {
namespace db {

// A failure of the connection, statement or result layer. code is the MySQL error number, or 0
// for errors of this library's own (a wanting environment, an out-of-memory client handle).
// what() reads: message ": [" code "] " detail. Internal to the database layer: the connector
// turns it into DBException before it leaves.
class SqlException : public std::exception {
  public:
    SqlException(uint32_t code, std::string message, std::string detail);

    const char* what() const noexcept override { return text_.c_str(); }
    uint32_t code() const { return code_; }
    const std::string& message() const { return message_; }
    const std::string& detail() const { return detail_; }

  private:
    uint32_t code_;
    std::string message_;
    std::string detail_;
    std::string text_;
};

}  // namespace db
}  // namespace kelp
