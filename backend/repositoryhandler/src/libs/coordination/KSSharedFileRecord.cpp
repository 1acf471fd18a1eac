#include "KSSharedFileRecord.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <thread>

#include "DBException.h"
#include "KSLogger.h"
#include "KSStateFileCache.h"
#include "Sha256.h"

namespace {

constexpr uint32_t kNoSuchTable = 1146;
constexpr std::chrono::milliseconds kFirstPause{10};
constexpr std::chrono::milliseconds kLongestPause{200};

std::string hostName() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0) return std::string();
    return name;
}

}  // namespace

void KSSharedFileRecord::bind(const std::string& path, const std::string& lockId) {
    path_ = path;
    lockId_ = lockId;
    usable_ = true;
    have_ = false;
}

std::string KSSharedFileRecord::fingerprint(bool exists, const std::string& content) {
    if (!exists) return "missing";
    return std::to_string(content.size()) + ":" + kelp::db::sha256Hex(content);
}

KSSharedFileRecord::Read KSSharedFileRecord::readConfirmed(kelp::db::LockDB* db,
                                                           KSStateFileCache& file) {
    if (!load(db)) return usable_ ? Read::kUnconfirmed : confirmWithoutRecord(file);
    const auto start = std::chrono::steady_clock::now();
    std::chrono::milliseconds pause = kFirstPause;
    std::string seen;
    for (;;) {
        if (file.reread() == KSStateFileCache::Outcome::kFailed) return Read::kFailed;
        seen = fingerprint(file.exists(), file.content());
        if (!have_ || seen == record_.content) return Read::kConfirmed;
        if (std::chrono::steady_clock::now() - start >= wait_) break;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, kLongestPause);
    }
    if (seen == record_.previous) {
        rh_logger.infoLog(
            "The file \"%s\" still holds the content its last writer (change %llu, host %s) "
            "replaced: that writer stopped before the replacement; the content is taken as it "
            "is.",
            path_.c_str(), static_cast<unsigned long long>(record_.counter), record_.host.c_str());
        repair(db, seen, record_.counter);
        return Read::kConfirmed;
    }
    rh_logger.errorLog(
        "The file \"%s\" does not hold what its last writer (change %llu, host %s, path %s) "
        "recorded, after %lld ms of reading again: the storage serves stale content, or the "
        "file was changed outside its lock. Nothing is written over it now; the next writer "
        "takes its present content.",
        path_.c_str(), static_cast<unsigned long long>(record_.counter), record_.host.c_str(),
        record_.path.c_str(), static_cast<long long>(wait_.count()));
    repair(db, seen, record_.counter);
    return Read::kUnconfirmed;
}

bool KSSharedFileRecord::beforeReplace(kelp::db::LockDB* db, KSStateFileCache& file,
                                       const std::string& content) {
    if (!usable_) return true;
    if (!load(db)) return !usable_;
    pending_.counter = (have_ ? record_.counter : 0) + 1;
    pending_.content = fingerprint(true, content);
    // Without a record the content last read is the best guess of what is replaced.
    pending_.previous = have_ ? record_.content : fingerprint(file.exists(), file.content());
    pending_.path = path_;
    pending_.host = hostName();
    return store(db, pending_);
}

void KSSharedFileRecord::afterReplace(kelp::db::LockDB* db, bool replaced) {
    if (usable_ && !replaced) repair(db, pending_.previous, pending_.counter);
}

// Reads the record; false when it could not be read (logged). A missing row is a success with
// have_ false.
bool KSSharedFileRecord::load(kelp::db::LockDB* db) {
    if (!usable_) return false;
    try {
        have_ = db->changeRecord(lockId_, record_);
        return true;
    } catch (const kelp::db::DBException& e) {
        if (e.code() == kNoSuchTable) {
            logUnusable(e.what());
        } else {
            rh_logger.errorLog("The change record of \"%s\" could not be read: %s", path_.c_str(),
                               e.what());
        }
    } catch (const std::exception& e) {
        rh_logger.errorLog("The change record of \"%s\" could not be read: %s", path_.c_str(),
                           e.what());
    }
    have_ = false;
    return false;
}

bool KSSharedFileRecord::store(kelp::db::LockDB* db, const kelp::db::LockDB::ChangeRecord& record) {
    try {
        db->recordChange(lockId_, record);
        return true;
    } catch (const kelp::db::DBException& e) {
        if (e.code() == kNoSuchTable) {
            logUnusable(e.what());
            return true;
        }
        rh_logger.errorLog("The change record of \"%s\" could not be written: %s", path_.c_str(),
                           e.what());
    } catch (const std::exception& e) {
        rh_logger.errorLog("The change record of \"%s\" could not be written: %s", path_.c_str(),
                           e.what());
    }
    return false;
}

// Makes the record name `seen` as the file's content, so that the next reader accepts it.
void KSSharedFileRecord::repair(kelp::db::LockDB* db, const std::string& seen, uint64_t counter) {
    kelp::db::LockDB::ChangeRecord record;
    record.counter = counter + 1;
    record.content = seen;
    record.previous = seen;
    record.path = path_;
    record.host = hostName();
    store(db, record);
}

KSSharedFileRecord::Read KSSharedFileRecord::confirmWithoutRecord(KSStateFileCache& file) {
    return file.reread() == KSStateFileCache::Outcome::kFailed ? Read::kFailed : Read::kConfirmed;
}

void KSSharedFileRecord::logUnusable(const char* what) {
    usable_ = false;
    rh_logger.errorLog(
        "The change table is missing (%s): the file \"%s\" is read and written without change "
        "records, and a client that caches file content may serve stale data under its lock. "
        "Load db/schema.sql.",
        what, path_.c_str());
}
