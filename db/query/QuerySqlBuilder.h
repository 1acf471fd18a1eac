#pragma once

#include <string>
#include <vector>

#include "BuiltQuery.h"
#include "QueryRequest.h"
#include "RhExport.h"

namespace kelp {
namespace db {

class QueryMapping;
struct ColumnMapping;

// Generates the SQL of a search from its typed tree. Every value is a bound parameter; the
// statement text holds only the mapping's identifiers, operators and '?' markers, so no value
// can become SQL. Conditions are written so that the usual searches stay on an index: equality,
// IN lists, LIKE with the pattern's fixed prefix, ranges on the typed column itself; a
// comparison that needs the entity's offset from UTC is paired with a wider plain range on the
// column, and case-insensitive person names search the folded copy and are re-checked in memory.
//
// The statement joins the query level's table to every level above it and orders rows by the
// query level's key. Keys of a level below the query level, a loose condition inside a
// sequence, or adjusted matching without an offset column throw DBException. Holds a
// reference to the mapping, which must outlive it; thread-safe (no state).
class RH_EXPORT QuerySqlBuilder {
  public:
    explicit QuerySqlBuilder(const QueryMapping& mapping) : mapping_(mapping) {}

    // Parses the request's keys and builds the statement.
    BuiltQuery build(const QueryRequest& request) const;

    // Above this many bound values a statement is refused: the server's limit is 65,535.
    static constexpr size_t kMaxParams = 60000;
    // A UID list becomes IN lists of at most this many values, joined with OR.
    static constexpr size_t kInChunk = 1000;

  private:
    struct Context;

    // Both may move values out of node into the bound values.
    void addCondition(Context& context, MatchNode& node, const ColumnMapping& column,
                      const std::string& alias) const;
    void addSequence(Context& context, MatchNode& node) const;
    void addRange(Context& context, const std::string& column, const std::string& vr,
                  const std::optional<RangeBound>& lower,
                  const std::optional<RangeBound>& upper) const;
    void addDateTime(Context& context, const MatchNode& node, const ColumnMapping& date,
                     const std::string& alias) const;
    std::string timezoneColumn(const Context& context) const;

    const QueryMapping& mapping_;
};

}  // namespace db
}  // namespace kelp
