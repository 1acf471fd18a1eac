#include "SqlException.h"

namespace kelp {
namespace db {

SqlException::SqlException(uint32_t code, std::string message, std::string detail)
    : code_(code), message_(std::move(message)), detail_(std::move(detail)) {
    text_ = message_ + ": [" + std::to_string(code_) + "] " + detail_;
}

}  // namespace db
}  // namespace kelp
