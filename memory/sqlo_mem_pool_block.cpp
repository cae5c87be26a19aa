// Memory pools: allocating and freeing, as they are exported.
#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "memory/sqlo_mem_set_directory.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"

namespace vek {

bool sqloi_isCommitted(std::uint64_t address, std::uint32_t bytes) noexcept {
  const auto* set = pointerAs<const SMemSet>(windowOf(address));
  if (windowOf(address + bytes - 1) != windowOf(address) || shortOf(address) < SQLO_CHUNK_BYTES || !sqloi_isSet(set))
      [[unlikely]]
    return false;
  const auto chunkAt = [](std::uint64_t at) { return (shortOf(at) >> SQLO_CHUNK_SHIFT) - 1; };
  return set->m_committed.has(chunkAt(address)) && set->m_committed.has(chunkAt(address + bytes - 1));
}

MemPool* sqloi_poolOf(SQLO_MEM_POOL* handle) noexcept {
  const std::uint64_t address = blockOf(handle);
  if (handle == nullptr || address % SQLO_BLOCK_ALIGNMENT != 0 || !sqloi_isCommitted(address, sizeof(MemPool)))
    return nullptr;
  auto* pool = static_cast<MemPool*>(handle);
  const bool isPool = pool->m_eyeCatcher == SQLO_POOL_EYE_CATCHER || pool->m_eyeCatcher == SQLO_POOL_RAW_EYE_CATCHER;
  return isPool && blockOf(pool->m_set) == windowOf(address) ? pool : nullptr;
}

namespace {

// ---- from a block to its pool ----------------------------------------------------------------------------------

constexpr std::size_t kMostBytes = std::size_t{SQLO_SET_CHUNKS_MOST - 1} << SQLO_CHUNK_SHIFT;

enum class BlockFault { kNone, kNotABlock, kNoPool };

// The header of what may be a block, and the handle its chunk names.
BlockFault lookUp(const void* pointer, BlockHeader* header, SQLO_MEM_POOL** pool) noexcept {
  const Block block = blockOf(pointer);
  if (block % SQLO_BLOCK_ALIGNMENT != 0 || !sqloi_isCommitted(block - SQLO_BLOCK_HEADER_BYTES, SQLO_BLOCK_HEADER_BYTES))
    return BlockFault::kNotABlock;
  *header = readHeader(block);
  const std::uint32_t page = header->chunk & ~CHUNK_REFERENCE_MASK;
  if (!isBlockKind(kindOf(header->code)) || (header->chunk & CHUNK_REFERENCE_MASK) != CHUNK_REFERENCE_MARKER ||
      page == 0)
    return BlockFault::kNotABlock;
  const SqloMemSubgroup* subgroup = subgroupOf(block, header->chunk);
  if (!sqloi_isCommitted(blockOf(subgroup), sizeof *subgroup)) return BlockFault::kNotABlock;
  *pool = subgroup->pool;
  return *pool == nullptr || sqloi_poolOf(*pool) != nullptr ? BlockFault::kNone : BlockFault::kNoPool;
}

const char* nameOfFile(std::uint32_t key) noexcept {
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  const char* name = names == nullptr ? nullptr : regionFindName(*names, key);
  return name == nullptr ? "?" : name;
}

constexpr const char* named(const char* file) noexcept { return file == nullptr ? "" : file; }

// ---- complaints ------------------------------------------------------------------------------------------------

SqlzZrc complainOfBlock(std::uint32_t probe, const char* text, const void* block, const char* file,
                        std::uint32_t line) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, FID_sqloMemPoolFree, SQLO_INV_MEM, probe, PD_LEVEL_ERROR);
  call.message = text;
  (void)pdLogCallValues(call, block, file, line);
  return SQLO_INV_MEM;
}

SqlzZrc complainOfHeader(std::uint32_t probe, const char* text, const void* block, const BlockHeader& header,
                         const char* file, std::uint32_t line) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, FID_sqloMemPoolFree, SQLO_INV_MEM, probe, PD_LEVEL_ERROR);
  call.message = text;
  std::uint32_t itsLine = header.line;
  const char* itsFile = (header.code & BLOCK_NAMED) != 0 ? namedFileOf(header, &itsLine) : nameOfFile(header.file);
  (void)pdLogCallValues(call, block, file, line, named(itsFile), itsLine, header.size);
  return SQLO_INV_MEM;
}

// ---- allocating ------------------------------------------------------------------------------------------------

// Everything that the pool may still have kept somewhere is joined, and chunks without a block go back to the set,
// where they may be a part of a longer run.
void gatherKept(MemPool& pool) noexcept {
  sqloi_fastTakeBack(pool);
  PoolOperation operation(pool);
  sqloi_visitPools(pool.base(), [&](MemPool& each) {
    sqloi_takeDeferred(each, operation);
    sqloi_joinKept(each, operation);
  });
  sqloi_releaseCached(pool.base(), pool.base().m_cachedChunkCount, operation);
}

bool isWorthJoining(const MemPool& pool, std::uint32_t stride) noexcept {
  return pool.m_keptBytes >= std::max(stride, SQLO_CHUNK_BYTES);
}

// One attempt with what the pool has.
Block takeAndUse(MemPool& pool, std::uint32_t stride, std::uint32_t bytes, BlockPlace place) noexcept {
  PoolOperation operation(pool);
  sqloi_takeDeferred(pool, operation);
  Block block = sqloi_takeBlock(pool, stride);
  if (block == 0 && isWorthJoining(pool, stride)) {
    sqloi_joinKept(pool, operation);
    block = sqloi_takeBlock(pool, stride);
  }
  if (block == 0) return 0;
  sqloi_noteUsed(pool, strideOf(block), 1);
  sqloi_cutAndUse(pool, block, bytes, BLOCK_USED, place);
  return block;
}

// Of a raw pool: as many bytes as its chunks hold, and so the walk over its subgroup finds its end.
std::uint32_t fillingChunks(std::uint32_t bytes, std::uint32_t overhead) noexcept {
  const std::uint32_t chunks = chunksFor(strideFor(std::uint64_t{bytes} + overhead));
  return (chunks << SQLO_CHUNK_SHIFT) - BLOCK_FIRST_OFFSET + SQLO_BLOCK_ALIGNMENT - SQLO_BLOCK_HEADER_BYTES - overhead;
}

SqlzZrc allocateLatched(MemPool& pool, std::uint32_t bytes, BlockPlace place, Block* out) noexcept {
  const std::uint32_t overhead = pool.debugOverhead();
  if (pool.isRaw()) bytes = fillingChunks(bytes, overhead);
  const std::uint32_t stride = strideFor(std::uint64_t{bytes} + overhead);
  bool hasGathered = false;
  for (;;) {
    *out = takeAndUse(pool, stride, bytes, place);
    if (*out != 0) return 0;
    if (sqloi_growPool(pool, stride) == 0) continue;
    if (hasGathered) break;
    gatherKept(pool);
    hasGathered = true;
  }
  sqloi_noteRefusal(pool);
  return SQLO_NOMEM;
}

// Requests whose blocks are kept.
constexpr std::uint32_t kSmallMost = KEPT_MOST_STRIDE - SQLO_BLOCK_HEADER_BYTES;
constexpr bool isSmall(std::size_t bytes) noexcept { return bytes - 1 < kSmallMost; }

// A block of a bin that has one.
[[gnu::always_inline]] inline Block takeFast(const FastCache& cache, FastBin& bin, std::uint32_t bytes,
                                             BlockPlace place) noexcept {
  const Block block = cache.window | bin.head();
  const std::uint32_t sequence = bin.pop(linkAlone(block));
  unpoison(block, bytes);
  setUsedAlone(block, bytes, place, sequence);
  return block;
}

// From what the thread keeps, filled first when there is nothing; 0: it keeps nothing of the pool, or the pool has
// nothing of that size at hand.
Block fillAndTake(FastCache* cache, std::uint32_t bytes, BlockPlace place) noexcept {
  if (cache == nullptr || cache == &g_noCache || !isSmall(bytes)) return 0;
  const FastInside inside(*t_fast);
  if (!inside.knows()) return 0;
  FastBin& bin = cache->bins[listOf(strideFor(bytes))];
  if (bin.head() == 0 && sqloi_fastFill(*cache, strideFor(bytes)) == 0) return 0;
  return takeFast(*cache, bin, bytes, place);
}

// The pool behind a handle, and the thread's cache of it, as of now at least.
MemPool* know(SQLO_MEM_POOL* handle, FastCache** cache) noexcept {
  *cache = sqloi_fastKnown(handle);
  if (*cache != nullptr) return static_cast<MemPool*>(handle);
  MemPool* const pool = sqloi_poolOf(handle);
  if (pool != nullptr) *cache = sqloi_fastLearn(*pool);
  return pool;
}

// All that there is to it.
[[gnu::noinline]] SqlzZrc allocateOf(SQLO_MEM_POOL* handle, std::size_t bytes, std::uint32_t options, BlockPlace place,
                                     void** out) noexcept {
  if (out == nullptr || (options & ~SQLO_MEM_ZERO) != 0) return SQLO_INV_PARM;
  *out = nullptr;
  if (bytes == 0 || bytes > kMostBytes) return SQLO_MEM_SIZE;
  FastCache* cache = nullptr;
  MemPool* const pool = know(handle, &cache);
  if (pool == nullptr) return SQLO_INV_MEM;
  const auto size = static_cast<std::uint32_t>(bytes);
  Block block = fillAndTake(cache, size, place);
  const SqlzZrc result = block != 0 ? 0 : allocateLatched(*pool, size, place, &block);
  *out = pointerTo(block);
  if ((options & SQLO_MEM_ZERO) != 0 && result == 0) std::memset(*out, 0, bytes);
  return result;
}

// The same, by the name of the file.
[[gnu::noinline]] SqlzZrc allocateAnyway(SQLO_MEM_POOL* handle, std::size_t bytes, std::uint32_t options,
                                         const char* file, std::uint32_t line, void** out) noexcept {
  return allocateOf(handle, bytes, options, {sqloi_fileKey(named(file)), line}, out);
}

// Under the latch, the most frequent case: the pool has kept a block of that size. 0: it has none.
Block takeKeptLatched(MemPool& pool, std::uint32_t bytes, BlockPlace place) noexcept {
  const std::uint32_t stride = strideFor(bytes);
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  (void)pool.base().m_latch.captureLatch(kPoolLatchFile, __LINE__);
  const Block block = head == 0 ? 0 : windowOf(blockOf(&pool)) | head;
  if (block != 0) [[likely]] {
    head = linkOf(block);
    sqloi_add(pool.m_keptBytes, -std::int64_t{stride});
    sqloi_noteUsed(pool, stride, 1);
    unpoison(block, bytes);
    setPlace(block, place, ++pool.m_sequence);
    setState(block, BLOCK_USED, bytes);
  }
  sqloi_tellPoolWhenMoved(pool.base());
  pool.base().m_latch.releaseLatch();
  return block;
}

// A small block of a pool that the thread knows, and has no block of that size of.
[[gnu::noinline]] SqlzZrc allocateKnown(SQLO_MEM_POOL* handle, std::uint32_t bytes, BlockPlace place,
                                        void** out) noexcept {
  auto* const pool = static_cast<MemPool*>(handle);
  const bool isPlain = pool != nullptr && !sqloi_isFast(*pool) && pool->m_isPlain;
  const Block block = isPlain ? takeKeptLatched(*pool, bytes, place) : 0;
  if (block == 0) return allocateOf(handle, bytes, 0, place, out);
  *out = pointerTo(block);
  return 0;
}

// ---- freeing ---------------------------------------------------------------------------------------------------

// Into a bin, when that has room. The size stays that of the request: the stride is the same.
[[gnu::always_inline]] inline bool keepFast(FastBin& bin, Block block, std::uint32_t stride, const char* file,
                                            std::uint32_t line) noexcept {
  return bin.pushWhenRoom(shortOf(block), [&](std::uint32_t next) {
    setKeptAlone(block, next, file, line);
    poison(block, stride);
  });
}

// Another thread has the latch: whoever has it next puts the block where it belongs.
void defer(MemPool& pool, Block block) noexcept {
  std::uint32_t head = pool.m_deferred.load(std::memory_order_relaxed);
  do setLink(block, head);
  while (!pool.m_deferred.compare_exchange_weak(head, shortOf(block), std::memory_order_release,
                                                std::memory_order_relaxed));
}

void freeLatched(MemPool& pool, Block block, std::uint32_t stride) noexcept {
  const auto kept = stride - SQLO_BLOCK_HEADER_BYTES;
  PoolOperation operation(pool, std::try_to_lock);
  setState(block, BLOCK_KEPT, kept);
  if (!operation.holds()) {
    poison(block, stride);
    return defer(pool, block);
  }
  sqloi_noteUsed(pool, -std::int64_t{stride}, -1);
  sqloi_putBlock(pool, block, operation);
  sqloi_takeDeferred(pool, operation);
}

// A block in use, of a pool that is there.
SqlzZrc freeUsed(MemPool& pool, Block block, const BlockHeader& header, BlockPlace place, const char* file) noexcept {
  const std::uint32_t stride = strideOf(header.code, header.size);
  if ((header.code & BLOCK_GUARDED) != 0 && !sqloi_isGuardWhole(block, header.size, stride)) {
    if (pool.isDebugged()) ++pool.m_debug->overruns;
    return complainOfHeader(30, "A block was written beyond its end. Freed here, allocated there:", pointerTo(block),
                            header, file, place.line);
  }
  if (pool.m_set->m_fillsFreed) std::memset(pointerTo(block), kFreedFill, header.size);
  setPlace(block, place, header.sequence);
  freeLatched(pool, block, stride);
  return 0;
}

// Keeps a block of a pool that the thread knows, and learns of its chunk; false: the thread keeps none of that pool.
bool keep(MemPool& pool, Block block, std::uint32_t stride, const char* file, std::uint32_t line,
          FastCache& cache) noexcept {
  const FastInside inside(*t_fast);
  if (!inside.knows()) return false;
  fastLearnChunk(*t_fast, chunkNumber(block), pool, cache);
  if (&cache == &g_noCache || stride > KEPT_MOST_STRIDE) return false;
  FastBin& bin = cache.bins[listOf(stride)];
  if (!bin.hasRoom()) sqloi_fastSpill(cache, stride);
  setState(block, BLOCK_KEPT, stride - SQLO_BLOCK_HEADER_BYTES);  // the flags go, what they said is the size's now
  return keepFast(bin, block, stride, file, line);
}

// All that there is to it.
[[gnu::noinline]] SqlzZrc freeAnyway(void* pointer, const char* file, std::uint32_t line) noexcept {
  if (pointer == nullptr) return 0;
  file = named(file);
  const Block block = blockOf(pointer);
  BlockHeader header;
  SQLO_MEM_POOL* handle = nullptr;
  const bool isBlock = lookUp(pointer, &header, &handle) == BlockFault::kNone && handle != nullptr;
  if (!isBlock || kindOf(header.code) == BLOCK_OWN)
    return complainOfBlock(10, "Freed here, but not a block of a memory pool:", pointer, file, line);
  if (kindOf(header.code) != BLOCK_USED)
    return complainOfHeader(20, "Freed twice: here, and there before:", pointer, header, file, line);
  FastCache* cache = nullptr;
  MemPool* const pool = know(handle, &cache);
  const BlockPlace place = {sqloi_fileKey(file), line};
  const std::uint32_t stride = strideOf(header.code, header.size);
  if (cache != nullptr && (header.code & BLOCK_GUARDED) == 0 && keep(*pool, block, stride, file, line, *cache))
    return 0;
  return freeUsed(*pool, block, header, place, file);
}

// Under the latch, or deferred, the most frequent case: a block that the pool keeps. False: there is more to do.
bool keepLatched(MemPool& pool, Block block, std::uint32_t stride, BlockPlace place) noexcept {
  if (stride > KEPT_MOST_STRIDE || pool.m_deferred.load(std::memory_order_relaxed) != 0 || sqloi_keepsTooMuch(pool))
    return false;
  setPlace(block, place, 0);
  SqloSpinLatch& latch = pool.base().m_latch;
  if (latch.tryCaptureLatch(kPoolLatchFile, __LINE__) != 0) {
    setState(block, BLOCK_KEPT, stride - SQLO_BLOCK_HEADER_BYTES);
    poison(block, stride);
    defer(pool, block);
    return true;
  }
  std::uint32_t& head = pool.m_kept[listOf(stride)];
  setState(block, BLOCK_KEPT, stride - SQLO_BLOCK_HEADER_BYTES);
  setLink(block, head);
  poison(block, stride);
  head = shortOf(block);
  sqloi_add(pool.m_keptBytes, stride);
  sqloi_noteUsed(pool, -std::int64_t{stride}, -1);
  sqloi_tellPoolWhenMoved(pool.base());
  latch.releaseLatch();
  return true;
}

// A chunk of a pool that the thread knows and keeps nothing of.
[[gnu::noinline]] SqlzZrc freeBlock(void* pointer, const char* file, std::uint32_t line) noexcept {
  const Block block = blockOf(pointer);
  const FastThread& thread = *t_fast;
  const std::uint64_t number = chunkNumber(block);
  const std::size_t at = number % FAST_CHUNKS;
  const std::size_t name = fastFileAt(file);
  if (fastKnows(thread) && thread.chunks[at] == number && pointer != nullptr && thread.chunkCaches[at] == &g_noCache &&
      thread.files[name] == file && block % SQLO_BLOCK_ALIGNMENT == 0 && codeOf(block) == BLOCK_USED) [[likely]] {
    MemPool& pool = *thread.chunkPools[at];
    const BlockPlace place = {static_cast<std::uint32_t>(thread.fileKeys[name]), line};
    if (pool.m_isPlain && keepLatched(pool, block, strideFor(sizeOf(block)), place)) return 0;
  }
  return freeAnyway(pointer, file, line);
}

}  // namespace
}  // namespace vek

// The short way: the thread keeps a block of that size of a pool that it knows, and remembers the name of the file.
SqlzZrc sqloMemPoolAllocate(SQLO_MEM_POOL* pool, std::size_t bytes, std::uint32_t options, const char* file,
                            std::uint32_t line, void** block) noexcept {
  if (options != 0 || block == nullptr || !vek::isSmall(bytes)) [[unlikely]]
    return vek::allocateAnyway(pool, bytes, options, file, line, block);
  const auto size = static_cast<std::uint32_t>(bytes);
  vek::BlockPlace place = {0, line};
  bool isKnown = false;
  {
    vek::FastThread& thread = *vek::t_fast;
    const vek::FastInside inside(thread);
    const std::size_t at = vek::fastHash(pool);
    const std::size_t name = vek::fastFileAt(file);
    isKnown = inside.knows() && thread.pools[at] == pool && thread.files[name] == file;
    if (isKnown) [[likely]] {
      place.file = static_cast<std::uint32_t>(thread.fileKeys[name]);
      vek::FastCache& cache = *thread.caches[at];
      vek::FastBin& bin = cache.bin(vek::listOf(vek::strideFor(size)));
      if (bin.head() != 0) [[likely]] {
        *block = vek::pointerTo(vek::takeFast(cache, bin, size, place));
        return 0;
      }
    }
  }
  return isKnown ? vek::allocateKnown(pool, size, place, block)
                 : vek::allocateAnyway(pool, bytes, 0, file, line, block);
}

// The short way: the thread knows the pool of the chunk that the block lies in and keeps blocks of it, this one among
// them.
SqlzZrc sqloMemPoolFree(void* pointer, const char* file, std::uint32_t line) noexcept {
  const vek::Block block = vek::blockOf(pointer);
  // Another thread may have written the header: one transfer of its line instead of two.
  vek::ossPrefetchToWrite(vek::pointerTo(block - SQLO_BLOCK_HEADER_BYTES));
  vek::FastThread& thread = *vek::t_fast;
  if (block % SQLO_BLOCK_ALIGNMENT == 0) [[likely]] {
    const vek::FastInside inside(thread);
    const std::uint64_t number = vek::chunkNumber(block);
    const std::size_t at = number % vek::FAST_CHUNKS;
    if (inside.knows() && thread.chunks[at] == number && vek::codeOf(block) == vek::BLOCK_USED) [[likely]] {
      const std::uint32_t size = vek::sizeAlone(block);
      const std::uint32_t stride = vek::strideFor(size);
      if (size <= vek::kSmallMost) [[likely]] {
        vek::FastBin& bin = thread.chunkCaches[at]->bin(vek::listOf(stride));
        if (vek::keepFast(bin, block, stride, file, line)) [[likely]]
          return 0;
      }
    }
  }
  return vek::freeBlock(pointer, file, line);
}

SqlzZrc sqloMemPoolFreeOf(SQLO_MEM_POOL* pool, void* block, const char* file, std::uint32_t line) noexcept {
  SQLO_MEM_POOL* owner = pool;
  if (sqloGetPoolHandleFromBlkPointer(block, &owner) == 0 && owner != pool)
    return vek::complainOfBlock(40, "Freed here as a block of one memory pool, and belongs to another:", block,
                                vek::named(file), line);
  return sqloMemPoolFree(block, file, line);
}

SqlzZrc sqloGetPoolHandleFromBlkPointer(const void* block, SQLO_MEM_POOL** outPool) noexcept {
  if (block == nullptr || outPool == nullptr) return SQLO_INV_MEM;
  vek::BlockHeader header;
  SQLO_MEM_POOL* pool = nullptr;
  if (vek::lookUp(block, &header, &pool) != vek::BlockFault::kNone) return SQLO_INV_MEM;
  *outPool = pool;
  return 0;
}
