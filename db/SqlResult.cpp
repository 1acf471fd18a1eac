#include "SqlResult.h"

namespace kelp {
namespace db {

SqlResult::SqlResult(MYSQL_RES* result) : result_(result), columnCount_(mysql_num_fields(result)) {}

SqlResult::~SqlResult() {
    mysql_free_result(result_);
}

bool SqlResult::fetch() {
    row_ = mysql_fetch_row(result_);
    return row_ != nullptr;
}

void SqlResult::getRecord(std::vector<SqlField>& out) {
    if (columnNames_.empty()) {
        MYSQL_FIELD* fields = mysql_fetch_fields(result_);
        for (unsigned int i = 0; i < columnCount_; ++i) columnNames_.emplace_back(fields[i].name);
    }
    unsigned long* lengths = mysql_fetch_lengths(result_);
    for (unsigned int i = 0; i < columnCount_; ++i) {
        if (row_[i] == nullptr) {
            out.emplace_back(columnNames_[i]);
        } else {
            out.emplace_back(columnNames_[i], std::string(row_[i], lengths[i]));
        }
    }
}

}  // namespace db
}  // namespace kelp
