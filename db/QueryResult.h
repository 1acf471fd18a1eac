#pragma once

#include <cstdint>

#include "MysqlCompat.h"

namespace kelp {
namespace db {

// Signedness of a bound value. Any other value leaves the binding's flag as it was (signed in
// fresh bindings).
enum SignedFlag { SIGNED_VALUE = 1, UNSIGNED_VALUE = 2 };

// The receiving side of one result column: type and caller-owned buffer, plus the length,
// is-null and truncation flags a fetch writes. QueryBindings::bindResult points the client
// library at these fields, so a QueryResult must stay in place (not be moved or copied) while it
// is bound. Not synchronised.
class QueryResult {
  public:
    QueryResult(enum_field_types type, void* buffer, unsigned long bufferLength, SignedFlag sign);
    QueryResult(const QueryResult&) = delete;
    QueryResult& operator=(const QueryResult&) = delete;

    enum_field_types type() const { return type_; }
    void* buffer() const { return buffer_; }
    uint64_t bufferLength() const { return bufferLength_; }
    SignedFlag sign() const { return sign_; }
    // Length of the value the last fetch wrote (the full length, even when truncated).
    uint64_t length() const { return length_; }
    bool isNull() const { return isNull_ != 0; }
    bool isTruncated() const { return error_ != 0; }

  private:
    friend class QueryBindings;

    enum_field_types type_;
    void* buffer_;
    uint64_t bufferLength_;
    unsigned long length_ = 0;
    MysqlFlag isNull_ = 0;
    SignedFlag sign_;
    MysqlFlag error_ = 0;
};

}  // namespace db
}  // namespace kelp
