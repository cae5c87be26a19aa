// Memory pools: creating, purging, freeing.
//
// The control block of a base pool is the first block of its first subgroup, that of a sub-pool a block of its parent.
#include <algorithm>
#include <new>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "memory/sqlo_mem_set_directory.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys/latch_types.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

constexpr std::uint32_t kSettableOptions = SQLO_POOL_NO_AUTOMATIC | SQLO_POOL_CRITICAL | SQLO_POOL_UNLATCHED |
                                           SQLO_POOL_AUTOMATIC | SQLO_POOL_RAW | SQLO_POOL_REPORT_LEAKS;
constexpr BlockPlace kNowhere = {0, 0};

SqlzZrc complain(std::uint32_t probe, SqlzZrc zrc, const char* text, std::uint32_t poolId,
                 std::uint64_t bytes) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, FID_sqloCreateMemoryPoolEx, zrc, probe, PD_LEVEL_ERROR);
  call.message = text;
  (void)pdLogCallValues(call, sqloGetMemPoolName(poolId), bytes);
  return zrc;
}

SqlzZrc complainOfInitialSize(const SqloMemPoolRequest& request) noexcept {
  return complain(20, SQLO_NOMEM, "Unable to allocate memory for the initial pool size.", request.poolId,
                  request.initialBytes);
}

bool isPoolId(std::uint32_t id) noexcept { return id < SQLO_POOL_MAXHEAPID && sqloGetMemPoolName(id)[0] != '\0'; }

// ---- making ----------------------------------------------------------------------------------------------------

// Makes a pool of a block of kind KEPT, which becomes the block of its control.
MemPool* placeControl(Block block) noexcept {
  unpoison(block, sizeof(MemPool));
  auto* pool = new (pointerTo(block)) MemPool{};
  pool->m_base = pool;
  pool->m_fastMost = 0;
  const std::uint32_t stride = strideOf(block);
  setState(block, BLOCK_OWN | (stride != strideFor(sizeof(MemPool)) ? BLOCK_SLACK : 0), sizeof(MemPool));
  return pool;
}

void describe(MemPool& pool, const SqloMemPoolRequest& request, std::uint32_t limit) noexcept {
  const bool isRaw = (request.options & SQLO_POOL_RAW) != 0;
  pool.m_options = request.options | (isRaw ? 0 : SQLO_POOL_SEARCHABLE);
  pool.m_poolId = request.poolId;
  pool.m_set = request.set;
  pool.m_maximumAllowed = limit;
  pool.m_configuredChunks = limit;
  pool.m_latch.init(SQLO_LT_SqloMemPool__poolLatch__latch, request.set->isPrivate() ? 0 : SQLO_LATCH_BETWEEN_PROCESSES);
  pool.m_eyeCatcher = isRaw ? SQLO_POOL_RAW_EYE_CATCHER : SQLO_POOL_EYE_CATCHER;
}

// The first subgroup stands in the chunks before the pool does: the control block is cut from it, then the pool takes
// the subgroup over. Its chunks are on their way until the pool stands in the list of its set.
MemPool* build(void* chunks, std::uint32_t count, const SqloMemPoolRequest& request, std::uint32_t limit) noexcept {
  MemPool before = {};
  before.m_base = &before;
  before.m_set = request.set;
  SqloMemSubgroup* const subgroup = sqloi_makeSubgroup(before, chunks, count);
  sqloi_treeInsert(&before.m_freeTree, firstBlock(subgroup));
  const Block block = sqloi_takeBlock(before, strideFor(sizeof(MemPool)));
  setPlace(block, kNowhere, 0);
  MemPool* const pool = placeControl(block);
  pool->m_freeTree = before.m_freeTree;
  pool->m_carve = before.m_carve;
  pool->m_firstSubgroup = subgroup;
  subgroup->base = shortOf(block);
  subgroup->pool = pool;
  subgroup->next = nullptr;
  pool->m_ownChunks = count;
  pool->m_currentOwned = count;
  pool->m_maximumOwned = count;
  describe(*pool, request, limit);
  return pool;
}

void enterInSet(SMemSet& set, MemPool& pool) noexcept {
  const SetOperation operation(set);
  if (set.has(SQLO_SET_CRITICAL)) pool.m_options |= SQLO_POOL_CRITICAL;
  pool.m_next = set.m_pools;
  keepOrder();
  set.m_pools = &pool;
  keepOrder();
  sqloi_poolArrived(set, pool);
}

// Chunks that a set could give to a new pool.
std::uint32_t giveableBy(SMemSet& set) noexcept {
  const SetOperation operation(set);
  const std::uint32_t most = set.has(SQLO_SET_GROWABLE) ? set.m_maxChunksAllowed : set.usableChunks();
  return most - std::min(most, set.m_usedChunks);
}

SqlzZrc createPool(const SqloMemPoolRequest& request, SQLO_MEM_POOL** out) noexcept {
  const std::uint32_t giveable = giveableBy(*request.set);
  const std::uint64_t wanted = (request.bytes + SQLO_CHUNK_BYTES - 1) >> SQLO_CHUNK_SHIFT;
  if (wanted > giveable)
    return complain(10, SQLO_NOMEM, "The requested heap size is too big.", request.poolId, request.bytes);
  const auto limit = wanted == 0 ? std::max(giveable, 1U) : static_cast<std::uint32_t>(wanted);
  const std::uint64_t initial =
      std::max<std::uint64_t>((request.initialBytes + SQLO_CHUNK_BYTES - 1) >> SQLO_CHUNK_SHIFT, 1);
  // Blocks of a raw pool do not share chunks with its control block.
  const std::uint64_t first = (request.options & SQLO_POOL_RAW) != 0 ? 1 : initial;
  void* chunks = nullptr;
  if (initial > limit || sqloi_setGetChunks(*request.set, static_cast<std::uint32_t>(first), &chunks) != 0)
    return complainOfInitialSize(request);
  MemPool* const pool = build(chunks, static_cast<std::uint32_t>(first), request, limit);
  enterInSet(*request.set, *pool);
  sqloi_listPool(*pool);
  if (pool->commitRawChunks(static_cast<std::uint32_t>(initial - first), nullptr) != 0) {
    SQLO_MEM_POOL* const failed = pool;
    (void)sqloMemFreePools(&failed, 1);
    return complainOfInitialSize(request);
  }
  sqloi_startDebugging(*pool);
  pool->m_isPlain = isLatched(*pool) && !pool->isRaw() && !pool->isDebugged() && !request.set->m_fillsFreed;
  *out = pool;
  return 0;
}

// ---- freeing ---------------------------------------------------------------------------------------------------

void unlinkSub(MemPool& pool) noexcept {
  for (MemPool** at = &pool.m_parent->m_firstSub; *at != nullptr; at = &(*at)->m_next) {
    if (*at != &pool) continue;
    *at = pool.m_next;
    return;
  }
}

// Frees everything in a sub-pool but its control block. Needs the latch.
void empty(MemPool& pool, PoolOperation& operation) noexcept {
  sqloi_noteUsed(pool, -std::int64_t{pool.m_currentUsed}, -static_cast<std::int32_t>(pool.m_blocks));
  pool.m_deferred.store(0, std::memory_order_relaxed);
  pool.m_freeTree = nullptr;
  pool.m_carve = 0;
  pool.m_keptBytes = 0;
  std::fill(std::begin(pool.m_kept), std::end(pool.m_kept), 0U);
  while (pool.m_firstSubgroup != nullptr) sqloi_retireSubgroup(pool, pool.m_firstSubgroup, operation);
}

void freeSub(MemPool& pool, PoolOperation& operation) noexcept {
  MemPool& parent = *pool.m_parent;
  empty(pool, operation);
  unlinkSub(pool);
  fastForgetKnowledge();
  pool.m_eyeCatcher = 0;
  const Block block = blockOf(&pool);
  setState(block, BLOCK_KEPT, strideOf(block) - SQLO_BLOCK_HEADER_BYTES);
  sqloi_putBlock(parent, block, operation);
}

void freeSubsOf(MemPool& pool, PoolOperation& operation) noexcept {
  sqloi_visitPools(pool, [&](MemPool& each) {
    if (&each != &pool) freeSub(each, operation);
  });
}

// All runs of a base pool begin their way back and the pool leaves the list of its set: when the process dies within,
// the set does the rest. What the set logs must not be logged under the pool latch, so no failure is told here.
ChunkRun* sendAll(SMemSet& set, MemPool& pool) noexcept {
  set.captureLatch("sqlo_mem_pool_life", __LINE__);
  set.m_endingProcess = regionProcessOwner();
  keepOrder();
  set.m_ending = &pool;
  keepOrder();
  pool.m_eyeCatcher = 0;
  ChunkRun* runs = nullptr;
  for (SqloMemSubgroup* at : {pool.m_cachedChunks, pool.m_firstSubgroup})
    while (at != nullptr) {
      SqloMemSubgroup* const next = at->next;
      ChunkRun* const run = sqloi_setSendRunLatched(set, at, at->chunks, set.m_endingProcess);
      run->next = runs;
      runs = run;
      at = next;
    }
  sqloi_unlinkPool(set, pool);
  keepOrder();
  set.m_ending = nullptr;
  set.releaseLatch();
  return runs;
}

void freeBase(MemPool& pool) noexcept {
  SMemSet& set = *pool.m_set;
  (void)regionAttach();  // a forked child has a life from here on
  fastForgetKnowledge();
  sqloi_unlistPool(pool);
  ChunkRun* runs = nullptr;
  {
    PoolOperation operation(pool);
    freeSubsOf(pool, operation);
    runs = sendAll(set, pool);
  }
  pool.m_set = pointerAs<SMemSet>(std::uintptr_t{SQLO_INVALID_SET});
  while (runs != nullptr) {
    ChunkRun* const run = runs;
    runs = run->next;
    unpoison(blockOf(run), std::uint64_t{run->chunks} << SQLO_CHUNK_SHIFT);
    (void)sqloi_setReturnChunks(set, run, run->chunks);
  }
}

SqlzZrc freePool(SQLO_MEM_POOL* handle) noexcept {
  MemPool* const pool = sqloi_poolOf(handle);
  if (pool == nullptr || pool->m_parent != nullptr) return SQLO_INV_MEM;
  sqloi_fastForget(*pool);
  sqloi_endDebugging(*pool);
  const SMemSet& set = *pool->m_set;
  const bool reports = (pool->m_options & SQLO_POOL_REPORT_LEAKS) != 0 || set.has(SQLO_SET_FFDC_REPORT);
  const bool crashes = set.has(SQLO_SET_CRASH_ON_LEAKS);
  if (reports || crashes) {
    const std::uint32_t leaks = sqloi_reportLeaks(*pool);
    if (crashes && leaks != 0) sqloPanic(SQLO_INV_MEM, "A memory pool was freed with blocks in use.", nullptr);
  }
  freeBase(*pool);
  return 0;
}

MemPool* subPoolOf(SQLO_MEM_POOL* handle) noexcept {
  MemPool* const pool = sqloi_poolOf(handle);
  return pool == nullptr || pool->m_parent == nullptr ? nullptr : pool;
}

}  // namespace
}  // namespace vek

SqlzZrc sqloCreateMemoryPoolEx(const SqloMemPoolRequest* request, SQLO_MEM_POOL** pool) noexcept {
  vek::VekTrace<vek::FID_sqloCreateMemoryPoolEx> trace;
  if (request == nullptr || pool == nullptr || request->size != sizeof *request || !vek::isPoolId(request->poolId) ||
      (request->options & ~vek::kSettableOptions) != 0)
    return trace.exit(SQLO_INV_PARM);
  *pool = nullptr;
  trace.data(10, static_cast<const void*>(request->set), request->poolId, request->bytes);
  if (!vek::sqloi_isSet(request->set)) return trace.exit(SQLO_INV_MEM);
  return trace.exit(vek::createPool(*request, pool));
}

SqlzZrc sqloCreateMemorySubPool(SQLO_MEM_POOL* parentHandle, SQLO_MEM_POOL** subPool) noexcept {
  vek::VekTrace<vek::FID_sqloCreateMemorySubPool> trace;
  if (subPool == nullptr) return trace.exit(SQLO_INV_PARM);
  *subPool = nullptr;
  vek::MemPool* const parent = vek::sqloi_poolOf(parentHandle);
  if (parent == nullptr || parent->m_depth >= vek::MEM_POOL_DEPTH) return trace.exit(SQLO_INV_MEM);
  constexpr std::uint32_t kStride = vek::strideFor(sizeof(vek::MemPool));
  for (;;) {
    {
      const vek::PoolOperation operation(*parent);
      if (const vek::Block block = vek::sqloi_takeBlock(*parent, kStride); block != 0) {
        vek::setPlace(block, vek::kNowhere, 0);
        vek::MemPool* const pool = vek::placeControl(block);
        pool->m_base = parent->m_base;
        pool->m_parent = parent;
        pool->m_depth = parent->m_depth + 1;
        pool->m_options = parent->m_options;
        pool->m_isPlain = parent->m_isPlain;
        pool->m_poolId = parent->m_poolId;
        pool->m_set = parent->m_set;
        pool->m_debug = parent->base().m_debug;
        pool->m_eyeCatcher = parent->m_eyeCatcher;
        pool->m_next = parent->m_firstSub;
        parent->m_firstSub = pool;
        *subPool = pool;
        return trace.exit(0);
      }
    }
    if (vek::sqloi_growPool(*parent, kStride) != 0) break;
  }
  vek::sqloi_noteRefusal(*parent);
  return trace.exit(SQLO_NOMEM);
}

SqlzZrc sqloFreeMemorySubPool(SQLO_MEM_POOL* subPool) noexcept {
  vek::VekTrace<vek::FID_sqloFreeMemorySubPool> trace;
  vek::MemPool* const pool = vek::subPoolOf(subPool);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::PoolOperation operation(*pool);
  vek::freeSubsOf(*pool, operation);
  vek::freeSub(*pool, operation);
  return trace.exit(0);
}

SqlzZrc sqloPurgeMemoryInSubPool(SQLO_MEM_POOL* subPool) noexcept {
  vek::VekTrace<vek::FID_sqloPurgeMemoryInSubPool> trace;
  vek::MemPool* const pool = vek::subPoolOf(subPool);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::PoolOperation operation(*pool);
  vek::freeSubsOf(*pool, operation);
  vek::empty(*pool, operation);
  return trace.exit(0);
}

SqlzZrc sqloMemFreePools(SQLO_MEM_POOL* const* pools, std::size_t count) noexcept {
  vek::VekTrace<vek::FID_sqloMemFreePools> trace;
  if (pools == nullptr && count != 0) return trace.exit(SQLO_INV_MEM);
  SqlzZrc result = 0;
  for (std::size_t i = 0; i < count; ++i)
    if (const SqlzZrc freed = vek::freePool(pools[i]); freed != 0) result = freed;
  return trace.exit(result);
}

SqlzZrc sqloFlushMemory(SQLO_MEM_POOL* handle, std::uint32_t* freedBytes) noexcept {
  vek::VekTrace<vek::FID_sqloFlushMemory> trace;
  if (freedBytes != nullptr) *freedBytes = 0;
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::MemPool& base = pool->base();
  vek::sqloi_fastTakeBack(base);
  {
    const vek::SetOperation operation(*base.m_set);
    (void)base.m_set->returnStrandedChunks();
  }
  vek::PoolOperation operation(base);
  vek::sqloi_visitPools(base, [&](vek::MemPool& each) {
    vek::sqloi_takeDeferred(each, operation);
    vek::sqloi_joinKept(each, operation);
  });
  vek::sqloi_releaseCached(base, base.m_cachedChunkCount, operation);
  if (freedBytes != nullptr) *freedBytes = operation.givenBackChunks() << SQLO_CHUNK_SHIFT;
  return trace.exit(0);
}
