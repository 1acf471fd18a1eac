#include "DBException.h"

namespace kelp {
namespace db {

DBException::DBException(const std::string& message) : text_(message), code_(0) {}

DBException::DBException(const std::string& message, uint32_t code)
    : text_(message + " [" + std::to_string(code) + "]"), code_(code) {}

DBException::~DBException() = default;

const char* DBException::what() const noexcept {
    return text_.c_str();
}

}  // namespace db
}  // namespace kelp
