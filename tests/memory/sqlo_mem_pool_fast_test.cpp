// Fast blocks: threads that keep blocks, exchange them, end, and have them taken back meanwhile.
#include <array>
#include <atomic>
#include <random>
#include <thread>

#include "memory/pool_support.h"

namespace vek::memorytest {
namespace {

// Places where threads leave blocks for each other; each block tells in its first word what it holds.
class Exchange {
 public:
  void* swap(std::size_t place, void* block) { return places_[place % places_.size()].exchange(block); }
  ~Exchange() {
    for (auto& place : places_) EXPECT_EQ(release(place.load()), 0);
  }

 private:
  std::array<std::atomic<void*>, 256> places_ = {};
};

// Work on one pool, until everything that it got is with the others.
void exchangeBlocks(SQLO_MEM_POOL* pool, Exchange& exchange, std::uint32_t seed, unsigned turns) {
  std::minstd_rand random(seed);
  for (unsigned turn = 0; turn < turns; ++turn) {
    const std::size_t bytes = 8 + random() % (random() % 50 == 0 ? 20'000 : 400);
    auto* block = static_cast<std::uint64_t*>(allocate(pool, bytes));
    ASSERT_NE(block, nullptr);
    std::memset(block, static_cast<int>(bytes), bytes);
    *block = bytes;
    auto* other = static_cast<std::uint64_t*>(exchange.swap(random(), block));
    if (other == nullptr) continue;
    const std::size_t size = *other;
    const auto* tail = reinterpret_cast<const unsigned char*>(other);
    EXPECT_TRUE(size == 8 || tail[size - 1] == static_cast<unsigned char>(size));
    EXPECT_EQ(release(other), 0);
  }
}

// What a pool tells while others use it is never more than it can be, and never torn.
void look(MemPool* pool, std::uint32_t turn) {
  const SqloMemPoolInfo info = infoOf(pool);
  EXPECT_LE(info.poolUsed, info.currentOwned);
  EXPECT_LE(info.poolKept, info.currentOwned);
  EXPECT_LE(sqloMemPoolGetCurrentSize(pool), sqloMemPoolGetMaxSize(pool));
  SqloMemPoolStats stats;
  EXPECT_EQ(sqloGetMemPoolStatsUnlatched(pool, &stats), 0);
  EXPECT_EQ(turn % 4 == 0 ? sqloFlushMemory(pool, nullptr) : 0, 0);
  EXPECT_EQ(turn % 4 == 1 ? sqloEnableFastMemoryBlocks(pool, turn % 8 == 1) : 0, 0);
  if (turn % 4 == 2) (void)sqloUpdateMaxFastMemoryBlocks(pool, 1 + turn % 200);
  if (turn % 4 == 3) (void)sqloMemPoolHasSpace(pool, 1000);
}

TEST_APART(MemPoolFast, ThreadsExchangeBlocks) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 800));
  // Several pools, one after the other in the same place.
  for (std::uint32_t round = 0; round < 6; ++round) {
    MemPool* pool = createPool(poolRequest(set, 700));
    EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), 0);
    {
      Exchange exchange;
      std::atomic<bool> isDone{false};
      std::thread looker([&] {
        for (std::uint32_t turn = 0; !isDone.load(); ++turn) look(pool, seed + turn);
      });
      for (std::uint32_t life = 0; life < 4; ++life)  // threads that end leave nothing behind
        inThreads(4, [&](unsigned i) { exchangeBlocks(pool, exchange, seed + life * 4 + i, 8000 / kSlower); });
      isDone.store(true);
      looker.join();
    }
    EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), 0);
    expectSums(instance, *set);
    const SqloMemPoolInfo info = infoOf(pool);
    EXPECT_EQ(info.poolUsed, 0U);
    EXPECT_EQ(info.poolBlocks, 0U);
    EXPECT_EQ(freePool(pool), 0);
    EXPECT_EQ(set->m_usedChunks, 0U);
  }
}

// Counters are exact at any moment that no other thread is at work, wherever blocks are kept.
TEST_APART(MemPoolFast, CountsWhatThreadsKeep) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 100));
  MemPool* pool = createPool(poolRequest(set, 3));
  EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), 0);
  EXPECT_EQ(sqloUpdateMaxFastMemoryBlocks(pool, 0), SQLO_INV_PARM);
  EXPECT_EQ(sqloUpdateMaxFastMemoryBlocks(pool, 4097), SQLO_INV_PARM);
  std::thread([&] {
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i) blocks.push_back(allocate(pool, 100));
    SqloMemPoolInfo info = infoOf(pool);
    EXPECT_EQ(info.poolBlocks, 100U);
    EXPECT_EQ(info.poolUsed, 12'800U);
    EXPECT_EQ(sqloMemPoolGetCurrentSize(pool), 12'800U);
    // Addresses that look like the block's own, whose chunk the thread knows.
    for (const std::uint64_t wrong : {std::uint64_t{1} << 47, std::uint64_t{1} << 48, std::uint64_t{0xFFFF} << 48})
      EXPECT_EQ(release(pointerAs<void>(blockOf(blocks[99]) | wrong)), SQLO_INV_MEM) << std::hex << wrong;
    for (std::size_t i = 0; i < 60; ++i) EXPECT_EQ(release(blocks[i]), 0);
    info = infoOf(pool);
    EXPECT_EQ(info.poolBlocks, 40U);
    EXPECT_GE(info.poolKept, 30U * 128);
    // A pool at its limit takes back what threads keep.
    void* large = allocate(pool, 100'000);
    std::thread([&] {
      for (int i = 0; i < 380; ++i) blocks.push_back(allocate(pool, 200));
    }).join();
    EXPECT_EQ(infoOf(pool).poolBlocks, 421U);
    EXPECT_EQ(release(large), 0);
    for (std::size_t i = 60; i < blocks.size(); ++i) EXPECT_EQ(release(blocks[i]), 0);
    expectWhole(*pool);
  }).join();
  EXPECT_EQ(pool->m_caches, nullptr) << "of threads that ended";
  EXPECT_EQ(pool->m_currentUsed, 0U);
  expectSums(instance, *set);
  for (const std::uint32_t options : {SQLO_POOL_UNLATCHED, SQLO_POOL_RAW})
    EXPECT_EQ(sqloEnableFastMemoryBlocks(createPool(poolRequest(set, 3, options)), true), SQLO_NOTAVAIL);
  EXPECT_EQ(sqloEnableFastMemoryBlocks(createSub(pool), true), SQLO_NOTAVAIL);
  EXPECT_EQ(sqloEnableFastMemoryBlocks(createPool(poolRequest(create(requestOf(SQLO_SET_DBM_DB, 50)), 3)), true),
            SQLO_NOTAVAIL);
}

// A thread that is stopped in the middle keeps what it has, and comes back to another pool in the same place.
TEST_APART(MemPoolFast, AreOfOnePoolOnly) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 100));
  MemPool* pool = createPool(poolRequest(set, 50));
  EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), 0);
  Baton stopped;
  Baton replaced;
  std::thread thread([&] {
    EXPECT_EQ(release(allocate(pool, 100)), 0);
    t_fast->inside.store(1);
    stopped.give();
    ASSERT_TRUE(replaced.take());
    t_fast->inside.store(0);
    for (int i = 0; i < 1000; ++i) std::memset(allocate(pool, 100), 1, 100);
  });
  ASSERT_TRUE(stopped.take());
  EXPECT_EQ(freePool(pool), 0);
  ASSERT_EQ(createPool(poolRequest(set, 50)), pool);
  EXPECT_EQ(sqloEnableFastMemoryBlocks(pool, true), 0);
  void* own = allocate(pool, 50'000);
  std::memset(own, 2, 50'000);
  replaced.give();
  thread.join();
  EXPECT_EQ(infoOf(pool).poolBlocks, 1001U);
  expectSums(instance, *set);
}

}  // namespace
}  // namespace vek::memorytest
