#include "memory/sqlo_mem_pool_fast.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "diag/base/traced.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "platform/thread.h"
#include "veksys/codes.h"
#include "veksys/latch_types.h"

namespace vek {

thread_local constinit FastThread* t_fast __attribute__((tls_model("initial-exec"))) = nullptr;
constinit std::atomic<std::uint64_t> g_fastEpoch{1};

namespace {

constexpr std::uint32_t kFillMost = 32;
constexpr unsigned kWaitTurns = 20'000;  // for a thread that is inside; one that is stopped there keeps its blocks

// Pools whose blocks threads keep, and the threads. All of it under the latch, which is taken before pool latches.
struct FastRegistry {
  SqloSpinLatch latch;
  bool isReady;
  bool hasBarrier;
  std::uint32_t generations;
  MemPool* pools[FAST_POOLS];
  FastThread* threads;
};
constinit FastRegistry g_registry = {};

class RegistryOperation {
 public:
  RegistryOperation() noexcept {
    (void)g_registry.latch.captureLatch("sqlo_mem_pool_fast", __LINE__);
    if (g_registry.isReady) return;
    g_registry.hasBarrier = ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    g_registry.isReady = true;
  }
  ~RegistryOperation() { g_registry.latch.releaseLatch(); }
  RegistryOperation(const RegistryOperation&) = delete;
  RegistryOperation& operator=(const RegistryOperation&) = delete;
};

MemPool** placeOf(const MemPool* pool) noexcept {
  return std::find(std::begin(g_registry.pools), std::end(g_registry.pools), pool);
}
bool isRegistered(const MemPool* pool) noexcept { return placeOf(pool) != std::end(g_registry.pools); }

Block fullAddress(const FastCache& cache, std::uint32_t low) noexcept { return windowOf(blockOf(&cache)) | low; }

void setMost(MemPool& pool, std::uint32_t blocks) noexcept {
  __atomic_store_n(&pool.m_fastMost, blocks, __ATOMIC_RELAXED);
}

std::uint32_t mostFor(const MemPool& pool, std::uint32_t stride) noexcept {
  return std::max(1U, std::min(pool.m_fastMost, FAST_BIN_BYTES / stride));
}

// ---- giving back -----------------------------------------------------------------------------------------------

// Gives the first `count` blocks of a bin back. Needs the pool latch.
void giveBack(FastCache& cache, FastBin& bin, std::uint32_t count, PoolOperation& operation) noexcept {
  for (; count != 0; --count) {
    const Block block = fullAddress(cache, FastBin::headOf(bin.word()));
    bin.set(FastBin::popped(bin.word(), linkOf(block)));
    sqloi_noteUsed(*cache.pool, -std::int64_t{strideOf(block)}, -1);
    sqloi_putBlock(*cache.pool, block, operation);
  }
}

void giveBackAll(FastCache& cache, PoolOperation& operation) noexcept {
  for (FastBin& bin : cache.bins) giveBack(cache, bin, bin.size(), operation);
}

// The cache itself goes, too. Needs the pool latch.
void removeCache(FastCache& cache, PoolOperation& operation) noexcept {
  MemPool& pool = *cache.pool;
  giveBackAll(cache, operation);
  FastCache** at = &pool.m_caches;
  while (*at != &cache) at = &(*at)->next;
  *at = cache.next;
  const Block block = blockOf(&cache);
  setState(block, BLOCK_KEPT, strideOf(block) - SQLO_BLOCK_HEADER_BYTES);
  sqloi_putBlock(pool, block, operation);
}

// ---- a thread's table ------------------------------------------------------------------------------------------

FastThread::Entry* addEntry(FastThread& thread, FastThread::Entry entry) noexcept {
  std::uint32_t at = fastHash(entry.pool);
  while (thread.entries[at].pool != nullptr) at = (at + 1) % FAST_ENTRIES;
  thread.entries[at] = entry;
  ++thread.entryCount;
  return &thread.entries[at];
}

// Forgets everything but its caches of pools that are still fast: the others have been taken away.
void revise(FastThread& thread) noexcept {
  FastThread::Entry old[FAST_ENTRIES];
  std::copy(std::begin(thread.entries), std::end(thread.entries), old);
  std::fill(std::begin(thread.entries), std::end(thread.entries), FastThread::Entry{});
  std::fill(std::begin(thread.chunks), std::end(thread.chunks), FastThread::Chunk{});
  thread.entryCount = 0;
  thread.epoch = g_fastEpoch.load(std::memory_order_acquire);
  for (const FastThread::Entry& entry : old)
    if (entry.cache != nullptr && isRegistered(entry.pool) && entry.generation == entry.pool->m_fastGeneration)
      (void)addEntry(thread, entry);
}

FastThread* makeThread() noexcept {
  if (threadSelf() == nullptr) return nullptr;  // nobody would see to its end
  auto* thread = static_cast<FastThread*>(ossMapPages(sizeof(FastThread)));
  if (thread == nullptr) return nullptr;
  thread->next = g_registry.threads;
  if (thread->next != nullptr) thread->next->previous = thread;
  g_registry.threads = thread;
  return thread;
}

void setLimits(FastCache& cache) noexcept {
  for (std::uint32_t list = listOf(BLOCK_LEAST_STRIDE); list < KEPT_LISTS; ++list)
    cache.bins[list].limit(mostFor(*cache.pool, list * SQLO_BLOCK_ALIGNMENT));
}

// A block of the pool for the cache; null when it has none: it does not grow for that.
FastCache* makeCache(MemPool& pool) noexcept {
  const PoolOperation operation(pool);
  const Block block = sqloi_takeBlock(pool, strideFor(sizeof(FastCache)));
  if (block == 0) return nullptr;
  sqloi_cutAndUse(pool, block, sizeof(FastCache), BLOCK_OWN, {0, 0});
  auto* cache = new (pointerTo(block)) FastCache{};
  cache->pool = &pool;
  setLimits(*cache);
  cache->next = pool.m_caches;
  pool.m_caches = cache;
  return cache;
}

// ---- other threads' caches -------------------------------------------------------------------------------------

// From here on a thread that is inside knew the old epoch, and will be out soon; one that comes in sees the new one.
void raiseEpoch() noexcept {
  g_fastEpoch.fetch_add(1, std::memory_order_seq_cst);
  if (g_registry.hasBarrier) (void)::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

bool isOutside(const FastThread& thread) noexcept {
  if (&thread == t_fast) return true;
  for (unsigned turn = 0; g_registry.hasBarrier && turn < kWaitTurns; ++turn) {
    if (thread.inside.load(std::memory_order_acquire) == 0) return true;
    ossYield();
  }
  return false;
}

// Calls `visit(entry)` for what each thread keeps of a pool, while that thread keeps out of it.
template <class Visit>
void visitCaches(const MemPool& pool, const Visit& visit) noexcept {
  raiseEpoch();
  for (FastThread* thread = g_registry.threads; thread != nullptr; thread = thread->next) {
    if (!isOutside(*thread)) continue;
    for (FastThread::Entry& entry : thread->entries)
      if (entry.pool == &pool && entry.cache != nullptr) visit(entry);
  }
}

}  // namespace

std::uint32_t sqloi_fileKey(const char* file) noexcept {
  if (t_fast == nullptr) {
    const RegistryOperation operation;
    t_fast = makeThread();
  }
  if (t_fast == nullptr) return regionKeyOfText(file);
  FastThread::File& known = fastFileOf(*t_fast, file);
  if (known.file != file) known = {file, regionKeyOfText(file)};
  return known.key;
}

bool sqloi_isFast(const MemPool& pool) noexcept { return __atomic_load_n(&pool.m_fastMost, __ATOMIC_RELAXED) != 0; }

FastThread::Entry* sqloi_fastLearn(MemPool& pool) noexcept {
  if (!pool.m_set->isPrivate()) return nullptr;  // another process may destroy it, and no epoch here tells of that
  const RegistryOperation operation;
  if (t_fast == nullptr) t_fast = makeThread();
  FastThread* const thread = t_fast;
  if (thread == nullptr) return nullptr;
  if (thread->epoch != g_fastEpoch.load(std::memory_order_acquire) || thread->entryCount > FAST_POOLS) revise(*thread);
  const bool isFast = isRegistered(&pool);
  FastThread::Entry* const entry = fastEntryOf(*thread, &pool);
  if (entry != nullptr && (!isFast || entry->cache != nullptr)) return entry;
  FastCache* const cache = isFast ? makeCache(pool) : nullptr;
  if (isFast && cache == nullptr) return nullptr;
  if (entry == nullptr) return addEntry(*thread, {&pool, cache, pool.m_fastGeneration});
  entry->cache = cache;
  entry->generation = pool.m_fastGeneration;
  return entry;
}

std::uint32_t sqloi_fastFill(FastCache& cache, std::uint32_t stride) noexcept {
  MemPool& pool = *cache.pool;
  FastBin& bin = cache.bins[listOf(stride)];
  const std::uint32_t wanted = std::min(std::max(bin.most() / 2, 1U), kFillMost);
  PoolOperation operation(pool);
  sqloi_takeDeferred(pool, operation);
  for (std::uint32_t taken = 0; taken < wanted; ++taken) {
    const Block block = sqloi_takeBlock(pool, stride);
    if (block == 0) break;
    const std::uint32_t whole = strideOf(block);
    FastBin& itsBin = cache.bins[std::min(listOf(whole), KEPT_LISTS - 1)];
    if (whole > KEPT_MOST_STRIDE || !FastBin::hasRoom(itsBin.word())) {  // with what was left of a free block
      sqloi_putBlock(pool, block, operation);
      break;
    }
    sqloi_noteUsed(pool, whole, 1);
    setLink(block, FastBin::headOf(itsBin.word()));
    itsBin.set(FastBin::pushed(itsBin.word(), shortOf(block)));
  }
  return bin.size();
}

void sqloi_fastSpill(FastCache& cache, std::uint32_t stride) noexcept {
  FastBin& bin = cache.bins[listOf(stride)];
  PoolOperation operation(*cache.pool);
  giveBack(cache, bin, (bin.size() + 1) / 2, operation);
}

void sqloi_fastTakeBack(MemPool& pool) noexcept {
  MemPool& base = pool.base();
  if (!sqloi_isFast(base)) return;
  const RegistryOperation registry;
  visitCaches(base, [&](const FastThread::Entry& entry) {
    PoolOperation operation(base);
    giveBackAll(*entry.cache, operation);
  });
}

void sqloi_fastForget(MemPool& pool) noexcept {
  if (!sqloi_isFast(pool)) return;
  const RegistryOperation registry;
  MemPool** const place = placeOf(&pool);
  if (place != std::end(g_registry.pools)) *place = nullptr;
  setMost(pool, 0);
  visitCaches(pool, [&](FastThread::Entry& entry) {
    PoolOperation operation(pool);
    removeCache(*entry.cache, operation);
    entry.cache = nullptr;
  });
}

FastKept sqloi_fastKept(const MemPool& pool) noexcept {
  FastKept kept = {};
  for (const FastCache* cache = pool.m_caches; cache != nullptr; cache = cache->next)
    for (std::uint32_t list = 0; list < KEPT_LISTS; ++list) {
      const std::uint32_t count = cache->bins[list].size();
      kept.blocks += count;
      kept.bytes += count * list * SQLO_BLOCK_ALIGNMENT;
    }
  return kept;
}

void sqloi_fastThreadEnds() noexcept {
  FastThread* const thread = t_fast;
  if (thread == nullptr) return;
  {
    const RegistryOperation registry;
    revise(*thread);
    for (const FastThread::Entry& entry : thread->entries) {
      if (entry.cache == nullptr) continue;
      PoolOperation operation(*entry.pool);
      removeCache(*entry.cache, operation);
    }
    if (thread->next != nullptr) thread->next->previous = thread->previous;
    (thread->previous != nullptr ? thread->previous->next : g_registry.threads) = thread->next;
    t_fast = nullptr;
  }
  ossUnmapPages(thread, sizeof(FastThread));
}

}  // namespace vek

SqlzZrc sqloEnableFastMemoryBlocks(SQLO_MEM_POOL* handle, bool on) noexcept {
  vek::VekTrace<vek::FID_sqloEnableFastMemoryBlocks> trace;
  trace.data(10, static_cast<const void*>(handle), on);
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  if (!on) {
    vek::sqloi_fastForget(*pool);
    return trace.exit(0);
  }
  const bool mayBe = pool->m_base == pool && pool->m_isPlain && pool->m_set->isPrivate();
  if (!mayBe) return trace.exit(SQLO_NOTAVAIL);
  const vek::RegistryOperation registry;
  if (vek::isRegistered(pool)) return trace.exit(0);
  vek::MemPool** const place = vek::placeOf(nullptr);
  if (place == std::end(vek::g_registry.pools)) return trace.exit(SQLO_NOTAVAIL);
  *place = pool;
  pool->m_fastGeneration = ++vek::g_registry.generations;
  vek::fastForgetKnowledge();
  vek::setMost(*pool, vek::FAST_MOST_DEFAULT);
  return trace.exit(0);
}

SqlzZrc sqloUpdateMaxFastMemoryBlocks(SQLO_MEM_POOL* handle, std::uint32_t blocks) noexcept {
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (pool == nullptr) return SQLO_INV_MEM;
  if (blocks == 0 || blocks > vek::FAST_MOST_HIGHEST) return SQLO_INV_PARM;
  const vek::RegistryOperation registry;
  if (!vek::isRegistered(pool)) return SQLO_NOTAVAIL;
  vek::setMost(*pool, blocks);
  vek::visitCaches(*pool, [&](const vek::FastThread::Entry& entry) {
    vek::PoolOperation operation(*pool);
    vek::giveBackAll(*entry.cache, operation);
    vek::setLimits(*entry.cache);
  });
  return 0;
}
