#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kelp {
namespace db {

struct MatchNode;

// The typed tree of a query's matching keys: one node per key, of the kind of match its value
// asks for. Built by KeyParser; read by QuerySqlBuilder (to SQL) and ReferenceMatcher (in
// memory). Plain values: copyable, not synchronised.

// An empty value or only '*': matches every entity, adds no condition.
struct UniversalMatch {};

// One value, compared whole. caseInsensitive only for person names when the query asks for it.
struct SingleValueMatch {
    std::string value;
    bool caseInsensitive = false;
};

// UIDs separated by backslashes: any one of them matches. Duplicates removed, order kept.
struct UidListMatch {
    std::vector<std::string> uids;
};

// A value with '*' (any run, also empty) and '?' (exactly one character); runs of '*' collapsed
// to one. Every other character, '%' and '_' included, stands for itself.
struct WildcardMatch {
    std::string pattern;
    bool caseInsensitive = false;
};

// How a date, time or date-time bound is compared with a stored value.
enum class Clock {
    // With the stored value as it is, on the entity's own clock.
    Local,
    // As an instant: the stored value less the entity's offset from UTC, against a bound that
    // is itself given in UTC.
    Utc,
};

// One end of a range, as microseconds (see DicomTime): a date's or date-time's moment, or a
// time of day.
struct RangeBound {
    int64_t micros = 0;
    Clock clock = Clock::Local;
};

// A DA, TM or DT value or range: the stored value lies within [lower, upper], inclusive; an absent
// bound is open. A single value is the range of the period it names.
struct RangeMatch {
    std::optional<RangeBound> lower;
    std::optional<RangeBound> upper;
};

// A DA key and a TM key of the same level with the same range form, matched as one instant:
// the stored date plus the stored time of timeTag lies within [lower, upper].
struct DateTimeMatch {
    uint32_t timeTag = 0;
    std::optional<RangeBound> lower;
    std::optional<RangeBound> upper;
};

// The value "" with empty-value matching: entities whose attribute is empty or absent.
struct EmptyValueMatch {};

// A sequence key with its one item: an entity matches when one of its stored items matches
// every key of the item.
struct SequenceMatch {
    std::vector<MatchNode> item;
};

using Match = std::variant<UniversalMatch, SingleValueMatch, UidListMatch, WildcardMatch,
                           RangeMatch, DateTimeMatch, EmptyValueMatch, SequenceMatch>;

struct MatchNode {
    uint32_t tag = 0;
    std::string vr;
    Match match;
};

}  // namespace db
}  // namespace kelp
