#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QueryRequest.h"
#include "RhExport.h"

class KSProperties;

namespace kelp {
namespace db {

// Where a level's entities live: the table, its key column, and the column that holds the key
// of the entity one level up (empty for the top level).
struct LevelTable {
    std::string table;
    std::string key;
    std::string parentKey;
};

// The column of one attribute. foldedColumn, for person names, is a case- and
// accent-insensitive copy of column that case-insensitive matching searches through its index.
struct ColumnMapping {
    std::string keyword;
    std::string vr;
    QueryLevel level = QueryLevel::Patient;
    std::string column;
    std::string foldedColumn;
};

// The table of a sequence's items: one row per item, joined to its entity by parentKey.
struct SequenceTable {
    std::string keyword;
    QueryLevel level = QueryLevel::Patient;
    std::string table;
    std::string parentKey;
    std::map<uint32_t, ColumnMapping> items;
};

// The mapping from DICOM tags to the tables and columns of a site's schema, read from a
// properties file (KSProperties syntax):
//
//   level.patient=TABLE KEY                        the top level
//   level.study=TABLE KEY PARENTKEY                study, series, instance: PARENTKEY holds the
//                                                  key of the level above
//   tag.GGGGEEEE=KEYWORD VR LEVEL COLUMN [FOLDED]  an attribute of a level
//   datetime.GGGGEEEE=GGGGEEEE                     a DA tag and the TM tag combined with it
//   timezone=LEVEL COLUMN                          the entities' offset from UTC, in minutes
//   sequence.GGGGEEEE=KEYWORD LEVEL TABLE PARENTKEY
//   item.GGGGEEEE.GGGGEEEE=KEYWORD VR COLUMN [FOLDED]  an attribute of a sequence's items
//
// Names of tables and columns are identifiers ([A-Za-z_][A-Za-z0-9_]*, at most 64 characters):
// they become SQL text. Immutable once built; safe to share between threads.
class RH_EXPORT QueryMapping {
  public:
    // Reads the file; throws DBException naming the file and the entry that is wrong.
    static QueryMapping load(const std::string& path);
    static QueryMapping fromProperties(const KSProperties& properties);

    const LevelTable& level(QueryLevel level) const { return levels_[static_cast<int>(level)]; }
    // The column of a tag, or null when the schema has none.
    const ColumnMapping* column(uint32_t tag) const;
    const SequenceTable* sequence(uint32_t tag) const;
    // The TM tag combined with a DA tag, if any.
    std::optional<uint32_t> timeTagOf(uint32_t dateTag) const;
    // The column of the entities' offset from UTC (minutes east), on timezoneLevel(). Empty
    // when the schema keeps none; matching in the query's offset is then refused.
    const std::string& timezoneColumn() const { return timezoneColumn_; }
    QueryLevel timezoneLevel() const { return timezoneLevel_; }
    // The mapped attributes of a level, as tag and keyword, in tag order.
    std::vector<std::pair<uint32_t, std::string>> keywordsOf(QueryLevel level) const;
    // The tag of a keyword ("PatientName") among the mapped attributes and sequences.
    std::optional<uint32_t> tagOfKeyword(const std::string& keyword) const;

    // "00100010" for 0x00100010; and back (exactly 8 hexadecimal digits).
    static std::string tagText(uint32_t tag);
    static bool parseTag(const std::string& text, uint32_t& tag);
    static const char* levelName(QueryLevel level);
    static bool parseLevel(const std::string& text, QueryLevel& level);

  private:
    std::array<LevelTable, 4> levels_;
    std::map<uint32_t, ColumnMapping> columns_;
    std::map<uint32_t, SequenceTable> sequences_;
    std::map<uint32_t, uint32_t> dateTimePairs_;
    std::string timezoneColumn_;
    QueryLevel timezoneLevel_ = QueryLevel::Study;
};

}  // namespace db
}  // namespace kelp
