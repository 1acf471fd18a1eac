#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>
#include <vector>

#include "KSAssertionException.h"
#include "KSRepositoryHandler.h"
#include "KSRepositoryPin.h"
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

HandlerPtr findOrLoad(kelp::db::DBConnector* db, const char* path, bool checkUpToDate,
                      bool outOfDate);

}  // namespace

// ---- The per-thread caches of KSRepositoryPin ----------------------------------------------
//
// Every exported call pins its repository's handler. Taking a std::shared_ptr copy for that
// (and the shared lock of the map) writes a reference count and a lock word that every thread
// writes: on several cores those cache lines travel between the cores on every call. So each
// thread keeps its own references, in a ThreadSlot, and a call that finds its handler there
// writes only to its own slot.
//
// Lifetime argument. A handler lives as long as a std::shared_ptr to it exists: the map's,
// getRepository() callers' and the slots' entries. A pin hands out the raw pointer of an entry
// of its own thread's slot, so the handler lives while that entry does. Entries are removed by
// (a) the owning thread, never while one of its pins is alive (depth > 0), and (b) the sweeper
// (releaseIdleSlots, run by the thread that replaced a handler), only in a slot whose thread is
// between calls. (b) is a handshake on two words:
//   owner on entry:   busy = true;   then read `generation` of its slot and of the registry
//   sweeper:          slot.generation = kStale;   then read `busy`
// Each side's write must be visible before its read (Dekker). The owner makes no fence: the
// sweeper runs membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) between its write and its read,
// which executes a full barrier on every running thread of the process (a sleeping thread has
// passed one in the context switch). So either the owner's `busy` is visible to the sweeper
// (which then leaves the slot alone), or the owner's later read sees kStale and takes the slow
// path, which needs the slot's mutex that the sweeper holds while it removes entries. The
// owner's `busy = false` is a release store and the sweeper's read an acquire load, so every
// use of a handler by a call happens before the sweeper drops the reference. Without
// membarrier (old kernels, seccomp) the owner's store is sequentially consistent instead: a
// full fence on its own cache line.
//
// An idle thread keeps no replaced handler: a replacement raises the registry's generation
// and then sweeps. A slot idle at the sweep is emptied by it; a slot busy at the sweep is
// emptied by its owner when its outermost pin ends, since the owner stores busy = false before
// it compares the generations, and the membarrier orders that comparison after the raise.
//
// Nested pins on one thread (a call made from inside a call) never drop an entry that an
// outer pin may use: at depth > 1 replaced entries go to `retired`, emptied at depth 0.

namespace {

// A slot generation that matches no registry generation (those start at 1).
constexpr std::uint64_t kStale = 0;
// Distinct spellings of repository paths a thread remembers; past this the cache starts anew.
constexpr size_t kMaxEntries = 16;

// Raised under the exclusive lock whenever a stored handler is replaced. Written only then, so
// readers share its cache line without moving it between cores.
alignas(64) std::atomic<std::uint64_t> registryGeneration{1};

struct CachedHandler {
    std::string path;  // as the caller spelled it
    HandlerPtr handler;
};

struct alignas(64) ThreadSlot {
    // Written by the owning thread only: true while one of its pins is alive.
    std::atomic<bool> busy{false};
    // The registry generation the entries belong to, kStale when they must not be used.
    // Written under `mutex`; read by the owner's fast path without it.
    std::atomic<std::uint64_t> generation{kStale};
    // Pins of the owning thread alive now. Owner only.
    int depth = 0;
    // Guards entries and retired against the sweeper; the owner reads them without it (see
    // above), and changes them only under it.
    std::mutex mutex;
    std::vector<CachedHandler> entries;
    std::vector<HandlerPtr> retired;
};

// Every live thread's slot. Never destroyed: threads may outlive static destruction.
struct SlotList {
    std::mutex mutex;
    std::vector<ThreadSlot*> slots;
};
SlotList& slotList() {
    static SlotList* list = new SlotList;
    return *list;
}

bool registerForMembarrier() {
    long supported = syscall(__NR_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    if (supported < 0 || !(supported & MEMBARRIER_CMD_PRIVATE_EXPEDITED)) return false;
    return syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}
// Decided once when the library is loaded, before any call.
const bool haveMembarrier = registerForMembarrier();

void markBusy(ThreadSlot& slot, bool busy) {
    if (haveMembarrier) {
        slot.busy.store(busy, busy ? std::memory_order_relaxed : std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    } else {
        slot.busy.store(busy, std::memory_order_seq_cst);
    }
}

// The sweeper's side of the handshake: makes the slots' kStale visible to every thread before
// it reads their busy flags.
void barrierAllThreads() {
    if (haveMembarrier) {
        if (syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0) return;
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

// Takes the references out of a slot; the caller holds its mutex and destroys them after
// letting go of every lock (a handler's destructor closes files and database connections).
void takeReferences(ThreadSlot& slot, std::vector<HandlerPtr>& into) {
    for (CachedHandler& entry : slot.entries) into.push_back(std::move(entry.handler));
    for (HandlerPtr& handler : slot.retired) into.push_back(std::move(handler));
    slot.entries.clear();
    slot.retired.clear();
    slot.generation.store(kStale, std::memory_order_relaxed);
}

// Removes its slot from the list when the thread ends.
struct SlotOwner {
    ThreadSlot* slot = new ThreadSlot;
    SlotOwner() {
        std::lock_guard<std::mutex> lock(slotList().mutex);
        slotList().slots.push_back(slot);
    }
    ~SlotOwner() {
        {
            std::lock_guard<std::mutex> lock(slotList().mutex);
            auto& slots = slotList().slots;
            slots.erase(std::find(slots.begin(), slots.end(), slot));
        }
        delete slot;
    }
};

thread_local ThreadSlot* currentSlot = nullptr;

ThreadSlot& threadSlot() {
    if (currentSlot == nullptr) {
        thread_local SlotOwner owner;
        currentSlot = owner.slot;
    }
    return *currentSlot;
}

// Empties the slot of every thread that is between calls (see the lifetime argument above).
void releaseIdleSlots() {
    std::vector<HandlerPtr> released;  // destroyed last, after every lock below is let go
    std::lock_guard<std::mutex> listLock(slotList().mutex);
    std::vector<std::unique_lock<std::mutex>> slotLocks;
    for (ThreadSlot* slot : slotList().slots) {
        slotLocks.emplace_back(slot->mutex);
        slot->generation.store(kStale, std::memory_order_seq_cst);
    }
    barrierAllThreads();
    for (ThreadSlot* slot : slotList().slots) {
        if (!slot->busy.load(std::memory_order_seq_cst)) takeReferences(*slot, released);
    }
    slotLocks.clear();
}

// The handler cached for `path`, or null. `outOfDate` is set when the cached handler's check
// found its configuration changed: that check renewed its last-check time, so only a forced
// check will see the change again.
KSRepositoryHandler* findInSlot(ThreadSlot& slot, std::string_view path, bool checkUpToDate,
                                bool& outOfDate) {
    if (slot.generation.load(std::memory_order_seq_cst) !=
        registryGeneration.load(std::memory_order_acquire)) {
        return nullptr;
    }
    for (const CachedHandler& entry : slot.entries) {
        if (entry.path != path) continue;
        // Within the quiet period this only reads the clock and the last-check time.
        if (checkUpToDate && !entry.handler->isUpToDate(false)) {
            outOfDate = true;
            return nullptr;
        }
        return entry.handler.get();
    }
    return nullptr;
}

// The slow path: asks the registry and remembers its answer in the slot.
KSRepositoryHandler* fillSlot(ThreadSlot& slot, kelp::db::DBConnector* db, const char* path,
                              bool checkUpToDate, bool outOfDate) {
    // Read before the lookup, so that a replacement during it leaves the entry stale.
    const std::uint64_t generation = registryGeneration.load(std::memory_order_acquire);
    HandlerPtr handler = findOrLoad(db, path, checkUpToDate, outOfDate);
    KSRepositoryHandler* raw = handler.get();
    std::vector<HandlerPtr> released;
    std::lock_guard<std::mutex> lock(slot.mutex);
    const bool outermost = slot.depth == 1;
    const bool stale = slot.generation.load(std::memory_order_relaxed) != generation;
    if (outermost && (stale || slot.entries.size() >= kMaxEntries)) {
        takeReferences(slot, released);
    } else if (stale) {
        // Outer pins of this thread may use these: keep them alive until depth 0, unsearched.
        for (CachedHandler& entry : slot.entries) slot.retired.push_back(std::move(entry.handler));
        slot.entries.clear();
    }
    auto same = std::find_if(slot.entries.begin(), slot.entries.end(),
                             [path](const CachedHandler& entry) { return entry.path == path; });
    if (same != slot.entries.end()) {
        // The registry replaced it during this lookup: an outer pin may still use the old one.
        if (same->handler != handler) {
            (outermost ? released : slot.retired).push_back(std::move(same->handler));
        }
        same->handler = std::move(handler);
    } else {
        slot.entries.push_back(CachedHandler{path, std::move(handler)});
    }
    // Inside an outer pin a stale slot stays stale, so that its outermost pin empties it.
    slot.generation.store(outermost || !stale ? generation : kStale, std::memory_order_relaxed);
    return raw;
}

void leaveSlot(ThreadSlot& slot) {
    if (--slot.depth > 0) return;
    markBusy(slot, false);
    if (slot.generation.load(std::memory_order_seq_cst) ==
        registryGeneration.load(std::memory_order_seq_cst)) {
        return;
    }
    std::vector<HandlerPtr> released;
    std::lock_guard<std::mutex> lock(slot.mutex);
    takeReferences(slot, released);
}

}  // namespace

KSRepositoryPin::KSRepositoryPin(kelp::db::DBConnector* db, const char* path, bool checkUpToDate) {
    KS_ASSERT_NOT_NULL(path, kSourceFile);
    ThreadSlot& slot = threadSlot();
    if (slot.depth++ == 0) markBusy(slot, true);
    bool outOfDate = false;
    handler_ = findInSlot(slot, path, checkUpToDate, outOfDate);
    if (handler_ != nullptr) return;
    try {
        handler_ = fillSlot(slot, db, path, checkUpToDate, outOfDate);
    } catch (...) {
        leaveSlot(slot);
        throw;
    }
}

KSRepositoryPin::~KSRepositoryPin() {
    leaveSlot(*currentSlot);
}

std::uint64_t KSRepositoryPin::replacements() {
    return registryGeneration.load() - 1;
}

// ---- The registry -------------------------------------------------------------------------

namespace {

// getRepository; with `outOfDate` the caller's own check found the stored handler out of date,
// so the shared-lock step (whose check would now answer true) is skipped.
HandlerPtr findOrLoad(kelp::db::DBConnector* db, const char* path, bool checkUpToDate,
                      bool outOfDate) {
    const std::string_view given(path);
    std::string key;
    if (!isNormal(given)) key = normalisedKey(path);
    const std::string_view lookup = key.empty() ? given : std::string_view(key);
    if (!outOfDate) {
        RegistryLock read(RegistryLock::kRead);
        if (HandlerPtr handler = usableEntry(lookup, checkUpToDate)) return handler;
    }
    if (key.empty()) key = path;
    HandlerPtr replaced;  // released after the lock, once no thread's cache holds it either
    HandlerPtr handler;
    {
        RegistryLock write(RegistryLock::kWrite);
        // Another thread may have loaded or replaced it between the two locks. The entry that
        // was found out of date has its last-check time renewed, so it is asked to check again.
        auto it = repositoryMap.find(key);
        if (it != repositoryMap.end() && (!checkUpToDate || it->second->isUpToDate(true))) {
            return it->second;
        }
        // Callers that still hold the replaced handler keep it alive until they let it go.
        handler = std::make_shared<KSRepositoryHandler>(db, key.c_str());
        HandlerPtr& stored = repositoryMap[key];
        replaced = std::move(stored);
        stored = handler;
        if (replaced) registryGeneration.fetch_add(1, std::memory_order_acq_rel);
    }
    if (replaced) releaseIdleSlots();
    return handler;
}

}  // namespace

std::shared_ptr<KSRepositoryHandler> getRepository(kelp::db::DBConnector* db, const char* path,
                                                   bool checkUpToDate) {
    KS_ASSERT_NOT_NULL(path, kSourceFile);
    return findOrLoad(db, path, checkUpToDate, false);
}
