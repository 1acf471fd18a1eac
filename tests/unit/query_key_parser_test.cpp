// Reading DICOM matching keys into the typed tree: the kind of match each value asks for,
// range bounds rounded to their precision, and the clear refusal of keys that cannot be matched.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DBException.h"
#include "DicomTime.h"
#include "KeyParser.h"
#include "QueryMapping.h"

using namespace kelp::db;

namespace {

const int64_t kDay = DicomTime::kMicrosPerDay;
const int64_t kSecond = DicomTime::kMicrosPerSecond;

QueryMapping exampleMapping() {
    return QueryMapping::load(std::string(RH_TEST_SOURCE_DIR) + "/db/query-mapping.cfg");
}

MatchNode parseOne(uint32_t tag, const std::string& vr, const std::string& value,
                   QueryOptions options = QueryOptions()) {
    static const QueryMapping mapping = exampleMapping();
    KeyParser parser(mapping, options);
    MatchingKey key;
    key.tag = tag;
    key.vr = vr;
    key.value = value;
    return parser.parseKey(key);
}

int64_t day(int year, unsigned month, unsigned mday) {
    return DicomTime::daysFromCivil(year, month, mday) * kDay;
}

std::string refusal(uint32_t tag, const std::string& vr, const std::string& value,
                    QueryOptions options = QueryOptions()) {
    try {
        parseOne(tag, vr, value, options);
    } catch (const DBException& e) {
        return e.what();
    }
    return "accepted";
}

}  // namespace

TEST(QueryKeyParser, emptyValuesAndLoneStarsAreUniversalForEveryVr) {
    for (const char* vr : {"PN", "LO", "CS", "UI", "DA", "TM", "DT", "AE", "UT"}) {
        for (const char* value : {"", "*", "***", "   "}) {
            EXPECT_TRUE(std::holds_alternative<UniversalMatch>(parseOne(1, vr, value).match))
                << vr << " '" << value << "'";
        }
    }
}

TEST(QueryKeyParser, textValuesAreSingleOrWildcardWithPaddingRemovedAndStarsCollapsed) {
    auto single = parseOne(0x00100020, "LO", "  ID 7  ");
    ASSERT_TRUE(std::holds_alternative<SingleValueMatch>(single.match));
    EXPECT_EQ("ID 7", std::get<SingleValueMatch>(single.match).value);

    auto wild = parseOne(0x00100010, "PN", "SM**TH?%_*");
    ASSERT_TRUE(std::holds_alternative<WildcardMatch>(wild.match));
    EXPECT_EQ("SM*TH?%_*", std::get<WildcardMatch>(wild.match).pattern);
    EXPECT_FALSE(std::get<WildcardMatch>(wild.match).caseInsensitive);

    QueryOptions folded;
    folded.caseInsensitivePersonNames = true;
    EXPECT_TRUE(std::get<SingleValueMatch>(parseOne(0x00100010, "PN", "smith", folded).match)
                    .caseInsensitive);
    EXPECT_FALSE(
        std::get<SingleValueMatch>(parseOne(0x00100020, "LO", "x", folded).match).caseInsensitive);

    auto freeText = parseOne(1, "LT", "  a\\b  ");
    EXPECT_EQ("  a\\b", std::get<SingleValueMatch>(freeText.match).value);
}

TEST(QueryKeyParser, uidListsKeepEachUidOnceInOrder) {
    auto list = parseOne(0x0020000D, "UI", "1.2.3\\1.2.4\\1.2.3\\ 1.5 ");
    ASSERT_TRUE(std::holds_alternative<UidListMatch>(list.match));
    EXPECT_EQ((std::vector<std::string>{"1.2.3", "1.2.4", "1.5"}),
              std::get<UidListMatch>(list.match).uids);
    EXPECT_TRUE(std::holds_alternative<SingleValueMatch>(parseOne(1, "UI", "1.2").match));
}

TEST(QueryKeyParser, dateAndTimeBoundsCoverTheWholeOfTheirPrecision) {
    auto upTo = std::get<RangeMatch>(parseOne(0x00080020, "DA", "-20241231").match);
    EXPECT_FALSE(upTo.lower);
    EXPECT_EQ(day(2025, 1, 1) - 1, upTo.upper->micros);

    auto from = std::get<RangeMatch>(parseOne(0x00080020, "DA", "20240229-").match);
    EXPECT_EQ(day(2024, 2, 29), from.lower->micros);
    EXPECT_FALSE(from.upper);

    auto hour = std::get<RangeMatch>(parseOne(0x00080030, "TM", "-10").match);
    EXPECT_EQ(11 * 3600 * kSecond - 1, hour.upper->micros);  // 10:59:59.999999
    auto fraction = std::get<RangeMatch>(parseOne(0x00080030, "TM", "101500.5-101500.5").match);
    EXPECT_EQ((10 * 3600 + 15 * 60) * kSecond + 500000, fraction.lower->micros);
    EXPECT_EQ((10 * 3600 + 15 * 60) * kSecond + 599999, fraction.upper->micros);

    auto year = std::get<RangeMatch>(parseOne(0x0008002A, "DT", "2024").match);
    EXPECT_EQ(day(2024, 1, 1), year.lower->micros);
    EXPECT_EQ(day(2025, 1, 1) - 1, year.upper->micros);
    EXPECT_EQ(Clock::Local, year.lower->clock);
}

TEST(QueryKeyParser, dateTimeRangesAreSplitByStructureSoNegativeOffsetsWork) {
    auto range =
        std::get<RangeMatch>(parseOne(0x0008002A, "DT", "20240101120000-0500-20240102").match);
    EXPECT_EQ(Clock::Utc, range.lower->clock);
    EXPECT_EQ(day(2024, 1, 1) + 17 * 3600 * kSecond, range.lower->micros);
    EXPECT_EQ(Clock::Local, range.upper->clock);
    EXPECT_EQ(day(2024, 1, 3) - 1, range.upper->micros);

    auto years = std::get<RangeMatch>(parseOne(0x0008002A, "DT", "2023-2024").match);
    EXPECT_EQ(day(2023, 1, 1), years.lower->micros);
    EXPECT_EQ(day(2025, 1, 1) - 1, years.upper->micros);

    auto zoned = std::get<RangeMatch>(parseOne(0x0008002A, "DT", "202401011200-0330").match);
    EXPECT_EQ(zoned.lower->micros, day(2024, 1, 1) + (15 * 60 + 30) * 60 * kSecond);
    EXPECT_EQ(zoned.upper->micros - zoned.lower->micros, 60 * kSecond - 1);

    QueryOptions adjusted;
    adjusted.timezoneAdjustment = true;
    adjusted.timezoneOffset = "+0100";
    auto moved = std::get<RangeMatch>(parseOne(0x0008002A, "DT", "20240101-", adjusted).match);
    EXPECT_EQ(Clock::Utc, moved.lower->clock);
    EXPECT_EQ(day(2024, 1, 1) - 3600 * kSecond, moved.lower->micros);
}

TEST(QueryKeyParser, keysThatCannotBeMatchedAsGivenAreRefusedNamingTheKey) {
    struct Case {
        uint32_t tag;
        const char* vr;
        const char* value;
        const char* reason;
    };
    const Case cases[] = {
        {0x0020000D, "UI", "1.2.*", "wildcards are not matched for UIDs"},
        {0x0020000D, "UI", "1.2.3\\", "is not a UID"},
        {0x0020000D, "UI", "1.2'3", "is not a UID"},
        {0x00080060, "CS", "CT-MR", ""},  // a plain value: accepted below
        {0x00080060, "CS", "CT\\MR", "a list of values is matched only for UIDs"},
        {0x00080020, "DA", "20240230", "is not a valid date"},
        {0x00080020, "DA", "2024*", "is not a valid date"},
        {0x00080020, "DA", "-", "a range needs at least one bound"},
        {0x00080020, "DA", "20240102-20240101", "the range ends before it starts"},
        {0x00080020, "DA", "2024-01-01", "a range has one '-'"},
        {0x00080030, "TM", "2300-0100", "crosses midnight"},
        {0x00080030, "TM", "24", "is not a valid time"},
        {0x00080030, "TM", "101500.1234567", "is not a valid time"},
        {0x0008002A, "DT", "20240101+1500", "not a valid date-time"},
        {0x0008002A, "DT", "0500-0600", "reads both as a date-time with an offset and as a range"},
        {0x00101010, "AS", "04?Y", "wildcards are not matched for VR AS"},
        {0x00200013, "IS", "5", "values of VR IS cannot be matched"},
        {0x00100010, "PN", std::string("A\0B", 3).c_str(), "NUL"},
        {0x00100010, "PN", "\xC3\x28", "not valid UTF-8"},
        {0x00100010, "PN", "\xE0\x80\xAF", "not valid UTF-8"},
    };
    for (const Case& c : cases) {
        std::string value = c.value;
        if (std::string(c.reason) == "NUL") value = std::string("A\0B", 3);
        std::string text = refusal(c.tag, c.vr, value);
        if (*c.reason == '\0') {
            EXPECT_EQ("accepted", text) << c.value;
            continue;
        }
        EXPECT_NE(std::string::npos, text.find(KeyParser::tagName(c.tag))) << text;
        EXPECT_NE(std::string::npos, text.find(c.reason)) << c.value << ": " << text;
    }
    QueryOptions badOffset;
    badOffset.timezoneAdjustment = true;
    badOffset.timezoneOffset = "0100";
    EXPECT_NE(std::string::npos,
              refusal(0x0008002A, "DT", "2024", badOffset).find("not a valid &ZZXX offset"));
}

TEST(QueryKeyParser, quotedEmptyValueIsEmptyValueMatchingOnlyWithTheOption) {
    QueryOptions empty;
    empty.emptyValueMatching = true;
    EXPECT_TRUE(std::holds_alternative<EmptyValueMatch>(parseOne(1, "LO", "\"\"", empty).match));
    EXPECT_TRUE(std::holds_alternative<EmptyValueMatch>(parseOne(1, "DA", "\"\"", empty).match));
    EXPECT_TRUE(std::holds_alternative<SingleValueMatch>(parseOne(1, "LO", "\"\"").match));
}

TEST(QueryKeyParser, studyDateAndTimeWithTheSameFormCombineIntoOneInstant) {
    const QueryMapping mapping = exampleMapping();
    QueryOptions options;
    options.combinedDateTime = true;
    KeyParser parser(mapping, options);
    std::vector<uint32_t> unused;
    auto nodes = parser.parse({{0x00080020, "DA", "20240101-20240105", {}},
                               {0x00080030, "TM", "1000-1200", {}},
                               {0x00080021, "DA", "20240101-", {}},
                               {0x00080031, "TM", "-1200", {}},
                               {0x99990010, "LO", "x", {}}},
                              unused);
    ASSERT_EQ(3u, nodes.size());
    ASSERT_TRUE(std::holds_alternative<DateTimeMatch>(nodes[0].match));
    const auto& both = std::get<DateTimeMatch>(nodes[0].match);
    EXPECT_EQ(0x00080030u, both.timeTag);
    EXPECT_EQ(day(2024, 1, 1) + 10 * 3600 * kSecond, both.lower->micros);
    EXPECT_EQ(day(2024, 1, 5) + (12 * 3600 + 60) * kSecond - 1, both.upper->micros);
    // Series date and time have different forms: each keeps its own range.
    EXPECT_TRUE(std::holds_alternative<RangeMatch>(nodes[1].match));
    EXPECT_TRUE(std::holds_alternative<RangeMatch>(nodes[2].match));
    EXPECT_EQ(std::vector<uint32_t>{0x99990010u}, unused);
}

TEST(QueryKeyParser, sequenceKeysCarryTheirItemAndAnAllUniversalItemMatchesEverything) {
    const QueryMapping mapping = exampleMapping();
    KeyParser parser(mapping, QueryOptions());
    std::vector<uint32_t> unused;
    MatchingKey sequence{
        0x00400275,
        "SQ",
        "",
        {{0x00401001, "SH", "RP1", {}}, {0x00400009, "SH", "*", {}}, {0x00321060, "LO", "x", {}}}};
    auto nodes = parser.parse({sequence}, unused);
    ASSERT_TRUE(std::holds_alternative<SequenceMatch>(nodes[0].match));
    EXPECT_EQ(2u, std::get<SequenceMatch>(nodes[0].match).item.size());
    EXPECT_EQ(std::vector<uint32_t>{0x00321060u}, unused);

    sequence.item = {{0x00401001, "SH", "", {}}};
    nodes = parser.parse({sequence}, unused);
    EXPECT_TRUE(std::holds_alternative<UniversalMatch>(nodes[0].match));
}
