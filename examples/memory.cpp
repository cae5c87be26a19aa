#include "memory.h"

#include <veksys/diag/trace_scope.h>

#include "functions.h"

namespace demo {

WorkerMemory::~WorkerMemory() {
  if (!resource_) return;
  SQLO_MEM_POOL* const pool = resource_->pool();
  sqloMemFreePools(&pool, 1);
}

SqlzZrc WorkerMemory::open() noexcept {
  SqltTraceScope<FID_openMemory> trace;
  SqloMemPoolRequest request = {};
  request.size = sizeof request;
  request.poolId = SQLO_POOL_UTILH;
  request.options = SQLO_POOL_AUTOMATIC | SQLO_POOL_REPORT_LEAKS;
  if (const SqlzZrc code = sqloGetPrivateSet(&request.set); code != 0) return trace.exit(code);
  SQLO_MEM_POOL* pool = nullptr;
  if (const SqlzZrc code = sqloCreateMemoryPoolEx(&request, &pool); code != 0) return trace.exit(code);
  resource_.emplace(pool);
  return trace.exit(sqloEnableFastMemoryBlocks(pool, true));
}

std::uint64_t WorkerMemory::peakBytes() const noexcept {
  SqloMemPoolStats stats = {};
  (void)sqloGetMemPoolStatsUnlatched(resource_->pool(), &stats);
  return stats.maximumOwned;
}

}  // namespace demo
