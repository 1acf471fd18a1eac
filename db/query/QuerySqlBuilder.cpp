#include "QuerySqlBuilder.h"

#include "DBException.h"
#include "DicomTime.h"
#include "KeyParser.h"
#include "QueryMapping.h"

namespace kelp {
namespace db {

struct QuerySqlBuilder::Context {
    QueryLevel level = QueryLevel::Study;
    std::vector<std::string> conditions;
    std::vector<BoundValue> params;
    std::vector<std::string> selected;
    std::vector<BoundValue::Type> selectedTypes;
    std::vector<Recheck> rechecks;
    bool inSequence = false;
    int sequences = 0;

    void bind(BoundValue value) {
        if (params.size() >= kMaxParams)
            throw DBException("The search needs more than " + std::to_string(kMaxParams) +
                              " values; split it");
        params.push_back(std::move(value));
    }
    void bindText(std::string text) {
        BoundValue value;
        value.text = std::move(text);
        bind(std::move(value));
    }
    // The index of the selected column expression, selected now unless it already is.
    size_t select(const std::string& expression, BoundValue::Type type) {
        for (size_t i = 0; i < selected.size(); ++i)
            if (selected[i] == expression) return i;
        selected.push_back(expression);
        selectedTypes.push_back(type);
        return selected.size() - 1;
    }
    void bindMoment(BoundValue::Type type, int64_t micros) {
        BoundValue value;
        value.type = type;
        value.micros = micros;
        bind(std::move(value));
    }
};

namespace {

std::string levelAlias(QueryLevel level) {
    return "l" + std::to_string(static_cast<int>(level));
}

std::string quoted(const std::string& identifier) {
    std::string out;
    out.reserve(identifier.size() + 2);
    out += '`';
    out += identifier;
    out += '`';
    return out;
}

std::string qualified(const std::string& alias, const std::string& column) {
    std::string out;
    out.reserve(alias.size() + column.size() + 3);
    out += alias;
    out += ".`";
    out += column;
    out += '`';
    return out;
}

bool isTemporal(const std::string& vr) {
    return vr == "DA" || vr == "TM" || vr == "DT";
}

BoundValue::Type momentType(const std::string& vr) {
    if (vr == "DA") return BoundValue::Type::Date;
    if (vr == "TM") return BoundValue::Type::Time;
    return BoundValue::Type::DateTime;
}

// The LIKE pattern of a wildcard value with '!' as the escape character: '*' and '?' become '%'
// and '_', while '%', '_' and '!' of the value are escaped so that they match themselves.
std::string likePattern(const std::string& wildcard) {
    std::string out;
    out.reserve(wildcard.size() + 8);
    for (char c : wildcard) {
        if (c == '*') {
            out += '%';
        } else if (c == '?') {
            out += '_';
        } else {
            if (c == '%' || c == '_' || c == '!') out += '!';
            out += c;
        }
    }
    return out;
}

const int64_t kWidestEast = DicomTime::kMaxOffsetMinutes * DicomTime::kMicrosPerMinute;
const int64_t kWidestWest = DicomTime::kMinOffsetMinutes * DicomTime::kMicrosPerMinute;

}  // namespace

std::string QuerySqlBuilder::timezoneColumn(const Context& context) const {
    if (mapping_.timezoneColumn().empty())
        throw DBException(
            "Matching in the query's offset from UTC needs a timezone column in the "
            "query mapping");
    if (static_cast<int>(mapping_.timezoneLevel()) > static_cast<int>(context.level))
        throw DBException(std::string("Matching in the query's offset from UTC needs the ") +
                          QueryMapping::levelName(mapping_.timezoneLevel()) +
                          " level, below this query's level");
    return qualified(levelAlias(mapping_.timezoneLevel()), mapping_.timezoneColumn());
}

// One bound: a plain comparison on the local clock; on UTC, the exact comparison with the bound
// moved by the entity's offset, preceded by the same comparison widened by the largest offset,
// which the column's index can serve.
void QuerySqlBuilder::addRange(Context& context, const std::string& column, const std::string& vr,
                               const std::optional<RangeBound>& lower,
                               const std::optional<RangeBound>& upper) const {
    const BoundValue::Type type = momentType(vr);
    auto add = [&](const RangeBound& bound, const char* op, int64_t widest) {
        if (bound.clock == Clock::Local) {
            context.conditions.push_back(column + " " + op + " ?");
            context.bindMoment(type, bound.micros);
            return;
        }
        context.conditions.push_back(column + " " + op + " ?");
        context.bindMoment(type, bound.micros + widest);
        context.conditions.push_back(column + " " + op + " TIMESTAMPADD(MINUTE, " +
                                     timezoneColumn(context) + ", ?)");
        context.bindMoment(type, bound.micros);
    };
    if (lower) add(*lower, ">=", kWidestWest);
    if (upper) add(*upper, "<=", kWidestEast);
}

void QuerySqlBuilder::addDateTime(Context& context, const MatchNode& node,
                                  const ColumnMapping& date, const std::string& alias) const {
    const auto& both = std::get<DateTimeMatch>(node.match);
    const ColumnMapping* time = mapping_.column(both.timeTag);
    if (time == nullptr || time->level != date.level)
        throw DBException("Date " + KeyParser::tagName(node.tag) +
                          " is combined with a time of another level");
    const std::string day = qualified(alias, date.column);
    const std::string instant = "TIMESTAMP(" + day + ", " + qualified(alias, time->column) + ")";
    auto add = [&](const RangeBound& bound, const char* op, int64_t widest) {
        int64_t prefilter = bound.clock == Clock::Local ? bound.micros : bound.micros + widest;
        context.conditions.push_back(day + " " + op + " ?");
        context.bindMoment(BoundValue::Type::Date, prefilter);
        std::string target = bound.clock == Clock::Local
                                 ? "?"
                                 : "TIMESTAMPADD(MINUTE, " + timezoneColumn(context) + ", ?)";
        context.conditions.push_back(instant + " " + op + " " + target);
        context.bindMoment(BoundValue::Type::DateTime, bound.micros);
    };
    if (both.lower) add(*both.lower, ">=", kWidestWest);
    if (both.upper) add(*both.upper, "<=", kWidestEast);
}

void QuerySqlBuilder::addCondition(Context& context, MatchNode& node, const ColumnMapping& column,
                                   const std::string& alias) const {
    if (column.vr != node.vr)
        throw DBException("Matching key " + KeyParser::tagName(node.tag) + " has VR " + node.vr +
                          " but its column holds " + column.vr);
    const std::string name = qualified(alias, column.column);
    Match& match = node.match;
    auto loose = [&](const std::string& operation) {
        if (column.foldedColumn.empty())
            throw DBException("Case-insensitive matching of " + KeyParser::tagName(node.tag) +
                              " needs a folded column in the query mapping");
        if (context.inSequence)
            throw DBException("Case-insensitive matching of " + KeyParser::tagName(node.tag) +
                              " inside a sequence item is not supported");
        context.conditions.push_back(qualified(alias, column.foldedColumn) + operation);
        context.rechecks.push_back(Recheck{node, context.select(name, BoundValue::Type::Text)});
    };
    if (std::holds_alternative<UniversalMatch>(match)) return;
    if (std::holds_alternative<EmptyValueMatch>(match)) {
        context.conditions.push_back(isTemporal(column.vr)
                                         ? name + " IS NULL"
                                         : "(" + name + " IS NULL OR " + name + " = '')");
    } else if (const auto* single = std::get_if<SingleValueMatch>(&match)) {
        if (single->caseInsensitive) {
            loose(" = ?");
        } else {
            context.conditions.push_back(name + " = ?");
        }
        context.bindText(single->value);
    } else if (const auto* wild = std::get_if<WildcardMatch>(&match)) {
        if (wild->caseInsensitive) {
            loose(" LIKE ? ESCAPE '!'");
        } else {
            context.conditions.push_back(name + " LIKE ? ESCAPE '!'");
        }
        context.bindText(likePattern(wild->pattern));
    } else if (auto* list = std::get_if<UidListMatch>(&match)) {
        // The UIDs move into the bound values: a list may hold thousands.
        std::vector<std::string>& uids = list->uids;
        context.params.reserve(context.params.size() + uids.size());
        std::string condition = "(";
        condition.reserve(2 + uids.size() * 2 + (uids.size() / kInChunk + 1) * (name.size() + 10));
        for (size_t i = 0; i < uids.size(); i += kInChunk) {
            if (i > 0) condition += " OR ";
            condition += name;
            condition += " IN (";
            for (size_t k = i; k < uids.size() && k < i + kInChunk; ++k) {
                condition += k == i ? "?" : ",?";
                context.bindText(std::move(uids[k]));
            }
            condition += ')';
        }
        condition += ')';
        context.conditions.push_back(std::move(condition));
    } else if (const auto* range = std::get_if<RangeMatch>(&match)) {
        addRange(context, name, column.vr, range->lower, range->upper);
    } else if (std::holds_alternative<DateTimeMatch>(match)) {
        addDateTime(context, node, column, alias);
    }
}

void QuerySqlBuilder::addSequence(Context& context, MatchNode& node) const {
    const SequenceTable& table = *mapping_.sequence(node.tag);
    if (static_cast<int>(table.level) > static_cast<int>(context.level))
        throw DBException("Sequence " + KeyParser::tagName(node.tag) + " belongs to the " +
                          QueryMapping::levelName(table.level) + " level, below the query level");
    const std::string alias = "q" + std::to_string(context.sequences++);
    const LevelTable& owner = mapping_.level(table.level);
    std::vector<std::string> outer;
    outer.swap(context.conditions);
    context.inSequence = true;
    for (MatchNode& itemNode : std::get<SequenceMatch>(node.match).item)
        addCondition(context, itemNode, table.items.at(itemNode.tag), alias);
    context.inSequence = false;
    std::string condition = "EXISTS (SELECT 1 FROM " + quoted(table.table) + " " + alias +
                            " WHERE " + qualified(alias, table.parentKey) + " = " +
                            qualified(levelAlias(table.level), owner.key);
    for (const std::string& inner : context.conditions) condition += " AND " + inner;
    outer.push_back(condition + ")");
    context.conditions.swap(outer);
}

BuiltQuery QuerySqlBuilder::build(const QueryRequest& request) const {
    BuiltQuery built;
    KeyParser parser(mapping_, request.options);
    std::vector<MatchNode> nodes = parser.parse(request.keys, built.unusedKeys);

    Context context;
    context.level = request.level;
    const int depth = static_cast<int>(request.level);
    for (uint32_t tag : request.returnKeys) {
        const ColumnMapping* column = mapping_.column(tag);
        if (column == nullptr || static_cast<int>(column->level) > depth) {
            built.unusedKeys.push_back(tag);
            built.returnColumns.push_back(-1);
            continue;
        }
        // Dates and times arrive typed and are written as DICOM text by the reader: cheaper than
        // DATE_FORMAT on the server for every row.
        const BoundValue::Type type =
            isTemporal(column->vr) ? momentType(column->vr) : BoundValue::Type::Text;
        built.returnColumns.push_back(static_cast<int>(
            context.select(qualified(levelAlias(column->level), column->column), type)));
    }
    for (MatchNode& node : nodes) {
        if (std::holds_alternative<SequenceMatch>(node.match)) {
            addSequence(context, node);
            continue;
        }
        if (std::holds_alternative<UniversalMatch>(node.match)) continue;
        const ColumnMapping& column = *mapping_.column(node.tag);
        if (static_cast<int>(column.level) > depth)
            throw DBException("Matching key " + KeyParser::tagName(node.tag) + " belongs to the " +
                              QueryMapping::levelName(column.level) +
                              " level, below the query level " +
                              QueryMapping::levelName(request.level));
        addCondition(context, node, column, levelAlias(column.level));
    }

    const LevelTable& top = mapping_.level(QueryLevel::Patient);
    if (context.selected.empty())
        context.select(qualified(levelAlias(request.level), mapping_.level(request.level).key),
                       BoundValue::Type::Text);
    size_t length = 256;
    for (const std::string& text : context.selected) length += text.size() + 2;
    for (const std::string& text : context.conditions) length += text.size() + 7;
    std::string sql;
    sql.reserve(length);
    sql += "SELECT ";
    for (size_t i = 0; i < context.selected.size(); ++i) {
        if (i > 0) sql += ", ";
        sql += context.selected[i];
    }
    sql += " FROM " + quoted(top.table) + " " + levelAlias(QueryLevel::Patient);
    for (int i = 1; i <= depth; ++i) {
        const LevelTable& level = mapping_.level(static_cast<QueryLevel>(i));
        const LevelTable& parent = mapping_.level(static_cast<QueryLevel>(i - 1));
        const std::string alias = levelAlias(static_cast<QueryLevel>(i));
        sql += " JOIN " + quoted(level.table) + " " + alias + " ON " +
               qualified(alias, level.parentKey) + " = " +
               qualified(levelAlias(static_cast<QueryLevel>(i - 1)), parent.key);
    }
    for (size_t i = 0; i < context.conditions.size(); ++i) {
        sql += i ? " AND " : " WHERE ";
        sql += context.conditions[i];
    }
    sql += " ORDER BY " + qualified(levelAlias(request.level), mapping_.level(request.level).key);
    built.limitedInSql = context.rechecks.empty() && (request.limit > 0 || request.offset > 0);
    if (built.limitedInSql) {
        sql += " LIMIT ? OFFSET ?";
        BoundValue limit, offset;
        limit.type = offset.type = BoundValue::Type::Count;
        limit.count = request.limit > 0 ? request.limit : UINT64_MAX;
        offset.count = request.offset;
        context.bind(limit);
        context.bind(offset);
    }
    built.sql = std::move(sql);
    built.params = std::move(context.params);
    built.columnCount = context.selected.size();
    built.columnTypes = std::move(context.selectedTypes);
    built.rechecks = std::move(context.rechecks);
    return built;
}

}  // namespace db
}  // namespace kelp
