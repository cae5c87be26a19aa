// Memory pools: the chunks that a pool has of its set.
//
// The set logs its failures when it has released its own latch, so it is asked without the pool latch. Whether the
// limit admits what it gave is decided when that is there: a process that dies in between leaves nothing behind in the
// pool, and the set takes back what was on its way.
#include <algorithm>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "veksys/codes.h"

namespace vek {
namespace {

void linkSubgroup(MemPool& pool, SqloMemSubgroup* subgroup) noexcept {
  subgroup->next = pool.m_firstSubgroup;
  subgroup->previous = nullptr;
  if (subgroup->next != nullptr) subgroup->next->previous = subgroup;
  pool.m_firstSubgroup = subgroup;
}

void unlinkSubgroup(MemPool& pool, SqloMemSubgroup* subgroup) noexcept {
  if (subgroup->next != nullptr) subgroup->next->previous = subgroup->previous;
  if (subgroup->previous != nullptr)
    subgroup->previous->next = subgroup->next;
  else
    pool.m_firstSubgroup = subgroup->next;
}

// The header of a run of the cache: it belongs to no pool, its base pool is told by the lower half of its address.
void describeCached(const MemPool& base, SqloMemSubgroup* run, std::uint32_t chunks) noexcept {
  run->chunks = chunks;
  run->base = shortOf(blockOf(&base));
  run->eyeCatcher = MEM_SUBGROUP_EYE_CATCHER;
  run->pool = nullptr;
}

void cacheRun(MemPool& base, SqloMemSubgroup* run, std::uint32_t chunks) noexcept {
  describeCached(base, run, chunks);
  run->next = base.m_cachedChunks;
  base.m_cachedChunks = run;
  base.m_cachedChunkCount += chunks;
}

// What of a run begins with that chunk.
SqloMemSubgroup* partOf(SqloMemSubgroup* run, std::uint32_t chunk) noexcept {
  return pointerAs<SqloMemSubgroup>(blockOf(run) + (std::uint64_t{chunk} << SQLO_CHUNK_SHIFT));
}

// The smallest run of the cache that is long enough. A raw pool takes no more of it than it needs: the header of what
// is left is there before the run becomes shorter.
SqloMemSubgroup* takeCachedRun(MemPool& base, std::uint32_t chunks) noexcept {
  SqloMemSubgroup** best = nullptr;
  for (SqloMemSubgroup** at = &base.m_cachedChunks; *at != nullptr; at = &(*at)->next)
    if ((*at)->chunks >= chunks && (best == nullptr || (*at)->chunks < (*best)->chunks)) best = at;
  if (best == nullptr) return nullptr;
  SqloMemSubgroup* const run = *best;
  *best = run->next;
  base.m_cachedChunkCount -= run->chunks;
  if (base.isRaw() && run->chunks != chunks) {
    cacheRun(base, partOf(run, chunks), run->chunks - chunks);
    run->chunks = chunks;
  }
  return run;
}

// Chunks that may still be asked of the set.
std::uint32_t roomOf(const MemPool& base) noexcept {
  return base.m_maximumAllowed - std::min(base.m_maximumAllowed, base.m_currentOwned);
}

// How many chunks to ask for when `needed` must be had; 0: the limit does not admit it.
std::uint32_t growthStep(MemPool& base, std::uint32_t needed) noexcept {
  const std::uint32_t room = roomOf(base);
  if (needed > room) return sqloi_allowsGrowth(base) ? needed : 0;
  const std::uint32_t ahead =
      base.isRaw() ? needed : std::min(base.m_currentOwned / GROWTH_MOST_CHUNKS, GROWTH_MOST_CHUNKS);
  return std::min(std::max(needed, ahead), room);
}

// Asks the set for a step, or for what is needed at least.
SqlzZrc askSet(SMemSet& set, std::uint32_t needed, std::uint32_t* step, void** address) noexcept {
  const SqlzZrc result = sqloi_setGetChunks(set, *step, address);
  if (result == 0 || *step == needed) return result;
  *step = needed;
  return sqloi_setGetChunks(set, needed, address);
}

// Counts chunks that the set gave, unless others have used up the limit meanwhile: then they go back.
bool admit(MemPool& base, void* address, std::uint32_t chunks, PoolOperation& operation) noexcept {
  if (chunks > roomOf(base) && !sqloi_allowsGrowth(base)) {
    auto* run = static_cast<SqloMemSubgroup*>(address);
    run->chunks = chunks;
    operation.giveBack(run);
    return false;
  }
  sqloi_add(base.m_growths, 1);
  sqloi_noteOwned(base, chunks);
  return true;
}

}  // namespace

bool sqloi_allowsGrowth(MemPool& base) noexcept {
  return base.m_set->has(SQLO_SET_GOVERNS_POOLS) ? (base.m_options & SQLO_POOL_NO_AUTOMATIC) == 0
                                                 : (base.m_options & SQLO_POOL_AUTOMATIC) != 0;
}

// A pool that may grow beyond its limit has a limit that follows.
void sqloi_noteOwned(MemPool& base, std::int64_t chunks) noexcept {
  sqloi_add(base.m_currentOwned, chunks);
  sqloi_set(base.m_maximumOwned, std::max(base.m_maximumOwned, base.m_currentOwned));
  if (base.m_currentOwned > base.m_maximumAllowed && sqloi_allowsGrowth(base))
    sqloi_set(base.m_maximumAllowed, base.m_currentOwned);
  sqloi_tellPool(base);
}

void sqloi_noteRefusal(MemPool& pool) noexcept {
  const PoolOperation operation(pool);
  sqloi_add(pool.base().m_refusals, 1);
  sqloi_tellPool(pool.base());
}

SqloMemSubgroup* sqloi_makeSubgroup(MemPool& pool, void* address, std::uint32_t chunks) noexcept {
  auto* subgroup = static_cast<SqloMemSubgroup*>(address);
  subgroup->chunks = chunks;
  subgroup->reference = CHUNK_REFERENCE_MARKER | shortOf(blockOf(address)) >> 12;
  subgroup->base = shortOf(blockOf(pool.m_base));
  const Block block = firstBlock(subgroup);
  makeFree(block, strideOfAll(subgroup), subgroup->reference);
  poison(block, strideOfAll(subgroup));
  subgroup->pool = &pool;
  subgroup->eyeCatcher = MEM_SUBGROUP_EYE_CATCHER;
  return subgroup;
}

void sqloi_addSubgroup(MemPool& pool, void* address, std::uint32_t chunks) noexcept {
  SqloMemSubgroup* const subgroup = sqloi_makeSubgroup(pool, address, chunks);
  sqloi_setRunArrived(*pool.m_set, subgroup);
  linkSubgroup(pool, subgroup);
  sqloi_add(pool.m_ownChunks, chunks);
  sqloi_treeInsert(&pool.m_freeTree, firstBlock(subgroup));
}

void sqloi_retireSubgroup(MemPool& pool, SqloMemSubgroup* subgroup, PoolOperation& operation) noexcept {
  MemPool& base = pool.base();
  const std::uint32_t chunks = subgroup->chunks;
  fastForgetKnowledge();
  unpoison(blockOf(subgroup), std::uint64_t{chunks} << SQLO_CHUNK_SHIFT);
  unlinkSubgroup(pool, subgroup);
  sqloi_add(pool.m_ownChunks, -std::int64_t{chunks});
  if (base.m_cachedChunkCount + chunks <= CACHED_CHUNKS_MOST) return cacheRun(base, subgroup, chunks);
  sqloi_noteOwned(base, -std::int64_t{chunks});
  operation.giveBack(subgroup);
}

bool sqloi_hasCachedRun(const MemPool& base, std::uint32_t chunks) noexcept {
  const SqloMemSubgroup* run = base.m_cachedChunks;
  while (run != nullptr && run->chunks < chunks) run = run->next;
  return run != nullptr;
}

// Of a run that is larger than what is left to give back, the end goes: its header is there before the run becomes
// shorter.
void sqloi_releaseCached(MemPool& base, std::uint32_t chunks, PoolOperation& operation) noexcept {
  while (chunks != 0 && base.m_cachedChunks != nullptr) {
    SqloMemSubgroup* run = base.m_cachedChunks;
    const std::uint32_t part = std::min(chunks, run->chunks);
    if (part == run->chunks) {
      base.m_cachedChunks = run->next;
    } else {
      SqloMemSubgroup* const end = partOf(run, run->chunks - part);
      describeCached(base, end, part);
      run->chunks -= part;
      run = end;
    }
    base.m_cachedChunkCount -= part;
    sqloi_noteOwned(base, -std::int64_t{part});
    operation.giveBack(run);
    chunks -= part;
  }
}

SqlzZrc sqloi_growPool(MemPool& pool, std::uint32_t stride) noexcept {
  VekTrace<FID_sqloi_growPool> trace;
  MemPool& base = pool.base();
  const std::uint32_t needed = chunksFor(stride);
  std::uint32_t step = 0;
  {
    PoolOperation operation(pool);
    if (SqloMemSubgroup* run = takeCachedRun(base, needed); run != nullptr) {
      sqloi_addSubgroup(pool, run, run->chunks);
      return trace.exit(0);
    }
    step = growthStep(base, needed);
    if (step == 0) {
      // What the cache keeps is of no use here, but counts against the limit.
      sqloi_releaseCached(base, needed, operation);
      step = growthStep(base, needed);
    }
  }
  if (step == 0) {
    trace.data(10, "Exceeded max chunks");
    return trace.exit(SQLO_NOMEM);
  }
  void* address = nullptr;
  const SqlzZrc result = askSet(*base.m_set, needed, &step, &address);
  if (result != 0) {
    trace.data(20, "Raw chunk commit failed");
    return trace.exit(SQLO_NOMEM);
  }
  PoolOperation operation(pool);
  if (admit(base, address, step, operation)) sqloi_addSubgroup(pool, address, step);
  return trace.exit(0);
}

}  // namespace vek

// In one piece when the set has one; else chunk by chunk, as many as there are.
SqlzZrc SQLO_MEM_POOL::commitRawChunks(std::uint32_t count, std::uint32_t* committed) noexcept {
  vek::VekTrace<vek::FID_SQLO_MEM_POOL_commitRawChunks> trace;
  if (committed != nullptr) *committed = 0;
  vek::MemPool* const pool = vek::sqloi_poolOf(this);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::MemPool& base = pool->base();
  bool mayGrow = false;
  {
    const vek::PoolOperation operation(base);
    mayGrow = count <= vek::roomOf(base) || vek::sqloi_allowsGrowth(base);
  }
  if (!mayGrow) {
    vek::sqloi_noteRefusal(base);
    trace.data(10, "Exceeded max chunks");
    return trace.exit(SQLO_NOMEM);
  }
  std::uint32_t got = 0;
  for (std::uint32_t step = count; got < count && step != 0;) {
    void* address = nullptr;
    if (vek::sqloi_setGetChunks(*base.m_set, step, &address) != 0) {
      step = step == 1 ? 0 : 1;
      continue;
    }
    vek::PoolOperation operation(base);
    if (!vek::admit(base, address, step, operation)) break;
    vek::cacheRun(base, static_cast<SqloMemSubgroup*>(address), step);
    vek::sqloi_setRunArrived(*base.m_set, address);
    got += step;
  }
  if (committed != nullptr) *committed = got;
  if (got == count) return trace.exit(0);
  vek::sqloi_noteRefusal(base);
  trace.data(20, "Raw chunk commit failed");
  return trace.exit(SQLO_NOMEM);
}

SqlzZrc sqloShrinkUnderlyingSet(SQLO_MEM_POOL* handle, std::uint32_t bytes, std::uint32_t* freedBytes) noexcept {
  vek::VekTrace<vek::FID_sqloShrinkUnderlyingSet> trace;
  trace.data(10, static_cast<const void*>(handle), bytes);
  if (freedBytes != nullptr) *freedBytes = 0;
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (bytes == 0 || pool == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::PoolOperation operation(*pool);
  vek::sqloi_releaseCached(pool->base(), sqloChunksOf(bytes), operation);
  if (freedBytes != nullptr) *freedBytes = operation.givenBackChunks() << SQLO_CHUNK_SHIFT;
  return trace.exit(0);
}

SqlzZrc sqloUpdateUnderlyingSetFreeThreshold(SQLO_MEM_POOL* handle, std::uint32_t percent) noexcept {
  vek::VekTrace<vek::FID_sqloUpdateUnderlyingSetFreeThreshold> trace;
  trace.data(10, static_cast<const void*>(handle), percent);
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  return trace.exit(sqloUpdateMemorySetFreeThreshold(pool->m_set, percent));
}
