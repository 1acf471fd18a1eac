#include "ValueMatcher.h"

#include "ReferenceMatcher.h"

namespace kelp {
namespace db {

ValueMatcher::ValueMatcher(const MatchNode& node) : node_(node) {
    if (const auto* single = std::get_if<SingleValueMatch>(&node.match)) {
        if (!single->caseInsensitive) return;
        kind_ = Kind::Folded;
        pattern_ = ReferenceMatcher::foldCase(single->value);
    } else if (const auto* wild = std::get_if<WildcardMatch>(&node.match)) {
        if (!wild->caseInsensitive) return;
        kind_ = Kind::FoldedWildcard;
        pattern_ = ReferenceMatcher::foldCase(wild->pattern);
    }
}

bool ValueMatcher::matches(const std::string* value) const {
    if (kind_ == Kind::Other) {
        ReferenceEntity entity;
        if (value) entity.values[node_.tag] = *value;
        return ReferenceMatcher::matches(node_, entity);
    }
    if (value == nullptr || value->empty()) return false;  // absent and empty match no value
    ReferenceMatcher::decode(*value, true, scratch_);
    if (kind_ == Kind::Folded) return scratch_ == pattern_;
    return ReferenceMatcher::wildcardMatches(pattern_, scratch_);
}

}  // namespace db
}  // namespace kelp
