#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelp {
namespace db {

// Query levels from the top of the hierarchy down.
enum class QueryLevel { Patient = 0, Study = 1, Series = 2, Instance = 3 };

// One matching key as received: its tag, its VR ("PN", "DA", "SQ", ...) and its value exactly
// as received, decoded to UTF-8. A sequence key (VR "SQ") has no value and carries the keys of
// its one item in item.
struct MatchingKey {
    uint32_t tag = 0;
    std::string vr;
    std::string value;
    std::vector<MatchingKey> item;
};

struct QueryOptions {
    // Person names (PN) match whatever their letter case.
    bool caseInsensitivePersonNames = false;
    // A value of "" (two double quotes) matches entities whose attribute is empty or absent.
    bool emptyValueMatching = false;
    // A DA key and a TM key that belong together (study date and time, ...) and have the same
    // range form match as one instant.
    bool combinedDateTime = false;
    // Date-times, and dates and times where combined, compare in timezoneOffset (&ZZXX, the
    // query's Timezone Offset From UTC); stored values are moved from their entity's offset.
    bool timezoneAdjustment = false;
    std::string timezoneOffset;
};

// A search: its level, its matching keys, the tags whose values each answer row carries, the
// options, and which part of the answer to return (limit 0: all rows).
struct QueryRequest {
    QueryLevel level = QueryLevel::Study;
    std::vector<MatchingKey> keys;
    std::vector<uint32_t> returnKeys;
    QueryOptions options;
    uint64_t limit = 0;
    uint64_t offset = 0;
};

// The answer: one row per matching entity, ordered by the level's key, each with one value per
// return key in the request's order (DICOM text form; no value when absent or when the tag has
// no column), and the tags of matching and return keys that the mapping has no column for.
struct QueryAnswer {
    std::vector<std::vector<std::optional<std::string>>> rows;
    std::vector<uint32_t> unusedKeys;
};

}  // namespace db
}  // namespace kelp
