#include "ReferenceMatcher.h"

#include "DicomTime.h"

namespace kelp {
namespace db {

namespace {

char32_t lowerCase(char32_t c) {
    if (c >= U'A' && c <= U'Z') return c + 32;
    if ((c >= 0xC0 && c <= 0xDE && c != 0xD7)) return c + 32;
    if (c >= 0x100 && c <= 0x137 && c % 2 == 0) return c + 1;
    if (c >= 0x139 && c <= 0x148 && c % 2 == 1) return c + 1;
    if (c >= 0x14A && c <= 0x177 && c % 2 == 0) return c + 1;
    if (c == 0x179 || c == 0x17B || c == 0x17D) return c + 1;
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;
    if (c >= 0x410 && c <= 0x42F) return c + 32;
    if (c >= 0x400 && c <= 0x40F) return c + 80;
    return c;
}

struct Period {
    bool valid = false;
    int64_t micros = 0;
};

// The moment a stored DA, TM or DT text stands for (its start), on the entity's clock.
Period storedMoment(const std::string& vr, const std::string& text) {
    DicomPeriod period;
    Period out;
    if (vr == "DA") {
        out.valid = DicomTime::parseDate(text, period);
    } else if (vr == "TM") {
        out.valid = DicomTime::parseTime(text, period);
    } else {
        out.valid = DicomTime::parseDateTime(text, period);
    }
    out.micros = period.first;
    return out;
}

// The stored moment as it compares with bound: moved to UTC for a bound in UTC.
int64_t onClockOf(const RangeBound& bound, int64_t stored, const ReferenceEntity& entity) {
    if (bound.clock == Clock::Local) return stored;
    return stored - entity.offsetMinutes * DicomTime::kMicrosPerMinute;
}

bool inRange(const std::optional<RangeBound>& lower, const std::optional<RangeBound>& upper,
             int64_t stored, const ReferenceEntity& entity) {
    if (lower && onClockOf(*lower, stored, entity) < lower->micros) return false;
    if (upper && onClockOf(*upper, stored, entity) > upper->micros) return false;
    return true;
}

const std::string* valueOf(const ReferenceEntity& entity, uint32_t tag) {
    auto it = entity.values.find(tag);
    return it == entity.values.end() ? nullptr : &it->second;
}

}  // namespace

std::u32string ReferenceMatcher::codePoints(const std::string& text) {
    std::u32string out;
    decode(text, false, out);
    return out;
}

std::u32string ReferenceMatcher::foldCase(const std::string& text) {
    std::u32string out;
    decode(text, true, out);
    return out;
}

void ReferenceMatcher::decode(const std::string& text, bool fold, std::u32string& out) {
    out.clear();
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t extra = c < 0x80             ? 0
                       : (c & 0xE0) == 0xC0 ? 1
                       : (c & 0xF0) == 0xE0 ? 2
                       : (c & 0xF8) == 0xF0 ? 3
                                            : 4;
        char32_t cp = extra == 0 ? c : extra == 1 ? (c & 0x1F) : extra == 2 ? (c & 0x0F) : (c & 7);
        bool ok = extra < 4 && i + extra < text.size();
        for (size_t k = 1; ok && k <= extra; ++k) {
            unsigned char d = static_cast<unsigned char>(text[i + k]);
            ok = (d & 0xC0) == 0x80;
            cp = (cp << 6) | (d & 0x3F);
        }
        if (!ok) {
            out.push_back(0xDC00 + c);  // a lone byte stands for itself
            ++i;
            continue;
        }
        out.push_back(fold ? lowerCase(cp) : cp);
        i += extra + 1;
    }
}

bool ReferenceMatcher::wildcardMatches(const std::u32string& pattern, const std::u32string& text) {
    size_t p = 0, t = 0, starP = std::u32string::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == U'?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (p < pattern.size() && pattern[p] == U'*') {
            starP = p++;
            starT = t;
        } else if (starP != std::u32string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == U'*') ++p;
    return p == pattern.size();
}

bool ReferenceMatcher::matches(const std::vector<MatchNode>& nodes, const ReferenceEntity& entity) {
    for (const MatchNode& node : nodes)
        if (!matches(node, entity)) return false;
    return true;
}

bool ReferenceMatcher::matches(const MatchNode& node, const ReferenceEntity& entity) {
    const std::string* value = valueOf(entity, node.tag);
    const bool present = value != nullptr && !value->empty();
    if (std::holds_alternative<UniversalMatch>(node.match)) return true;
    if (std::holds_alternative<EmptyValueMatch>(node.match)) return !present;
    if (const auto* sequence = std::get_if<SequenceMatch>(&node.match)) {
        auto items = entity.sequences.find(node.tag);
        if (items == entity.sequences.end()) return false;
        for (const auto& item : items->second) {
            ReferenceEntity itemEntity;
            itemEntity.values = item;
            itemEntity.offsetMinutes = entity.offsetMinutes;
            if (matches(sequence->item, itemEntity)) return true;
        }
        return false;
    }
    if (const auto* both = std::get_if<DateTimeMatch>(&node.match)) {
        const std::string* time = valueOf(entity, both->timeTag);
        if (!present || time == nullptr || time->empty()) return false;
        Period day = storedMoment("DA", *value), clock = storedMoment("TM", *time);
        if (!day.valid || !clock.valid) return false;
        return inRange(both->lower, both->upper, day.micros + clock.micros, entity);
    }
    if (!present) return false;
    if (const auto* range = std::get_if<RangeMatch>(&node.match)) {
        Period stored = storedMoment(node.vr, *value);
        return stored.valid && inRange(range->lower, range->upper, stored.micros, entity);
    }
    if (const auto* list = std::get_if<UidListMatch>(&node.match)) {
        for (const std::string& uid : list->uids)
            if (uid == *value) return true;
        return false;
    }
    if (const auto* single = std::get_if<SingleValueMatch>(&node.match)) {
        if (!single->caseInsensitive) return single->value == *value;
        return foldCase(single->value) == foldCase(*value);
    }
    const auto& wild = std::get<WildcardMatch>(node.match);
    if (!wild.caseInsensitive) return wildcardMatches(codePoints(wild.pattern), codePoints(*value));
    return wildcardMatches(foldCase(wild.pattern), foldCase(*value));
}

}  // namespace db
}  // namespace kelp
