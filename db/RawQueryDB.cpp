#include "RawQueryDB.h"

#include <mutex>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "Sql.h"
#include "SqlConnection.h"
#include "SqlException.h"
#include "SqlResult.h"

namespace kelp {
namespace db {

RawQueryDB::RawQueryDB(DBConnectorSql& connector) : connector_(connector) {}

RawQueryDB::~RawQueryDB() = default;

size_t RawQueryDB::executeQuery(const std::string& sql, unsigned long timeLimitSeconds,
                                std::vector<std::vector<SqlField>>& rows) {
    try {
        std::lock_guard<std::recursive_mutex> guard(connector_.sql().mutex());
        connector_.reset();
        std::unique_ptr<SqlResult> result =
            connector_.connectionEx().executeQueryEx(sql, timeLimitSeconds);
        size_t count = 0;
        while (result->fetch()) {
            rows.emplace_back();
            result->getRecord(rows.back());
            ++count;
        }
        return count;
    } catch (const SqlException& e) {
        throw DBException(e.what(), e.code());
    }
}

}  // namespace db
}  // namespace kelp
