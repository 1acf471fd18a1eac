#include "QueryBindings.h"

#include <cstring>

namespace kelp {
namespace db {

namespace {

void applySign(MYSQL_BIND& bind, SignedFlag sign) {
    if (sign == SIGNED_VALUE) bind.is_unsigned = 0;
    if (sign == UNSIGNED_VALUE) bind.is_unsigned = 1;
}

std::vector<MYSQL_BIND> zeroedRecords(int count) {
    std::vector<MYSQL_BIND> records(count > 0 ? count : 0);
    if (!records.empty()) std::memset(records.data(), 0, records.size() * sizeof(MYSQL_BIND));
    return records;
}

}  // namespace

QueryBindings::QueryBindings(int paramCount, int resultCount)
    : paramCount_(paramCount),
      resultCount_(resultCount),
      params_(zeroedRecords(paramCount)),
      results_(zeroedRecords(resultCount)),
      stringLengths_(paramCount > 0 ? paramCount : 0, 0) {}

void QueryBindings::bindParam(int index, enum_field_types type, void* buffer,
                              unsigned long bufferLength, unsigned long* length, MysqlFlag* isNull,
                              SignedFlag sign) {
    MYSQL_BIND& bind = params_[index];
    bind.buffer_type = type;
    bind.buffer = buffer;
    if (bufferLength != 0) bind.buffer_length = bufferLength;
    bind.length = length;
    bind.is_null = isNull;
    applySign(bind, sign);
}

void QueryBindings::bindString(int index, const std::string& value) {
    stringLengths_[index] = value.size();
    bindParam(index, MYSQL_TYPE_STRING, const_cast<char*>(value.data()), value.size(),
              &stringLengths_[index], nullptr, SIGNED_VALUE);
}

void QueryBindings::bindLong(int index, const int32_t& value) {
    bindParam(index, MYSQL_TYPE_LONG, const_cast<int32_t*>(&value), sizeof value, nullptr, nullptr,
              SIGNED_VALUE);
}

void QueryBindings::bindResult(int index, QueryResult& result) {
    MYSQL_BIND& bind = results_[index];
    bind.buffer_type = result.type_;
    bind.buffer = result.buffer_;
    if (result.bufferLength_ != 0) bind.buffer_length = result.bufferLength_;
    bind.length = &result.length_;
    bind.is_null = &result.isNull_;
    bind.error = &result.error_;
    applySign(bind, result.sign_);
}

}  // namespace db
}  // namespace kelp
