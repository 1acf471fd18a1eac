#include "QueryResult.h"

namespace kelp {
namespace db {

QueryResult::QueryResult(enum_field_types type, void* buffer, unsigned long bufferLength,
                         SignedFlag sign)
    : type_(type), buffer_(buffer), bufferLength_(bufferLength), sign_(sign) {}

}  // namespace db
}  // namespace kelp
