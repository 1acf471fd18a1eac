#pragma once

#include <cstdlib>
#include <string>

namespace kelp {
namespace db {

// The value of environment variable name, or fallback when it is unset.
inline std::string envOr(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return value ? value : fallback;
}

}  // namespace db
}  // namespace kelp
