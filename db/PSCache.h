#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>

#include "PSSupplier.h"
#include "PsQuery.h"
#include "RetryRecord.h"

namespace kelp {
namespace db {

class DBConnectorSql;
class QueryBindings;
class StatementCache;

// The statement store of one facet: the facet registers its statements in its constructor and
// then calls init(); statements are then prepared once per thread and connection, on first use,
// and kept in a per-thread StatementCache. At most cacheLimit() threads keep a cache: a new
// thread beyond that evicts the least recently used one (which simply prepares anew when it
// returns). reset() drops every cache; the connector calls it before closing a lost connection.
//
// Thread-safe: the per-thread table is under a reader-writer lock (read for lookups, write for
// insertion, eviction and reset). Statement execution itself is serialised by the connection's
// mutex.
class PSCache {
  public:
    explicit PSCache(DBConnectorSql& connector);
    virtual ~PSCache();
    PSCache(const PSCache&) = delete;
    PSCache& operator=(const PSCache&) = delete;

    // Run query through the connector's retry loop with the calling thread's cached statement.
    // See DBConnectorSql::executeQuery / executeUpdate.
    PSHandle executeQuery(const PsQuery& query, QueryBindings& bindings);
    uint64_t executeUpdate(const PsQuery& query, QueryBindings& bindings, bool logError,
                           RetryRecord* record = nullptr);

    // The calling thread's statement for query, with shared ownership of its cache.
    PSHandle getPS(const PsQuery& query);

    // Creates the per-thread table when at least one statement is registered (replacing any
    // earlier table); a facet without statements has none.
    void init();
    // Drops every thread's cache (each is destroyed, with its statements, when its last holder
    // lets go).
    void reset();

    size_t statementCount() const { return statementCount_; }
    // Number of threads that currently keep a cache.
    size_t threadCount() const;

  protected:
    // Registers query as the next statement of the facet: id := count, count := count + 1.
    void registerQuery(PsQuery& query, std::function<std::string()> text, uint64_t paramCount,
                       uint64_t resultCount);

    DBConnectorSql& connector() { return connector_; }

  private:
    struct Entry {
        std::shared_ptr<StatementCache> cache;
        // Written by the entry's own thread under the read lock, read by eviction under the write
        // lock: atomic so that two threads touching their own entries never race.
        std::shared_ptr<std::atomic<int64_t>> lastUse;
    };
    struct ThreadTable {
        size_t limit;
        std::function<StatementCache*()> factory;
        std::map<std::thread::id, Entry> entries;
    };

    PSHandle useEntry(Entry& entry, const PsQuery& query);
    void evictOldest(ThreadTable& table);
    static int64_t nowNanos();

    DBConnectorSql& connector_;
    size_t statementCount_ = 0;
    std::unique_ptr<ThreadTable> table_;
    mutable std::shared_mutex tableLock_;
};

}  // namespace db
}  // namespace kelp
