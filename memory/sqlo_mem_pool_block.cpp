// Memory pools: allocating and freeing, as they are exported.
#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_set_directory.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"

namespace vek {

bool sqloi_isCommitted(std::uint64_t address, std::uint32_t bytes) noexcept {
  const auto* set = std::bit_cast<const SMemSet*>(windowOf(address));
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
  (void)pdLogCallValues(call, block, file, line, nameOfFile(header.file), std::uint32_t{header.line}, header.size);
  return SQLO_INV_MEM;
}

// ---- allocating ------------------------------------------------------------------------------------------------

// Everything that the pool may still have kept somewhere.
void gatherKept(MemPool& pool) noexcept {
  sqloi_fastTakeBack(pool);
  PoolOperation operation(pool);
  sqloi_visitPools(pool.base(), [&](MemPool& each) {
    sqloi_takeDeferred(each, operation);
    sqloi_joinKept(each, operation);
  });
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

SqlzZrc allocateLatched(MemPool& pool, std::uint32_t bytes, BlockPlace place, Block* out) noexcept {
  const std::uint32_t exact = strideFor(std::uint64_t{bytes} + pool.debugOverhead());
  const std::uint32_t stride =
      pool.isRaw() ? (chunksFor(exact) << SQLO_CHUNK_SHIFT) - BLOCK_FIRST_OFFSET + SQLO_BLOCK_ALIGNMENT : exact;
  bool hasGathered = false;
  for (;;) {
    *out = takeAndUse(pool, stride, bytes, place);
    if (*out != 0) return 0;
    if (sqloi_growPool(pool, stride) == 0) continue;
    if (hasGathered) return SQLO_NOMEM;
    gatherKept(pool);
    hasGathered = true;
  }
}

// From what the thread keeps; 0 when it keeps nothing of that size and the pool has none at hand.
[[gnu::always_inline]] inline Block takeFast(FastThread& thread, FastCache& cache, std::uint32_t bytes,
                                             const char* file, std::uint32_t line) noexcept {
  const std::uint32_t stride = strideFor(bytes);
  FastBin& bin = cache.bins[listOf(stride)];
  if (bin.head == 0 && sqloi_fastFill(cache, stride) == 0) [[unlikely]]
    return 0;
  const Block block = windowOf(blockOf(&cache)) | bin.head;
  bin.head = linkOf(block);
  bin.resize(bin.size() - 1U);
  unpoison(block, bytes);
  setPlace(block, {fastFileKey(thread, file), line}, ++thread.sequence);
  setState(block, BLOCK_USED, bytes);
  return block;
}

constexpr bool isSmall(std::size_t bytes) noexcept { return bytes - 1 < KEPT_MOST_STRIDE - SQLO_BLOCK_HEADER_BYTES; }

// A pool of which the thread knows nothing: everything is looked at, and learned.
[[gnu::noinline]] SqlzZrc allocateUnknown(SQLO_MEM_POOL* handle, std::uint32_t bytes, const char* file,
                                          std::uint32_t line, Block* block) noexcept {
  MemPool* const pool = sqloi_poolOf(handle);
  if (pool == nullptr) return SQLO_INV_MEM;
  FastThread::Entry* const entry = sqloi_fastLearn(*pool);
  if (entry != nullptr && entry->cache != nullptr && isSmall(bytes)) {
    const FastInside inside(*t_fast);
    *block = inside.knows() ? takeFast(*t_fast, *entry->cache, bytes, file, line) : 0;
    if (*block != 0) return 0;
  }
  return allocateLatched(*pool, bytes, {sqloi_fileKey(file), line}, block);
}

// The short way: the thread knows the pool.
[[gnu::always_inline]] inline SqlzZrc allocate(SQLO_MEM_POOL* handle, std::size_t bytes, const char* file,
                                               std::uint32_t line, Block* block) noexcept {
  FastThread* const thread = t_fast;
  MemPool* known = nullptr;
  if (thread != nullptr) [[likely]] {
    const FastInside inside(*thread);
    const FastThread::Entry* const entry = inside.knows() ? fastEntryOf(*thread, handle) : nullptr;
    if (entry != nullptr) [[likely]] {
      if (entry->cache != nullptr && isSmall(bytes)) {
        *block = takeFast(*thread, *entry->cache, static_cast<std::uint32_t>(bytes), file, line);
        if (*block != 0) [[likely]]
          return 0;
      }
      known = entry->pool;
    }
  }
  if (bytes == 0 || bytes > kMostBytes) return SQLO_MEM_SIZE;
  if (known == nullptr) [[unlikely]]
    return allocateUnknown(handle, static_cast<std::uint32_t>(bytes), file, line, block);
  return allocateLatched(*known, static_cast<std::uint32_t>(bytes), {fastFileKey(*thread, file), line}, block);
}

// ---- freeing ---------------------------------------------------------------------------------------------------

[[gnu::always_inline]] inline void keepFast(FastThread& thread, FastCache& cache, Block block, std::uint32_t stride,
                                            const char* file, std::uint32_t line) noexcept {
  FastBin& bin = cache.bins[listOf(stride)];
  if (bin.size() >= bin.most) [[unlikely]]
    sqloi_fastSpill(cache, stride);
  setPlace(block, {fastFileKey(thread, file), line}, thread.sequence);
  setLink(block, bin.head);
  setState(block, BLOCK_KEPT, stride - SQLO_BLOCK_HEADER_BYTES);
  poison(block, stride);
  bin.head = shortOf(block);
  bin.resize(bin.size() + 1U);
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

[[gnu::noinline]] SqlzZrc complainOfGuard(MemPool& pool, Block block, const char* file, std::uint32_t line) noexcept {
  if (pool.isDebugged()) ++pool.m_debug->overruns;
  return complainOfHeader(30, "A block was written beyond its end. Freed here, allocated there:", pointerTo(block),
                          readHeader(block), file, line);
}

// A block in use, of a pool that is there.
SqlzZrc freeUsed(MemPool& pool, Block block, BlockPlace place, const char* file) noexcept {
  const BlockHeader header = readHeader(block);
  const std::uint32_t stride = strideOf(header.code, header.size);
  if ((header.code & BLOCK_GUARDED) != 0 && !sqloi_isGuardWhole(block, header.size, stride)) [[unlikely]]
    return complainOfGuard(pool, block, file, place.line);
  if (pool.m_set->m_fillsFreed) std::memset(pointerTo(block), kFreedFill, header.size);
  setPlace(block, place, header.sequence);
  freeLatched(pool, block, stride);
  return 0;
}

// Keeps a block of a pool that the thread has just learned of; false: it keeps none of that pool.
bool keepLearned(const MemPool& pool, Block block, std::uint32_t stride, const char* file, std::uint32_t line,
                 const FastThread::Entry& entry) noexcept {
  if (!pool.m_set->isPrivate()) return false;
  const FastInside inside(*t_fast);
  if (!inside.knows()) return false;
  fastLearnChunk(*t_fast, chunkNumber(block - SQLO_BLOCK_HEADER_BYTES), entry);
  if (entry.cache == nullptr || stride > KEPT_MOST_STRIDE) return false;
  keepFast(*t_fast, *entry.cache, block, stride, file, line);
  return true;
}

// A pointer of which the thread knows nothing: everything is looked at, and learned.
[[gnu::noinline]] SqlzZrc freeUnknown(void* pointer, const char* file, std::uint32_t line) noexcept {
  BlockHeader header;
  SQLO_MEM_POOL* handle = nullptr;
  if (lookUp(pointer, &header, &handle) != BlockFault::kNone || handle == nullptr)
    return complainOfBlock(10, "Freed here, but not a block of a memory pool:", pointer, file, line);
  if (kindOf(header.code) != BLOCK_USED)
    return complainOfHeader(20, "Freed twice: here, and there before:", pointer, header, file, line);
  auto& pool = static_cast<MemPool&>(*handle);
  const Block block = blockOf(pointer);
  const FastThread::Entry* const entry = sqloi_fastLearn(pool);
  if (entry != nullptr && keepLearned(pool, block, strideOf(header.code, header.size), file, line, *entry)) return 0;
  return freeUsed(pool, block, {sqloi_fileKey(file), line}, file);
}

constexpr const char* named(const char* file) noexcept { return file == nullptr ? "" : file; }

}  // namespace
}  // namespace vek

SqlzZrc sqloMemPoolAllocate(SQLO_MEM_POOL* pool, std::size_t bytes, std::uint32_t options, const char* file,
                            std::uint32_t line, void** block) noexcept {
  if (block == nullptr || (options & ~SQLO_MEM_ZERO) != 0) [[unlikely]]
    return SQLO_INV_PARM;
  vek::Block found = 0;
  const SqlzZrc result = vek::allocate(pool, bytes, vek::named(file), line, &found);
  *block = vek::pointerTo(found);
  if (options != 0 && result == 0) std::memset(*block, 0, bytes);
  return result;
}

// The short way: the thread knows the pool of the chunk that the header lies in. What is no block in use, or one that
// is guarded, goes the long way.
SqlzZrc sqloMemPoolFree(void* pointer, const char* file, std::uint32_t line) noexcept {
  const vek::Block block = vek::blockOf(pointer);
  vek::FastThread* const thread = vek::t_fast;
  vek::MemPool* known = nullptr;
  if (thread != nullptr && block % SQLO_BLOCK_ALIGNMENT == 0) [[likely]] {
    const vek::FastInside inside(*thread);
    const vek::FastThread::Entry* const entry =
        inside.knows() ? vek::fastEntryOfChunk(*thread, vek::chunkNumber(block - SQLO_BLOCK_HEADER_BYTES)) : nullptr;
    if (entry != nullptr && (vek::codeOf(block) & ~vek::BLOCK_SLACK) == vek::BLOCK_USED) [[likely]] {
      const std::uint32_t stride = vek::strideOf(block);
      if (entry->cache != nullptr && stride <= vek::KEPT_MOST_STRIDE) [[likely]] {
        vek::keepFast(*thread, *entry->cache, block, stride, vek::named(file), line);
        return 0;
      }
      known = entry->pool;
    }
  }
  if (known != nullptr)
    return vek::freeUsed(*known, block, {vek::fastFileKey(*thread, vek::named(file)), line}, vek::named(file));
  return pointer == nullptr ? 0 : vek::freeUnknown(pointer, vek::named(file), line);
}

SqlzZrc sqloGetPoolHandleFromBlkPointer(const void* block, SQLO_MEM_POOL** outPool) noexcept {
  if (block == nullptr || outPool == nullptr) return SQLO_INV_MEM;
  vek::BlockHeader header;
  SQLO_MEM_POOL* pool = nullptr;
  if (vek::lookUp(block, &header, &pool) != vek::BlockFault::kNone) return SQLO_INV_MEM;
  *outPool = pool;
  return 0;
}
