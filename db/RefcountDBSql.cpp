#include "RefcountDBSql.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <random>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "FacetSupport.h"
#include "QueryBindings.h"
#include "Sql.h"
#include "SqlException.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

namespace {

const char kObjectFile[] = "OBJECTFILE";
const char kTokenType[] = "RETRYTOKEN";
const uint32_t kDuplicateKey = 1062;

// A text no other update of any process ever uses: process id, random bits drawn once per
// process (again after a fork) and a serial number.
std::string onceToken() {
    static std::mutex mutex;
    static pid_t owner = 0;
    static std::string prefix;
    static uint64_t serial = 0;
    std::lock_guard<std::mutex> guard(mutex);
    if (owner != getpid()) {
        owner = getpid();
        std::random_device device;
        char text[64];
        snprintf(text, sizeof text, "once:%ld:%08x%08x:", static_cast<long>(owner), device(),
                 device());
        prefix = text;
        serial = 0;
    }
    return prefix + std::to_string(++serial);
}
const char kDatabase[] = "database";

bool isDatabaseReference(const std::string& type, const std::string& referrer) {
    return type == kObjectFile && referrer == kDatabase;
}

void bindStrings(QueryBindings& bindings, std::initializer_list<const std::string*> params) {
    int index = 0;
    for (const std::string* param : params) bindings.bindString(index++, *param);
}

}  // namespace

RefcountDB::~RefcountDB() = default;

void RefcountDB::parseObjectId(const std::string& objectId, std::string& studyUid,
                               std::string& fileName) {
    size_t slash = objectId.rfind('/');
    if (slash == std::string::npos) {
        throw DBException("ReferenceCounterImplDB: OBJECTFILE reference '" + objectId +
                          "' is in unexpected format");
    }
    studyUid = objectId.substr(0, slash);
    fileName = objectId.substr(slash + 1);
}

RefcountDBSql::RefcountDBSql(DBConnectorSql& connector)
    : PSCache(connector),
      refTable_(envOr("REFCOUNTTBL", "REFCOUNT")),
      objectTable_(envOr("OBJECTTBL", "OBJECTFILE")) {
    registerStatements();
    init();
}

void RefcountDBSql::registerStatements() {
    const std::string& r = refTable_;
    const std::string& o = objectTable_;
    registerQuery(
        addRef_,
        [&r] {
            return "INSERT INTO " + r +
                   " ( ID, TYPE, REFERRER, COUNTER ) values (?,?,?,1) ON DUPLICATE KEY UPDATE "
                   "COUNTER=COUNTER+1;";
        },
        3, 0);
    registerQuery(
        createRef_,
        [&r] {
            return "INSERT IGNORE INTO " + r + " ( ID, TYPE, REFERRER, COUNTER ) values (?,?,?,1);";
        },
        3, 0);
    registerQuery(
        decrementRef_,
        [&r] {
            return "UPDATE " + r + " set COUNTER=COUNTER-1 where ID=? and TYPE=? and REFERRER=?;";
        },
        3, 0);
    registerQuery(
        deleteRef_,
        [&r] {
            return "DELETE FROM " + r + " where ID=? and TYPE=? and REFERRER=? and COUNTER<1;";
        },
        3, 0);
    registerQuery(
        sumCounters_,
        [&r] {
            return "select sum(COUNTER) as TOTAL from " + r +
                   " where COUNTER > 0 and ID=? and TYPE=?";
        },
        2, 1);
    registerQuery(
        counterOf_,
        [&r] { return "select COUNTER from " + r + " where ID=? and TYPE=? and REFERRER=?"; }, 3,
        1);
    registerQuery(
        anyPositive_,
        [&r] { return "SELECT ID FROM " + r + " WHERE ID=? and TYPE=? and COUNTER>0 LIMIT 1"; }, 2,
        1);
    registerQuery(
        objectExists_, [&o] { return "SELECT FNAME FROM " + o + " WHERE FNAME=? AND STYIUID=?"; },
        2, 1);
    registerQuery(
        deleteObject_, [&o] { return "DELETE FROM " + o + " WHERE FNAME=? AND STYIUID=?"; }, 2, 0);
    registerQuery(
        createLock_,
        [&r] {
            return "INSERT INTO " + r +
                   " ( ID, TYPE, REFERRER, COUNTER ) values (?,?,'LOCKREMOVEREF',0)";
        },
        2, 0);
    registerQuery(
        deleteLock_,
        [&r] { return "DELETE FROM " + r + " WHERE ID=? and TYPE=? and REFERRER='LOCKREMOVEREF'"; },
        2, 0);
    registerQuery(
        listReferrers_,
        [&r] { return "SELECT REFERRER, COUNTER from " + r + " where ID=? and TYPE=?"; }, 2, 2);
    registerOnceStatements();
}

// The statements of updateOnce. The token rows live in the reference table under the type
// "RETRYTOKEN" and a token as id, so no read of a real item ever meets them.
void RefcountDBSql::registerOnceStatements() {
    const std::string& r = refTable_;
    registerQuery(
        begin_, [] { return std::string("START TRANSACTION"); }, 0, 0);
    registerQuery(
        commit_, [] { return std::string("COMMIT"); }, 0, 0);
    registerQuery(
        rollback_, [] { return std::string("ROLLBACK"); }, 0, 0);
    registerQuery(
        insertToken_,
        [&r] {
            return "INSERT INTO " + r + " ( ID, TYPE, REFERRER, COUNTER ) values (?,'" +
                   kTokenType + "','',?)";
        },
        2, 0);
    registerQuery(
        tokenRows_,
        [&r] { return "SELECT COUNTER FROM " + r + " WHERE ID=? and TYPE='" + kTokenType + "'"; },
        1, 1);
    registerQuery(
        deleteToken_,
        [&r] { return "DELETE FROM " + r + " WHERE ID=? and TYPE='" + kTokenType + "'"; }, 1, 0);
}

uint64_t RefcountDBSql::update(const PsQuery& query,
                               std::initializer_list<const std::string*> params) {
    return withBindingMemory([&] {
        QueryBindings bindings(query.paramCount, query.resultCount);
        bindStrings(bindings, params);
        return executeUpdate(query, bindings, true);
    });
}

// The connector repeats an update whose connection was lost, and the server may have run it
// already: a counter would then count twice, and a delete could remove a row that another
// process made between the two runs. So the update runs in a transaction with the insert of a
// row of its own token, and every attempt runs the whole transaction again:
//   - the first attempt that commits leaves the token row, with the update's row count;
//   - a later attempt's token insert meets that row (1062): the update is done, its own second
//     run is rolled back, and the count is read from the token row;
//   - an attempt whose transaction never committed left nothing: the server rolled it back
//     when the connection went, so the next attempt does the work.
// An attempt that the server is still running when the connection goes holds the token's key
// (and the rows it changed) until it commits or rolls back, and the next attempt's statements
// wait for it, so the two can never both commit. An update that itself meets a duplicate key
// on a repeated attempt (the removal lock's insert meeting its own row) looks for the token the
// same way. The token row is deleted afterwards; one left by a failing delete is harmless.
uint64_t RefcountDBSql::updateOnce(const PsQuery& query,
                                   std::initializer_list<const std::string*> params) {
    const std::string token = onceToken();
    bool attempted = false;
    uint64_t rows = withBindingMemory([&] {
        return connector().executeAttempts(true, [&] {
            const bool repeated = attempted;
            attempted = true;
            return onceAttempt(query, params, token, repeated);
        });
    });
    try {
        update(deleteToken_, {&token});
    } catch (const DBException&) {
        // The update is done; the token row only takes a little room.
    }
    return rows;
}

uint64_t RefcountDBSql::onceAttempt(const PsQuery& query,
                                    std::initializer_list<const std::string*> params,
                                    const std::string& token, bool repeated) {
    QueryBindings none(0, 0);
    runEx(begin_, none);
    try {
        QueryBindings bindings(query.paramCount, query.resultCount);
        bindStrings(bindings, params);
        uint64_t rows = 0;
        try {
            rows = runEx(query, bindings);
        } catch (const SqlException& e) {
            if (e.code() != kDuplicateKey || !repeated) throw;
            runEx(rollback_, none);
            uint64_t done = 0;
            if (tokenRowCount(token, done)) return done;
            throw;
        }
        const std::string count = std::to_string(rows);
        QueryBindings tokenBindings(insertToken_.paramCount, insertToken_.resultCount);
        tokenBindings.bindString(0, token);
        tokenBindings.bindString(1, count);
        try {
            runEx(insertToken_, tokenBindings);
        } catch (const SqlException& e) {
            if (e.code() != kDuplicateKey) throw;
            runEx(rollback_, none);
            uint64_t done = 0;
            tokenRowCount(token, done);
            return done;
        }
        runEx(commit_, none);
        return rows;
    } catch (const SqlException&) {
        try {
            runEx(rollback_, none);
        } catch (const SqlException&) {
            // The connection is gone, and the server rolls the transaction back itself.
        }
        throw;
    }
}

uint64_t RefcountDBSql::runEx(const PsQuery& query, QueryBindings& bindings) {
    PSHandle handle = getPS(query);
    return handle.statement->executeUpdateEx(bindings);
}

// Read outside the transaction (after its rollback), so the answer is the committed state.
bool RefcountDBSql::tokenRowCount(const std::string& token, uint64_t& rows) {
    std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
    long long value = 0;
    QueryResult column(MYSQL_TYPE_LONGLONG, &value, sizeof value, SIGNED_VALUE);
    QueryBindings bindings(tokenRows_.paramCount, tokenRows_.resultCount);
    bindings.bindString(0, token);
    bindings.bindResult(0, column);
    PSHandle handle = getPS(tokenRows_);
    handle.statement->executeAndStoreEx(bindings);
    if (handle.statement->fetch() != 0 || column.isNull()) return false;
    rows = static_cast<uint64_t>(value);
    return true;
}

int RefcountDBSql::fetchFirst(const PsQuery& query,
                              std::initializer_list<const std::string*> params,
                              QueryResult& column) {
    return withBindingMemory([&] {
        QueryBindings bindings(query.paramCount, query.resultCount);
        bindStrings(bindings, params);
        bindings.bindResult(0, column);
        PSHandle handle = executeQuery(query, bindings);
        return handle.statement->fetch();
    });
}

bool RefcountDBSql::hasRow(const PsQuery& query, std::initializer_list<const std::string*> params) {
    std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
    char buffer[256];
    QueryResult column(MYSQL_TYPE_STRING, buffer, sizeof buffer, SIGNED_VALUE);
    int status = fetchFirst(query, params, column);
    return status == 0 || status == MYSQL_DATA_TRUNCATED;
}

int64_t RefcountDBSql::fetchCount(const PsQuery& query,
                                  std::initializer_list<const std::string*> params) {
    std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
    long long value = 0;
    QueryResult column(MYSQL_TYPE_LONGLONG, &value, sizeof value, SIGNED_VALUE);
    if (fetchFirst(query, params, column) != 0 || column.isNull()) return 0;
    return value;
}

uint64_t RefcountDBSql::addEntry(const std::string& id, const std::string& type,
                                 const std::string& referrer) {
    if (isDatabaseReference(type, referrer)) return 0;
    return updateOnce(addRef_, {&id, &type, &referrer});
}

uint64_t RefcountDBSql::createEntry(const std::string& id, const std::string& type,
                                    const std::string& referrer) {
    if (isDatabaseReference(type, referrer)) return 0;
    return update(createRef_, {&id, &type, &referrer});
}

uint64_t RefcountDBSql::removeEntry(const std::string& id, const std::string& type,
                                    const std::string& referrer) {
    if (isDatabaseReference(type, referrer)) return removeObjectFromDatabase(id);
    updateOnce(decrementRef_, {&id, &type, &referrer});
    return update(deleteRef_, {&id, &type, &referrer});
}

uint64_t RefcountDBSql::createLockEntryInDB(const std::string& id, const std::string& type) {
    return updateOnce(createLock_, {&id, &type});
}

uint64_t RefcountDBSql::removeLockEntryFromDB(const std::string& id, const std::string& type) {
    return updateOnce(deleteLock_, {&id, &type});
}

uint64_t RefcountDBSql::removeObjectFromDatabase(const std::string& objectId) {
    std::string studyUid, fileName;
    parseObjectId(objectId, studyUid, fileName);
    return updateOnce(deleteObject_, {&fileName, &studyUid});
}

bool RefcountDBSql::isObjectFileInDatabase(const std::string& objectId) {
    std::string studyUid, fileName;
    parseObjectId(objectId, studyUid, fileName);
    return hasRow(objectExists_, {&fileName, &studyUid});
}

bool RefcountDBSql::entriesExist(const std::string& id, const std::string& type) {
    if (hasRow(anyPositive_, {&id, &type})) return true;
    return type == kObjectFile && isObjectFileInDatabase(id);
}

int64_t RefcountDBSql::countEntries(const std::string& id, const std::string& type) {
    int64_t total = fetchCount(sumCounters_, {&id, &type});
    if (type == kObjectFile && isObjectFileInDatabase(id)) ++total;
    return total;
}

int64_t RefcountDBSql::countEntry(const std::string& id, const std::string& type,
                                  const std::string& referrer) {
    int64_t count = fetchCount(counterOf_, {&id, &type, &referrer});
    if (isDatabaseReference(type, referrer) && isObjectFileInDatabase(id)) ++count;
    return count;
}

size_t RefcountDBSql::listEntries(const std::string& id, const std::string& type,
                                  std::list<std::string>& entries, std::string& text) {
    std::list<std::string> found = readReferrers(id, type);
    if (type == kObjectFile && isObjectFileInDatabase(id))
        found.push_back(std::string(kDatabase) + "=1");
    text.clear();
    for (const std::string& entry : found) text += (text.empty() ? "" : ", ") + entry;
    size_t count = found.size();
    entries.splice(entries.end(), found);
    return count;
}

std::list<std::string> RefcountDBSql::readReferrers(const std::string& id,
                                                    const std::string& type) {
    return withBindingMemory([&] {
        std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
        char referrer[256];
        long long counter = 0;
        QueryResult referrerColumn(MYSQL_TYPE_STRING, referrer, sizeof referrer, SIGNED_VALUE);
        QueryResult counterColumn(MYSQL_TYPE_LONGLONG, &counter, sizeof counter, SIGNED_VALUE);
        QueryBindings bindings(listReferrers_.paramCount, listReferrers_.resultCount);
        bindStrings(bindings, {&id, &type});
        bindings.bindResult(0, referrerColumn);
        bindings.bindResult(1, counterColumn);
        PSHandle handle = executeQuery(listReferrers_, bindings);
        std::list<std::string> found;
        for (int status = handle.statement->fetch(); status == 0 || status == MYSQL_DATA_TRUNCATED;
             status = handle.statement->fetch()) {
            size_t length = std::min<uint64_t>(referrerColumn.length(), sizeof referrer);
            found.push_back(std::string(referrer, length) + "=" + std::to_string(counter));
        }
        return found;
    });
}

}  // namespace db
}  // namespace kelp
