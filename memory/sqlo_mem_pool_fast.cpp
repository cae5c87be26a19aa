#include "memory/sqlo_mem_pool_fast.h"

#include <algorithm>
#include <utility>

#include "diag/base/traced.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "platform/thread.h"
#include "veksys/codes.h"
#include "veksys/latch_types.h"

namespace vek {

thread_local constinit FastThread* t_fast __attribute__((tls_model("initial-exec"))) = &g_nobody;
constinit FastThread g_nobody = {};
constinit FastCache g_noCache = {};

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
  std::atomic<FastThread*> threads;  // read without the latch, too: none ever goes
};
constinit FastRegistry g_registry = {};

class RegistryOperation {
 public:
  RegistryOperation() noexcept {
    (void)g_registry.latch.captureLatch("sqlo_mem_pool_fast", __LINE__);
    if (g_registry.isReady) return;
    g_registry.hasBarrier = ossRegisterBarrier();
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

void setMost(MemPool& pool, std::uint32_t blocks) noexcept {
  __atomic_store_n(&pool.m_fastMost, blocks, __ATOMIC_RELAXED);
}

std::uint32_t mostFor(const MemPool& pool, std::uint32_t stride) noexcept {
  return std::max(1U, std::min(pool.m_fastMost, FAST_BIN_BYTES / stride));
}

// ---- giving back -----------------------------------------------------------------------------------------------

// The block that stands `count` - 1 places behind one.
Block lastOf(Block block, std::uint32_t count) noexcept {
  for (; count > 1; --count) block = windowOf(block) | linkOf(block);
  return block;
}

// Gives the first `count` blocks of a bin back, as they hang together. Needs the pool latch.
void giveBack(FastCache& cache, std::uint32_t list, std::uint32_t count, PoolOperation& operation) noexcept {
  if (count == 0) return;
  FastBin& bin = cache.bins[list];
  const std::uint32_t first = bin.head();
  const Block last = lastOf(cache.window | first, count);
  bin.take(count, linkOf(last));
  sqloi_keepChain(*cache.pool, first, last, count, list * SQLO_BLOCK_ALIGNMENT, operation);
}

void giveBackAll(FastCache& cache, PoolOperation& operation) noexcept {
  for (std::uint32_t list = 0; list < KEPT_LISTS; ++list) giveBack(cache, list, cache.sizeOf(list), operation);
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

void addPool(FastThread& thread, MemPool& pool, FastCache& cache) noexcept {
  std::size_t at = fastHash(&pool);
  while (thread.pools[at] != nullptr && thread.pools[at] != &pool) at = (at + 1) % FAST_ENTRIES;
  if (thread.pools[at] == nullptr) ++thread.poolCount;
  thread.pools[at] = &pool;
  fastSetCache(thread, at, &cache);
  thread.generations[at] = pool.m_fastGeneration;
}

FastCache* cacheIn(const FastThread& thread, const SQLO_MEM_POOL* pool) noexcept {
  for (std::size_t at = fastHash(pool); thread.pools[at] != nullptr; at = (at + 1) % FAST_ENTRIES)
    if (thread.pools[at] == pool) return fastCacheAt(thread, at);
  return nullptr;
}

// Forgets everything but its caches of pools that are still fast: the others have been taken away.
void revise(FastThread& thread) noexcept {
  thread.isStale.exchange(0, std::memory_order_acq_rel);  // first: what changes from here on makes it stale again
  struct Known {
    MemPool* pool;
    FastCache* cache;
  } kept[FAST_ENTRIES];
  std::size_t count = 0;
  for (std::size_t at = 0; at < FAST_ENTRIES; ++at) {
    const Known known = {std::exchange(thread.pools[at], nullptr), fastCacheAt(thread, at)};
    fastSetCache(thread, at, &g_noCache);
    const bool isThere = known.pool != nullptr && known.cache != &g_noCache && isRegistered(known.pool);
    if (isThere && thread.generations[at] == known.pool->m_fastGeneration) kept[count++] = known;
  }
  std::fill(std::begin(thread.chunks), std::end(thread.chunks), FAST_NO_CHUNK);
  thread.poolCount = 0;
  for (std::size_t i = 0; i < count; ++i) addPool(thread, *kept[i].pool, *kept[i].cache);
}

// What a thread that ended has left, or a new one.
FastThread* takeThread() noexcept {
  FastThread* const first = g_registry.threads.load(std::memory_order_relaxed);
  FastThread* thread = first;
  while (thread != nullptr && thread->isTaken) thread = thread->next;
  if (thread != nullptr) return thread;
  thread = static_cast<FastThread*>(ossMapPages(sizeof(FastThread)));
  if (thread == nullptr) return nullptr;
  std::fill(std::begin(thread->caches), std::end(thread->caches), &g_noCache);
  std::fill(std::begin(thread->chunks), std::end(thread->chunks), FAST_NO_CHUNK);
  thread->isStale.store(1, std::memory_order_relaxed);
  thread->next = first;
  g_registry.threads.store(thread, std::memory_order_release);
  return thread;
}

// Gives the calling thread what it knows with, unless it has that. Needs the latch.
FastThread* makeThread() noexcept {
  if (t_fast != &g_nobody) return t_fast;
  if (threadSelf() == nullptr) return nullptr;  // nobody would see to its end
  FastThread* const thread = takeThread();
  if (thread == nullptr) return nullptr;
  thread->isTaken = true;
  t_fast = thread;
  return thread;
}

void setLimits(FastCache& cache) noexcept {
  for (std::uint32_t list = listOf(BLOCK_LEAST_STRIDE); list < KEPT_LISTS; ++list) {
    const std::uint32_t most = mostFor(*cache.pool, list * SQLO_BLOCK_ALIGNMENT);
    cache.most[list] = static_cast<std::uint16_t>(most);
    cache.bins[list].limit(most);
  }
}

// A block of the pool for the cache; null when it has none: it does not grow for that.
FastCache* makeCache(MemPool& pool) noexcept {
  const PoolOperation operation(pool);
  const Block block = sqloi_takeBlock(pool, strideFor(sizeof(FastCache)));
  if (block == 0) return nullptr;
  sqloi_cutAndUse(pool, block, sizeof(FastCache), BLOCK_OWN, {0, 0});
  auto* cache = new (pointerTo(block)) FastCache{};
  cache->pool = &pool;
  cache->window = windowOf(block);
  setLimits(*cache);
  cache->next = pool.m_caches;
  pool.m_caches = cache;
  return cache;
}

// ---- other threads' caches -------------------------------------------------------------------------------------

// From here on a thread that is inside will be out soon, and one that comes in sees that its knowledge is stale.
void stopThreads() noexcept {
  fastForgetKnowledge();
  if (g_registry.hasBarrier) ossBarrier();
}

bool isOutside(const FastThread& thread) noexcept {
  if (&thread == t_fast) return true;
  for (unsigned turn = 0; g_registry.hasBarrier && turn < kWaitTurns; ++turn) {
    if (thread.inside.load(std::memory_order_acquire) == 0) return true;
    ossYield();
  }
  return false;
}

// Calls `visit(cache)` for what each thread keeps of a pool, while that thread keeps out of it; `visit` answers what
// stands in its place from then on.
template <class Visit>
void visitCaches(const MemPool& pool, const Visit& visit) noexcept {
  stopThreads();
  for (FastThread* thread = g_registry.threads; thread != nullptr; thread = thread->next) {
    if (!isOutside(*thread)) continue;
    for (std::size_t at = 0; at < FAST_ENTRIES; ++at) {
      FastCache* const cache = thread->pools[at] == &pool ? fastCacheAt(*thread, at) : &g_noCache;
      if (cache != &g_noCache) fastSetCache(*thread, at, visit(*cache));
    }
  }
}

}  // namespace

std::uint32_t sqloi_fileKey(const char* file) noexcept {
  if (t_fast == &g_nobody) {
    const RegistryOperation operation;
    (void)makeThread();
  }
  if (t_fast == &g_nobody) return regionKeyOfText(file);
  const std::size_t at = fastFileAt(file);
  if (t_fast->files[at] != file) {
    t_fast->fileKeys[at] = regionKeyOfText(file);
    t_fast->files[at] = file;
  }
  return static_cast<std::uint32_t>(t_fast->fileKeys[at]);
}

FastCache* sqloi_fastKnown(const SQLO_MEM_POOL* pool) noexcept {
  return fastKnows(*t_fast) ? cacheIn(*t_fast, pool) : nullptr;
}

void fastForgetKnowledge() noexcept {
  for (FastThread* thread = g_registry.threads.load(std::memory_order_acquire); thread != nullptr;
       thread = thread->next)
    thread->isStale.store(1, std::memory_order_seq_cst);
}

FastCache* sqloi_fastLearn(MemPool& pool) noexcept {
  if (!pool.m_set->isPrivate()) return nullptr;  // another process may destroy it, and nothing here tells of that
  const RegistryOperation operation;
  FastThread* const thread = makeThread();
  if (thread == nullptr) return nullptr;
  if (!fastKnows(*thread) || thread->poolCount > FAST_POOLS) revise(*thread);
  FastCache* cache = cacheIn(*thread, &pool);
  if (cache != nullptr && cache != &g_noCache) return cache;
  const bool isFast = isRegistered(&pool);
  cache = isFast ? makeCache(pool) : nullptr;
  if (isFast && cache == nullptr) return &g_noCache;  // and it is asked for again
  if (cache == nullptr) cache = &g_noCache;
  addPool(*thread, pool, *cache);
  return cache;
}

std::uint32_t sqloi_fastFill(FastCache& cache, std::uint32_t stride) noexcept {
  MemPool& pool = *cache.pool;
  FastBin& bin = cache.bins[listOf(stride)];
  const std::uint32_t wanted = std::min(std::max(cache.most[listOf(stride)] / 2U, 1U), kFillMost);
  PoolOperation operation(pool);
  sqloi_takeDeferred(pool, operation);
  const KeptChain chain = sqloi_takeChain(pool, stride, wanted);
  if (chain.count != 0) {
    setLink(chain.last, bin.head());
    bin.add(chain.count, chain.first);
  }
  for (std::uint32_t taken = chain.count; taken < wanted; ++taken) {
    const Block block = sqloi_takeBlock(pool, stride);
    if (block == 0) break;
    const std::uint32_t whole = strideOf(block);
    FastBin& itsBin = cache.bins[std::min(listOf(whole), KEPT_LISTS - 1)];
    if (whole > KEPT_MOST_STRIDE || !itsBin.hasRoom()) {  // with what was left of a free block
      sqloi_putBlock(pool, block, operation);
      break;
    }
    sqloi_noteUsed(pool, whole, 1);
    setLink(block, itsBin.head());
    itsBin.push(shortOf(block));
  }
  return cache.sizeOf(listOf(stride));
}

void sqloi_fastSpill(FastCache& cache, std::uint32_t stride) noexcept {
  PoolOperation operation(*cache.pool);
  giveBack(cache, listOf(stride), (cache.sizeOf(listOf(stride)) + 1) / 2, operation);
}

void sqloi_fastTakeBack(MemPool& pool) noexcept {
  MemPool& base = pool.base();
  if (!sqloi_isFast(base)) return;
  const RegistryOperation registry;
  visitCaches(base, [&](FastCache& cache) {
    PoolOperation operation(base);
    giveBackAll(cache, operation);
    return &cache;
  });
}

void sqloi_fastForget(MemPool& pool) noexcept {
  if (!sqloi_isFast(pool)) return;
  const RegistryOperation registry;
  MemPool** const place = placeOf(&pool);
  if (place != std::end(g_registry.pools)) *place = nullptr;
  setMost(pool, 0);
  visitCaches(pool, [&](FastCache& cache) {
    PoolOperation operation(pool);
    removeCache(cache, operation);
    return &g_noCache;
  });
}

FastKept sqloi_fastKept(const MemPool& pool) noexcept {
  FastKept kept = {};
  for (const FastCache* cache = pool.m_caches; cache != nullptr; cache = cache->next)
    for (std::uint32_t list = 0; list < KEPT_LISTS; ++list) {
      const std::uint32_t count = cache->sizeOf(list);
      kept.blocks += count;
      kept.bytes += count * list * SQLO_BLOCK_ALIGNMENT;
    }
  return kept;
}

void sqloi_fastThreadEnds() noexcept {
  FastThread* const thread = t_fast;
  if (thread == &g_nobody) return;
  const RegistryOperation registry;
  revise(*thread);
  for (std::size_t at = 0; at < FAST_ENTRIES; ++at) {
    FastCache* const cache = fastCacheAt(*thread, at);
    if (cache == &g_noCache) continue;
    PoolOperation operation(*cache->pool);
    removeCache(*cache, operation);
    fastSetCache(*thread, at, &g_noCache);
  }
  thread->isStale.store(1, std::memory_order_relaxed);
  thread->isTaken = false;
  t_fast = &g_nobody;
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
  vek::VekTrace<vek::FID_sqloUpdateMaxFastMemoryBlocks> trace;
  trace.data(10, static_cast<const void*>(handle), blocks);
  vek::MemPool* const pool = vek::sqloi_poolOf(handle);
  if (pool == nullptr) return trace.exit(SQLO_INV_MEM);
  if (blocks == 0 || blocks > vek::FAST_MOST_HIGHEST) return trace.exit(SQLO_INV_PARM);
  const vek::RegistryOperation registry;
  if (!vek::isRegistered(pool)) return trace.exit(SQLO_NOTAVAIL);
  vek::setMost(*pool, blocks);
  vek::visitCaches(*pool, [&](vek::FastCache& cache) {
    vek::PoolOperation operation(*pool);
    vek::giveBackAll(cache, operation);
    vek::setLimits(cache);
    return &cache;
  });
  return trace.exit(0);
}
