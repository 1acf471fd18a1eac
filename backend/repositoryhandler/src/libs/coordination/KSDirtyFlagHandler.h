#pragma once

// The set of dirty resources of one repository: names that may exist on more than one mount or
// on a mount that could not be searched. Kept in <canonical repository path>/.dirty (one name a
// line, sorted), shared by every process that opens the repository and cached in memory.
//
// Thread-safe: a mutex guards the set within the process. Between processes: writers take a
// SmartSemaphore named after the file and read the file afresh under it before they change and
// replace it (KSStateFile: new file beside, flushed, renamed over); readers need no lock, since
// every version they can open is complete. Between servers (a shared repository, locked through
// the database) a writer also checks what it read against the change record kept beside the
// lock, and records its own change before its rename (KSSharedFileRecord), so that no server
// writes back content its file system client served from a cache.

#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "KSSharedFileRecord.h"
#include "KSStateFileCache.h"

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
    // Writes the file only when the membership changes (or a mark of an earlier call is still
    // unwritten). Under the file lock the file is read again in full first, so every entry
    // another process wrote is kept. True when the file holds the change. A null resource throws
    // KSAssertionException; a name with a line feed (which the one-name-a-line file cannot hold)
    // is refused with an error log line (false). The file lock waits through a database that
    // is away for up to its 30 seconds. When the lock cannot be taken or the file cannot be
    // written (a full file system), both logged, the answer is false: a mark then stays in this
    // process's memory and is written with its next successful write; a clear is dropped (the
    // resource stays dirty, which only costs a search of every mount).
    bool setDirty(kelp::db::DBConnector* connection, const char* resource, bool dirty);
    // Empties the set and writes the empty file (created if it was missing).
    void clearDirtySet(kelp::db::DBConnector* connection);
    // Reads the file again when this process's copy may be stale (KSStateFileCache decides); a
    // missing file empties the set, a file that cannot be stat-ed or read keeps it (logged).
    void checkAndReadSetFile(kelp::db::DBConnector* connection);
    // Writes this process's whole set under the file lock; a write error is logged.
    void writeSetFile(kelp::db::DBConnector* connection);

    const std::string& filePath() const { return filePath_; }
    // The text the file's lock id is formed from (toResourceID of it and "").
    const std::string& lockName() const { return lockName_; }
    // A copy of the set as this process holds it now (no file access).
    std::set<std::string> snapshot();
    // How long a writer of a shared repository waits for its storage to serve the content the
    // change record names (KSSharedFileRecord; tests shorten it).
    void setStaleContentWait(std::chrono::milliseconds wait);

  private:
    class FileLock;

    // All expect mutex_ held.
    void refreshLocked();
    // The set read from the file's content, with the changes not yet written applied.
    void rebuildLocked();
    // Expect the file lock taken. Reads the file afresh (confirmed by the change record for a
    // shared repository); false (logged) when its content is not known to be current.
    bool rereadLocked(FileLock& fileLock);
    // True when the file now holds the set.
    bool writeLocked(FileLock& fileLock);
    // After a failed write: forgets the unwritten clears, keeps the marks.
    void keepOnlyMarksLocked();
    void logFileError(int error) const;

    std::set<std::string> dirty_;
    // Changes made while the file could not be locked or written: name -> dirty.
    std::map<std::string, bool> unwritten_;
    std::string filePath_;
    std::string lockName_;
    bool semaphoreType_ = false;
    KSStateFileCache file_;
    KSSharedFileRecord record_;
    std::atomic<time_t> lastCheck_{0};
    std::mutex mutex_;
};
