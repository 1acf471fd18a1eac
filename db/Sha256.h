#pragma once

#include <string>

namespace kelp {
namespace db {

// The SHA-256 digest of data as 64 lower-case hexadecimal digits. Pure function, thread-safe.
std::string sha256Hex(const std::string& data);

}  // namespace db
}  // namespace kelp
