// A pool as the memory resource of standard containers.
#include "veksys/memory/resource.h"

#include <map>
#include <memory_resource>
#include <string>

#include "memory/pool_support.h"

namespace vek::memorytest {
namespace {

TEST_APART(MemoryResource, ServesContainersAndGetsEverythingBack) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 128));
  SQLO_MEM_POOL* pool = createPool(poolRequest(set, 64));
  SQLO_MEM_POOL* other = createPool(poolRequest(set, 64));
  VekMemoryResource resource(pool);
  VekMemoryResource twin(pool);
  VekMemoryResource foreign(other);
  EXPECT_TRUE(resource == twin);
  EXPECT_FALSE(resource == foreign);
  EXPECT_FALSE(resource == *std::pmr::new_delete_resource());
  const std::uint32_t before = sqloMemPoolGetCurrentSize(pool);
  {
    std::pmr::map<int, std::pmr::string> names(&resource);
    std::pmr::vector<std::uint64_t> numbers(&resource);
    for (int i = 0; i < 5000; ++i) {
      names[i] = "a name that is too long for the string itself: " + std::to_string(i);
      numbers.push_back(static_cast<std::uint64_t>(i));
    }
    EXPECT_EQ(names[4999].get_allocator().resource(), &resource);
    EXPECT_GT(sqloMemPoolGetCurrentSize(pool), before + 5000 * 100);
    SQLO_MEM_POOL* owner = nullptr;
    EXPECT_EQ(sqloGetPoolHandleFromBlkPointer(numbers.data(), &owner), 0);
    EXPECT_EQ(owner, pool);
  }
  EXPECT_EQ(sqloMemPoolGetCurrentSize(pool), before);

  for (std::size_t alignment = 1; alignment <= 4096; alignment *= 2)
    for (const std::size_t bytes : {0U, 1U, 100U, 70'000U}) {
      void* block = resource.allocate(bytes, alignment);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
      std::memset(block, 0xAB, bytes);
      resource.deallocate(block, bytes, alignment);
    }
  EXPECT_EQ(sqloMemPoolGetCurrentSize(pool), before);

  for (const std::size_t bytes : {std::size_t{5} * kMb, SIZE_MAX})
    for (const std::size_t alignment : {16U, 64U})
      EXPECT_THROW((void)resource.allocate(bytes, alignment), std::bad_alloc) << bytes;

  // A block of another pool is told of and left alone.
  void* block = foreign.allocate(100);
  const std::uint32_t held = sqloMemPoolGetCurrentSize(other);
  resource.deallocate(block, 100);
  EXPECT_EQ(sqloMemPoolGetCurrentSize(other), held);
  EXPECT_EQ(occurrences(logText(instance), "belongs to another"), 1U);
  foreign.deallocate(block, 100);
  EXPECT_LT(sqloMemPoolGetCurrentSize(other), held);
  SQLO_MEM_POOL* pools[] = {pool, other};
  EXPECT_EQ(sqloMemFreePools(pools, 2), 0);
}

}  // namespace
}  // namespace vek::memorytest
