#include "KeyParser.h"

#include <algorithm>
#include <string_view>

#include "DBException.h"
#include "QueryMapping.h"

namespace kelp {
namespace db {

namespace {

bool validUtf8(const std::string& text) {
    size_t i = 0;
    const size_t n = text.size();
    while (i < n) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t extra;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= n) return false;
        for (size_t k = 1; k <= extra; ++k) {
            unsigned char d = static_cast<unsigned char>(text[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (d & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

bool isTextVr(const std::string& vr) {
    static const char* const kText[] = {"AE", "AS", "CS", "LO", "LT", "PN",
                                        "SH", "ST", "UC", "UR", "UT"};
    return std::find_if(std::begin(kText), std::end(kText),
                        [&](const char* v) { return vr == v; }) != std::end(kText);
}

// Texts in which a backslash is an ordinary character, and leading spaces count.
bool isFreeTextVr(const std::string& vr) {
    return vr == "LT" || vr == "ST" || vr == "UT";
}

std::string unpadded(const std::string& vr, const std::string& value) {
    size_t end = value.find_last_not_of(' ');
    if (end == std::string::npos) return std::string();
    size_t begin = isFreeTextVr(vr) ? 0 : value.find_first_not_of(' ');
    return value.substr(begin, end + 1 - begin);
}

bool onlyStars(const std::string& value) {
    return !value.empty() && value.find_first_not_of('*') == std::string::npos;
}

// A view of text without its leading and trailing spaces.
std::string_view trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) return std::string_view();
    return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

// The '*' and '?' of a value (a loop: find_first_of would call memchr once per character).
bool hasWildcard(std::string_view value) {
    for (char c : value)
        if (c == '*' || c == '?') return true;
    return false;
}

// The distinct values of a list, as views into its text: an open-addressing table of at least
// twice as many slots as values, one allocation however long the list.
class UidSet {
  public:
    explicit UidSet(size_t count) {
        size_t size = 16;
        while (size < 2 * count) size *= 2;
        slots_.resize(size);
    }
    // Whether uid was not in the set before; it is now.
    bool insert(std::string_view uid) {
        const size_t mask = slots_.size() - 1;
        for (size_t i = std::hash<std::string_view>()(uid) & mask;; i = (i + 1) & mask) {
            if (slots_[i].data() == nullptr) {
                slots_[i] = uid;
                return true;
            }
            if (slots_[i] == uid) return false;
        }
    }

  private:
    std::vector<std::string_view> slots_;
};

bool validUid(std::string_view uid) {
    if (uid.empty() || uid.size() > 64) return false;
    for (char c : uid)
        if (c != '.' && (c < '0' || c > '9')) return false;
    return true;
}

// A value as error texts show it: control characters as \xNN, and at most 64 bytes of it.
std::string shown(const std::string& value) {
    std::string out;
    for (size_t i = 0; i < value.size() && i < 64; ++i) {
        unsigned char c = static_cast<unsigned char>(value[i]);
        if (c < 0x20 || c == 0x7F) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    if (value.size() > 64) out += "... (" + std::to_string(value.size()) + " bytes)";
    return out;
}

}  // namespace

KeyParser::KeyParser(const QueryMapping& mapping, const QueryOptions& options)
    : mapping_(mapping), options_(options) {
    if (options_.timezoneAdjustment &&
        !DicomTime::parseOffset(options_.timezoneOffset, offsetMinutes_))
        throw DBException("Timezone Offset From UTC '" + shown(options_.timezoneOffset) +
                          "' is not a valid &ZZXX offset");
}

std::string KeyParser::tagName(uint32_t tag) {
    std::string text = QueryMapping::tagText(tag);
    return "(" + text.substr(0, 4) + "," + text.substr(4) + ")";
}

void KeyParser::fail(const MatchingKey& key, const std::string& why) const {
    throw DBException("Matching key " + tagName(key.tag) + " " + key.vr + " '" + shown(key.value) +
                      "': " + why);
}

std::vector<MatchNode> KeyParser::parse(const std::vector<MatchingKey>& keys,
                                        std::vector<uint32_t>& unused) const {
    std::vector<MatchNode> nodes;
    std::vector<Form> forms;
    for (const MatchingKey& key : keys) {
        if (key.vr == "SQ") {
            if (!mapping_.sequence(key.tag)) {
                unused.push_back(key.tag);
                continue;
            }
            nodes.push_back(parseSequence(key, unused));
            forms.push_back(Form::Single);
            continue;
        }
        if (!mapping_.column(key.tag)) {
            unused.push_back(key.tag);
            continue;
        }
        Form form = Form::Single;
        nodes.push_back(parseValue(key, &form));
        forms.push_back(form);
    }
    if (options_.combinedDateTime) combineDatesAndTimes(nodes, forms);
    return nodes;
}

MatchNode KeyParser::parseSequence(const MatchingKey& key, std::vector<uint32_t>& unused) const {
    const SequenceTable& table = *mapping_.sequence(key.tag);
    SequenceMatch sequence;
    bool universal = true;
    for (const MatchingKey& itemKey : key.item) {
        if (itemKey.vr == "SQ") fail(key, "a sequence inside a sequence item cannot be matched");
        if (!table.items.count(itemKey.tag)) {
            unused.push_back(itemKey.tag);
            continue;
        }
        MatchNode node = parseValue(itemKey, nullptr);
        if (!std::holds_alternative<UniversalMatch>(node.match)) universal = false;
        sequence.item.push_back(std::move(node));
    }
    MatchNode node;
    node.tag = key.tag;
    node.vr = key.vr;
    if (universal) {
        node.match = UniversalMatch{};
    } else {
        node.match = std::move(sequence);
    }
    return node;
}

MatchNode KeyParser::parseKey(const MatchingKey& key) const {
    if (key.vr == "SQ") fail(key, "a sequence is matched only through the mapping");
    return parseValue(key, nullptr);
}

MatchNode KeyParser::parseValue(const MatchingKey& key, Form* form) const {
    MatchNode node;
    node.tag = key.tag;
    node.vr = key.vr;
    if (key.value.find('\0') != std::string::npos) fail(key, "the value holds a NUL character");
    if (!validUtf8(key.value)) fail(key, "the value is not valid UTF-8");
    const std::string value = unpadded(key.vr, key.value);
    Form ignored;
    Form& shape = form ? *form : ignored;
    shape = Form::Single;
    if (options_.emptyValueMatching && value == "\"\"") {
        node.match = EmptyValueMatch{};
    } else if (value.empty() || onlyStars(value)) {
        node.match = UniversalMatch{};
    } else if (key.vr == "UI") {
        node.match = parseUids(key, value);
    } else if (key.vr == "DA" || key.vr == "TM") {
        node.match = parseRange(key, value, shape);
    } else if (key.vr == "DT") {
        node.match = parseDateTimeRange(key, value, shape);
    } else if (isTextVr(key.vr)) {
        node.match = parseText(key, value);
    } else {
        fail(key, "values of VR " + shown(key.vr) + " cannot be matched");
    }
    return node;
}

Match KeyParser::parseText(const MatchingKey& key, const std::string& value) const {
    if (value.find('\\') != std::string::npos && !isFreeTextVr(key.vr))
        fail(key, "a list of values is matched only for UIDs");
    const bool wild = hasWildcard(value);
    const bool caseInsensitive = key.vr == "PN" && options_.caseInsensitivePersonNames;
    if (!wild) return SingleValueMatch{value, caseInsensitive};
    if (key.vr == "AS") fail(key, "wildcards are not matched for VR AS");
    std::string pattern;
    for (char c : value)
        if (c != '*' || pattern.empty() || pattern.back() != '*') pattern += c;
    return WildcardMatch{pattern, caseInsensitive};
}

Match KeyParser::parseUids(const MatchingKey& key, const std::string& value) const {
    if (hasWildcard(value)) fail(key, "wildcards are not matched for UIDs");
    // Lists of thousands of UIDs are common (a viewer asking for every study of a work list):
    // the values are cut out as views of the key's text, and copied once, into the answer.
    const std::string_view text(value);
    const size_t count = static_cast<size_t>(std::count(text.begin(), text.end(), '\\')) + 1;
    std::vector<std::string> uids;
    uids.reserve(count);
    UidSet seen(count);
    size_t start = 0;
    while (true) {
        const size_t end = text.find('\\', start);
        const std::string_view uid = trimmed(text.substr(start, end - start));
        if (!validUid(uid)) fail(key, "'" + shown(std::string(uid)) + "' is not a UID");
        if (seen.insert(uid)) uids.emplace_back(uid);
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    if (uids.size() == 1) return SingleValueMatch{uids[0], false};
    return UidListMatch{std::move(uids)};
}

Match KeyParser::parseRange(const MatchingKey& key, const std::string& value, Form& form) const {
    const bool date = key.vr == "DA";
    auto parse = [&](const std::string& text, DicomPeriod& out) {
        bool ok = date ? DicomTime::parseDate(text, out) : DicomTime::parseTime(text, out);
        if (!ok) fail(key, "'" + shown(text) + "' is not a valid " + (date ? "date" : "time"));
    };
    size_t dash = value.find('-');
    if (dash != std::string::npos && value.find('-', dash + 1) != std::string::npos)
        fail(key, "a range has one '-'");
    RangeMatch range;
    DicomPeriod lower, upper;
    if (dash == std::string::npos) {
        parse(value, lower);
        range.lower = RangeBound{lower.first, Clock::Local};
        range.upper = RangeBound{lower.last, Clock::Local};
        form = Form::Single;
        return range;
    }
    std::string from = value.substr(0, dash), to = value.substr(dash + 1);
    if (from.empty() && to.empty()) fail(key, "a range needs at least one bound");
    if (!from.empty()) {
        parse(from, lower);
        range.lower = RangeBound{lower.first, Clock::Local};
    }
    if (!to.empty()) {
        parse(to, upper);
        range.upper = RangeBound{upper.last, Clock::Local};
    }
    if (range.lower && range.upper && range.lower->micros > range.upper->micros)
        fail(key, date ? "the range ends before it starts"
                       : "a time range that crosses midnight cannot be matched; split it in two");
    form = from.empty() ? Form::To : to.empty() ? Form::From : Form::Closed;
    return range;
}

RangeBound KeyParser::zoned(int64_t micros, const DicomPeriod& period) const {
    if (period.offsetMinutes)
        return RangeBound{micros - *period.offsetMinutes * DicomTime::kMicrosPerMinute, Clock::Utc};
    if (options_.timezoneAdjustment)
        return RangeBound{micros - offsetMinutes_ * DicomTime::kMicrosPerMinute, Clock::Utc};
    return RangeBound{micros, Clock::Local};
}

// A date-time may hold '-' in its offset, so the range separator is found by structure: every
// way of reading the value as one date-time or as two around one '-' is tried, and exactly one
// must be valid.
Match KeyParser::parseDateTimeRange(const MatchingKey& key, const std::string& value,
                                    Form& form) const {
    std::vector<std::pair<RangeMatch, Form>> readings;
    DicomPeriod single;
    if (DicomTime::parseDateTime(value, single)) {
        RangeMatch range;
        range.lower = zoned(single.first, single);
        range.upper = zoned(single.last, single);
        readings.emplace_back(range, Form::Single);
    }
    for (size_t dash = value.find('-'); dash != std::string::npos;
         dash = value.find('-', dash + 1)) {
        std::string from = value.substr(0, dash), to = value.substr(dash + 1);
        if (from.empty() && to.empty()) continue;
        DicomPeriod lower, upper;
        if (!from.empty() && !DicomTime::parseDateTime(from, lower)) continue;
        if (!to.empty() && !DicomTime::parseDateTime(to, upper)) continue;
        RangeMatch range;
        if (!from.empty()) range.lower = zoned(lower.first, lower);
        if (!to.empty()) range.upper = zoned(upper.last, upper);
        if (range.lower && range.upper && range.lower->clock == range.upper->clock &&
            range.lower->micros > range.upper->micros)
            continue;
        readings.emplace_back(range, from.empty() ? Form::To
                                     : to.empty() ? Form::From
                                                  : Form::Closed);
    }
    if (readings.empty()) fail(key, "not a valid date-time or date-time range");
    if (readings.size() > 1)
        fail(key, "the value reads both as a date-time with an offset and as a range");
    form = readings[0].second;
    return readings[0].first;
}

void KeyParser::combineDatesAndTimes(std::vector<MatchNode>& nodes,
                                     std::vector<Form>& forms) const {
    for (size_t d = 0; d < nodes.size(); ++d) {
        if (nodes[d].vr != "DA" || !std::holds_alternative<RangeMatch>(nodes[d].match)) continue;
        std::optional<uint32_t> timeTag = mapping_.timeTagOf(nodes[d].tag);
        if (!timeTag) continue;
        for (size_t t = 0; t < nodes.size(); ++t) {
            if (nodes[t].tag != *timeTag || nodes[t].vr != "TM" || forms[t] != forms[d] ||
                !std::holds_alternative<RangeMatch>(nodes[t].match))
                continue;
            const RangeMatch& date = std::get<RangeMatch>(nodes[d].match);
            const RangeMatch& time = std::get<RangeMatch>(nodes[t].match);
            DateTimeMatch combined;
            combined.timeTag = *timeTag;
            DicomPeriod local;  // no offset of its own: the query's offset applies, if asked for
            if (date.lower) combined.lower = zoned(date.lower->micros + time.lower->micros, local);
            if (date.upper) {
                int64_t day = date.upper->micros - (DicomTime::kMicrosPerDay - 1);
                combined.upper = zoned(day + time.upper->micros, local);
            }
            nodes[d].match = combined;
            nodes.erase(nodes.begin() + static_cast<long>(t));
            forms.erase(forms.begin() + static_cast<long>(t));
            if (t < d) --d;
            break;
        }
    }
}

}  // namespace db
}  // namespace kelp
