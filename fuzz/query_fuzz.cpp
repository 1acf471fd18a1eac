// Fuzzes the query builder: key parsing, SQL generation and the reference matcher. Input: one
// key per line, "GGGGEEEE VR value" (an item key of a sequence starts with '>'), preceded by a
// first line of option letters: l/s/r/i the level, c case-insensitive names, e empty values, d
// combined date and time, z followed by &ZZXX the query's offset. Every input must either be
// refused with DBException or give a statement whose text holds no value: only identifiers,
// fixed fragments and one '?' per bound value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "DBException.h"
#include "KSProperties.h"
#include "KeyParser.h"
#include "QueryMapping.h"
#include "QuerySqlBuilder.h"
#include "ReferenceMatcher.h"

using namespace kelp::db;

namespace {

const char* const kMapping[] = {
    "level.patient=PATIENT PatientKey",
    "level.study=STUDY StudyKey PatientKey",
    "level.series=SERIES SeriesKey StudyKey",
    "level.instance=INSTANCE InstanceKey SeriesKey",
    "tag.00100020=PatientID LO patient PatientID",
    "tag.00100010=PatientName PN patient PatientName PatientNameFolded",
    "tag.00100030=PatientBirthDate DA patient PatientBirthDate",
    "tag.0020000D=StudyInstanceUID UI study StudyInstanceUID",
    "tag.00080020=StudyDate DA study StudyDate",
    "tag.00080030=StudyTime TM study StudyTime",
    "tag.00080050=AccessionNumber SH study AccessionNumber",
    "tag.00081030=StudyDescription LO study StudyDescription",
    "tag.00080060=Modality CS series Modality",
    "tag.0020000E=SeriesInstanceUID UI series SeriesInstanceUID",
    "tag.0008002A=AcquisitionDateTime DT instance AcquisitionDateTime",
    "tag.00204000=ImageComments LT instance ImageComments",
    "datetime.00080020=00080030",
    "timezone=study TimezoneOffsetFromUTC",
    "sequence.00400275=RequestAttributesSequence series SERIESREQUEST SeriesKey",
    "item.00400275.00401001=RequestedProcedureID SH RequestedProcedureID",
    "item.00400275.00080050=AccessionNumber SH AccessionNumber",
};

const QueryMapping& mapping() {
    static const QueryMapping built = [] {
        KSProperties properties;
        for (const char* line : kMapping) {
            std::string entry = line;
            size_t eq = entry.find('=');
            properties.setProperty(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str());
        }
        return QueryMapping::fromProperties(properties);
    }();
    return built;
}

QueryRequest parseInput(const std::string& input) {
    QueryRequest request;
    std::istringstream lines(input);
    std::string line;
    std::getline(lines, line);
    for (size_t i = 0; i < line.size(); ++i) {
        switch (line[i]) {
            case 'l':
                request.level = QueryLevel::Patient;
                break;
            case 's':
                request.level = QueryLevel::Study;
                break;
            case 'r':
                request.level = QueryLevel::Series;
                break;
            case 'i':
                request.level = QueryLevel::Instance;
                break;
            case 'c':
                request.options.caseInsensitivePersonNames = true;
                break;
            case 'e':
                request.options.emptyValueMatching = true;
                break;
            case 'd':
                request.options.combinedDateTime = true;
                break;
            case 'z':
                request.options.timezoneAdjustment = true;
                request.options.timezoneOffset = line.substr(i + 1, 5);
                i += 5;
                break;
            default:
                break;
        }
    }
    while (std::getline(lines, line)) {
        bool item = !line.empty() && line[0] == '>';
        if (item) line.erase(0, 1);
        MatchingKey key;
        if (line.size() < 11 || !QueryMapping::parseTag(line.substr(0, 8), key.tag)) continue;
        key.vr = line.substr(9, 2);
        key.value = line.size() > 12 ? line.substr(12) : std::string();
        if (item && !request.keys.empty()) {
            request.keys.back().item.push_back(key);
        } else {
            request.keys.push_back(key);
        }
    }
    request.returnKeys = {0x0020000D, 0x00100010, 0x00080020, 0x99990000};
    return request;
}

// The statement text with its fixed quoted fragments removed must hold no quote at all: any
// other quote would be a value that became SQL.
void checkStatement(const BuiltQuery& built) {
    std::string text = built.sql;
    static const char* const kFragments[] = {"ESCAPE '!'", "= ''"};
    for (const char* fragment : kFragments) {
        std::string f = fragment;
        for (size_t at = text.find(f); at != std::string::npos; at = text.find(f, at))
            text.erase(at, f.size());
    }
    size_t markers = 0;
    for (char c : text) {
        if (c == '?') ++markers;
        bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       std::string(" _`.,()=<>?").find(c) != std::string::npos;
        if (!allowed) abort();
    }
    if (markers != built.params.size()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QueryRequest request = parseInput(std::string(reinterpret_cast<const char*>(data), size));
    try {
        BuiltQuery built = QuerySqlBuilder(mapping()).build(request);
        checkStatement(built);
        std::vector<uint32_t> unused;
        std::vector<MatchNode> nodes =
            KeyParser(mapping(), request.options).parse(request.keys, unused);
        ReferenceEntity entity;
        entity.values[0x00100010] = "Smith^John";
        entity.values[0x00080020] = "20240101";
        entity.values[0x00080030] = "101500.5";
        entity.values[0x0008002A] = "20240101101500-0500";
        entity.sequences[0x00400275] = {{{0x00401001, "RP1"}}};
        ReferenceMatcher::matches(nodes, entity);
    } catch (const DBException&) {
        // A key that cannot be matched: the expected refusal.
    }
    return 0;
}
