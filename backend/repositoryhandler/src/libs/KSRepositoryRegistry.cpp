#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string_view>
#include <system_error>

#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "repohandler.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSRepositoryRegistry";

using HandlerPtr = std::shared_ptr<KSRepositoryHandler>;

// Every repository loaded by this process, by normalised path. Read under the shared lock,
// changed only under the exclusive one. Lives as long as the library is loaded. The transparent
// comparator lets the hot path look a path up without building a string.
std::map<std::string, HandlerPtr, std::less<>> repositoryMap;
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

// True when normalisation would return the path unchanged: absolute, no empty, "." or ".."
// component and no trailing slash. Callers pass such paths nearly always, and they skip the
// allocation of normalize_file_name on every call. "/." also rejects names like "/.hidden",
// which then simply take the slow path.
bool isNormal(std::string_view path) {
    if (path.empty() || path[0] != '/') return false;
    if (path.size() == 1) return true;
    if (path.back() == '/') return false;
    return path.find("//") == std::string_view::npos && path.find("/.") == std::string_view::npos;
}

std::string normalisedKey(const char* path) {
    char* normal = normalize_file_name(path);
    if (normal == nullptr) return path;
    std::string key = normal;
    free(normal);
    return key;
}

// The stored handler when it may be handed out as it is; null when it must be (re)loaded.
HandlerPtr usableEntry(std::string_view key, bool checkUpToDate) {
    auto it = repositoryMap.find(key);
    if (it == repositoryMap.end()) return nullptr;
    if (!checkUpToDate || it->second->isUpToDate(false)) return it->second;
    return nullptr;
}

}  // namespace

std::shared_ptr<KSRepositoryHandler> getRepository(kelp::db::DBConnector* db, const char* path,
                                                   bool checkUpToDate) {
    KS_ASSERT_NOT_NULL(path, kSourceFile);
    const std::string_view given(path);
    std::string key;
    if (!isNormal(given)) key = normalisedKey(path);
    const std::string_view lookup = key.empty() ? given : std::string_view(key);
    {
        RegistryLock read(RegistryLock::kRead);
        if (HandlerPtr handler = usableEntry(lookup, checkUpToDate)) return handler;
    }
    if (key.empty()) key = path;
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
