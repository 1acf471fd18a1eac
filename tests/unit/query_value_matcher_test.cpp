// The re-check of a search's rows: a key prepared once answers for each value as the reference
// matcher does.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "KeyParser.h"
#include "QueryMapping.h"
#include "ReferenceMatcher.h"
#include "ValueMatcher.h"

using namespace kelp::db;

TEST(QueryValueMatcher, aPreparedKeyAnswersEveryValueAsTheReferenceMatcherDoes) {
    const QueryMapping mapping =
        QueryMapping::load(std::string(RH_TEST_SOURCE_DIR) + "/db/query-mapping.cfg");
    QueryOptions folded;
    folded.caseInsensitivePersonNames = true;
    const std::vector<std::pair<MatchingKey, QueryOptions>> keys = {
        {{0x00100010, "PN", "smith^john", {}}, folded},
        {{0x00100010, "PN", "SMITH*", {}}, folded},
        {{0x00100010, "PN", "иван?в*", {}}, folded},
        {{0x00100010, "PN", "Smith*", {}}, {}},
        {{0x00080020, "DA", "20240101-20240131", {}}, {}},
    };
    const std::vector<std::optional<std::string>> values = {
        std::nullopt, "",       "Smith^John",  "SMITH^JOHN", "smith^johnny", "Smyth^John",
        "ИВАНОВ^И",   "Иваnов", "smith\xff^x", "20240131",   "20240201"};
    int matched = 0;
    for (const auto& [key, options] : keys) {
        const MatchNode node = KeyParser(mapping, options).parseKey(key);
        const ValueMatcher matcher(node);
        for (const auto& value : values) {
            ReferenceEntity entity;
            if (value) entity.values[key.tag] = *value;
            const bool expected = ReferenceMatcher::matches(node, entity);
            EXPECT_EQ(expected, matcher.matches(value ? &*value : nullptr))
                << key.value << " against " << value.value_or("(absent)");
            matched += expected;
        }
    }
    EXPECT_GE(matched, 6);  // the values exercise matches as well as mismatches
}
