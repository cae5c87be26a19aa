// Memory pools: the catalogue, what is told of a pool, limits and growth, and what becomes of wrong use.
#include <algorithm>
#include <numeric>
#include <set>

#include "memory/pool_support.h"
#include "platform/trace_support.h"
#include "veksys_functions.h"

namespace vek::memorytest {
namespace {

TEST(MemPoolCatalogue, TellsEveryId) {
  EXPECT_EQ(sqloGetMinMemPoolID(), 1U);
  EXPECT_EQ(sqloGetMaxMemPoolID(), 98U);
  struct Column {
    const char* (*of)(std::uint32_t id);
    std::size_t texts;       // that are not empty
    std::size_t characters;  // of all ids
    std::size_t weighted;    // the same, times the id
  };
  const Column columns[] = {{sqloGetMemPoolName, 69, 386, 22'185},
                            {sqloGetMemPoolDescription, 69, 1'183, 66'922},
                            {sqloGetMemPoolConfigParam, 14, 172, 2'282},
                            {sqloGetMemPoolType, 40, 336, 17'663}};
  for (const Column& column : columns) {
    std::size_t texts = 0;
    std::size_t characters = 0;
    std::size_t weighted = 0;
    for (std::uint32_t id = 0; id < 99; ++id) {
      const std::size_t length = std::strlen(column.of(id));
      texts += length != 0 ? 1 : 0;
      characters += length;
      weighted += length * id;
    }
    EXPECT_EQ(texts, column.texts);
    EXPECT_EQ(characters, column.characters);
    EXPECT_EQ(weighted, column.weighted);
    for (const std::uint32_t id : {0U, 21U, 49U, 99U, 1000U, 0xFFFFFFFFU}) EXPECT_STREQ(column.of(id), "") << id;
  }
  EXPECT_STREQ(sqloGetMemPoolName(98), "maxheapid");
  EXPECT_STREQ(sqloGetMemPoolDescription(75), "Shared Communication Area (SCA) heap");
  EXPECT_STREQ(sqloGetMemPoolConfigParam(20), "application shared");
  EXPECT_STREQ(sqloGetMemPoolType(86), "PERSISTENT_PRIVATE");
}

TEST_APART(MemPool, TellsWhatItHas) {  // NOLINT(readability-function-size): one pool from all sides
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 100));
  MemPool* pool = createPool(poolRequest(set, 20, 0, SQLO_POOL_UTILH));
  MemPool* sub = createSub(createSub(pool));
  EXPECT_EQ(sqloGetMemPoolId(sub), SQLO_POOL_UTILH);
  EXPECT_EQ(infoOf(pool).poolUsed, 0U) << "control blocks do not count";
  void* first = allocate(pool, 1000);
  (void)allocate(sub, 200'000);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % SQLO_BLOCK_ALIGNMENT, 0U);
  SqloMemPoolInfo info = infoOf(pool);
  EXPECT_EQ(info.maximumAllowed, 20U << SQLO_CHUNK_SHIFT);
  EXPECT_EQ(info.currentOwned, pool->m_currentOwned << SQLO_CHUNK_SHIFT);
  EXPECT_EQ(info.poolBlocks, 1U);
  EXPECT_EQ(info.poolUsed, 1024U + strideFor(200'000U)) << "of a base pool: its sub-pools as well";
  EXPECT_EQ(info.poolId, SQLO_POOL_UTILH);
  EXPECT_EQ(info.isRaw, 0U);
  EXPECT_EQ(info.available, info.maximumAllowed - info.currentOwned);
  EXPECT_EQ(info.largestFreeBlock, sqloGetLargestFreeBlockSize(pool) + SQLO_BLOCK_HEADER_BYTES);
  const SqloMemPoolInfo ofSub = infoOf(sub);
  EXPECT_EQ(ofSub.currentOwned, info.currentOwned);
  EXPECT_EQ(ofSub.poolOwned, 4U << SQLO_CHUNK_SHIFT);
  EXPECT_EQ(ofSub.poolUsed, strideFor(200'000U));
  SqloMemPoolStats stats;
  ASSERT_EQ(sqloGetMemPoolStatsUnlatched(sub, &stats), 0);
  const SqloMemPoolStats wanted = {info.maximumAllowed, info.maximumOwned, info.currentOwned, info.growths,
                                   info.refusals,       ofSub.poolUsed,    ofSub.poolOwned};
  EXPECT_EQ(std::memcmp(&stats, &wanted, sizeof stats), 0);
  EXPECT_EQ(sqloMemPoolGetMaxSize(sub), info.maximumAllowed);
  EXPECT_EQ(sqloMemPoolGetCurrentSize(sub), info.poolUsed);
  EXPECT_EQ(sqloGetRemainingSetSize(sub), (400U << SQLO_CHUNK_SHIFT) - info.currentOwned);

  // The limit moves; what the pool owns stays, and is told as its limit.
  EXPECT_EQ(sqloMemPoolChangeSize(sub, 3 * SQLO_CHUNK_BYTES - 1), 0);
  EXPECT_EQ(sqloMemPoolGetConfiguredSize(pool), 3U * SQLO_CHUNK_BYTES);
  info = infoOf(pool);
  EXPECT_EQ(info.maximumAllowed, info.currentOwned);
  EXPECT_EQ(info.available, sqloGetLargestFreeBlockSize(pool));
  void* block = nullptr;
  EXPECT_EQ(sqloMemPoolAllocate(pool, 80'000, 0, kHere, 1, &block), SQLO_NOMEM);
  EXPECT_EQ(infoOf(pool).refusals, info.refusals + 1);
  EXPECT_EQ(sqloMemPoolChangeSize(pool, 0), SQLO_MEM_SIZE);
  EXPECT_EQ(sqloMemPoolChangeSize(pool, 401U << SQLO_CHUNK_SHIFT), SQLO_MEM_SIZE);

  // What is free is found again, whole: purging and freeing give back what was had, chunks among it.
  EXPECT_EQ(sqloPurgeMemoryInSubPool(sub), 0);
  EXPECT_EQ(infoOf(sub).poolBlocks, 0U);
  EXPECT_EQ(infoOf(pool).cachedBytes, 4U << SQLO_CHUNK_SHIFT);
  EXPECT_TRUE(sqloMemPoolHasSpace(pool, 200'000)) << "in cached chunks";
  std::uint32_t freed = 0;
  EXPECT_EQ(sqloShrinkUnderlyingSet(sub, 1, &freed), 0);
  EXPECT_EQ(freed, SQLO_CHUNK_BYTES);
  EXPECT_EQ(sqloFlushMemory(sub, &freed), 0);
  EXPECT_EQ(freed, 3 * SQLO_CHUNK_BYTES);
  EXPECT_EQ(sqloShrinkUnderlyingSet(sub, 0, &freed), SQLO_INV_MEM);
  EXPECT_EQ(sqloUpdateUnderlyingSetFreeThreshold(sub, 101), SQLO_INV_MEM);
  EXPECT_EQ(sqloUpdateUnderlyingSetFreeThreshold(sub, 100), 0);
  EXPECT_EQ(set->m_maxFreePercent, 100U);
  EXPECT_EQ(release(first), 0);
  expectSums(instance, *set);
  sqloEnableCriticalOptionForMemSet(set);
  for (const MemPool* each : {pool, pool->m_firstSub, sub}) EXPECT_NE(each->m_options & SQLO_POOL_CRITICAL, 0U);
  EXPECT_EQ(sqloCreateMemorySubPool(sub, reinterpret_cast<SQLO_MEM_POOL**>(&sub)), SQLO_INV_MEM) << "too deep";
  EXPECT_EQ(sqloFreeMemorySubPool(pool), SQLO_INV_MEM);
  EXPECT_EQ(sqloFreeMemorySubPool(pool->m_firstSub), 0);
  EXPECT_EQ(freePool(pool), 0);
  EXPECT_EQ(set->m_usedChunks, 0U);
  SqloMemPoolInfo own;
  ASSERT_EQ(sqloGetPoolInfo(nullptr, &own), 0);
  EXPECT_EQ(own.poolId, SQLO_POOL_PRIVATE);
  EXPECT_EQ(infoOf(MemPrivateSet::pool()).poolId, SQLO_POOL_PRIVATE);
}

// Who decides whether a pool passes its limit: the pool, or a set that governs its pools.
TEST_APART(MemPool, GrowsAsFarAsItMay) {
  struct Row {
    std::uint32_t setOptions;
    std::uint32_t poolOptions;
    bool grows;
  };
  constexpr std::uint32_t kGoverned = kOptions | SQLO_SET_GOVERNS_POOLS;
  for (const Row& row : {Row{kOptions, 0, false},
                         {kOptions, SQLO_POOL_AUTOMATIC, true},
                         {kOptions, SQLO_POOL_AUTOMATIC | SQLO_POOL_NO_AUTOMATIC, true},
                         {kGoverned, 0, true},
                         {kGoverned, SQLO_POOL_AUTOMATIC | SQLO_POOL_NO_AUTOMATIC, false}}) {
    SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 10, row.setOptions));
    MemPool* pool = createPool(poolRequest(set, 4, row.poolOptions));
    EXPECT_EQ(sqloMemPoolAllowsAutomaticGrowth(pool), row.grows);
    std::vector<void*> blocks;
    void* block = nullptr;
    for (; sqloMemPoolAllocate(pool, 40'000, 0, kHere, 1, &block) == 0; blocks.push_back(block))
      EXPECT_TRUE(sqloMemPoolHasSpace(pool, 1)) << "a pool with room says so";
    EXPECT_FALSE(sqloMemPoolHasSpace(pool, 40'000));
    EXPECT_EQ(blocks.size(), row.grows ? 40U : 4U);
    EXPECT_EQ(infoOf(pool).maximumAllowed, (row.grows ? 40U : 4U) << SQLO_CHUNK_SHIFT);
    if ((row.setOptions & SQLO_SET_GOVERNS_POOLS) == 0) {
      EXPECT_EQ(sqloSetMemoryPoolAutomaticBit(pool, !row.grows), 0);
      EXPECT_EQ(sqloMemPoolAllowsAutomaticGrowth(pool), !row.grows);
    }
    // Neighbours that come back one by one can be had as one, though the pool keeps chunks of its own.
    for (void* each : blocks) EXPECT_EQ(release(each), 0);
    EXPECT_EQ(release(allocate(pool, 3 * SQLO_CHUNK_BYTES - 100)), 0);
    expectSums(instance, *set);
    EXPECT_EQ(sqlofshr(set), 0);
  }
  EXPECT_FALSE(sqloMemPoolAllowsAutomaticGrowth(nullptr));
}

TEST_APART(MemPool, IsRefusedWhatTheSetCannotGive) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 10, 0));
  auto* none = reinterpret_cast<SMemSet*>(std::uintptr_t{SQLO_INVALID_SET});
  SQLO_MEM_POOL* pool = nullptr;
  struct Row {
    SqloMemPoolRequest request;
    std::uint64_t initialBytes;
    SqlzZrc result;
  };
  const Row rows[] = {{poolRequest(set, 11), 0, SQLO_NOMEM},
                      {poolRequest(set, 5), 6 * SQLO_CHUNK_BYTES, SQLO_NOMEM},
                      {poolRequest(none, 5), 0, SQLO_INV_MEM},
                      {poolRequest(nullptr, 5), 0, SQLO_INV_MEM},
                      {poolRequest(set, 5, SQLO_POOL_SEARCHABLE), 0, SQLO_INV_PARM},
                      {poolRequest(set, 5, 0, 21), 0, SQLO_INV_PARM},
                      {poolRequest(set, 5, 0, SQLO_POOL_MAXHEAPID), 0, SQLO_INV_PARM},
                      {poolRequest(set, 5, 0, 0), 0, SQLO_INV_PARM},
                      {poolRequest(set, 0), 9 * SQLO_CHUNK_BYTES, 0},
                      {poolRequest(set, 2), 0, SQLO_NOMEM}};
  for (Row row : rows) {
    row.request.initialBytes = row.initialBytes;
    EXPECT_EQ(sqloCreateMemoryPoolEx(&row.request, &pool), row.result) << &row - rows;
  }
  const std::string log = logText(instance);
  EXPECT_EQ(occurrences(log, "The requested heap size is too big."), 2U);
  EXPECT_EQ(occurrences(log, "Unable to allocate memory for the initial pool size."), 1U);
  EXPECT_EQ(sqloCreateMemoryPoolEx(nullptr, &pool), SQLO_INV_PARM);
}

TEST_APART(MemPool, TracesWhatItCommits) {
  ASSERT_EQ(sqltTraceFacilityCreate(0x100000), 0);
  const SqltTraceSettings everything = {};
  ASSERT_EQ(sqltSetTraceFlags(&everything), 0);
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 12, 0));
  MemPool* pool = createPool(poolRequest(set, 8));
  MemPool* other = createPool(poolRequest(set, 6));
  std::uint32_t committed = 9;
  EXPECT_EQ(pool->commitRawChunks(4, &committed), 0);
  EXPECT_EQ(committed, 4U);
  EXPECT_EQ(infoOf(pool).currentOwned, 5U << SQLO_CHUNK_SHIFT);
  EXPECT_EQ(pool->commitRawChunks(4, &committed), SQLO_NOMEM) << "beyond its maximum";
  EXPECT_EQ(committed, 0U);
  EXPECT_EQ(other->commitRawChunks(5, nullptr), 0);
  EXPECT_EQ(pool->commitRawChunks(3, &committed), SQLO_NOMEM) << "the set has one left";
  EXPECT_EQ(committed, 1U);
  void* block = allocate(pool, 4 * SQLO_CHUNK_BYTES - 100);
  expectSums(instance, *set);
  EXPECT_EQ(release(block), 0);
  std::string texts;
  std::set<EcfFunctionId> functions;
  for (const vektest::ReadRecord& record : vektest::readInstance()) {
    functions.insert(record.function);
    for (const vektest::ReadItem& item : record.items) texts += item.bytes + "\n";
  }
  for (const EcfFunctionId function :
       {FID_SMemSet_captureLatch, FID_SMemSet_getChunksFromTree, FID_SMemSet_commitMemory,
        FID_SMemSet_returnContiguousChunks, FID_SMemSet_releaseLatch, FID_SQLO_MEM_POOL_commitRawChunks})
    EXPECT_EQ(functions.count(function), 1U) << std::hex << function;
  EXPECT_EQ(occurrences(texts, "Exceeded max chunks"), 1U);
  EXPECT_EQ(occurrences(texts, "Raw chunk commit failed"), 1U);
}

// ---- blocks and what is none ---------------------------------------------------------------------------------------

TEST_APART(MemPool, IsFoundFromItsBlocks) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 40));
  MemPool* pool = createPool(poolRequest(set, 30));
  void* block = allocate(pool, 100, 70'000 - 65'536);
  SQLO_MEM_POOL* found = nullptr;
  const Block at = blockOf(block);
  BlockHeader* header = headerOf(at);
  unpoison(at - SQLO_BLOCK_HEADER_BYTES, SQLO_BLOCK_HEADER_BYTES);
  char text[120];
  char wanted[120];
  std::snprintf(wanted, sizeof wanted, "BLOCK: code: 0xe4dcafe0 size: 100 file: %u line: 4464 seq: %hu CSG: 0x%08x",
                header->file, header->sequence, static_cast<unsigned>(at) & 0xFFFF0000);
  EXPECT_EQ(sqloMemBlockToString(block, text, sizeof text), std::strlen(wanted));
  EXPECT_STREQ(text, wanted);
  EXPECT_EQ(sqloMemBlockToString(block, text, 6), 5U);
  EXPECT_GT(sqloMemBlockToString(&found, text, sizeof text), 0U);

  const auto find = [&] {
    found = nullptr;
    return sqloGetPoolHandleFromBlkPointer(block, &found);
  };
  for (const std::uint32_t kind : {BLOCK_USED, BLOCK_FREE, BLOCK_KEPT, BLOCK_OWN})
    for (const std::uint32_t flags : {0U, 3U, 15U}) {
      header->code = kind | flags;
      EXPECT_EQ(find(), 0);
      EXPECT_EQ(found, pool);
    }
  header->code = 0xE4DCAF43;
  EXPECT_EQ(find(), SQLO_INV_MEM);
  header->code = BLOCK_USED;
  const std::uint32_t reference = header->chunk;
  for (const std::uint32_t wrong : {reference ^ 0x100000, reference & CHUNK_REFERENCE_MASK, CHUNK_REFERENCE_MARKER | 1,
                                    CHUNK_REFERENCE_MARKER | 0xFFFFF}) {
    header->chunk = wrong;
    EXPECT_EQ(find(), SQLO_INV_MEM) << std::hex << wrong;
  }
  header->chunk = reference;
  EXPECT_EQ(sqloGetPoolHandleFromBlkPointer(nullptr, &found), SQLO_INV_MEM);
  EXPECT_EQ(sqloGetPoolHandleFromBlkPointer(block, nullptr), SQLO_INV_MEM);
  SqloMemSubgroup* subgroup = subgroupOf(at, reference);
  subgroup->pool = nullptr;
  EXPECT_EQ(find(), 0);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(release(block), SQLO_INV_MEM) << "a chunk without a pool";
  subgroup->pool = pool;
  pool->m_set = reinterpret_cast<SMemSet*>(std::uintptr_t{SQLO_INVALID_SET});
  EXPECT_EQ(find(), SQLO_INV_MEM);
  EXPECT_FALSE(sqloMemPoolAllowsAutomaticGrowth(pool));
  EXPECT_EQ(sqloShrinkUnderlyingSet(pool, 1, nullptr), SQLO_INV_MEM);
  pool->m_set = set;
  EXPECT_EQ(release(block), 0);
}

TEST_APART(MemPool, RefusesWhatIsNoBlock) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 100));
  for (const bool isFast : {false, true}) {
    MemPool* pool = createPool(poolRequest(set, 60));
    EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, isFast), 0);
    auto* block = static_cast<char*>(allocate(pool, 1000, 17));
    std::memset(block, 0, 1000);
    void* gone = allocate(pool, 9 * SQLO_CHUNK_BYTES);
    EXPECT_EQ(release(gone), 0);
    EXPECT_EQ(sqloUpdateMemorySetFreeThreshold(set, 0), 0);
    EXPECT_EQ(sqloFlushMemory(pool, nullptr), 0);
    std::uint64_t onStack[8] = {};
    const std::uint32_t used = pool->m_currentUsed;
    char* window = reinterpret_cast<char*>(set) + ADDRESS_WINDOW_BYTES;
    void* const wrong[] = {block + 8,
                           block + 16,
                           block - 1,
                           &onStack[4],
                           reinterpret_cast<void*>(16),
                           gone,
                           set,
                           set + 1,
                           window + 320,
                           reinterpret_cast<char*>(set) + 65'552,
                           window - 112,
                           pool,
                           pool->m_set,
                           reinterpret_cast<void*>(std::uintptr_t{1} << 46)};
    for (void* pointer : wrong) EXPECT_EQ(release(pointer), SQLO_INV_MEM) << pointer;
    EXPECT_EQ(release(nullptr), 0);
    EXPECT_EQ(pool->m_currentUsed, used);
    EXPECT_EQ(release(block, 18), 0);
    EXPECT_EQ(release(block, 19), SQLO_INV_MEM);
    expectSums(instance, *set);
    // A pool that is gone is none; its blocks are none; another one in its place is not taken for it.
    block = static_cast<char*>(allocate(pool, 1000));
    EXPECT_EQ(freePool(pool), 0);
    void* out = nullptr;
    EXPECT_EQ(sqloMemPoolAllocate(pool, 8, 0, kHere, 1, &out), SQLO_INV_MEM);
    EXPECT_EQ(release(block), SQLO_INV_MEM);
    EXPECT_EQ(freePool(pool), SQLO_INV_MEM);
    EXPECT_EQ(sqloGetMemPoolId(pool), 0U);
    SqloMemPoolInfo info;
    EXPECT_EQ(sqloGetPoolInfo(pool, &info), SQLO_INV_MEM);
  }
  const std::string log = logText(instance);
  EXPECT_EQ(occurrences(log, "Freed here, but not a block of a memory pool:"), 30U);
  EXPECT_EQ(occurrences(log, "Freed twice: here, and there before:"), 2U);
  void* out = nullptr;
  MemPool* pool = createPool(poolRequest(set, 60));
  EXPECT_EQ(sqloMemPoolAllocate(pool, 0, 0, kHere, 1, &out), SQLO_MEM_SIZE);
  EXPECT_EQ(sqloMemPoolAllocate(pool, std::size_t{1} << 40, 0, kHere, 1, &out), SQLO_MEM_SIZE);
  EXPECT_EQ(sqloMemPoolAllocate(pool, 1, 2, kHere, 1, &out), SQLO_INV_PARM);
  EXPECT_EQ(sqloMemPoolAllocate(pool, 1, 0, kHere, 1, nullptr), SQLO_INV_PARM);
  EXPECT_EQ(sqloMemPoolAllocate(nullptr, 1, 0, kHere, 1, &out), SQLO_INV_MEM);
}

TEST_APART(MemPool, FindsOverruns) {
  ::setenv("VEKMEMDBG", "ALL", 1);
  for (const std::uint32_t type : {SQLO_SET_PRIVATE, SQLO_SET_DBM_DB}) {
    SMemSet* set = create(requestOf(type, 40));
    MemPool* pool = createPool(poolRequest(set, 30));
    EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), SQLO_NOTAVAIL);
    const std::uint32_t before = infoOf(pool).poolUsed;
    for (const std::size_t bytes : {1U, 15U, 16U, 1000U, 5000U}) {
      auto* block = static_cast<volatile char*>(allocate(pool, bytes, 31));
      volatile char& behind = block[bytes];
      ASAN_UNPOISON_MEMORY_REGION(const_cast<char*>(&behind), 1);
      const char was = behind;
      behind = 0;
      EXPECT_EQ(release(const_cast<char*>(block), 32), SQLO_INV_MEM);
      behind = was;
      EXPECT_EQ(release(const_cast<char*>(block), 33), 0);
      ASAN_UNPOISON_MEMORY_REGION(const_cast<char*>(block), bytes);
      EXPECT_EQ(static_cast<unsigned char>(block[bytes - 1]), 0xDDU) << "what is freed is filled";
    }
    EXPECT_EQ(infoOf(pool).poolUsed, before);
    expectWhole(*pool);
    EXPECT_EQ(pool->m_debug->overruns, 5U);
    EXPECT_EQ(infoOf(pool).available, infoOf(pool).maximumAllowed - infoOf(pool).currentOwned);
    EXPECT_EQ(freePool(pool), 0);
    EXPECT_EQ(sqlofshr(set), 0);
  }
  EXPECT_EQ(occurrences(logText(instance), "A block was written beyond its end. Freed here, allocated there:"), 10U);
}

TEST_APART(MemPool, ReportsLeaks) {
  struct Row {
    std::uint32_t setOptions;
    std::uint32_t poolOptions;
    bool reports;
  };
  std::size_t reports = 0;
  for (const Row& row : {Row{kOptions, 0, false},
                         {kOptions, SQLO_POOL_REPORT_LEAKS, true},
                         {kOptions | SQLO_SET_FFDC_REPORT, 0, true}}) {
    SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 40, row.setOptions));
    MemPool* pool = createPool(poolRequest(set, 30, row.poolOptions));
    MemPool* sub = createSub(pool);
    for (int i = 0; i < 3; ++i) (void)allocate(pool, 1000, 111);
    EXPECT_EQ(release(allocate(pool, 1000, 444)), 0);
    (void)allocate(sub, 70'000, 222);
    EXPECT_EQ(freePool(pool), 0);
    EXPECT_EQ(set->m_usedChunks, 0U);
    reports += row.reports ? 2 : 0;
    EXPECT_EQ(occurrences(logText(instance), "Blocks of a memory pool were not freed."), reports);
  }
  const std::string log = logText(instance);
  EXPECT_EQ(occurrences(log, kHere), reports);
  EXPECT_GT(occurrences(log, "3000"), 0U);
  EXPECT_EQ(runInProcess([] {
              installHost([](VekHost& host) { host.panic = [](void*, SqlzZrc, const char*) { ::_exit(44); }; });
              SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 40, kOptions | SQLO_SET_CRASH_ON_LEAKS));
              EXPECT_EQ(freePool(createPool(poolRequest(set, 30))), 0) << "nothing leaks";
              MemPool* pool = createPool(poolRequest(set, 30));
              (void)allocate(pool, 1000, 333);
              (void)freePool(pool);
            }),
            44);
}

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer sees what is no block: freed ones, what lies behind an odd size, what is free.
TEST_APART(MemPool, IsSeenByTheSanitizer) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 100));
  for (const bool isFast : {false, true}) {
    MemPool* pool = createPool(poolRequest(set, 60));
    EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, isFast), 0);
    for (const std::size_t bytes : {1U, 100U, 2001U, 100'001U}) {
      auto* block = static_cast<char*>(allocate(pool, bytes));
      EXPECT_EQ(__asan_region_is_poisoned(block, bytes), nullptr);
      EXPECT_NE(__asan_address_is_poisoned(block + bytes), 0);
      EXPECT_NE(__asan_address_is_poisoned(block - 1), 0);
      EXPECT_EQ(release(block), 0);
      EXPECT_TRUE(bytes > SQLO_CHUNK_BYTES || __asan_address_is_poisoned(block) != 0) << "a chunk went to the set";
    }
    EXPECT_EQ(freePool(pool), 0);
    void* chunk = nullptr;
    ASSERT_EQ(takeChunks(*set, 1, &chunk), 0);
    EXPECT_EQ(__asan_region_is_poisoned(chunk, SQLO_CHUNK_BYTES), nullptr);
  }
}
#endif

}  // namespace
}  // namespace vek::memorytest
