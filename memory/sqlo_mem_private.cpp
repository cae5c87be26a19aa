// The private set of the process and its pool.
#include <atomic>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_set_directory.h"
#include "veksys/codes.h"
#include "veksys/latch_types.h"

namespace vek {
namespace {

constexpr std::uint32_t kStepBytes = 4 * 1024 * 1024;

// What is made once stays: both are published when they are whole.
constinit std::atomic<SMemSet*> g_set{nullptr};
constinit std::atomic<MemPool*> g_pool{nullptr};

SqlzZrc makeSet(SMemSet** set) noexcept {
  SqloMemSetRequest request = {};
  request.size = sizeof request;
  request.setType = SQLO_SET_PRIVATE;
  request.options = SQLO_SET_GROWABLE | SQLO_SET_DECOMMITABLE | SQLO_SET_CHUNK_KEEP | SQLO_SET_AUTOMATIC_MAX_FREE;
  request.name = "private";
  request.bytes = kStepBytes;
  request.incrementBytes = kStepBytes;
  request.maxBytes = std::uint32_t{SQLO_SET_CHUNKS_MOST} << SQLO_CHUNK_SHIFT;
  return sqlocshr(&request, set);
}

SqlzZrc makePool(SQLO_MEM_POOL** pool) noexcept {
  SqloMemPoolRequest request = {};
  request.size = sizeof request;
  request.poolId = SQLO_POOL_PRIVATE;
  request.options = SQLO_POOL_AUTOMATIC;
  const SqlzZrc result = sqloGetPrivateSet(&request.set);
  return result != 0 ? result : sqloCreateMemoryPoolEx(&request, pool);
}

}  // namespace
}  // namespace vek

// Two threads may make one each; the later one takes its own away again.
SqlzZrc sqloGetPrivateSet(SQLO_MEM_SET** set) noexcept {
  vek::VekTrace<vek::FID_sqloGetPrivateSet> trace;
  if (set == nullptr) return trace.exit(SQLO_INV_PARM);
  *set = vek::g_set.load(std::memory_order_acquire);
  if (*set != nullptr) return trace.exit(0);
  SMemSet* made = nullptr;
  const SqlzZrc result = vek::makeSet(&made);
  if (result != 0) return trace.exit(result);
  if (vek::g_set.compare_exchange_strong(*set, made))
    *set = made;
  else
    (void)sqlofshr(made);
  return trace.exit(0);
}

SqlzZrc sqloGetPrivatePoolHandle(SQLO_MEM_POOL** pool) noexcept {
  vek::VekTrace<vek::FID_sqloGetPrivatePoolHandle> trace;
  if (pool == nullptr) return trace.exit(SQLO_INV_PARM);
  vek::MemPool* known = vek::g_pool.load(std::memory_order_acquire);
  *pool = known;
  if (known != nullptr) return trace.exit(0);
  SQLO_MEM_POOL* made = nullptr;
  const SqlzZrc result = vek::makePool(&made);
  if (result != 0) return trace.exit(result);
  *pool = made;
  if (!vek::g_pool.compare_exchange_strong(known, static_cast<vek::MemPool*>(made))) {
    *pool = known;
    (void)sqloMemFreePools(&made, 1);
  }
  return trace.exit(0);
}

SQLO_MEM_SET* MemPrivateSet::set() noexcept {
  SQLO_MEM_SET* set = nullptr;
  return sqloGetPrivateSet(&set) == 0 ? set : nullptr;
}

SQLO_MEM_POOL* MemPrivateSet::pool() noexcept {
  SQLO_MEM_POOL* pool = nullptr;
  return sqloGetPrivatePoolHandle(&pool) == 0 ? pool : nullptr;
}
