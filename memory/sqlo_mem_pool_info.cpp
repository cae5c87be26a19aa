// Memory pools: limits, and what is told of a pool.
#include <algorithm>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace vek {
namespace {

constexpr std::uint32_t bytesOf(std::uint32_t chunks) noexcept { return chunks << SQLO_CHUNK_SHIFT; }

// Puts everything that is free into the tree, so that its root is the largest free block.
void settle(MemPool& pool, PoolOperation& operation) noexcept {
  sqloi_takeDeferred(pool, operation);
  sqloi_joinKept(pool, operation);
}

std::uint32_t largestFree(const MemPool& pool) noexcept {
  return pool.m_freeTree == nullptr ? 0 : strideOf(blockOf(pool.m_freeTree));
}

std::uint32_t availableIn(const MemPool& pool) noexcept {
  const std::uint32_t overhead = pool.debugOverhead() + SQLO_BLOCK_HEADER_BYTES;
  const std::uint32_t largest = largestFree(pool);
  return largest > overhead ? largest - overhead : 0;
}

// Chunks that the set could still give. Not as an operation of the set, which might log.
std::uint32_t remainingOf(SMemSet& set) noexcept {
  set.captureLatch("sqlo_mem_pool_info", __LINE__);
  const std::uint32_t usable = set.usableChunks();
  const std::uint32_t limit = set.has(SQLO_SET_GROWABLE) ? std::max(usable, set.m_maxChunksAllowed) : usable;
  const std::uint32_t remaining = limit - std::min(limit, set.m_usedChunks);
  set.releaseLatch();
  return remaining;
}

// The counters of a pool as they stand, without a word about free blocks.
SqloMemPoolInfo countersOf(MemPool& pool) noexcept {
  const MemPool& base = pool.base();
  const FastKept fast = sqloi_fastKept(pool);
  SqloMemPoolInfo info = {};
  info.maximumAllowed = bytesOf(base.m_maximumAllowed);
  info.currentOwned = bytesOf(base.m_currentOwned);
  info.maximumOwned = bytesOf(base.m_maximumOwned);
  info.growths = base.m_growths;
  info.refusals = base.m_refusals;
  info.cachedBytes = bytesOf(base.m_cachedChunkCount);
  info.poolUsed = pool.m_currentUsed - fast.bytes;
  info.poolBlocks = pool.m_blocks - fast.blocks;
  info.poolKept = fast.bytes;
  info.poolOwned = bytesOf(pool.m_ownChunks);
  info.poolId = pool.m_poolId;
  info.isRaw = pool.isRaw() ? 1 : 0;
  return info;
}

}  // namespace
}  // namespace vek

std::uint32_t sqloGetMemPoolId(const SQLO_MEM_POOL* pool) noexcept {
  const vek::MemPool* const found = vek::sqloi_poolOf(const_cast<SQLO_MEM_POOL*>(pool));
  return found == nullptr ? 0 : found->m_poolId;
}

std::uint64_t sqloMemPoolGetMaxSize(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return 0;
  return std::uint64_t{__atomic_load_n(&found->base().m_maximumAllowed, __ATOMIC_RELAXED)} << SQLO_CHUNK_SHIFT;
}

std::uint32_t sqloMemPoolGetCurrentSize(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return 0;
  vek::MemPool& base = found->base();
  vek::PoolOperation operation(base);
  vek::sqloi_visitPools(base, [&](vek::MemPool& each) { vek::sqloi_takeDeferred(each, operation); });
  return base.m_currentUsed - vek::sqloi_fastKept(base).bytes;
}

std::uint64_t sqloMemPoolGetConfiguredSize(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  return found == nullptr ? 0 : std::uint64_t{found->base().m_configuredChunks} << SQLO_CHUNK_SHIFT;
}

SqlzZrc sqloMemPoolChangeSize(SQLO_MEM_POOL* pool, std::uint64_t bytes) noexcept {
  vek::VekTrace<vek::FID_sqloMemPoolChangeSize> trace;
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::MemPool& base = found->base();
  if (bytes == 0 || bytes > std::uint64_t{base.m_set->m_maxChunksAllowed} << SQLO_CHUNK_SHIFT)
    return trace.exit(SQLO_MEM_SIZE);
  const vek::PoolOperation operation(base);
  base.m_configuredChunks = sqloChunksOf(bytes);
  vek::sqloi_set(base.m_maximumAllowed, base.m_configuredChunks);
  vek::sqloi_tellPool(base);
  return trace.exit(0);
}

SqlzZrc sqloSetMemoryPoolAutomaticBit(SQLO_MEM_POOL* pool, bool on) noexcept {
  vek::VekTrace<vek::FID_sqloSetMemoryPoolAutomaticBit> trace;
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return trace.exit(SQLO_INV_MEM);
  vek::MemPool& base = found->base();
  const vek::PoolOperation operation(base);
  base.m_options = on ? base.m_options | SQLO_POOL_AUTOMATIC : base.m_options & ~SQLO_POOL_AUTOMATIC;
  return trace.exit(0);
}

bool sqloMemPoolAllowsAutomaticGrowth(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  return found != nullptr && vek::sqloi_allowsGrowth(found->base());
}

bool sqloMemPoolHasSpace(SQLO_MEM_POOL* pool, std::size_t bytes) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr || bytes > UINT32_MAX - SQLO_CHUNK_BYTES) return false;
  vek::MemPool& base = found->base();
  const std::uint32_t needed = vek::chunksFor(vek::strideFor(bytes + found->debugOverhead()));
  std::uint32_t room = 0;
  std::uint32_t cached = 0;
  {
    vek::PoolOperation operation(*found);
    vek::settle(*found, operation);
    if (vek::availableIn(*found) >= bytes || vek::sqloi_hasCachedRun(base, needed)) return true;
    const std::uint32_t limit = vek::sqloi_allowsGrowth(base) ? UINT32_MAX : base.m_maximumAllowed;
    cached = base.m_cachedChunkCount;
    room = limit - std::min(limit, base.m_currentOwned - cached);
  }
  return needed <= room && needed <= vek::remainingOf(*base.m_set) + cached;
}

std::uint32_t sqloGetLargestFreeBlockSize(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return 0;
  vek::PoolOperation operation(*found);
  vek::settle(*found, operation);
  return vek::availableIn(*found);
}

std::uint32_t sqloGetRemainingSetSize(SQLO_MEM_POOL* pool) noexcept {
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return 0;
  const vek::PoolOperation operation(*found);
  return vek::bytesOf(vek::remainingOf(*found->m_set));
}

SqlzZrc sqloGetPoolInfo(SQLO_MEM_POOL* pool, SqloMemPoolInfo* info) noexcept {
  vek::VekTrace<vek::FID_sqloGetPoolInfo> trace;
  if (info == nullptr) return trace.exit(SQLO_INV_PARM);
  if (pool == nullptr) {
    const SqlzZrc result = sqloGetPrivatePoolHandle(&pool);
    if (result != 0) return trace.exit(result);
  }
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return trace.exit(SQLO_INV_MEM);
  {
    vek::MemPool& base = found->base();
    vek::PoolOperation operation(base);
    vek::settle(base, operation);
    if (found != &base) vek::settle(*found, operation);
    *info = vek::countersOf(*found);
    if ((base.m_options & SQLO_POOL_SEARCHABLE) != 0) info->largestFreeBlock = vek::largestFree(base);
    info->available = vek::availableIn(base);
  }
  if (info->currentOwned < info->maximumAllowed)
    info->available = std::max(info->maximumAllowed - info->currentOwned, info->available);
  else
    info->maximumAllowed = info->currentOwned;
  return trace.exit(0);
}

SqlzZrc sqloGetMemPoolStatsUnlatched(SQLO_MEM_POOL* pool, SqloMemPoolStats* stats) noexcept {
  vek::VekTrace<vek::FID_sqloGetMemPoolStatsUnlatched> trace;
  if (stats == nullptr) return trace.exit(SQLO_INV_PARM);
  vek::MemPool* const found = vek::sqloi_poolOf(pool);
  if (found == nullptr) return trace.exit(SQLO_INV_MEM);
  const auto read = [](const std::uint32_t& counter) { return __atomic_load_n(&counter, __ATOMIC_RELAXED); };
  vek::MemPool& base = found->base();
  *stats = {vek::bytesOf(read(base.m_maximumAllowed)),
            vek::bytesOf(read(base.m_maximumOwned)),
            vek::bytesOf(read(base.m_currentOwned)),
            read(base.m_growths),
            read(base.m_refusals),
            read(found->m_currentUsed),
            vek::bytesOf(read(found->m_ownChunks))};
  return trace.exit(0);
}

std::size_t sqloMemBlockToString(const void* block, char* buffer, std::size_t bytes) noexcept {
  if (buffer == nullptr || bytes == 0) return 0;
  const vek::Block address = vek::blockOf(block);
  if (block == nullptr || !vek::sqloi_isCommitted(address - SQLO_BLOCK_HEADER_BYTES, SQLO_BLOCK_HEADER_BYTES))
    return vek::ossSnprintf(buffer, bytes, "BLOCK: not readable");
  const vek::BlockHeader header = vek::readHeader(address);
  return vek::ossSnprintf(buffer, bytes, "BLOCK: code: 0x%x size: %u file: %u line: %hu seq: %hu CSG: 0x%08x",
                          header.code, header.size, header.file, header.line, header.sequence, header.chunk << 12);
}
