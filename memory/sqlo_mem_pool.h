// The inside of a memory pool.
//
// Free blocks are in one of these places:
//   - the tree: joined with their free neighbours;
//   - the carve: the free block that small ones are cut from, out of the tree meanwhile;
//   - kept: freed blocks of up to 2 KB, in a list per size, not joined, for the next request of their size ("quick
//     fit": C. B. Weinstock, W. A. Wulf, 1988);
//   - deferred: freed by threads that found the latch taken; the next holder of the latch puts them where they belong;
//   - kept by a thread (sqlo_mem_pool_fast.h).
// Chunks without a block in use go back to the set, but for a few that are kept (the chunk cache).
//
// Invariants, whenever nobody holds the latch of the base pool:
//
//   1  the blocks of a subgroup stand without a gap; their references lead to it, and its pool is the pool
//   2  the tree and the carve are the blocks of kind FREE; no two of them are neighbours
//   3  m_currentUsed = strides of blocks that are not FREE and in no list of kept ones, own blocks excepted
//   4  m_currentOwned of a base pool = chunks of all its subgroups, cached ones and those of its sub-pools included
//   5  m_ownChunks = chunks of the pool's own subgroups
//
// Blocks are the truth: after the death of a holder of the latch everything else is made anew from them.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "memory/sqlo_mem_block.h"
#include "memory/sqlo_mem_set.h"
#include "memory/sqlo_mem_tree.h"

// The control of memory debugging of a pool.
struct SqloMemDebugControl {
  std::uint32_t eyeCatcher;
  std::uint32_t overhead;  // bytes added to each block
  std::uint32_t overruns;  // that were found
};

namespace vek {

struct MemPool;
struct FastCache;

inline constexpr std::uint32_t MEM_DEBUG_EYE_CATCHER = 0x474244E5;
inline constexpr std::uint32_t KEPT_MOST_STRIDE = 2048;
inline constexpr std::uint32_t KEPT_LISTS = KEPT_MOST_STRIDE / SQLO_BLOCK_ALIGNMENT + 1;
inline constexpr std::uint32_t KEPT_LEAST_BYTES = 1024 * 1024;      // kept, before all kept blocks are joined
inline constexpr std::uint32_t KEPT_MOST_BYTES = 32 * 1024 * 1024;  // joining these holds the latch for milliseconds
inline constexpr std::uint32_t CACHED_CHUNKS_MOST = 4;
inline constexpr std::uint32_t GROWTH_MOST_CHUNKS = 16;  // that a pool grows by beyond what a request needs
inline constexpr std::uint32_t MEM_POOL_DEPTH = 2;       // of sub-pools below a base pool

constexpr std::uint32_t listOf(std::uint32_t stride) noexcept { return stride / SQLO_BLOCK_ALIGNMENT; }

// A pool with all that its users do not see.
struct MemPool : SQLO_MEM_POOL {
  using SQLO_MEM_POOL::m_base;
  using SQLO_MEM_POOL::m_currentOwned;
  using SQLO_MEM_POOL::m_currentUsed;
  using SQLO_MEM_POOL::m_debug;
  using SQLO_MEM_POOL::m_eyeCatcher;
  using SQLO_MEM_POOL::m_firstSubgroup;
  using SQLO_MEM_POOL::m_freeTree;
  using SQLO_MEM_POOL::m_latch;
  using SQLO_MEM_POOL::m_maximumAllowed;
  using SQLO_MEM_POOL::m_maximumOwned;
  using SQLO_MEM_POOL::m_options;
  using SQLO_MEM_POOL::m_poolId;
  using SQLO_MEM_POOL::m_set;

  MemPool() noexcept = default;

  MemPool* m_next;    // of the set's pools, or of the sub-pools of one pool
  MemPool* m_parent;  // null: a base pool
  MemPool* m_firstSub;
  std::uint32_t m_depth;
  bool m_isPlain;  // latched, neither raw nor debugged: the short ways may be taken
  std::uint32_t m_ownChunks;
  std::uint32_t m_configuredChunks;
  SqloMemSubgroup* m_cachedChunks;  // whole runs without a block
  std::uint32_t m_cachedChunkCount;
  std::uint32_t m_growths;
  std::uint32_t m_refusals;
  std::uint32_t m_blocks;  // in use, or kept by threads
  std::uint32_t m_sequence;
  std::uint32_t m_keptBytes;
  Block m_carve;
  FastCache* m_caches;  // of threads
  std::uint32_t m_fastMost;
  std::uint32_t m_fastGeneration;  // counts pools that became fast
  std::uint32_t m_row;             // of a base pool in the instance's list; 0: none
  std::uint32_t m_usedTold;        // m_currentUsed as it stands there
  std::atomic<std::uint32_t> m_deferred;
  std::uint32_t m_kept[KEPT_LISTS];

  static MemPool* ofLatch(void* latch) noexcept {
    return pointerAs<MemPool>(reinterpret_cast<std::uintptr_t>(latch) - latchOffset());
  }
  const MemPool& base() const noexcept { return static_cast<const MemPool&>(*m_base); }
  MemPool& base() noexcept { return static_cast<MemPool&>(*m_base); }
  bool isRaw() const noexcept { return m_eyeCatcher == SQLO_POOL_RAW_EYE_CATCHER; }
  bool isDebugged() const noexcept {
    const auto control = reinterpret_cast<std::uintptr_t>(m_debug);
    return control != 0 && control != SQLO_POOL_DEBUG_OFF && control != SQLO_POOL_DEBUG_FAILED &&
           m_debug->eyeCatcher == MEM_DEBUG_EYE_CATCHER;
  }
  std::uint32_t debugOverhead() const noexcept { return isDebugged() ? m_debug->overhead : 0; }
};

// Visits a pool and all below it, each after those below it; `visit` may free it.
template <class Visit>
void sqloi_visitPools(MemPool& pool, const Visit& visit) noexcept {
  for (MemPool* sub = pool.m_firstSub; sub != nullptr;) {
    MemPool* const next = sub->m_next;
    sqloi_visitPools(*sub, visit);
    sub = next;
  }
  visit(pool);
}

// A change of a pool: the latch of its base pool for the length of a scope. Chunks that are to go back to the set, and
// what is to be logged, wait until the latch is released.
class PoolOperation {
 public:
  explicit PoolOperation(MemPool& pool, std::uint32_t line = __builtin_LINE()) noexcept;
  // When it can be had at once.
  PoolOperation(MemPool& pool, std::try_to_lock_t /*tag*/, std::uint32_t line = __builtin_LINE()) noexcept;
  ~PoolOperation();
  PoolOperation(const PoolOperation&) = delete;
  PoolOperation& operator=(const PoolOperation&) = delete;

  bool holds() const noexcept { return holds_; }

  // Gives a run of chunks back to the set once the latch is released.
  void giveBack(SqloMemSubgroup* run) noexcept;
  std::uint32_t givenBackChunks() const noexcept { return givenBack_; }

 private:
  MemPool& base_;
  bool holds_ = true;
  ChunkRun* runs_ = nullptr;
  std::uint32_t givenBack_ = 0;
};

inline constexpr char kPoolLatchFile[] = "sqlo_mem_standard_pool";

// Whether it has a latch of its own or that of its base pool.
inline bool isLatched(const MemPool& base) noexcept { return (base.m_options & SQLO_POOL_UNLATCHED) == 0; }

// The pool behind a handle, null when it leads to none. Reads nothing that is not there.
MemPool* sqloi_poolOf(SQLO_MEM_POOL* handle) noexcept;

// Whether so many bytes at an address lie in committed chunks of a set of this process.
bool sqloi_isCommitted(std::uint64_t address, std::uint32_t bytes) noexcept;

// ---- blocks; all need the latch

// A block of that stride, of kind KEPT, its size what fits; 0: the pool must grow.
Block sqloi_takeBlock(MemPool& pool, std::uint32_t stride) noexcept;

// Puts a block of kind KEPT where it belongs.
void sqloi_putBlock(MemPool& pool, Block block, PoolOperation& operation) noexcept;

// Kept blocks of one stride that hang together: they go to the pool, which keeps them, or come from it. Both count
// them.
struct KeptChain {
  std::uint32_t first;
  Block last;
  std::uint32_t count;
};
void sqloi_keepChain(MemPool& pool, std::uint32_t first, Block last, std::uint32_t count, std::uint32_t stride,
                     PoolOperation& operation) noexcept;
KeptChain sqloi_takeChain(MemPool& pool, std::uint32_t stride, std::uint32_t most) noexcept;

// Whether a pool keeps so many freed blocks that they are to be joined: more than are in use. Threads that free what
// others allocate pass about that much through the pool again and again.
inline bool sqloi_keepsTooMuch(const MemPool& pool) noexcept {
  const std::uint32_t kept = __atomic_load_n(&pool.m_keptBytes, __ATOMIC_RELAXED);
  const std::uint32_t used = __atomic_load_n(&pool.m_currentUsed, __ATOMIC_RELAXED);
  return kept > KEPT_LEAST_BYTES + std::min(used, KEPT_MOST_BYTES - KEPT_LEAST_BYTES);
}

// Joins all kept blocks with their neighbours; the carve goes back to the tree.
void sqloi_joinKept(MemPool& pool, PoolOperation& operation) noexcept;

// Puts deferred blocks where they belong.
void sqloi_takeDeferred(MemPool& pool, PoolOperation& operation) noexcept;

// Cuts what a request does not need from a block of kind KEPT, and makes it the request's.
void sqloi_cutAndUse(MemPool& pool, Block block, std::uint32_t bytes, std::uint32_t kind, BlockPlace place) noexcept;

// Joins a block of kind KEPT with its free neighbours.
void sqloi_joinBlock(MemPool& pool, Block block, PoolOperation& operation) noexcept;

// ---- chunks

// Makes a pool larger, for a block of that stride. Without the latch, which is taken meanwhile.
//
//   Result   0: try again; SQLO_NOMEM
SqlzZrc sqloi_growPool(MemPool& pool, std::uint32_t stride) noexcept;

// A run without a block, from the cache or to it. Need the latch.
void sqloi_retireSubgroup(MemPool& pool, SqloMemSubgroup* subgroup, PoolOperation& operation) noexcept;
void sqloi_releaseCached(MemPool& base, std::uint32_t chunks, PoolOperation& operation) noexcept;
bool sqloi_hasCachedRun(const MemPool& base, std::uint32_t chunks) noexcept;  // of at least so many

// Makes a subgroup of chunks, one free block in it; adds it to the pool, and chunks that come from the set have
// arrived. Needs the latch.
SqloMemSubgroup* sqloi_makeSubgroup(MemPool& pool, void* address, std::uint32_t chunks) noexcept;
void sqloi_addSubgroup(MemPool& pool, void* address, std::uint32_t chunks) noexcept;

// Counts a request that could not be met. Without the latch.
void sqloi_noteRefusal(MemPool& pool) noexcept;

// ---- counters; need the latch

// Counters are read without the latch, too: a change is one store.
inline void sqloi_set(std::uint32_t& counter, std::uint32_t value) noexcept {
  __atomic_store_n(&counter, value, __ATOMIC_RELAXED);
}
inline void sqloi_add(std::uint32_t& counter, std::int64_t change) noexcept {
  sqloi_set(counter, counter + static_cast<std::uint32_t>(change));
}

void sqloi_noteOwned(MemPool& base, std::int64_t chunks) noexcept;
inline void sqloi_noteUsed(MemPool& pool, std::int64_t bytes, std::int32_t blocks) noexcept {
  sqloi_add(pool.m_currentUsed, bytes);
  pool.m_blocks += static_cast<std::uint32_t>(blocks);
  if (pool.m_base != &pool) sqloi_add(pool.base().m_currentUsed, bytes);
}
bool sqloi_allowsGrowth(MemPool& base) noexcept;

// ---- after a death, and for tests

// Takes a base pool out of the list of its set; no matter when it is not there. Needs the set latch.
void sqloi_unlinkPool(SMemSet& set, const MemPool& pool) noexcept;

// Ends the way of the run that a new base pool stands in. Needs the set latch.
void sqloi_poolArrived(SMemSet& set, MemPool& pool) noexcept;

// Makes everything anew from the blocks. Needs the latch.
void sqloi_repairPool(MemPool& base) noexcept;

// What is wrong with a pool, as text; null when all invariants hold. Needs the latch.
const char* sqloi_checkPool(MemPool& pool) noexcept;

// Logs blocks in use by file and line. Needs nobody else to use the pool. Answers how many there are.
std::uint32_t sqloi_reportLeaks(MemPool& pool) noexcept;

// ---- debugging

// Gives a new pool the control of memory debugging, when that is asked for; takes it away.
void sqloi_startDebugging(MemPool& pool) noexcept;
void sqloi_endDebugging(MemPool& pool) noexcept;
void sqloi_writeGuard(Block block, std::uint32_t size, std::uint32_t stride) noexcept;
bool sqloi_isGuardWhole(Block block, std::uint32_t size, std::uint32_t stride) noexcept;

inline constexpr int kFreedFill = 0xDD;

}  // namespace vek
