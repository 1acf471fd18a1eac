#pragma once

#include "PSSupplier.h"

namespace kelp {
namespace db {

class PSCache;
struct PsQuery;

// Hands out the calling thread's cached statement for query (prepared on first use), with shared
// ownership of the thread's StatementCache. release() does nothing: the cache keeps it.
class CachedPSSupplier : public PSSupplier {
  public:
    CachedPSSupplier(PSCache& cache, const PsQuery& query) : cache_(cache), query_(query) {}
    PSHandle create() override;
    void release(SqlStatement*) override {}

  private:
    PSCache& cache_;
    const PsQuery& query_;
};

}  // namespace db
}  // namespace kelp
