#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MysqlCompat.h"
#include "QueryResult.h"

namespace kelp {
namespace db {

// The parameter and result records of one execution of a prepared statement, zero-filled at
// construction (no records for a count of 0 or less). Buffers stay owned by the caller and must
// outlive the execution and the fetches. Indices are not checked against the counts: binding
// outside them is a caller error. Throws std::bad_alloc when the records cannot be allocated.
// Not synchronised; non-copyable (the client library keeps pointers into it).
class QueryBindings {
  public:
    QueryBindings(int paramCount, int resultCount);
    QueryBindings(const QueryBindings&) = delete;
    QueryBindings& operator=(const QueryBindings&) = delete;

    // Fills parameter record index. A bufferLength of 0 keeps the length bound before; length and
    // isNull may be null. sign other than SIGNED_VALUE / UNSIGNED_VALUE keeps the earlier flag.
    void bindParam(int index, enum_field_types type, void* buffer, unsigned long bufferLength,
                   unsigned long* length, MysqlFlag* isNull, SignedFlag sign);

    // A string parameter (MYSQL_TYPE_STRING) reading value in place; value must outlive the
    // execution. The length is kept here.
    void bindString(int index, const std::string& value);
    // A 32-bit signed integer parameter (MYSQL_TYPE_LONG) reading value in place.
    void bindLong(int index, const int32_t& value);

    // Points result record index at result's buffer and at its length, is-null and error fields.
    void bindResult(int index, QueryResult& result);

    int paramCount() const { return paramCount_; }
    int resultCount() const { return resultCount_; }
    // The records as the client library takes them; null when the count is 0 or less.
    MYSQL_BIND* params() { return params_.empty() ? nullptr : params_.data(); }
    MYSQL_BIND* results() { return results_.empty() ? nullptr : results_.data(); }

  private:
    int paramCount_;
    int resultCount_;
    std::vector<MYSQL_BIND> params_;
    std::vector<MYSQL_BIND> results_;
    std::vector<unsigned long> stringLengths_;
};

}  // namespace db
}  // namespace kelp
