#include "RepoctlLockList.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "DBConnector.h"
#include "KSLockToken.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "LockDB.h"
#include "RawQueryDB.h"

namespace {

const char kFilePrefix[] = "semaphore_";

std::string lockId(const std::string& scope) {
    std::unique_ptr<char[]> id(toResourceID(scope.c_str(), ""));
    return id.get();
}

std::string hexLiteral(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "X'";
    for (unsigned char c : bytes) {
        text += digits[c >> 4];
        text += digits[c & 15];
    }
    return text + "'";
}

// The table name goes into SQL text, so only a plain identifier is taken.
bool isPlainIdentifier(const std::string& name) {
    if (name.empty() || name.size() > 64) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '$';
    });
}

}  // namespace

RepoctlLockList::RepoctlLockList(KSRepositoryHandler& repo)
    : resourcePrefix_(lockId(repo.lockScope())) {
    // The dirty file's lock is named after the canonical directory when no repositoryId is set
    // (KSRepositoryHandler::setup), after the id otherwise.
    const std::string& id = repo.settings().repositoryId;
    dirtyId_ = lockId((id.empty() ? repo.canonicalPath() : id) + "/.dirty");
    const char* dir = getenv("LOCK_VAR");
    lockDirectory_ = dir != nullptr ? dir : ".";
}

bool RepoctlLockList::classify(const std::string& id, Lock& lock) const {
    lock.id = id;
    if (id == dirtyId_) {
        lock.what = "dirtySet";
        return true;
    }
    if (id.compare(0, resourcePrefix_.size(), resourcePrefix_) != 0) return false;
    lock.resource = id.substr(resourcePrefix_.size());
    lock.what = lock.resource.empty() ? "maintenance" : "resource";
    return true;
}

bool RepoctlLockList::load(kelp::db::DBConnector* connector) {
    locks_.clear();
    error_.clear();
    loadFiles();
    if (connector != nullptr) loadRows(connector);
    std::sort(locks_.begin(), locks_.end(),
              [](const Lock& a, const Lock& b) { return a.age > b.age; });
    return error_.empty();
}

void RepoctlLockList::loadFiles() {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(lockDirectory_.c_str()), &closedir);
    if (!dir) {
        // No lock directory yet means no lock file has been taken.
        if (errno != ENOENT) error_ = "cannot read " + lockDirectory_ + ": " + errnoText(errno);
        return;
    }
    const long long now = time(nullptr);
    while (dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name.compare(0, sizeof kFilePrefix - 1, kFilePrefix) != 0) continue;
        Lock lock;
        if (!classify(name.substr(sizeof kFilePrefix - 1), lock)) continue;
        lock.file = lockDirectory_ + "/" + name;
        struct stat st;
        // A lock released since the directory was read is no lock any more.
        if (lstat(lock.file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        lock.inode = st.st_ino;
        lock.since = st.st_mtim.tv_sec;
        lock.sinceNanos = st.st_mtim.tv_nsec;
        lock.age = std::max(0LL, now - lock.since);
        lock.liveness = KSLockToken::describe(KSLockToken::Liveness::Unknown);
        locks_.push_back(lock);
    }
}

// Ages come from the database server's clock, which set LCKTIME, so that a skew between this
// host and the server does not age a lock.
void RepoctlLockList::loadRows(kelp::db::DBConnector* connector) {
    const char* table = getenv("NVLOCKTBL");
    if (table == nullptr || !isPlainIdentifier(table)) {
        error_ = "NVLOCKTBL does not name a lock table";
        return;
    }
    const std::string sql =
        "SELECT LCKRESOURCE, LCKACTOR, UNIX_TIMESTAMP(LCKTIME), UNIX_TIMESTAMP() FROM " +
        std::string(table) + " WHERE LEFT(LCKRESOURCE, " + std::to_string(resourcePrefix_.size()) +
        ") = " + hexLiteral(resourcePrefix_) + " OR LCKRESOURCE = " + hexLiteral(dirtyId_);
    std::vector<std::vector<kelp::db::SqlField>> rows;
    try {
        std::unique_ptr<kelp::db::RawQueryDB> raw(connector->createRawQuery());
        raw->executeQuery(sql, 30, rows);
    } catch (const std::exception& e) {
        error_ = std::string("cannot read the lock table: ") + e.what();
        return;
    }
    for (const auto& row : rows) {
        if (row.size() < 4) continue;
        Lock lock;
        if (!classify(row[0].value(), lock)) continue;
        lock.row = true;
        lock.holder = row[1].value();
        if (!row[2].isNull()) {
            lock.since = strtoll(row[2].value().c_str(), nullptr, 10);
            lock.age = std::max(0LL, strtoll(row[3].value().c_str(), nullptr, 10) - lock.since);
        }
        lock.liveness = KSLockToken::describe(KSLockToken::liveness(lock.holder));
        locks_.push_back(lock);
    }
}

// A row is deleted by its id and the holder's token together (LockDB::releaseLockOf): a lock
// taken again since has a new token and stays.
//
// A lock file has no token: its holder may release it and another take it again between the
// listing and the removal, and unlink() by name would remove the new take. So the file is
// first renamed to a name of this process (atomic: a new take then creates a new file under
// the lock's name and succeeds), and only when the renamed file is the one listed (same inode
// and the same modification time to the nanosecond: an inode number is reused soon after a
// file is deleted, but a new take's file is created now, not when the listed one was) is it
// deleted. Otherwise it was a new take: it is renamed back without replacing anything
// (link, which fails rather than replace a third take's file).
bool RepoctlLockList::remove(const Lock& lock, kelp::db::DBConnector* connector, std::string& why) {
    if (lock.row) {
        try {
            if (connector != nullptr && connector->lockDB()->releaseLockOf(lock.id, lock.holder))
                return true;
            why = "the row is gone or held by another holder now";
        } catch (const std::exception& e) {
            why = e.what();
        }
        return false;
    }
    const std::string aside = lock.file + ".removing." + std::to_string(getpid());
    if (rename(lock.file.c_str(), aside.c_str()) != 0) {
        why = errno == ENOENT ? "released meanwhile" : errnoText(errno);
        return false;
    }
    struct stat st;
    if (lstat(aside.c_str(), &st) == 0 && st.st_ino == lock.inode &&
        st.st_mtim.tv_sec == lock.since && st.st_mtim.tv_nsec == lock.sinceNanos) {
        if (unlink(aside.c_str()) == 0) return true;
        why = errnoText(errno);
        return false;
    }
    why = "taken again meanwhile";
    if (link(aside.c_str(), lock.file.c_str()) != 0)
        why += " and could not be put back (" + errnoText(errno) + "): " + aside;
    else
        unlink(aside.c_str());
    return false;
}
