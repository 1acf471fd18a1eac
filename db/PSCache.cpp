#include "PSCache.h"

#include <chrono>
#include <mutex>
#include <stdexcept>

#include "CachedPSSupplier.h"
#include "DBConnectorSql.h"
#include "StatementCache.h"

namespace kelp {
namespace db {

PSCache::PSCache(DBConnectorSql& connector) : connector_(connector) {}

PSCache::~PSCache() = default;

void PSCache::registerQuery(PsQuery& query, std::function<std::string()> text, uint64_t paramCount,
                            uint64_t resultCount) {
    query.id = static_cast<int>(statementCount_++);
    query.text = std::move(text);
    query.paramCount = paramCount;
    query.resultCount = resultCount;
}

void PSCache::init() {
    std::unique_lock<std::shared_mutex> guard(tableLock_);
    if (statementCount_ == 0) return;
    auto table = std::make_unique<ThreadTable>();
    table->limit = connector_.cacheLimit();
    size_t slots = statementCount_;
    DBConnectorSql& connector = connector_;
    table->factory = [&connector, slots] { return new StatementCache(connector, slots); };
    table_ = std::move(table);
}

void PSCache::reset() {
    std::unique_lock<std::shared_mutex> guard(tableLock_);
    if (table_) table_->entries.clear();
}

size_t PSCache::threadCount() const {
    std::shared_lock<std::shared_mutex> guard(tableLock_);
    return table_ ? table_->entries.size() : 0;
}

int64_t PSCache::nowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

PSHandle PSCache::useEntry(Entry& entry, const PsQuery& query) {
    entry.lastUse->store(nowNanos(), std::memory_order_relaxed);
    PSHandle handle;
    handle.statement = entry.cache->getPS(query);
    handle.owner = entry.cache;
    return handle;
}

// Strictly older wins, so among equal times the first in thread-id order is evicted.
void PSCache::evictOldest(ThreadTable& table) {
    auto oldest = table.entries.begin();
    for (auto it = table.entries.begin(); it != table.entries.end(); ++it) {
        if (it->second.lastUse->load(std::memory_order_relaxed) <
            oldest->second.lastUse->load(std::memory_order_relaxed)) {
            oldest = it;
        }
    }
    table.entries.erase(oldest);
}

PSHandle PSCache::getPS(const PsQuery& query) {
    const std::thread::id self = std::this_thread::get_id();
    {
        std::shared_lock<std::shared_mutex> guard(tableLock_);
        if (!table_) throw std::logic_error("PSCache::getPS on a facet without statements");
        auto it = table_->entries.find(self);
        if (it != table_->entries.end()) return useEntry(it->second, query);
    }
    // Another thread may have filled or reset the table between the two locks; look again.
    std::unique_lock<std::shared_mutex> guard(tableLock_);
    auto it = table_->entries.find(self);
    if (it != table_->entries.end()) return useEntry(it->second, query);
    while (!table_->entries.empty() && table_->entries.size() >= table_->limit) {
        evictOldest(*table_);
    }
    Entry entry;
    entry.cache.reset(table_->factory());
    entry.lastUse = std::make_shared<std::atomic<int64_t>>(0);
    auto inserted = table_->entries.emplace(self, std::move(entry)).first;
    return useEntry(inserted->second, query);
}

PSHandle PSCache::executeQuery(const PsQuery& query, QueryBindings& bindings) {
    CachedPSSupplier supplier(*this, query);
    return connector_.executeQuery(supplier, bindings);
}

uint64_t PSCache::executeUpdate(const PsQuery& query, QueryBindings& bindings, bool logError,
                                RetryRecord* record) {
    CachedPSSupplier supplier(*this, query);
    return connector_.executeUpdate(supplier, bindings, logError, record);
}

}  // namespace db
}  // namespace kelp
