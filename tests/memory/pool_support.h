// What tests of memory pools share: pools made for a test, and what must hold of them.
#pragma once

#include <cstring>
#include <vector>

#include "memory/set_support.h"
#include "memory/sqlo_mem_pool_fast.h"

namespace vek::memorytest {

inline constexpr char kHere[] = "pool_user";  // the file that allocates, as it says

inline SqloMemPoolRequest poolRequest(SMemSet* set, std::uint64_t chunks, std::uint32_t options = 0,
                                      std::uint32_t poolId = SQLO_POOL_DBH) {
  SqloMemPoolRequest request = {};
  request.size = sizeof request;
  request.set = set;
  request.poolId = poolId;
  request.options = options;
  request.bytes = chunks << SQLO_CHUNK_SHIFT;
  return request;
}

inline MemPool* createPool(const SqloMemPoolRequest& request) {
  SQLO_MEM_POOL* pool = nullptr;
  EXPECT_EQ(sqloCreateMemoryPoolEx(&request, &pool), 0);
  return static_cast<MemPool*>(pool);
}

inline MemPool* createSub(SQLO_MEM_POOL* parent) {
  SQLO_MEM_POOL* pool = nullptr;
  EXPECT_EQ(sqloCreateMemorySubPool(parent, &pool), 0);
  return static_cast<MemPool*>(pool);
}

inline SqlzZrc freePool(SQLO_MEM_POOL* pool) { return sqloMemFreePools(&pool, 1); }

inline void* allocate(SQLO_MEM_POOL* pool, std::size_t bytes, std::uint32_t line = 1) {
  void* block = nullptr;
  EXPECT_EQ(sqloMemPoolAllocate(pool, bytes, 0, kHere, line, &block), 0);
  return block;
}

inline SqlzZrc release(void* block, std::uint32_t line = 2) { return sqloMemPoolFree(block, kHere, line); }

inline SqloMemPoolInfo infoOf(SQLO_MEM_POOL* pool) {
  SqloMemPoolInfo info = {};
  EXPECT_EQ(sqloGetPoolInfo(pool, &info), 0);
  return info;
}

// Every invariant of a pool and of those below it.
inline void expectWhole(MemPool& pool) {
  PoolOperation operation(pool);
  sqloi_visitPools(pool.base(), [&](MemPool& each) { sqloi_takeDeferred(each, operation); });
  const char* complaint = sqloi_checkPool(pool.base());
  EXPECT_EQ(complaint, nullptr) << complaint;
}

// The pools of a set own all of its used chunks, and the set is what the kernel shows.
inline void expectSums(const Instance& instance, SMemSet& set) {
  std::uint32_t owned = 0;
  for (MemPool* pool = set.m_pools; pool != nullptr; pool = pool->m_next) {
    expectWhole(*pool);
    owned += pool->m_currentOwned;
  }
  EXPECT_EQ(owned, set.m_usedChunks);
  expectSound(instance, set);
}

}  // namespace vek::memorytest
