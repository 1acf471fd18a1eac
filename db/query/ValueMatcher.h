#pragma once

#include <string>

#include "MatchNode.h"

namespace kelp {
namespace db {

// One matching key prepared for checking many values of its attribute: the re-check of each row
// of a search whose SQL condition could only approximate the key. A case-insensitive key (the
// only kind the builder re-checks today) is decoded and case-folded once here instead of once
// per row; any other key is handed to ReferenceMatcher as it is. Answers as
// ReferenceMatcher::matches(node, entity) does for an entity whose only attribute is the key's.
// Holds a copy of the node. Not synchronised: matches() reuses a buffer of its own.
class ValueMatcher {
  public:
    explicit ValueMatcher(const MatchNode& node);

    // Whether the attribute with this stored text matches; value is null when it is absent.
    bool matches(const std::string* value) const;

  private:
    enum class Kind { Folded, FoldedWildcard, Other };

    MatchNode node_;
    Kind kind_ = Kind::Other;
    std::u32string pattern_;          // Folded, FoldedWildcard: the key, decoded and folded
    mutable std::u32string scratch_;  // the value being checked, decoded
};

}  // namespace db
}  // namespace kelp
