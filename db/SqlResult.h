#pragma once

#include <string>
#include <vector>

#include "MysqlCompat.h"
#include "SqlField.h"

namespace kelp {
namespace db {

// The stored rows of a text query. Owns the MYSQL_RES and frees it on destruction. The rows live
// on the client, so reading them needs no lock. Not synchronised; non-copyable.
class SqlResult {
  public:
    explicit SqlResult(MYSQL_RES* result);
    ~SqlResult();
    SqlResult(const SqlResult&) = delete;
    SqlResult& operator=(const SqlResult&) = delete;

    // Moves to the next row; false when there is none.
    bool fetch();
    // Appends one field per column of the current row, in column order (NULL fields for NULL
    // values). Call only after fetch() returned true.
    void getRecord(std::vector<SqlField>& out);

    unsigned int columnCount() const { return columnCount_; }

  private:
    MYSQL_RES* result_;
    MYSQL_ROW row_ = nullptr;
    unsigned int columnCount_;
    std::vector<std::string> columnNames_;
};

}  // namespace db
}  // namespace kelp
