#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <system_error>

#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "repohandler.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSRepositoryRegistry";

using HandlerPtr = std::shared_ptr<KSRepositoryHandler>;

// Every repository loaded by this process, by normalised path. Read under the shared lock,
// changed only under the exclusive one. Lives as long as the library is loaded.
std::map<std::string, HandlerPtr> repositoryMap;
pthread_rwlock_t globalRwMutex = PTHREAD_RWLOCK_INITIALIZER;

// Holds globalRwMutex for reading or writing for one scope.
class RegistryLock {
  public:
    enum Mode { kRead, kWrite };

    explicit RegistryLock(Mode mode) {
        int rc;
        do {
            rc = mode == kRead ? pthread_rwlock_rdlock(&globalRwMutex)
                               : pthread_rwlock_wrlock(&globalRwMutex);
            // EAGAIN: the maximum number of readers is reached for the moment; try again.
        } while (rc == EAGAIN);
        if (rc != 0) {
            throw std::system_error(rc, std::generic_category(), "registry lock");
        }
    }
    ~RegistryLock() { pthread_rwlock_unlock(&globalRwMutex); }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
};

std::string normalisedKey(const char* path) {
    char* normal = normalize_file_name(path);
    if (normal == nullptr) return path;
    std::string key = normal;
    free(normal);
    return key;
}

// The stored handler when it may be handed out as it is; null when it must be (re)loaded.
HandlerPtr usableEntry(const std::string& key, bool checkUpToDate) {
    auto it = repositoryMap.find(key);
    if (it == repositoryMap.end()) return nullptr;
    if (!checkUpToDate || it->second->isUpToDate(false)) return it->second;
    return nullptr;
}

}  // namespace

std::shared_ptr<KSRepositoryHandler> getRepository(kelp::db::DBConnector* db, const char* path,
                                                   bool checkUpToDate) {
    KS_ASSERT_NOT_NULL(path, kSourceFile);
    const std::string key = normalisedKey(path);
    {
        RegistryLock read(RegistryLock::kRead);
        if (HandlerPtr handler = usableEntry(key, checkUpToDate)) return handler;
    }
    RegistryLock write(RegistryLock::kWrite);
    // Another thread may have loaded or replaced it between the two locks. The entry that was
    // found out of date has its last-check time renewed, so it is asked to check again here.
    auto it = repositoryMap.find(key);
    if (it != repositoryMap.end() && (!checkUpToDate || it->second->isUpToDate(true))) {
        return it->second;
    }
    // Callers that still hold the replaced handler keep it alive until they let it go.
    HandlerPtr handler = std::make_shared<KSRepositoryHandler>(db, key.c_str());
    repositoryMap[key] = handler;
    return handler;
}
