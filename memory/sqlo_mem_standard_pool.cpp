// Memory pools: where blocks come from and where they go.
#include <algorithm>
#include <utility>

#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_rows.h"
#include "veksys/codes.h"

namespace vek {

// ---- the latch -------------------------------------------------------------------------------------------------

PoolOperation::PoolOperation(MemPool& pool, std::uint32_t line) noexcept : base_(pool.base()) {
  if (isLatched(base_)) (void)base_.m_latch.captureLatch(kPoolLatchFile, line);
}

PoolOperation::PoolOperation(MemPool& pool, std::try_to_lock_t /*tag*/, std::uint32_t line) noexcept
    : base_(pool.base()), holds_(!isLatched(base_) || base_.m_latch.tryCaptureLatch(kPoolLatchFile, line) == 0) {}

// What the set logs must not be logged under the pool latch, so chunks go back after it.
PoolOperation::~PoolOperation() {
  if (!holds_) return;
  SMemSet* const set = base_.m_set;
  sqloi_tellPoolWhenMoved(base_);
  if (isLatched(base_)) base_.m_latch.releaseLatch();
  while (runs_ != nullptr) {
    ChunkRun* const run = runs_;
    runs_ = run->next;
    (void)sqloi_setReturnChunks(*set, run, run->chunks);
  }
}

void PoolOperation::giveBack(SqloMemSubgroup* run) noexcept {
  givenBack_ += run->chunks;
  ChunkRun* const sent = sqloi_setSendRun(*base_.m_set, run, run->chunks);
  sent->next = runs_;
  runs_ = sent;
}

namespace {

Block fullAddress(const MemPool& pool, std::uint32_t low) noexcept { return windowOf(blockOf(&pool)) | low; }

// ---- taking ----------------------------------------------------------------------------------------------------

Block takeKept(MemPool& pool, std::uint32_t stride) noexcept {
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  if (head == 0) return 0;
  const Block block = fullAddress(pool, head);
  head = linkOf(block);
  sqloi_add(pool.m_keptBytes, -std::int64_t{stride});
  return block;
}

// Cuts a block of that stride from the front of a free one, which is in the tree no more; answers the rest, 0 when
// there is too little. The rest is there before the front becomes shorter.
Block cutFront(Block block, std::uint32_t stride) noexcept {
  const std::uint32_t whole = strideOf(block);
  const std::uint32_t rest = whole - stride;
  if (rest < BLOCK_LEAST_STRIDE) {
    setState(block, BLOCK_KEPT, whole - SQLO_BLOCK_HEADER_BYTES);
    return 0;
  }
  makeFree(block + stride, rest, readHeader(block).chunk);
  setState(block, BLOCK_KEPT, stride - SQLO_BLOCK_HEADER_BYTES);
  return block + stride;
}

Block takeFromCarve(MemPool& pool, std::uint32_t stride) noexcept {
  const Block block = pool.m_carve;
  if (block == 0 || strideOf(block) < stride) return 0;
  pool.m_carve = cutFront(block, stride);
  return block;
}

void putInTree(MemPool& pool, Block block) noexcept {
  if (block != 0) sqloi_treeInsert(&pool.m_freeTree, block);
}

// A small block is cut from the carve. When that is used up, the smallest free block that fits is cut from next: small
// blocks fill small gaps, and leave large ones for large blocks.
Block takeSmall(MemPool& pool, std::uint32_t stride) noexcept {
  if (const Block block = takeFromCarve(pool, stride); block != 0) return block;
  const Block block = sqloi_treeFind(pool.m_freeTree, stride);
  if (block == 0) return 0;
  sqloi_treeRemove(&pool.m_freeTree, block);
  putInTree(pool, std::exchange(pool.m_carve, cutFront(block, stride)));
  return block;
}

// A large one from what fits best, the carve among it.
Block takeLarge(MemPool& pool, std::uint32_t stride) noexcept {
  const Block block = sqloi_treeFind(pool.m_freeTree, stride);
  const bool carveIsLess = block == 0 || (pool.m_carve != 0 && strideOf(pool.m_carve) < strideOf(block));
  if (carveIsLess)
    if (const Block carved = takeFromCarve(pool, stride); carved != 0) return carved;
  if (block == 0) return 0;
  sqloi_treeRemove(&pool.m_freeTree, block);
  putInTree(pool, cutFront(block, stride));
  return block;
}

}  // namespace

Block sqloi_takeBlock(MemPool& pool, std::uint32_t stride) noexcept {
  if (stride > KEPT_MOST_STRIDE) return takeLarge(pool, stride);
  const Block block = takeKept(pool, stride);
  return block != 0 ? block : takeSmall(pool, stride);
}

void sqloi_cutAndUse(MemPool& pool, Block block, std::uint32_t bytes, std::uint32_t kind, BlockPlace place) noexcept {
  const bool isGuarded = pool.isDebugged() && kind == BLOCK_USED;
  const std::uint32_t guarded = isGuarded ? BLOCK_GUARDED : 0;
  const std::uint32_t stride = strideOf(block);
  const std::uint32_t slack = stride != strideOf(guarded, bytes) ? BLOCK_SLACK : 0;
  unpoison(block, bytes);
  setPlace(block, place, ++pool.m_sequence);
  setLink(block, 0);
  if (isGuarded) sqloi_writeGuard(block, bytes, stride);
  setState(block, kind | guarded | slack, bytes);
}

// ---- putting back ----------------------------------------------------------------------------------------------

namespace {

void takeFree(MemPool& pool, Block block) noexcept {
  if (block == pool.m_carve)
    pool.m_carve = 0;
  else
    sqloi_treeRemove(&pool.m_freeTree, block);
}

Block freeNeighbourBelow(const MemPool& pool, Block block) noexcept {
  const Block carve = pool.m_carve;
  if (carve != 0 && carve < block && carve + strideOf(carve) == block) return carve;
  const Block below = sqloi_treeBelow(pool.m_freeTree, block);
  return below != 0 && below + strideOf(below) == block ? below : 0;
}

}  // namespace

void sqloi_joinBlock(MemPool& pool, Block block, PoolOperation& operation) noexcept {
  SqloMemSubgroup* const subgroup = subgroupOf(block, readHeader(block).chunk);
  std::uint32_t stride = strideOf(block);
  const Block above = block + stride;
  if (above != endBlock(subgroup) && kindOf(codeOf(above)) == BLOCK_FREE) {
    stride += strideOf(above);
    takeFree(pool, above);
  }
  const Block below = freeNeighbourBelow(pool, block);
  if (below != 0) {
    stride += strideOf(below);
    takeFree(pool, below);
    block = below;
  }
  setState(block, BLOCK_FREE, stride - SQLO_BLOCK_HEADER_BYTES);
  poison(block, stride);
  if (stride == strideOfAll(subgroup))
    sqloi_retireSubgroup(pool, subgroup, operation);
  else
    sqloi_treeInsert(&pool.m_freeTree, block);
}

void sqloi_putBlock(MemPool& pool, Block block, PoolOperation& operation) noexcept {
  const std::uint32_t stride = strideOf(block);
  if (stride > KEPT_MOST_STRIDE) return sqloi_joinBlock(pool, block, operation);
  poison(block, stride);
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  setLink(block, head);
  head = shortOf(block);
  sqloi_add(pool.m_keptBytes, stride);
  if (sqloi_keepsTooMuch(pool)) sqloi_joinKept(pool, operation);
}

void sqloi_keepChain(MemPool& pool, std::uint32_t first, Block last, std::uint32_t count, std::uint32_t stride,
                     PoolOperation& operation) noexcept {
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  setLink(last, head);
  head = first;
  sqloi_add(pool.m_keptBytes, std::int64_t{count} * stride);
  sqloi_noteUsed(pool, -std::int64_t{count} * stride, -static_cast<std::int32_t>(count));
  if (sqloi_keepsTooMuch(pool)) sqloi_joinKept(pool, operation);
}

KeptChain sqloi_takeChain(MemPool& pool, std::uint32_t stride, std::uint32_t most) noexcept {
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  KeptChain chain = {head, 0, 0};
  while (head != 0 && chain.count < most) {
    chain.last = fullAddress(pool, head);
    head = linkOf(chain.last);
    ++chain.count;
  }
  sqloi_add(pool.m_keptBytes, -std::int64_t{chain.count} * stride);
  sqloi_noteUsed(pool, std::int64_t{chain.count} * stride, static_cast<std::int32_t>(chain.count));
  return chain;
}

void sqloi_joinKept(MemPool& pool, PoolOperation& operation) noexcept {
  for (std::uint32_t& list : pool.m_kept) {
    for (std::uint32_t low = list; low != 0;) {
      const Block block = fullAddress(pool, low);
      low = linkOf(block);
      sqloi_joinBlock(pool, block, operation);
    }
    list = 0;
  }
  sqloi_set(pool.m_keptBytes, 0);
  if (pool.m_carve == 0) return;
  sqloi_treeInsert(&pool.m_freeTree, pool.m_carve);
  pool.m_carve = 0;
}

void sqloi_takeDeferred(MemPool& pool, PoolOperation& operation) noexcept {
  if (pool.m_deferred.load(std::memory_order_relaxed) == 0) [[likely]]
    return;
  for (std::uint32_t low = pool.m_deferred.exchange(0, std::memory_order_acquire); low != 0;) {
    const Block block = fullAddress(pool, low);
    low = linkOf(block);
    sqloi_noteUsed(pool, -std::int64_t{strideOf(block)}, -1);
    sqloi_putBlock(pool, block, operation);
  }
}

}  // namespace vek
