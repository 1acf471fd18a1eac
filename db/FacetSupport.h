#pragma once

#include <cstdlib>
#include <new>
#include <string>

#include "DBException.h"

namespace kelp {
namespace db {

// The value of environment variable name, or fallback when it is unset.
inline std::string envOr(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return value ? value : fallback;
}

// Runs work and returns its result; memory that cannot be had for the bindings (std::bad_alloc)
// leaves as DBException("Not enough memory"), the facets' error for it.
template <class Work>
auto withBindingMemory(Work work) -> decltype(work()) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        throw DBException("Not enough memory");
    }
}

}  // namespace db
}  // namespace kelp
