#include "KSDirtyFlagHandler.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSException.h"
#include "KSLogger.h"
#include "DBConnector.h"
#include "KSPathUtils.h"
#include "KSSemaphoreGlobal.h"
#include "KSStateFile.h"
#include "KSTimeoutException.h"
#include "SmartSemaphore.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSDirtyFlagHandler";
constexpr time_t kCacheWindowSeconds = 60;
constexpr size_t kLinePiece = 1023;  // characters of one name piece, as a 1024-byte line buffer
constexpr long kLockBudgetMs = 30000;
constexpr long kAwayRetryMs = 250;

// The file's content as a set: one name a line, a final line feed removed from each. A line
// longer than kLinePiece characters counts as several names of kLinePiece characters and a
// rest, the way the file has always been read with a fixed line buffer.
std::set<std::string> parseNames(const std::string& content) {
    std::set<std::string> names;
    size_t pos = 0;
    while (pos < content.size()) {
        size_t lineFeed = content.find('\n', pos);
        size_t end = lineFeed == std::string::npos ? content.size() : lineFeed + 1;
        if (end - pos > kLinePiece) end = pos + kLinePiece;
        size_t length = end - pos;
        if (content[end - 1] == '\n') --length;
        names.insert(content.substr(pos, length));
        pos = end;
    }
    return names;
}

std::string formatNames(const std::set<std::string>& names) {
    std::string content;
    for (const std::string& name : names) {
        content += name;
        content += '\n';
    }
    return content;
}

}  // namespace

// The lock of the dirty file, shared with every process that opens the repository.
class KSDirtyFlagHandler::FileLock {
  public:
    FileLock(bool global, const std::string& filePath, const std::string& lockName,
             kelp::db::DBConnector* connection)
        : filePath_(filePath),
          id_(toResourceID(lockName.c_str(), "")),
          global_(global),
          semaphore_(global, id_.get(), connection) {}

    // Waits up to 30 seconds, as for any lock. A lock table that cannot be reached (its server
    // restarting or failing over) is waited for within the same time, like a busy lock: a
    // change that misses the file is a change other processes do not see.
    bool take() {
        KSSemaphore* semaphore = semaphore_.semaphore();
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kLockBudgetMs);
        for (long away = 0; semaphore != nullptr && away < kLockBudgetMs; away += kAwayRetryMs) {
            const long left =
                static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      deadline - std::chrono::steady_clock::now())
                                      .count());
            try {
                if (semaphore->lock_ms(std::max(1L, left), 10, 1.5, 1000, 0.4)) return true;
                break;
            } catch (const KSTimeoutException&) {
                break;
            } catch (const KSException& e) {
                // A lock file that cannot be made (KSIOException) does not get better by waiting.
                rh_logger.errorLog("SmartSemaphore.lock() : KSException caught: '%s' (%d)",
                                   e.getMessage().c_str(), e.getCode());
                break;
            } catch (const std::exception& e) {  // the database, e.g. kelp::db::DBException
                if (left <= kAwayRetryMs) {
                    rh_logger.errorLog("SmartSemaphore.lock() : std::exception caught: '%s'",
                                       e.what());
                    break;
                }
                KSClock::sleepMillis(kAwayRetryMs);
            }
        }
        rh_logger.errorLog("The dirty mechanism \"%s\" could not be locked.", filePath_.c_str());
        return false;
    }

    // The lock table's facet of the connection the lock is held through; null for a lock file.
    kelp::db::LockDB* lockDB() {
        if (!global_) return nullptr;
        return static_cast<KSSemaphoreGlobal*>(semaphore_.semaphore())->connector()->lockDB();
    }

  private:
    const std::string& filePath_;
    std::unique_ptr<char[]> id_;
    bool global_;
    SmartSemaphore semaphore_;
};

void KSDirtyFlagHandler::setRepository(kelp::db::DBConnector* /*connection*/,
                                       const char* repository, bool semaphoreType,
                                       const char* lockName) {
    if (repository == nullptr) throw KSAssertionException("repository", __LINE__, kSourceFile);
    std::lock_guard<std::mutex> guard(mutex_);
    char* canonical = canonicalize_file_name(repository);
    if (canonical != nullptr) {
        filePath_ = std::string(canonical) + "/.dirty";
        free(canonical);
    }
    lockName_ = lockName != nullptr ? lockName : filePath_;
    semaphoreType_ = semaphoreType;
    file_.setPath(filePath_);
    std::unique_ptr<char[]> lockId(toResourceID(lockName_.c_str(), ""));
    record_.bind(filePath_, lockId.get());
    refreshLocked();
}

bool KSDirtyFlagHandler::isDirty(kelp::db::DBConnector* /*connection*/, const char* resource,
                                 bool cached) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    std::lock_guard<std::mutex> guard(mutex_);
    if (!cached || KSClock::now() - lastCheck_.load() >= kCacheWindowSeconds) refreshLocked();
    return dirty_.count(resource) != 0;
}

// The first look at the membership uses the copy checked just before (a change that changes
// nothing needs no lock). The decision to write is made again under the file lock on content
// read afresh, and the change is applied to that, never to this process's older copy.
bool KSDirtyFlagHandler::setDirty(kelp::db::DBConnector* connection, const char* resource,
                                  bool dirty) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    if (strchr(resource, '\n') != nullptr) {
        rh_logger.errorLog(
            "The resource name \"%s\" contains a line feed; its dirty flag is not "
            "changed.",
            resource);
        return false;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    refreshLocked();
    // A change still waiting for the file is written now, even when this one changes nothing.
    if ((dirty_.count(resource) != 0) == dirty && unwritten_.empty()) return true;
    unwritten_[resource] = dirty;

    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (!fileLock.take()) {
        keepOnlyMarksLocked();
        return false;
    }
    // Writing over a file that could not be read, or over content that may be stale, would
    // drop whatever it holds.
    if (!rereadLocked(fileLock)) {
        keepOnlyMarksLocked();
        return false;
    }
    rebuildLocked();
    if (formatNames(dirty_) == file_.content() && (file_.exists() || dirty_.empty())) {
        unwritten_.clear();
        return true;
    }
    if (writeLocked(fileLock)) return true;
    keepOnlyMarksLocked();
    return false;
}

// A mark that could not be written is kept and goes out with this process's next write: a late
// mark only costs a search of every mount. A clear is dropped: written late it could erase a
// mark that another process set meanwhile to protect a move.
void KSDirtyFlagHandler::keepOnlyMarksLocked() {
    for (auto it = unwritten_.begin(); it != unwritten_.end();)
        it = it->second ? std::next(it) : unwritten_.erase(it);
    rebuildLocked();
}

void KSDirtyFlagHandler::clearDirtySet(kelp::db::DBConnector* connection) {
    std::lock_guard<std::mutex> guard(mutex_);
    dirty_.clear();
    unwritten_.clear();
    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (fileLock.take()) writeLocked(fileLock);
}

void KSDirtyFlagHandler::checkAndReadSetFile(kelp::db::DBConnector* /*connection*/) {
    std::lock_guard<std::mutex> guard(mutex_);
    refreshLocked();
}

void KSDirtyFlagHandler::writeSetFile(kelp::db::DBConnector* connection) {
    std::lock_guard<std::mutex> guard(mutex_);
    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (fileLock.take()) writeLocked(fileLock);
}

void KSDirtyFlagHandler::setStaleContentWait(std::chrono::milliseconds wait) {
    std::lock_guard<std::mutex> guard(mutex_);
    record_.setWait(wait);
}

std::set<std::string> KSDirtyFlagHandler::snapshot() {
    std::lock_guard<std::mutex> guard(mutex_);
    return dirty_;
}

// No file lock: the file is only ever replaced whole, so whatever version the read opens is
// complete.
void KSDirtyFlagHandler::refreshLocked() {
    lastCheck_ = KSClock::now();
    switch (file_.check()) {
        case KSStateFileCache::Outcome::kUnchanged:
            return;
        case KSStateFileCache::Outcome::kChanged:
            rebuildLocked();
            return;
        case KSStateFileCache::Outcome::kFailed:
            logFileError(file_.error());
            return;
    }
}

void KSDirtyFlagHandler::rebuildLocked() {
    dirty_ = parseNames(file_.content());
    for (const auto& change : unwritten_) {
        if (change.second)
            dirty_.insert(change.first);
        else
            dirty_.erase(change.first);
    }
}

// A lock file serialises processes of one server, whose reads see every completed rename; a
// database lock serialises servers, whose clients may serve stale content: the change record
// decides there (KSSharedFileRecord).
bool KSDirtyFlagHandler::rereadLocked(FileLock& fileLock) {
    if (!semaphoreType_) {
        if (file_.reread() != KSStateFileCache::Outcome::kFailed) return true;
        logFileError(file_.error());
        return false;
    }
    switch (record_.readConfirmed(fileLock.lockDB(), file_)) {
        case KSSharedFileRecord::Read::kConfirmed:
            return true;
        case KSSharedFileRecord::Read::kFailed:
            logFileError(file_.error());
            return false;
        case KSSharedFileRecord::Read::kUnconfirmed:
            return false;
    }
    return false;
}

// For a shared repository the change is recorded before the rename, so that a reader on any
// server can tell the new content from a stale copy of the old.
bool KSDirtyFlagHandler::writeLocked(FileLock& fileLock) {
    const std::string content = formatNames(dirty_);
    kelp::db::LockDB* db = semaphoreType_ ? fileLock.lockDB() : nullptr;
    if (db != nullptr && !record_.beforeReplace(db, file_, content)) return false;
    const bool replaced = KSStateFile::replace(filePath_, content) == KSStateFile::Result::kReplaced;
    const int error = errno;
    if (db != nullptr) record_.afterReplace(db, replaced);
    if (!replaced) {
        rh_logger.errorLog("Writing the dirty file \"%s\" failed: %s", filePath_.c_str(),
                           strerror(error));
        return false;
    }
    file_.remember(content);
    unwritten_.clear();
    return true;
}

void KSDirtyFlagHandler::logFileError(int error) const {
    rh_logger.errorLog("The file \"%s\" can not be stat-ed. Error code is %d - %s",
                       filePath_.c_str(), error, strerror(error));
}
