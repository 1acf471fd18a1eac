#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MatchNode.h"

namespace kelp {
namespace db {

// A value bound to one '?' of the generated statement. Dates, times and date-times go to the
// server typed (as MYSQL_TIME), counts as unsigned integers, texts as strings.
struct BoundValue {
    enum class Type { Text, Date, Time, DateTime, Count };
    Type type = Type::Text;
    std::string text;
    int64_t micros = 0;  // Date, Time, DateTime: see DicomTime
    uint64_t count = 0;
};

// A condition SQL can only approximate: the rows SQL returns are re-checked with node against
// the exact value of the selected column at index column, before limit and offset apply.
struct Recheck {
    MatchNode node;
    size_t column = 0;
};

// The statement for one search and what is needed to read its rows.
struct BuiltQuery {
    std::string sql;
    std::vector<BoundValue> params;
    // Number of selected columns, and how each arrives: Text, or a Date, Time or DateTime that
    // the reader writes as DICOM text (DA "20240131", TM "101500.000000", DT
    // "20240131101500.000000"). Per return key, the index of its column or -1.
    size_t columnCount = 0;
    std::vector<BoundValue::Type> columnTypes;
    std::vector<int> returnColumns;
    std::vector<Recheck> rechecks;
    // Whether LIMIT and OFFSET are in the SQL (false when rows are re-checked first).
    bool limitedInSql = false;
    std::vector<uint32_t> unusedKeys;
};

}  // namespace db
}  // namespace kelp
