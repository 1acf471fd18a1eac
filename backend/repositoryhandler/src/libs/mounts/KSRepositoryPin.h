#pragma once

// The registry's handler of a repository, kept alive for one call on the calling thread. Every
// exported C function takes one on entry: within the configuration's quiet period it finds the
// handler in a cache of the calling thread and writes to no memory that another thread writes,
// so calls on many threads do not slow each other down. Outside it (or on first use) it asks
// getRepository() and fills the cache.
//
//   KSRepositoryPin repo(db, path, true);
//   repo->getLocation(...);
//
// The handler stays valid until the pin goes, even when the registry replaces it meanwhile; a
// replaced handler is released by the last thread or pin that held it, and threads that are
// between calls give theirs up when the registry replaces it, so an idle thread keeps nothing
// alive. Pins nest (a call made from inside a call). A pin belongs to the thread that made it
// and must be destroyed on that thread, in reverse order of creation; it cannot be copied.
// KSRepositoryRegistry.cpp explains the protocol.

#include <cstdint>

class KSRepositoryHandler;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSRepositoryPin {
  public:
    // As getRepository(db, path, checkUpToDate): never null; a null path throws
    // KSAssertionException (and leaves nothing pinned).
    KSRepositoryPin(kelp::db::DBConnector* db, const char* path, bool checkUpToDate);
    ~KSRepositoryPin();
    KSRepositoryPin(const KSRepositoryPin&) = delete;
    KSRepositoryPin& operator=(const KSRepositoryPin&) = delete;

    KSRepositoryHandler* get() const { return handler_; }
    KSRepositoryHandler* operator->() const { return handler_; }
    KSRepositoryHandler& operator*() const { return *handler_; }

    // The number of times so far that the registry replaced a handler (the generation of its
    // map). For tests and diagnostics.
    static std::uint64_t replacements();

  private:
    KSRepositoryHandler* handler_ = nullptr;
};
