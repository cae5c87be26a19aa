// Memory pools seen from their blocks: what is wrong with them, what was never freed, and how they are made anew after
// the death of a process in the middle of a change.
#include <algorithm>

#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys_functions.h"

namespace vek {
namespace {

// ---- after a death ---------------------------------------------------------------------------------------------

static_assert(offsetof(ChunkRun, pool) == offsetof(SqloMemSubgroup, pool));
static_assert(offsetof(ChunkRun, process) == offsetof(SqloMemSubgroup, previous));
static_assert(offsetof(ChunkRun, eyeCatcher) == offsetof(SqloMemSubgroup, eyeCatcher));
static_assert(offsetof(ChunkRun, chunks) == offsetof(SqloMemSubgroup, chunks));

// Visits the runs of chunks that a base pool has, as their own headers tell. A run begins where the set says that one
// does, or behind another one of the pool: it may have cut one in two. What is on its way is the set's.
template <class Visit>
void visitRuns(MemPool& base, const Visit& visit) noexcept {
  const SMemSet& set = *base.m_set;
  std::uint32_t end = 0;  // of the run before
  for (std::uint32_t chunk = 0; chunk < set.m_allocatedChunks; ++chunk) {
    if (chunk < end || (chunk != end && !set.m_starts.has(chunk)) || !set.m_used.has(chunk)) continue;
    auto* run = pointerAs<SqloMemSubgroup>(set.addressOf(chunk));
    if (set.m_onTheWay.has(chunk)) {
      end = chunk + run->chunks;
      continue;
    }
    if (run->eyeCatcher != MEM_SUBGROUP_EYE_CATCHER || run->base != shortOf(blockOf(&base))) continue;
    end = chunk + run->chunks;
    visit(run);
  }
}

void forgetEverything(MemPool& pool) noexcept {
  pool.m_freeTree = nullptr;
  pool.m_firstSubgroup = nullptr;
  pool.m_currentUsed = 0;
  pool.m_ownChunks = 0;
  pool.m_blocks = 0;
  pool.m_keptBytes = 0;
  pool.m_carve = 0;
  pool.m_deferred.store(0, std::memory_order_relaxed);
  std::fill(std::begin(pool.m_kept), std::end(pool.m_kept), 0U);
}

bool isIdle(std::uint32_t kind) noexcept { return kind == BLOCK_FREE || kind == BLOCK_KEPT; }

// Joins neighbours that are free or kept, and counts what is in use. False when a block is none.
bool recountBlocks(MemPool& pool, SqloMemSubgroup* subgroup) noexcept {
  Block idle = 0;  // where the free ones before this one begin
  const auto close = [&](Block end) {
    if (idle == 0) return;
    makeFree(idle, static_cast<std::uint32_t>(end - idle), subgroup->reference);
    sqloi_treeInsert(&pool.m_freeTree, idle);
    idle = 0;
  };
  const bool isWhole = visitBlocks(subgroup, [&](Block block, const BlockHeader& header) {
    if (isIdle(kindOf(header.code))) {
      if (idle == 0) idle = block;
      return true;
    }
    close(block);
    if (kindOf(header.code) == BLOCK_USED) sqloi_noteUsed(pool, strideOf(header.code, header.size), 1);
    return true;
  });
  if (isWhole) close(endBlock(subgroup));
  return isWhole;
}

bool takeOver(MemPool& base, SqloMemSubgroup* run) noexcept {
  base.m_currentOwned += run->chunks;
  if (run->pool == nullptr) {
    run->next = base.m_cachedChunks;
    base.m_cachedChunks = run;
    base.m_cachedChunkCount += run->chunks;
    return true;
  }
  MemPool* const pool = sqloi_poolOf(run->pool);
  if (pool == nullptr || pool->m_base != &base) return false;
  run->previous = nullptr;
  run->next = pool->m_firstSubgroup;
  if (run->next != nullptr) run->next->previous = run;
  pool->m_firstSubgroup = run;
  pool->m_ownChunks += run->chunks;
  return recountBlocks(*pool, run);
}

// The subgroup that a base pool stands in.
SqloMemSubgroup* ownSubgroup(const MemPool& pool) noexcept {
  const Block block = blockOf(&pool);
  return subgroupOf(block, readHeader(block).chunk);
}

// What the pool has of its set and is not on its way yet begins its way back, as if its process had done that.
void endPool(SMemSet& set, MemPool& pool) noexcept {
  visitRuns(pool,
            [&](SqloMemSubgroup* run) { (void)sqloi_setSendRunLatched(set, run, run->chunks, set.m_endingProcess); });
  sqloi_unlinkPool(set, pool);
}

// ---- leaks -----------------------------------------------------------------------------------------------------

struct Leak {
  std::uint32_t file;
  std::uint32_t line;
  std::uint32_t blocks;
  std::uint64_t bytes;
};

constexpr std::size_t kLeaksMost = 64;  // places told one by one; the last row counts all others

struct Leaks {
  Leak rows[kLeaksMost];
  std::size_t count;
  std::uint32_t blocks;

  void add(const BlockHeader& header) noexcept {
    ++blocks;
    Leak* const end = rows + count;
    Leak* row =
        std::find_if(rows, end, [&](const Leak& each) { return each.file == header.file && each.line == header.line; });
    if (row == end && count == kLeaksMost) row = end - 1;
    if (row == end) rows[count++] = {header.file, header.line, 0, 0};
    ++row->blocks;
    row->bytes += header.size;
  }
};

void report(const Leak& leak, const MemPool& pool, const RegionNames* names) noexcept {
  const char* file = names == nullptr ? nullptr : regionFindName(*names, leak.file);
  PdLogCall call = pdLogDescribe(PD_LOG_RC_NONE, FID_sqloMemFreePools, 0, 10, PD_LEVEL_WARNING);
  call.message = "Blocks of a memory pool were not freed. Pool, blocks, bytes, and where they were allocated:";
  (void)pdLogCallValues(call, sqloGetMemPoolName(pool.m_poolId), leak.blocks, leak.bytes, file == nullptr ? "?" : file,
                        leak.line);
}

}  // namespace

// What cannot be walked is used no more: its handle leads to no pool.
void sqloi_repairPool(MemPool& base) noexcept {
  sqloi_visitPools(base, forgetEverything);
  base.m_cachedChunks = nullptr;
  base.m_cachedChunkCount = 0;
  base.m_currentOwned = 0;
  bool isWhole = true;
  visitRuns(base, [&](SqloMemSubgroup* run) { isWhole = takeOver(base, run) && isWhole; });
  base.m_maximumOwned = std::max(base.m_maximumOwned, base.m_currentOwned);
  if (!isWhole) base.m_eyeCatcher = 0;
  sqloi_tellPool(base);
}

void sqloi_unlinkPool(SMemSet& set, const MemPool& pool) noexcept {
  for (MemPool** at = &set.m_pools; *at != nullptr; at = &(*at)->m_next) {
    if (*at != &pool) continue;
    *at = pool.m_next;
    return;
  }
}

void sqloi_poolArrived(SMemSet& set, MemPool& pool) noexcept {
  SqloMemSubgroup* const subgroup = ownSubgroup(pool);
  subgroup->previous = nullptr;  // told the process until here
  sqloi_setRunArrivedLatched(set, subgroup);
}

// A pool that was leaving the list leaves with all it has; those that stand in it have arrived.
void sqloi_repairPoolsOf(SMemSet& set) noexcept {
  if (set.m_ending != nullptr) endPool(set, *set.m_ending);
  set.m_ending = nullptr;
  for (MemPool* pool = set.m_pools; pool != nullptr; pool = pool->m_next)
    if (set.m_onTheWay.has(set.chunkAt(ownSubgroup(*pool)))) sqloi_poolArrived(set, *pool);
}

std::uint32_t sqloi_reportLeaks(MemPool& pool) noexcept {
  Leaks leaks = {};
  sqloi_visitPools(pool, [&](const MemPool& each) {
    for (const SqloMemSubgroup* subgroup = each.m_firstSubgroup; subgroup != nullptr; subgroup = subgroup->next)
      (void)visitBlocks(subgroup, [&](Block, const BlockHeader& header) {
        if (kindOf(header.code) == BLOCK_USED) leaks.add(header);
        return true;
      });
  });
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  for (std::size_t i = 0; i < leaks.count; ++i) report(leaks.rows[i], pool, names);
  return leaks.blocks;
}

// ---- checks ----------------------------------------------------------------------------------------------------

namespace {

struct Sums {
  std::uint64_t used;    // strides of blocks in use and of kept ones
  std::uint64_t kept;    // of kept ones
  std::uint64_t blocks;  // in use or kept
  std::uint64_t free;    // number of free ones
  std::uint64_t inTree;
  std::uint32_t chunks;
  bool isOrdered;
};

const char* checkSubgroup(const MemPool& pool, const SqloMemSubgroup* subgroup, Sums* sums) noexcept {
  if (subgroup->eyeCatcher != MEM_SUBGROUP_EYE_CATCHER || subgroup->pool != &pool) return "a subgroup of another pool";
  sums->chunks += subgroup->chunks;
  bool wasFree = false;
  const char* complaint = nullptr;
  const bool isWhole = visitBlocks(subgroup, [&](Block block, const BlockHeader& header) {
    const std::uint32_t kind = kindOf(header.code);
    const std::uint32_t stride = strideOf(header.code, header.size);
    if (header.chunk != subgroup->reference || block % SQLO_BLOCK_ALIGNMENT != 0) complaint = "a wrong chunk reference";
    if (kind == BLOCK_FREE && wasFree) complaint = "free neighbours that are not joined";
    wasFree = kind == BLOCK_FREE;
    if (kind == BLOCK_FREE) ++sums->free;
    if (kind == BLOCK_USED || kind == BLOCK_KEPT) sums->used += stride, ++sums->blocks;
    return true;
  });
  return isWhole ? complaint : "a header that is none, or a block beyond the end of its subgroup";
}

std::uint64_t keptIn(const MemPool& pool, std::uint64_t* count) noexcept {
  std::uint64_t bytes = 0;
  for (std::uint32_t list = 0; list < KEPT_LISTS; ++list)
    for (std::uint32_t low = pool.m_kept[list]; low != 0; ++*count) {
      const Block block = windowOf(blockOf(&pool)) | low;
      if (kindOf(codeOf(block)) != BLOCK_KEPT || strideOf(block) != list * SQLO_BLOCK_ALIGNMENT) return UINT64_MAX;
      bytes += strideOf(block);
      low = linkOf(block);
    }
  return bytes;
}

bool checkNode(void* context, Block block, Block parent) noexcept {
  auto* sums = static_cast<Sums*>(context);
  ++sums->inTree;
  if (kindOf(codeOf(block)) != BLOCK_FREE || (parent != 0 && strideOf(parent) < strideOf(block)))
    sums->isOrdered = false;
  return sums->isOrdered;
}

}  // namespace

const char* sqloi_checkPool(MemPool& pool) noexcept {
  Sums sums = {};
  sums.isOrdered = true;
  for (const SqloMemSubgroup* at = pool.m_firstSubgroup; at != nullptr; at = at->next)
    if (const char* complaint = checkSubgroup(pool, at, &sums); complaint != nullptr) return complaint;
  (void)sqloi_treeVisit(pool.m_freeTree, checkNode, &sums);
  if (!sums.isOrdered) return "a tree out of order";
  if (sums.inTree + (pool.m_carve != 0 ? 1 : 0) != sums.free) return "free blocks that are not in the tree";
  if (sums.chunks != pool.m_ownChunks) return "a wrong number of chunks";
  std::uint64_t keptCount = 0;
  const std::uint64_t kept = keptIn(pool, &keptCount);
  if (kept != pool.m_keptBytes) return "wrong lists of kept blocks";
  if (sums.blocks - keptCount != pool.m_blocks) return "a wrong number of blocks";
  std::uint64_t used = sums.used - kept;
  std::uint64_t owned = sums.chunks;
  for (MemPool* sub = pool.m_firstSub; sub != nullptr; sub = sub->m_next) {
    if (const char* complaint = sqloi_checkPool(*sub); complaint != nullptr) return complaint;
    if (pool.m_base == &pool) used += sub->m_currentUsed, owned += sub->m_ownChunks;
    for (MemPool* below = sub->m_firstSub; pool.m_base == &pool && below != nullptr; below = below->m_next)
      used += below->m_currentUsed, owned += below->m_ownChunks;
  }
  if (used != pool.m_currentUsed) return "wrong bytes in use";
  if (pool.m_base == &pool && owned + pool.m_cachedChunkCount != pool.m_currentOwned) return "wrong chunks owned";
  return nullptr;
}

}  // namespace vek
