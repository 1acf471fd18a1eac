#include "QueryMapping.h"

#include <cctype>
#include <sstream>
#include <vector>

#include "DBException.h"
#include "KSProperties.h"

namespace kelp {
namespace db {

namespace {

const char* const kLevelNames[] = {"patient", "study", "series", "instance"};

[[noreturn]] void bad(const std::string& name, const std::string& value, const char* why) {
    throw DBException("Query mapping entry " + name + "=" + value + ": " + why);
}

std::vector<std::string> words(const std::string& value) {
    std::istringstream in(value);
    std::vector<std::string> out;
    std::string word;
    while (in >> word) out.push_back(word);
    return out;
}

bool identifier(const std::string& text) {
    if (text.empty() || text.size() > 64) return false;
    if (!std::isalpha(static_cast<unsigned char>(text[0])) && text[0] != '_') return false;
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
    return true;
}

bool knownVr(const std::string& vr) {
    static const char* const kVrs[] = {"AE", "AS", "CS", "DA", "DT", "LO", "LT", "PN",
                                       "SH", "ST", "TM", "UC", "UI", "UR", "UT"};
    for (const char* known : kVrs)
        if (vr == known) return true;
    return false;
}

// KEYWORD VR [LEVEL] COLUMN [FOLDED], with the level present for attributes of a level.
ColumnMapping columnOf(const std::string& name, const std::string& value, bool withLevel) {
    std::vector<std::string> w = words(value);
    size_t need = withLevel ? 4 : 3;
    if (w.size() != need && w.size() != need + 1) bad(name, value, "wrong number of fields");
    ColumnMapping column;
    column.keyword = w[0];
    column.vr = w[1];
    if (!knownVr(column.vr)) bad(name, value, "VR that cannot be matched");
    size_t i = 2;
    if (withLevel && !QueryMapping::parseLevel(w[i++], column.level))
        bad(name, value, "unknown level");
    column.column = w[i++];
    if (i < w.size()) column.foldedColumn = w[i];
    if (!identifier(column.keyword) || !identifier(column.column) ||
        (!column.foldedColumn.empty() && !identifier(column.foldedColumn)))
        bad(name, value, "not an identifier");
    if (!column.foldedColumn.empty() && column.vr != "PN")
        bad(name, value, "a folded copy is for person names only");
    return column;
}

bool startsWith(const std::string& text, const char* prefix, std::string& rest) {
    size_t n = std::char_traits<char>::length(prefix);
    if (text.compare(0, n, prefix) != 0) return false;
    rest = text.substr(n);
    return true;
}

}  // namespace

std::string QueryMapping::tagText(uint32_t tag) {
    char text[9];
    snprintf(text, sizeof text, "%08X", tag);
    return text;
}

bool QueryMapping::parseTag(const std::string& text, uint32_t& tag) {
    if (text.size() != 8) return false;
    uint32_t value = 0;
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
        value = value * 16 +
                static_cast<uint32_t>(std::isdigit(static_cast<unsigned char>(c))
                                          ? c - '0'
                                          : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
    }
    tag = value;
    return true;
}

const char* QueryMapping::levelName(QueryLevel level) {
    return kLevelNames[static_cast<int>(level)];
}

bool QueryMapping::parseLevel(const std::string& text, QueryLevel& level) {
    for (int i = 0; i < 4; ++i) {
        if (text == kLevelNames[i]) {
            level = static_cast<QueryLevel>(i);
            return true;
        }
    }
    return false;
}

QueryMapping QueryMapping::load(const std::string& path) {
    KSProperties properties;
    if (!properties.load(path.c_str())) throw DBException("Cannot read query mapping " + path);
    try {
        return fromProperties(properties);
    } catch (const DBException& e) {
        throw DBException(path + ": " + e.what());
    }
}

QueryMapping QueryMapping::fromProperties(const KSProperties& properties) {
    QueryMapping mapping;
    for (const KSProperty& entry : properties) {
        const std::string name = entry.getName();
        const std::string value = entry.getValue();
        std::string rest;
        uint32_t tag = 0;
        if (startsWith(name, "level.", rest)) {
            QueryLevel level;
            if (!parseLevel(rest, level)) bad(name, value, "unknown level");
            std::vector<std::string> w = words(value);
            size_t need = level == QueryLevel::Patient ? 2 : 3;
            if (w.size() != need) bad(name, value, "wrong number of fields");
            for (const std::string& word : w)
                if (!identifier(word)) bad(name, value, "not an identifier");
            LevelTable& table = mapping.levels_[static_cast<int>(level)];
            table.table = w[0];
            table.key = w[1];
            if (need == 3) table.parentKey = w[2];
        } else if (startsWith(name, "tag.", rest)) {
            if (!parseTag(rest, tag)) bad(name, value, "not a tag");
            mapping.columns_[tag] = columnOf(name, value, true);
        } else if (startsWith(name, "datetime.", rest)) {
            uint32_t timeTag;
            if (!parseTag(rest, tag) || !parseTag(value, timeTag)) bad(name, value, "not a tag");
            mapping.dateTimePairs_[tag] = timeTag;
        } else if (name == "timezone") {
            std::vector<std::string> w = words(value);
            if (w.size() != 2 || !parseLevel(w[0], mapping.timezoneLevel_) || !identifier(w[1]))
                bad(name, value, "expected LEVEL COLUMN");
            mapping.timezoneColumn_ = w[1];
        } else if (startsWith(name, "sequence.", rest)) {
            if (!parseTag(rest, tag)) bad(name, value, "not a tag");
            std::vector<std::string> w = words(value);
            SequenceTable& sequence = mapping.sequences_[tag];
            if (w.size() != 4 || !parseLevel(w[1], sequence.level) || !identifier(w[0]) ||
                !identifier(w[2]) || !identifier(w[3]))
                bad(name, value, "expected KEYWORD LEVEL TABLE PARENTKEY");
            sequence.keyword = w[0];
            sequence.table = w[2];
            sequence.parentKey = w[3];
        } else if (startsWith(name, "item.", rest)) {
            uint32_t itemTag;
            if (rest.size() != 17 || rest[8] != '.' || !parseTag(rest.substr(0, 8), tag) ||
                !parseTag(rest.substr(9), itemTag))
                bad(name, value, "expected item.SEQUENCETAG.TAG");
            auto sequence = mapping.sequences_.find(tag);
            if (sequence == mapping.sequences_.end())
                bad(name, value, "item of a sequence not declared before it");
            sequence->second.items[itemTag] = columnOf(name, value, false);
        } else {
            bad(name, value, "unknown entry");
        }
    }
    for (int i = 0; i < 4; ++i) {
        if (mapping.levels_[i].table.empty())
            throw DBException(std::string("Query mapping has no entry level.") + kLevelNames[i]);
    }
    for (const auto& column : mapping.columns_) {
        if (column.second.vr == "DA" && mapping.dateTimePairs_.count(column.first) &&
            !mapping.column(mapping.dateTimePairs_[column.first]))
            throw DBException("Query mapping pairs date " + tagText(column.first) +
                              " with a time that has no column");
    }
    return mapping;
}

const ColumnMapping* QueryMapping::column(uint32_t tag) const {
    auto it = columns_.find(tag);
    return it == columns_.end() ? nullptr : &it->second;
}

const SequenceTable* QueryMapping::sequence(uint32_t tag) const {
    auto it = sequences_.find(tag);
    return it == sequences_.end() ? nullptr : &it->second;
}

std::optional<uint32_t> QueryMapping::timeTagOf(uint32_t dateTag) const {
    auto it = dateTimePairs_.find(dateTag);
    if (it == dateTimePairs_.end()) return std::nullopt;
    return it->second;
}

std::vector<std::pair<uint32_t, std::string>> QueryMapping::keywordsOf(QueryLevel level) const {
    std::vector<std::pair<uint32_t, std::string>> out;
    for (const auto& column : columns_)
        if (column.second.level == level) out.emplace_back(column.first, column.second.keyword);
    return out;
}

std::optional<uint32_t> QueryMapping::tagOfKeyword(const std::string& keyword) const {
    for (const auto& column : columns_)
        if (column.second.keyword == keyword) return column.first;
    for (const auto& sequence : sequences_)
        if (sequence.second.keyword == keyword) return sequence.first;
    return std::nullopt;
}

}  // namespace db
}  // namespace kelp
