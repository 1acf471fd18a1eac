#include "KSDirtyFlagHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "FileCloser.h"
#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "SmartSemaphore.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSDirtyFlagHandler";
constexpr time_t kCacheWindowSeconds = 60;
constexpr int kLinePiece = 1024;

// The lock of the dirty file, shared with every process that opens the repository.
class FileLock {
  public:
    FileLock(bool global, const std::string& filePath, const std::string& lockName,
             kelp::db::DBConnector* connection)
        : filePath_(filePath),
          id_(toResourceID(lockName.c_str(), "")),
          semaphore_(global, id_.get(), connection) {}

    bool take() {
        if (semaphore_.lock()) return true;
        rh_logger.errorLog("The dirty mechanism \"%s\" could not be locked.", filePath_.c_str());
        return false;
    }

  private:
    const std::string& filePath_;
    std::unique_ptr<char[]> id_;
    SmartSemaphore semaphore_;
};

}  // namespace

void KSDirtyFlagHandler::setRepository(kelp::db::DBConnector* connection, const char* repository,
                                       bool semaphoreType, const char* lockName) {
    if (repository == nullptr) throw KSAssertionException("repository", __LINE__, kSourceFile);
    char* canonical = canonicalize_file_name(repository);
    if (canonical != nullptr) {
        filePath_ = std::string(canonical) + "/.dirty";
        free(canonical);
    }
    lockName_ = lockName != nullptr ? lockName : filePath_;
    semaphoreType_ = semaphoreType;
    fileStamp_ = 0;
    checkAndReadSetFile(connection);
}

bool KSDirtyFlagHandler::isDirty(kelp::db::DBConnector* connection, const char* resource,
                                 bool cached) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    if (!cached || KSClock::now() - lastCheck_.load() >= kCacheWindowSeconds)
        checkAndReadSetFile(connection);
    std::lock_guard<std::mutex> guard(mutex_);
    return dirty_.count(resource) != 0;
}

// The check before taking the mutex is only a shortcut; the decision is made again under the
// file lock. Between the check and the write another process may have rewritten the file, so
// its content is read again under the lock and the change is applied to that, instead of
// overwriting the other process's entries with this process's older copy.
void KSDirtyFlagHandler::setDirty(kelp::db::DBConnector* connection, const char* resource,
                                  bool dirty) {
    if (resource == nullptr) throw KSAssertionException("resource", __LINE__, kSourceFile);
    if (strchr(resource, '\n') != nullptr) {
        rh_logger.errorLog(
            "The resource name \"%s\" contains a line feed; its dirty flag is not "
            "changed.",
            resource);
        return;
    }
    checkAndReadSetFile(connection);
    std::lock_guard<std::mutex> guard(mutex_);
    if ((dirty_.count(resource) != 0) == dirty) return;

    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    const bool locked = fileLock.take();
    if (locked) {
        long long stamp = fileStamp();
        if (stamp != -1 && stamp != fileStamp_.load()) readLocked();
        if ((dirty_.count(resource) != 0) == dirty) return;
    }
    if (dirty)
        dirty_.insert(resource);
    else
        dirty_.erase(resource);
    if (locked) writeLocked();
}

void KSDirtyFlagHandler::clearDirtySet(kelp::db::DBConnector* connection) {
    std::lock_guard<std::mutex> guard(mutex_);
    dirty_.clear();
    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (fileLock.take()) writeLocked();
}

void KSDirtyFlagHandler::checkAndReadSetFile(kelp::db::DBConnector* connection) {
    lastCheck_ = KSClock::now();
    long long stamp = fileStamp();
    if (stamp == fileStamp_.load() || stamp == -1) return;
    std::lock_guard<std::mutex> guard(mutex_);
    refreshLocked(connection);
}

void KSDirtyFlagHandler::writeSetFile(kelp::db::DBConnector* connection) {
    std::lock_guard<std::mutex> guard(mutex_);
    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (fileLock.take()) writeLocked();
}

std::set<std::string> KSDirtyFlagHandler::snapshot() {
    std::lock_guard<std::mutex> guard(mutex_);
    return dirty_;
}

long long KSDirtyFlagHandler::fileStamp() const {
    struct stat st;
    if (stat(filePath_.c_str(), &st) == 0)
        return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    if (errno == ENOENT) return 0;
    int error = errno;
    rh_logger.errorLog("The file \"%s\" can not be stat-ed. Error code is %d - %s",
                       filePath_.c_str(), error, strerror(error));
    return -1;
}

// Another thread may have read the file between the caller's first test and the mutex, so the
// stamp is tested again here.
void KSDirtyFlagHandler::refreshLocked(kelp::db::DBConnector* connection) {
    long long stamp = fileStamp();
    if (stamp == fileStamp_.load() || stamp == -1) return;
    if (stamp == 0) {
        dirty_.clear();
        fileStamp_ = 0;
        return;
    }
    FileLock fileLock(semaphoreType_, filePath_, lockName_, connection);
    if (fileLock.take()) readLocked();
}

void KSDirtyFlagHandler::readLocked() {
    if (fileStamp() == 0) {
        dirty_.clear();
        fileStamp_ = 0;
        return;
    }
    FileCloser f(fopen(filePath_.c_str(), "r"));
    if (f.get() == nullptr) throw KSAssertionException("f", __LINE__, kSourceFile);
    dirty_.clear();
    char piece[kLinePiece];
    while (fgets(piece, sizeof piece, f.get()) != nullptr) {
        size_t length = strlen(piece);
        if (length > 0 && piece[length - 1] == '\n') piece[length - 1] = '\0';
        dirty_.insert(piece);
    }
    long long stamp = fileStamp();
    if (stamp != -1) fileStamp_ = stamp;
}

void KSDirtyFlagHandler::writeLocked() {
    FileCloser f(fopen(filePath_.c_str(), "w"));
    if (f.get() == nullptr) throw KSAssertionException("f", __LINE__, kSourceFile);
    for (const std::string& name : dirty_) {
        fputs(name.c_str(), f.get());
        fputc('\n', f.get());
    }
    if (fflush(f.get()) != 0)
        rh_logger.errorLog("Writing the dirty file \"%s\" failed: %s", filePath_.c_str(),
                           strerror(errno));
    long long stamp = fileStamp();
    if (stamp != -1) fileStamp_ = stamp;
}
