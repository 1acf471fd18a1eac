#pragma once

// The set of dirty resources of one repository: names that may exist on more than one mount or
// on a mount that could not be searched. Kept in <canonical repository path>/.dirty (one name a
// line, sorted), shared by every process that opens the repository and cached in memory.
//
// Thread-safe: a mutex guards the set within the process; between processes the file is
// guarded by a SmartSemaphore named after the file.

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
    void setRepository(kelp::db::DBConnector* connection, const char* repository,
                       bool semaphoreType);
    // With `cached`, a file checked within the last 60 seconds is not looked at again.
    bool isDirty(kelp::db::DBConnector* connection, const char* resource, bool cached);
    // Writes the file only when the membership changes.
    void setDirty(kelp::db::DBConnector* connection, const char* resource, bool dirty);
    void clearDirtySet(kelp::db::DBConnector* connection);
    void checkAndReadSetFile(kelp::db::DBConnector* connection);
    void writeSetFile(kelp::db::DBConnector* connection);

    const std::string& filePath() const { return filePath_; }
    std::set<std::string> snapshot();

private:
    std::set<std::string> dirty_;
    std::string filePath_;
    bool semaphoreType_ = false;
    time_t fileMtime_ = 0;
    time_t lastCheck_ = 0;
    std::mutex mutex_;
};
