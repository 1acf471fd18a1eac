#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DicomTime.h"
#include "MatchNode.h"
#include "QueryRequest.h"

namespace kelp {
namespace db {

class QueryMapping;

// Turns matching keys into the typed tree, by the rules of DICOM matching: universal (empty or
// only '*'), single value, UID list (UI with backslashes), wildcards '*' and '?' (text VRs only),
// ranges a-b, -b, a- (DA, TM, DT; bounds stand for the whole period of their precision), empty
// value ("" with the option), sequence (SQ with one item); with the options, DA and TM keys that
// belong together are combined into one instant and date-times move to the query's offset.
//
// Values lose their padding first: trailing spaces always, leading spaces too except for LT, ST
// and UT. A key that cannot be matched as given (a wildcard on a UI, a range on a CS, a malformed
// date, a TM range across midnight, invalid UTF-8, a NUL) throws DBException naming the key.
// Stateless after construction; safe to share between threads.
class KeyParser {
  public:
    // Throws DBException when timezone adjustment is asked for with an offset that is not &ZZXX.
    KeyParser(const QueryMapping& mapping, const QueryOptions& options);

    // The nodes of keys, in key order (a combined time key merges into its date key's node).
    // Keys whose tag (or, inside a sequence, item tag) has no column are appended to unused
    // and left out.
    std::vector<MatchNode> parse(const std::vector<MatchingKey>& keys,
                                 std::vector<uint32_t>& unused) const;

    // One key of the given VR, alone: no mapping consulted, nothing combined.
    MatchNode parseKey(const MatchingKey& key) const;

    // "(0010,0010)".
    static std::string tagName(uint32_t tag);

  private:
    enum class Form { Single, Closed, From, To };

    MatchNode parseValue(const MatchingKey& key, Form* form) const;
    MatchNode parseSequence(const MatchingKey& key, std::vector<uint32_t>& unused) const;
    Match parseText(const MatchingKey& key, const std::string& value) const;
    Match parseUids(const MatchingKey& key, const std::string& value) const;
    Match parseRange(const MatchingKey& key, const std::string& value, Form& form) const;
    Match parseDateTimeRange(const MatchingKey& key, const std::string& value, Form& form) const;
    void combineDatesAndTimes(std::vector<MatchNode>& nodes, std::vector<Form>& forms) const;
    RangeBound zoned(int64_t micros, const DicomPeriod& period) const;
    [[noreturn]] void fail(const MatchingKey& key, const std::string& why) const;

    const QueryMapping& mapping_;
    QueryOptions options_;
    int offsetMinutes_ = 0;
};

}  // namespace db
}  // namespace kelp
