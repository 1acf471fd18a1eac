#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kelp {
namespace db {

// One statement of a facet: its index among the facet's statements (-1 until registered), the
// function that builds its SQL text from the facet's table names when it is first prepared, and
// the number of parameter markers and result columns its bindings need. A plain value type.
struct PsQuery {
    int id = -1;
    std::function<std::string()> text;
    uint64_t paramCount = 0;
    uint64_t resultCount = 0;
};

}  // namespace db
}  // namespace kelp
