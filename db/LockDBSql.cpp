#include "LockDBSql.h"

#include <new>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "DbSyslog.h"
#include "FacetSupport.h"
#include "QueryBindings.h"

namespace kelp {
namespace db {

namespace {

const uint32_t kDuplicateKey = 1062;

}  // namespace

LockDB::~LockDB() = default;

LockDBSql::LockDBSql(DBConnectorSql& connector)
    : PSCache(connector), table_(envOr("NVLOCKTBL", "")) {
    registerQuery(
        insert_,
        [this] {
            return "INSERT INTO " + table_ +
                   " (LCKID,LCKRESOURCE,LCKACTOR,LCKTYPE,LCKTIME,LCKCOUNTER) VALUES "
                   "(?,?,?,?,NOW(),1)";
        },
        4, 0);
    registerQuery(
        delete_, [this] { return "delete from " + table_ + " where  LCKID=? and LCKCOUNTER<2"; }, 1,
        0);
    init();
}

// A duplicate key is the normal answer to a busy lock, so the insert runs with error logging off
// and only unexpected failures reach the log.
bool LockDBSql::lockFirstTime(const std::string& lockId, const std::string& resource,
                              const std::string& actor, int type) {
    try {
        int32_t lockType = type;
        QueryBindings bindings(insert_.paramCount, insert_.resultCount);
        bindings.bindString(0, lockId);
        bindings.bindString(1, resource);
        bindings.bindString(2, actor);
        bindings.bindLong(3, lockType);
        return executeUpdate(insert_, bindings, false) >= 1;
    } catch (const std::bad_alloc&) {
        throw DBException("Not enough memory");
    } catch (const DBException& e) {
        if (e.code() == kDuplicateKey) return false;
        dbSyslog("LockManager", "LockDBSql::lockFirstTime: Exception caught: %s", e.what());
        throw;
    }
}

bool LockDBSql::releaseLock(const std::string& lockId) {
    return withBindingMemory([&] {
        QueryBindings bindings(delete_.paramCount, delete_.resultCount);
        bindings.bindString(0, lockId);
        return executeUpdate(delete_, bindings, true) != 0;
    });
}

}  // namespace db
}  // namespace kelp
