#include "SessionDBSql.h"

#include <cstdint>

#include "DBConnectorSql.h"
#include "FacetSupport.h"
#include "QueryBindings.h"
#include "Sql.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

SessionDB::~SessionDB() = default;

SessionDBSql::SessionDBSql(DBConnectorSql& connector)
    : PSCache(connector), table_(envOr("SESSIONTBL", "")) {
    registerQuery(
        select_,
        [this] {
            return "SELECT SIGNSTAT,SESSIONPRI,SESSIONLSY FROM " + table_ +
                   " WHERE SID=? AND IPADDR=?";
        },
        2, 3);
    init();
}

bool SessionDBSql::checkSession(const std::string& sessionId, const std::string& ipAddress,
                                int& priority, bool& flag) {
    char signStat = 0;
    int16_t sessionPri = 0;
    uint16_t sessionLsy = 0;
    return withBindingMemory([&] {
        // Held through the fetch too, so a reconnect by another thread cannot close the
        // statement's connection under it.
        std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
        QueryResult signResult(MYSQL_TYPE_STRING, &signStat, sizeof signStat, SIGNED_VALUE);
        QueryResult priResult(MYSQL_TYPE_SHORT, &sessionPri, sizeof sessionPri, SIGNED_VALUE);
        QueryResult lsyResult(MYSQL_TYPE_SHORT, &sessionLsy, sizeof sessionLsy, UNSIGNED_VALUE);
        QueryBindings bindings(select_.paramCount, select_.resultCount);
        bindings.bindString(0, sessionId);
        bindings.bindString(1, ipAddress);
        bindings.bindResult(0, signResult);
        bindings.bindResult(1, priResult);
        bindings.bindResult(2, lsyResult);
        PSHandle handle = executeQuery(select_, bindings);
        if (handle.statement->fetch() != 0) return false;
        if (signResult.isNull() || signResult.isTruncated()) return false;
        if (signStat != 'Y' && signStat != 'y') return false;
        if (!priResult.isNull() && !priResult.isTruncated()) priority = sessionPri;
        if (!lsyResult.isNull() && !lsyResult.isTruncated()) flag = sessionLsy != 0;
        return true;
    });
}

}  // namespace db
}  // namespace kelp
