// repoctl find: searches the database with DICOM matching keys through the query builder and
// prints the matches; with --repository, also where each study lives in a repository.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DBConnector.h"
#include "DBException.h"
#include "KSException.h"
#include "KeyParser.h"
#include "QueryMapping.h"
#include "RawQueryDB.h"
#include "RepoctlCommand.h"
#include "repohandler.h"

namespace {

using namespace kelp::db;

struct FindArguments {
    QueryRequest request;
    std::string mappingPath;
    std::string repository;
    bool json = false;
    unsigned long timeLimit = 30;
    std::vector<std::string> keys;  // KEY=VALUE as given
};

bool parseCount(const char* text, uint64_t& out) {
    char* end = nullptr;
    unsigned long long value = strtoull(text, &end, 10);
    if (*text == '\0' || *end != '\0' || *text == '-') return false;
    out = value;
    return true;
}

// Options first, then KEY=VALUE pairs. Returns false for anything it does not understand.
bool parseArguments(int argc, char** argv, FindArguments& out) {
    const char* env = getenv("QUERY_MAPPING");
    if (env) out.mappingPath = env;
    QueryOptions& options = out.request.options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        uint64_t count = 0;
        if (arg == "--json") {
            out.json = true;
        } else if (arg == "--ci") {
            options.caseInsensitivePersonNames = true;
        } else if (arg == "--empty") {
            options.emptyValueMatching = true;
        } else if (arg == "--combined") {
            options.combinedDateTime = true;
        } else if (arg == "--level" && hasValue) {
            if (!QueryMapping::parseLevel(argv[++i], out.request.level)) return false;
        } else if (arg == "--repository" && hasValue) {
            out.repository = argv[++i];
        } else if (arg == "--mapping" && hasValue) {
            out.mappingPath = argv[++i];
        } else if (arg == "--timezone" && hasValue) {
            options.timezoneAdjustment = true;
            options.timezoneOffset = argv[++i];
        } else if (arg == "--limit" && hasValue && parseCount(argv[i + 1], count)) {
            out.request.limit = count;
            ++i;
        } else if (arg == "--offset" && hasValue && parseCount(argv[i + 1], count)) {
            out.request.offset = count;
            ++i;
        } else if (arg == "--time-limit" && hasValue && parseCount(argv[i + 1], count)) {
            out.timeLimit = static_cast<unsigned long>(count);
            ++i;
        } else if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
            return false;
        } else if (arg.find('=') != std::string::npos && arg[0] != '=') {
            out.keys.push_back(arg);
        } else {
            return false;
        }
    }
    return !out.mappingPath.empty();
}

// A tag from a keyword ("PatientName") or from eight hexadecimal digits ("00100010").
bool tagOf(const QueryMapping& mapping, const std::string& name, uint32_t& tag) {
    if (QueryMapping::parseTag(name, tag)) return true;
    std::optional<uint32_t> found = mapping.tagOfKeyword(name);
    if (!found) return false;
    tag = *found;
    return true;
}

// KEY=VALUE, or SEQUENCE.ITEMKEY=VALUE for a key of a sequence's item; the VR comes from the
// mapping. Keys of the same sequence share one item.
void addKey(const QueryMapping& mapping, const std::string& text, QueryRequest& request) {
    size_t eq = text.find('=');
    std::string name = text.substr(0, eq), value = text.substr(eq + 1);
    size_t dot = name.find('.');
    uint32_t tag = 0;
    if (dot == std::string::npos) {
        if (!tagOf(mapping, name, tag)) throw DBException("Unknown key " + name);
        const ColumnMapping* column = mapping.column(tag);
        request.keys.push_back({tag, column ? column->vr : "UN", value, {}});
        return;
    }
    uint32_t itemTag = 0;
    const SequenceTable* sequence = nullptr;
    if (tagOf(mapping, name.substr(0, dot), tag)) sequence = mapping.sequence(tag);
    if (!sequence) throw DBException("Unknown sequence " + name.substr(0, dot));
    std::string itemName = name.substr(dot + 1);
    bool known = QueryMapping::parseTag(itemName, itemTag);
    for (const auto& item : sequence->items) {
        if (item.second.keyword == itemName) {
            itemTag = item.first;
            known = true;
        }
    }
    if (!known) throw DBException("Unknown item key " + itemName);
    auto item = sequence->items.find(itemTag);
    MatchingKey itemKey{itemTag, item != sequence->items.end() ? item->second.vr : "UN", value, {}};
    for (MatchingKey& key : request.keys) {
        if (key.tag == tag && key.vr == "SQ") {
            key.item.push_back(itemKey);
            return;
        }
    }
    request.keys.push_back({tag, "SQ", "", {itemKey}});
}

// Every mapped attribute of the query level and the levels above it, top level first.
std::vector<std::pair<uint32_t, std::string>> returnKeysFor(const QueryMapping& mapping,
                                                            QueryLevel level) {
    std::vector<std::pair<uint32_t, std::string>> keys;
    for (int l = 0; l <= static_cast<int>(level); ++l) {
        for (const auto& keyword : mapping.keywordsOf(static_cast<QueryLevel>(l)))
            keys.push_back(keyword);
    }
    return keys;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// Where a study lives: the repository's lookup of the study's UID, without touching it.
std::string locationOf(const std::string& repository, const std::string& uid) {
    int status = 0;
    char* location =
        getLocation_(repository.c_str(), uid.c_str(), &status, false, true, false, false, nullptr);
    std::string out = location ? location : "";
    release(location);
    return out;
}

int runFind(int argc, char** argv) {
    FindArguments args;
    if (!parseArguments(argc, argv, args)) return repoctlUsage("find");
    try {
        QueryMapping mapping = QueryMapping::load(args.mappingPath);
        for (const std::string& key : args.keys) addKey(mapping, key, args.request);
        auto columns = returnKeysFor(mapping, args.request.level);
        int uidColumn = -1;
        for (const auto& column : columns) {
            if (column.first == 0x0020000D)
                uidColumn = static_cast<int>(args.request.returnKeys.size());
            args.request.returnKeys.push_back(column.first);
        }
        std::unique_ptr<DBConnector> connector(DBConnector::createConnector(false));
        std::unique_ptr<RawQueryDB> raw(connector->createRawQuery());
        QueryAnswer answer = raw->find(mapping, args.request, args.timeLimit);
        for (uint32_t tag : answer.unusedKeys)
            fprintf(stderr, "repoctl find: no column for %s; key not used\n",
                    KeyParser::tagName(tag).c_str());
        const bool located = !args.repository.empty() && uidColumn >= 0;
        if (args.json) printf("[");
        if (!args.json) {
            for (size_t i = 0; i < columns.size(); ++i)
                printf("%s%s", i ? "\t" : "", columns[i].second.c_str());
            printf("%s\n", located ? "\tLocation" : "");
        }
        for (size_t r = 0; r < answer.rows.size(); ++r) {
            const auto& row = answer.rows[r];
            std::string location;
            if (located && row[uidColumn]) location = locationOf(args.repository, *row[uidColumn]);
            if (args.json) {
                printf("%s\n {", r ? "," : "");
                for (size_t i = 0; i < columns.size(); ++i)
                    printf("%s%s: %s", i ? ", " : "", jsonString(columns[i].second).c_str(),
                           row[i] ? jsonString(*row[i]).c_str() : "null");
                if (located) printf(", \"Location\": %s", jsonString(location).c_str());
                printf("}");
                continue;
            }
            for (size_t i = 0; i < columns.size(); ++i)
                printf("%s%s", i ? "\t" : "", row[i] ? row[i]->c_str() : "");
            printf("%s%s\n", located ? "\t" : "", located ? location.c_str() : "");
        }
        if (args.json) printf("%s]\n", answer.rows.empty() ? "" : "\n");
        return 0;
    } catch (const DBException& e) {
        fprintf(stderr, "repoctl find: %s\n", e.what());
    } catch (const KSException& e) {
        fprintf(stderr, "repoctl find: %s\n", e.toString().c_str());
    }
    return 1;
}

RepoctlRegistrar findCommand(
    "find",
    "find [--level patient|study|series|instance] [--json] [--repository REPO] "
    "[--mapping FILE] [--ci] [--empty] [--combined] [--timezone &ZZXX] [--limit N] "
    "[--offset N] [--time-limit S] KEY=VALUE...",
    "search the database with DICOM matching keys (keyword or tag, e.g. PatientName=SMITH*); "
    "the mapping comes from --mapping or QUERY_MAPPING",
    &runFind,
    "Keys are keywords of the mapping or eight-digit tags; SEQUENCE.ITEMKEY=VALUE adds a key to\n"
    "a sequence's item. Prints every mapped attribute of the level and the levels above it, tab\n"
    "separated, one row per entity. --repository REPO adds each study's location in REPO (the\n"
    "Study Instance UID is looked up without touching it). --ci matches person names without\n"
    "case, --empty lets an empty value match, --combined matches a date and its time together,\n"
    "--timezone &ZZXX gives the offset of the values, --limit and --offset page the answer,\n"
    "--time-limit S stops the query on the server after S seconds (default 30).\n"
    "--json: an array with one object per row, keyed by the attributes' keywords (and\n"
    "Location). Exit status 1 when the search fails, 2 for a usage error.\n");

}  // namespace
