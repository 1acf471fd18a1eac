#pragma once

// The set of dirty resources of one repository: names that may exist on more than one mount or
// on a mount that could not be searched. Kept in <canonical repository path>/.dirty (one name a
// line, sorted), shared by every process that opens the repository and cached in memory.
//
// Thread-safe: a mutex guards the set within the process; between processes the file is
// guarded by a SmartSemaphore named after the file.

#include <atomic>
#include <ctime>
#include <mutex>
#include <set>
#include <string>

namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSDirtyFlagHandler {
  public:
    KSDirtyFlagHandler() = default;
    KSDirtyFlagHandler(const KSDirtyFlagHandler&) = delete;
    KSDirtyFlagHandler& operator=(const KSDirtyFlagHandler&) = delete;

    // Binds to a repository directory and reads its file. A null repository throws
    // KSAssertionException. `semaphoreType` true locks the file through the database.
    // The file's lock id is formed from `lockName` when it is not null (the repository's
    // `repositoryId` scope), else from the file's canonical path.
    void setRepository(kelp::db::DBConnector* connection, const char* repository,
                       bool semaphoreType, const char* lockName = nullptr);
    // With `cached`, a file checked within the last 60 seconds is not looked at again.
    // A null resource throws KSAssertionException.
    bool isDirty(kelp::db::DBConnector* connection, const char* resource, bool cached);
    // Writes the file only when the membership changes. Under the file lock the file is read
    // again first when another process changed it since this one last looked, so that process's
    // entries are kept. A null resource throws KSAssertionException; a name with a line feed
    // (which the one-name-a-line file cannot hold) is refused with an error log line.
    // When the file lock cannot be taken (logged), the change stays in this process's memory.
    void setDirty(kelp::db::DBConnector* connection, const char* resource, bool dirty);
    // Empties the set and writes the empty file (created if it was missing).
    void clearDirtySet(kelp::db::DBConnector* connection);
    // Re-reads the file under its lock when its modification time differs from the one
    // remembered; a missing file empties the set, a file that cannot be stat-ed keeps it.
    void checkAndReadSetFile(kelp::db::DBConnector* connection);
    // Writes the whole set under the file lock; a write error is logged.
    void writeSetFile(kelp::db::DBConnector* connection);

    const std::string& filePath() const { return filePath_; }
    // The text the file's lock id is formed from (toResourceID of it and "").
    const std::string& lockName() const { return lockName_; }
    // A copy of the set as this process holds it now (no file access).
    std::set<std::string> snapshot();

  private:
    // The file's modification time in nanoseconds: 0 when it does not exist, -1 when it cannot
    // be stat-ed (logged). Nanoseconds, not seconds, so that a rewrite by another process within
    // the same second as our last read is still noticed.
    long long fileStamp() const;
    // Both expect mutex_ held and the file lock taken.
    void readLocked();
    void writeLocked();
    // Re-reads the file under the file lock when its stamp changed; expects mutex_ held.
    void refreshLocked(kelp::db::DBConnector* connection);

    std::set<std::string> dirty_;
    std::string filePath_;
    std::string lockName_;
    bool semaphoreType_ = false;
    // The stamp of the file when this process last read or wrote it (0: none). Read without the
    // mutex as a cheap first test, hence atomic.
    std::atomic<long long> fileStamp_{0};
    std::atomic<time_t> lastCheck_{0};
    std::mutex mutex_;
};
