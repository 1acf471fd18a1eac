#include "KSLockReleaseQueue.h"

#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "DBConnector.h"
#include "KSLogger.h"
#include "LockDB.h"

namespace {

struct Entry {
    std::string database;
    std::string lockId;
    std::string token;
};

std::mutex& queueMutex() {
    static std::mutex mutex;
    return mutex;
}

std::deque<Entry>& entries() {
    static std::deque<Entry> queue;
    return queue;
}

// The settings a connector made now takes its database from.
std::string databaseOfEnvironment() {
    std::string key;
    for (const char* name :
         {"MYSQL_HOST", "MYSQL_TCP_PORT", "MYSQL_UNIX_PORT", "DBNAME", "NVLOCKTBL", "CONF"}) {
        const char* value = std::getenv(name);
        key += value != nullptr ? value : "";
        key += '\n';
    }
    return key;
}

}  // namespace

void KSLockReleaseQueue::add(const std::string& lockId, const std::string& token) {
    if (token.empty()) return;
    Entry entry{databaseOfEnvironment(), lockId, token};
    std::lock_guard<std::mutex> guard(queueMutex());
    entries().push_back(std::move(entry));
    while (entries().size() > kMaxEntries) entries().pop_front();
}

// The entries are taken out under the mutex and the deletes run without it, so a slow server
// holds up no other thread's lock; entries whose delete failed go back.
void KSLockReleaseQueue::flush(kelp::db::DBConnector* connector) {
    std::vector<Entry> mine;
    {
        std::lock_guard<std::mutex> guard(queueMutex());
        if (entries().empty()) return;
        const std::string database = databaseOfEnvironment();
        std::deque<Entry> others;
        for (Entry& entry : entries()) {
            if (entry.database == database)
                mine.push_back(std::move(entry));
            else
                others.push_back(std::move(entry));
        }
        entries().swap(others);
    }
    std::vector<Entry> failed;
    for (size_t i = 0; i < mine.size(); ++i) {
        try {
            if (connector->lockDB()->releaseLockOf(mine[i].lockId, mine[i].token))
                rh_logger.infoLog("Released the lock row of %s left by an interrupted call (%s)",
                                  mine[i].lockId.c_str(), mine[i].token.c_str());
        } catch (const std::exception&) {
            // The server is still away: this and the rest wait for the next flush.
            failed.assign(std::make_move_iterator(mine.begin() + static_cast<long>(i)),
                          std::make_move_iterator(mine.end()));
            break;
        }
    }
    if (failed.empty()) return;
    std::lock_guard<std::mutex> guard(queueMutex());
    for (Entry& entry : failed) entries().push_back(std::move(entry));
    while (entries().size() > kMaxEntries) entries().pop_front();
}

size_t KSLockReleaseQueue::size() {
    std::lock_guard<std::mutex> guard(queueMutex());
    return entries().size();
}
