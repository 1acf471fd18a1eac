#include "LockDBSql.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "DBConnectorSql.h"
#include "DBException.h"
#include "DbSyslog.h"
#include "FacetSupport.h"
#include "QueryBindings.h"
#include "QueryResult.h"
#include "Sha256.h"
#include "Sql.h"
#include "SqlStatement.h"

namespace kelp {
namespace db {

namespace {

const uint32_t kDuplicateKey = 1062;
const size_t kKeyPrefixBytes = 190;
// Holders' actors are short tokens; a longer one does not fit the lock table's column anyway.
const size_t kActorBuffer = 4096;
// LCKRESOURCE is a BLOB in the reference schema: at most this many bytes.
const size_t kResourceBuffer = 65535;
// Fingerprints are a size and a SHA-256 digest; paths at most PATH_MAX; host names short.
const size_t kFingerprintBuffer = 256;
const size_t kPathBuffer = 8192;
const size_t kHostBuffer = 1024;

std::string fetched(const std::string& buffer, const QueryResult& result) {
    if (result.isNull()) return std::string();
    return buffer.substr(0, std::min<size_t>(result.length(), buffer.size()));
}

bool isUtf8Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

}  // namespace

LockDB::~LockDB() = default;

LockDBSql::LockDBSql(DBConnectorSql& connector)
    : PSCache(connector), table_(envOr("NVLOCKTBL", "")), changeTable_(table_ + "CHG") {
    registerQuery(
        insert_,
        [this] {
            return "INSERT INTO " + table_ +
                   " (LCKID,LCKRESOURCE,LCKACTOR,LCKTYPE,LCKTIME,LCKCOUNTER) VALUES "
                   "(?,?,?,?,NOW(),1)";
        },
        4, 0);
    registerQuery(
        deleteOwn_,
        [this] {
            return "delete from " + table_ +
                   " where  LCKID=? and COALESCE(LCKACTOR,'')=? and LCKCOUNTER<2";
        },
        2, 0);
    registerQuery(
        holder_, [this] { return "SELECT LCKACTOR FROM " + table_ + " WHERE LCKID=?"; }, 1, 1);
    // The age comes from the server's own clock, the one that stamped LCKTIME, so the clocks of
    // the servers that took the locks do not matter.
    registerQuery(
        listPrefix_,
        [this] {
            return "SELECT LCKRESOURCE, COALESCE(LCKACTOR,''), "
                   "COALESCE(TIMESTAMPDIFF(SECOND, LCKTIME, NOW()), -1) FROM " +
                   table_ + " WHERE LEFT(LCKRESOURCE, ?) = BINARY ? ORDER BY LCKRESOURCE";
        },
        2, 3);
    registerQuery(
        readChange_,
        [this] {
            return "SELECT CHGCOUNTER,CHGCONTENT,CHGPREVIOUS,CHGPATH,CHGHOST FROM " +
                   changeTable_ + " WHERE CHGID=?";
        },
        1, 5);
    registerQuery(
        writeChange_,
        [this] {
            return "INSERT INTO " + changeTable_ +
                   " (CHGID,CHGCOUNTER,CHGCONTENT,CHGPREVIOUS,CHGPATH,CHGHOST,CHGTIME) VALUES "
                   "(?,?,?,?,?,?,NOW()) ON DUPLICATE KEY UPDATE CHGCOUNTER=VALUES(CHGCOUNTER),"
                   "CHGCONTENT=VALUES(CHGCONTENT),CHGPREVIOUS=VALUES(CHGPREVIOUS),"
                   "CHGPATH=VALUES(CHGPATH),CHGHOST=VALUES(CHGHOST),CHGTIME=VALUES(CHGTIME)";
        },
        6, 0);
    init();
}

std::string LockDBSql::storageKey(const std::string& lockId) {
    if (lockId.size() <= kMaxKeyBytes) return lockId;
    size_t cut = kKeyPrefixBytes;
    while (cut > 0 && isUtf8Continuation(lockId[cut])) --cut;
    return lockId.substr(0, cut) + "#" + sha256Hex(lockId);
}

// A duplicate key is the normal answer to a busy lock, so the insert runs with error logging off
// and only unexpected failures reach the log.
//
// A duplicate key met by a repeated insert is ambiguous: the first attempt may have inserted the
// row and lost only its reply. The row's actor tells: when it is ours, the lock is ours. When the
// first attempt did not run, the row belongs to another holder and the answer is "busy", as for
// a first attempt.
bool LockDBSql::lockFirstTime(const std::string& lockId, const std::string& resource,
                              const std::string& actor, int type) {
    const std::string key = storageKey(lockId);
    RetryRecord record;
    try {
        int32_t lockType = type;
        QueryBindings bindings(insert_.paramCount, insert_.resultCount);
        bindings.bindString(0, key);
        bindings.bindString(1, resource);
        bindings.bindString(2, actor);
        bindings.bindLong(3, lockType);
        return executeUpdate(insert_, bindings, false, &record) >= 1;
    } catch (const std::bad_alloc&) {
        throw DBException("Not enough memory");
    } catch (const DBException& e) {
        if (e.code() == kDuplicateKey) {
            if (!record.mayHaveRunBefore) return false;
            std::string holder;
            return holderOfKey(key, holder) && holder == actor;
        }
        dbSyslog("LockManager", "LockDBSql::lockFirstTime: Exception caught: %s", e.what());
        throw;
    }
}

bool LockDBSql::releaseLock(const std::string& lockId) {
    const std::string key = storageKey(lockId);
    std::string holder;
    if (!holderOfKey(key, holder)) return false;
    return deleteOwnRow(key, holder);
}

bool LockDBSql::releaseLockOf(const std::string& lockId, const std::string& actor) {
    return deleteOwnRow(storageKey(lockId), actor);
}

bool LockDBSql::lockHolder(const std::string& lockId, std::string& actor) {
    return holderOfKey(storageKey(lockId), actor);
}

// The delete names the actor, so running it twice is harmless: a lock taken after the first run
// has another actor. When a repetition removed nothing, the first run may have removed the row
// and lost its reply; the row's absence then says the lock is given back.
bool LockDBSql::deleteOwnRow(const std::string& key, const std::string& actor) {
    RetryRecord record;
    uint64_t rows = withBindingMemory([&] {
        QueryBindings bindings(deleteOwn_.paramCount, deleteOwn_.resultCount);
        bindings.bindString(0, key);
        bindings.bindString(1, actor);
        return executeUpdate(deleteOwn_, bindings, true, &record);
    });
    if (rows != 0) return true;
    if (!record.mayHaveRunBefore) return false;
    std::string holder;
    return !holderOfKey(key, holder) || holder != actor;
}

bool LockDBSql::changeRecord(const std::string& lockId, ChangeRecord& record) {
    const std::string key = storageKey(lockId);
    try {
        return withBindingMemory([&] {
            std::string counter(32, '\0'), content(kFingerprintBuffer, '\0'),
                previous(kFingerprintBuffer, '\0'), path(kPathBuffer, '\0'),
                host(kHostBuffer, '\0');
            std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
            QueryResult counterResult(MYSQL_TYPE_STRING, &counter[0], counter.size(),
                                      SIGNED_VALUE);
            QueryResult contentResult(MYSQL_TYPE_STRING, &content[0], content.size(),
                                      SIGNED_VALUE);
            QueryResult previousResult(MYSQL_TYPE_STRING, &previous[0], previous.size(),
                                       SIGNED_VALUE);
            QueryResult pathResult(MYSQL_TYPE_STRING, &path[0], path.size(), SIGNED_VALUE);
            QueryResult hostResult(MYSQL_TYPE_STRING, &host[0], host.size(), SIGNED_VALUE);
            QueryBindings bindings(readChange_.paramCount, readChange_.resultCount);
            bindings.bindString(0, key);
            bindings.bindResult(0, counterResult);
            bindings.bindResult(1, contentResult);
            bindings.bindResult(2, previousResult);
            bindings.bindResult(3, pathResult);
            bindings.bindResult(4, hostResult);
            PSHandle handle = executeQuery(readChange_, bindings);
            const int status = handle.statement->fetch();
            if (status == MYSQL_NO_DATA) return false;
            // A path or host longer than its buffer arrives cut (MYSQL_DATA_TRUNCATED); both
            // are for people only, the fingerprints always fit.
            if (status != 0 && status != MYSQL_DATA_TRUNCATED)
                throw DBException("LockDBSql::changeRecord: the change record of " + key +
                                  " could not be read");
            record.counter = std::stoull(fetched(counter, counterResult));
            record.content = fetched(content, contentResult);
            record.previous = fetched(previous, previousResult);
            record.path = fetched(path, pathResult);
            record.host = fetched(host, hostResult);
            return true;
        });
    } catch (const DBException& e) {
        dbSyslog("LockManager", "LockDBSql::changeRecord: Exception caught: %s", e.what());
        throw;
    }
}

void LockDBSql::recordChange(const std::string& lockId, const ChangeRecord& record) {
    const std::string key = storageKey(lockId);
    const std::string counter = std::to_string(record.counter);
    try {
        withBindingMemory([&] {
            QueryBindings bindings(writeChange_.paramCount, writeChange_.resultCount);
            bindings.bindString(0, key);
            bindings.bindString(1, counter);
            bindings.bindString(2, record.content);
            bindings.bindString(3, record.previous);
            bindings.bindString(4, record.path);
            bindings.bindString(5, record.host);
            return executeUpdate(writeChange_, bindings, true);
        });
    } catch (const DBException& e) {
        dbSyslog("LockManager", "LockDBSql::recordChange: Exception caught: %s", e.what());
        throw;
    }
}

bool LockDBSql::holderOfKey(const std::string& key, std::string& actor) {
    return withBindingMemory([&] {
        std::string buffer(kActorBuffer, '\0');
        // Held through the fetch too, so a reconnect by another thread cannot close the
        // statement's connection under it.
        std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
        QueryResult actorResult(MYSQL_TYPE_STRING, &buffer[0], buffer.size(), SIGNED_VALUE);
        QueryBindings bindings(holder_.paramCount, holder_.resultCount);
        bindings.bindString(0, key);
        bindings.bindResult(0, actorResult);
        PSHandle handle = executeQuery(holder_, bindings);
        const int status = handle.statement->fetch();
        if (status == MYSQL_NO_DATA) return false;
        if (status != 0) {
            throw DBException("LockDBSql::lockHolder: the holder of " + key +
                              " could not be read (longer than " + std::to_string(kActorBuffer) +
                              " bytes?)");
        }
        actor = actorResult.isNull() ? std::string() : buffer.substr(0, actorResult.length());
        return true;
    });
}

std::vector<LockDB::Row> LockDBSql::locksWithPrefix(const std::string& prefix) {
    return withBindingMemory([&] {
        std::string resource(kResourceBuffer, '\0');
        std::string actor(kActorBuffer, '\0');
        long long age = -1;
        std::lock_guard<std::recursive_mutex> guard(connector().sql().mutex());
        QueryResult resourceColumn(MYSQL_TYPE_BLOB, &resource[0], resource.size(), SIGNED_VALUE);
        QueryResult actorColumn(MYSQL_TYPE_STRING, &actor[0], actor.size(), SIGNED_VALUE);
        QueryResult ageColumn(MYSQL_TYPE_LONGLONG, &age, sizeof age, SIGNED_VALUE);
        int32_t length = static_cast<int32_t>(prefix.size());
        QueryBindings bindings(listPrefix_.paramCount, listPrefix_.resultCount);
        bindings.bindLong(0, length);
        bindings.bindString(1, prefix);
        bindings.bindResult(0, resourceColumn);
        bindings.bindResult(1, actorColumn);
        bindings.bindResult(2, ageColumn);
        PSHandle handle = executeQuery(listPrefix_, bindings);
        std::vector<Row> rows;
        for (int status = handle.statement->fetch(); status == 0 || status == MYSQL_DATA_TRUNCATED;
             status = handle.statement->fetch()) {
            Row row;
            row.lockId =
                resource.substr(0, std::min<uint64_t>(resourceColumn.length(), resource.size()));
            row.actor = actor.substr(0, std::min<uint64_t>(actorColumn.length(), actor.size()));
            row.ageSeconds = ageColumn.isNull() ? -1 : age;
            rows.push_back(std::move(row));
        }
        return rows;
    });
}

}  // namespace db
}  // namespace kelp
