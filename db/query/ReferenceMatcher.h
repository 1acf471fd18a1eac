#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "MatchNode.h"
#include "RhExport.h"

namespace kelp {
namespace db {

// One entity as the matcher sees it: its attributes in DICOM text form (DA "20240131", TM
// "101500.25", DT "20240131101500" on the entity's own clock; a tag that is absent has no entry,
// an empty attribute an empty text), the items of its sequences, and its offset from UTC in
// minutes east.
struct ReferenceEntity {
    std::map<uint32_t, std::string> values;
    std::map<uint32_t, std::vector<std::map<uint32_t, std::string>>> sequences;
    int offsetMinutes = 0;
};

// Decides in memory whether an entity matches a tree of matching keys, straight from the rules
// of DICOM matching and independent of any SQL. The tests hold the database's answers against
// it; the builder uses it to re-check conditions that SQL can only approximate (case-insensitive
// person names, searched through a case- and accent-insensitive copy). Stateless; thread-safe.
class RH_EXPORT ReferenceMatcher {
  public:
    // Whether the entity matches every node.
    static bool matches(const std::vector<MatchNode>& nodes, const ReferenceEntity& entity);
    static bool matches(const MatchNode& node, const ReferenceEntity& entity);

    // Lower-case form of a UTF-8 text for case-insensitive matching: simple one-to-one case
    // pairs of Latin (ASCII, Latin-1, Latin Extended-A), Greek and Cyrillic letters. Bytes that
    // are not valid UTF-8 are kept as they are.
    static std::u32string foldCase(const std::string& text);
    static std::u32string codePoints(const std::string& text);
    // Replaces out with the code points of text, lower-cased as foldCase does when fold is set.
    static void decode(const std::string& text, bool fold, std::u32string& out);
    // Whether text matches pattern, '*' standing for any run of code points and '?' for one.
    static bool wildcardMatches(const std::u32string& pattern, const std::u32string& text);
};

}  // namespace db
}  // namespace kelp
