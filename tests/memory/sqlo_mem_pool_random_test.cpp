// Memory pools under random work, against a model: alone, while the system refuses, and with users that are killed.
#include <array>
#include <memory>
#include <random>

#include "memory/pool_support.h"
#include "platform/victim.h"

namespace vek::memorytest {
namespace {

std::uint32_t anySeed() { return std::random_device{}(); }

// Somebody who works with a base pool and sub-pools of his own, and knows what must be in his blocks.
class User {
 public:
  User(MemPool* base, std::uint32_t seed, bool isAlone = true) : random_(seed), isAlone_(isAlone) {
    pools_.push_back(base);
  }

  void work(std::uint32_t steps) {
    for (std::uint32_t i = 0; i < steps; ++i) step();
  }

  void step() {
    const std::uint32_t what = dice(1000);
    if (what < 500)
      allocateOne();
    else if (what < 970)
      freeOne();
    else if (what < 978)
      createSub();
    else if (what < 982)
      leaveSub(dice(2) == 0);
    else if (what < 990)
      EXPECT_EQ(sqloFlushMemory(anyPool(), nullptr), 0);
    else if (what < 994)
      EXPECT_EQ(sqloShrinkUnderlyingSet(anyPool(), 1 + dice(200'000), nullptr), 0);
    else if (what < 996)
      (void)sqloMemPoolHasSpace(anyPool(), dice(300'000));
    else if (what < 998 && isAlone_)
      EXPECT_EQ(sqloMemPoolChangeSize(anyPool(), (8 + dice(200)) * SQLO_CHUNK_BYTES), 0);
    else if (isFast_)
      turnFast(dice(2) != 0);
  }

  void turnFast(bool on) {
    isFast_ = true;
    EXPECT_EQ(sqloEnableFastMemoryBlocks(base(), on), 0);
    const SqlzZrc limited = sqloUpdateMaxFastMemoryBlocks(base(), 1 + dice(100));
    EXPECT_EQ(limited, on ? 0 : SQLO_NOTAVAIL);
  }

  // What the pools tell of themselves is what their user knows, when he is the only one.
  void expectCounted(std::uint32_t ownBlocks) {
    for (std::size_t i = 0; i < pools_.size(); ++i) {
      const auto mine = static_cast<std::uint32_t>(
          std::count_if(blocks_.begin(), blocks_.end(), [&](const Held& each) { return each.pool == i; }));
      EXPECT_EQ(infoOf(pools_[i]).poolBlocks, mine + (i == 0 ? ownBlocks : 0));
    }
  }

  void expectIntact() const {
    for (const Held& each : blocks_) expectFilled(each);
  }

  void freeAll() {
    while (!blocks_.empty()) freeOne();
    while (pools_.size() > 1) leaveSub(false);
  }

  MemPool* base() { return pools_[0]; }

 private:
  struct Held {
    unsigned char* address;
    std::size_t bytes;
    std::size_t pool;  // its number
    unsigned char fill;
  };

  std::uint32_t dice(std::uint32_t sides) { return static_cast<std::uint32_t>(random_()) % sides; }
  std::size_t anyNumber() { return dice(static_cast<std::uint32_t>(pools_.size())); }
  MemPool* anyPool() { return pools_[anyNumber()]; }

  static void expectFilled(const Held& held) {
    EXPECT_EQ(held.address[0], held.fill);
    EXPECT_EQ(std::memcmp(held.address, held.address + 1, held.bytes - 1), 0);
  }

  std::size_t anySize() {
    const std::uint32_t kind = dice(100);
    if (kind < 80) return 1 + dice(600);
    return 1 + (kind < 97 ? dice(5000) : dice(250'000));
  }

  void allocateOne() {
    const std::size_t bytes = anySize();
    const std::size_t number = anyNumber();
    const std::uint32_t options = dice(4) == 0 ? SQLO_MEM_ZERO : 0;
    void* block = nullptr;
    const SqlzZrc result = sqloMemPoolAllocate(pools_[number], bytes, options, kHere, dice(1000), &block);
    EXPECT_TRUE(result == 0 || result == SQLO_NOMEM) << result;
    EXPECT_EQ(block == nullptr, result != 0);
    if (block == nullptr) return freeOne();
    const std::uintptr_t inChunk = reinterpret_cast<std::uintptr_t>(block) % SQLO_CHUNK_BYTES;
    EXPECT_TRUE(!base()->isRaw() || inChunk == BLOCK_FIRST_OFFSET) << "a raw block has chunks of its own";
    const Held held = {static_cast<unsigned char*>(block), bytes, number, static_cast<unsigned char>(random_())};
    if (options != 0) expectFilled({held.address, bytes, number, 0});
    std::memset(block, held.fill, bytes);
    blocks_.push_back(held);
  }

  void freeOne() {
    if (blocks_.empty()) return;
    std::swap(blocks_[dice(static_cast<std::uint32_t>(blocks_.size()))], blocks_.back());
    expectFilled(blocks_.back());
    EXPECT_EQ(release(blocks_.back().address), 0);
    blocks_.pop_back();
  }

  void createSub() {
    MemPool* const above = anyPool();
    if (pools_.size() > 6 || above->m_depth == MEM_POOL_DEPTH) return;
    SQLO_MEM_POOL* made = nullptr;
    if (sqloCreateMemorySubPool(above, &made) == 0) pools_.push_back(static_cast<MemPool*>(made));
  }

  // Purges or frees the youngest sub-pool: it has none below it.
  void leaveSub(bool purges) {
    if (pools_.size() < 2) return;
    std::erase_if(blocks_, [&](const Held& each) { return each.pool == pools_.size() - 1; });
    EXPECT_EQ(purges ? sqloPurgeMemoryInSubPool(pools_.back()) : sqloFreeMemorySubPool(pools_.back()), 0);
    if (!purges) pools_.pop_back();
  }

  std::minstd_rand random_;
  bool isAlone_;
  bool isFast_ = false;
  std::vector<MemPool*> pools_;
  std::vector<Held> blocks_;
};

struct Kind {
  const char* name;
  std::uint32_t setType;
  std::uint32_t options;
  bool isFast;
  bool isDebugged;
};
constexpr Kind kKinds[] = {{"Private", SQLO_SET_PRIVATE, 0, false, false},
                           {"PrivateFast", SQLO_SET_PRIVATE, 0, true, false},
                           {"PrivateUnlatched", SQLO_SET_PRIVATE, SQLO_POOL_UNLATCHED, false, false},
                           {"PrivateDebugged", SQLO_SET_PRIVATE, 0, false, true},
                           {"Shared", SQLO_SET_DBM_DB, 0, false, false},
                           {"SharedRaw", SQLO_SET_DBM_DB, SQLO_POOL_RAW, false, false},
                           {"SharedDebugged", SQLO_SET_DBM_DB, 0, false, true}};
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class MemPoolKinds : public ::testing::TestWithParam<Kind> {};

TEST_P(MemPoolKinds, AreWhatTheirUserKnows) {
  const Instance instance;
  const Kind& kind = GetParam();
  const std::uint32_t seed = anySeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  inProcess([&] {
    if (kind.isDebugged) ::setenv("VEKMEMDBG", "ALL", 1);
    SMemSet* set = create(requestOf(kind.setType, 400));
    User other(createPool(poolRequest(set, 100)), seed + 1);
    User user(createPool(poolRequest(set, 100, kind.options)), seed);
    if (kind.isFast) user.turnFast(true);
    const SqloMemPoolInfo before = infoOf(user.base());
    const bool isRaw = kind.options == SQLO_POOL_RAW;
    EXPECT_EQ(before.isRaw, isRaw ? 1U : 0U);
    EXPECT_EQ(before.largestFreeBlock == 0, isRaw);
    EXPECT_EQ(user.base()->commitRawChunks(6, nullptr), 0);
    for (std::uint32_t round = 0; round < 60; ++round) {
      user.work(600 / kSlower);
      other.work(60 / kSlower);
      user.expectCounted(before.poolBlocks);
      expectSums(instance, *set);
      if (round % 20 != 19) continue;
      PoolOperation operation(*user.base());
      if (!kind.isFast) sqloi_repairPool(*user.base());  // finds everything as it is
    }
    user.expectIntact();
    user.freeAll();
    EXPECT_EQ(sqloEnableFastMemoryBlocks(user.base(), false), 0);
    EXPECT_EQ(sqloFlushMemory(user.base(), nullptr), 0);
    const SqloMemPoolInfo after = infoOf(user.base());
    EXPECT_EQ(after.poolUsed, before.poolUsed);
    EXPECT_EQ(after.poolBlocks, before.poolBlocks);
    EXPECT_EQ(after.currentOwned, before.currentOwned);
    expectSums(instance, *set);
    SQLO_MEM_POOL* const pools[] = {user.base(), other.base()};
    EXPECT_EQ(sqloMemFreePools(pools, 2), 0);
    EXPECT_EQ(set->m_usedChunks, 0U);
    EXPECT_EQ(sqlofshr(set), 0);
  });
}

// Any call of the system fails in turn while a pool is made, used and freed: nothing is lost, nothing is torn.
TEST_P(MemPoolKinds, LoseNothingWhenTheSystemRefuses) {
  const Instance instance;
  const Kind& kind = GetParam();
  inProcess([&] {
    if (kind.isDebugged) ::setenv("VEKMEMDBG", "ALL", 1);
    SqloMemSetRequest request = requestOf(kind.setType, 4, kOptions | SQLO_SET_REDUCIBLE);
    request.maxBytes = 300 << SQLO_CHUNK_SHIFT;
    SMemSet* set = create(request);
    EXPECT_EQ(sqloUpdateMemorySetFreeThreshold(set, 0), 0);
    EXPECT_EQ(freePool(createPool(poolRequest(set, 3))), 0);  // what is made once, is
    EXPECT_EQ(release(allocate(MemPrivateSet::pool(), 1)), 0);
    makeFail<&OssCalls::mmap, &OssCalls::munmap, &OssCalls::mprotect, &OssCalls::madvise, &OssCalls::fallocate,
             &OssCalls::ftruncate>(-1, ENOMEM);
    bool wasDue = true;
    for (int call = 0; wasDue; ++call) {
      ASSERT_LT(call, 3000);
      Failure::callsLeft = call;
      SqloMemPoolRequest poolOfIt = poolRequest(set, 60, kind.options);
      poolOfIt.initialBytes = 3 * SQLO_CHUNK_BYTES;
      SQLO_MEM_POOL* pool = nullptr;
      const SqlzZrc created = sqloCreateMemoryPoolEx(&poolOfIt, &pool);
      EXPECT_TRUE(created == 0 || created == SQLO_NOMEM) << created;
      if (pool != nullptr) {
        User user(static_cast<MemPool*>(pool), 7);
        if (kind.isFast) user.turnFast(true);
        user.work(150);
        expectWhole(*user.base());
        user.expectIntact();
        user.freeAll();
        EXPECT_EQ(freePool(pool), 0);
      }
      wasDue = Failure::callsLeft < 0;
      Failure::callsLeft = -1;
      EXPECT_EQ(set->m_usedChunks, 0U) << "call " << call;
      expectSound(instance, *set);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(All, MemPoolKinds, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<Kind>& kind) { return kind.param.name; });

// ---- users that are killed -----------------------------------------------------------------------------------------

struct Meeting {
  MemPool* pool;
  MemPool* sub;
  MemPool* other;  // of the same set
  void* blocks[4];
};

struct Scenario {
  const char* name;
  void (*prepare)(Meeting& meeting);
  void (*victim)(Meeting& meeting);
};

void fillSub(Meeting& meeting) {
  meeting.sub = createSub(meeting.pool);
  for (int i = 0; i < 50; ++i) (void)allocate(meeting.sub, 10'000);
}
void fillBlocks(Meeting& meeting) {
  for (void*& block : meeting.blocks) block = allocate(meeting.pool, 3000);
}
MemPool* createOther(Meeting& meeting) { return createPool(poolRequest(meeting.pool->m_set, 20)); }
void fillOther(Meeting& meeting) {
  meeting.other = createOther(meeting);
  for (int i = 0; i < 3; ++i) (void)allocate(meeting.other, 100'000);
}
void nothing(Meeting& /*meeting*/) {}

const Scenario kScenarios[] = {
    {"small", nothing, [](Meeting& m) { (void)release(allocate(m.pool, 100)); }},
    {"large", nothing, [](Meeting& m) { (void)release(allocate(m.pool, 100'000)); }},
    {"neighbours", fillBlocks,
     [](Meeting& m) {
       for (const int i : {0, 2, 1, 3}) (void)release(m.blocks[i]);
     }},
    {"sub-pool", nothing,
     [](Meeting& m) { (void)allocate(createSub(m.pool), 10), (void)sqloFreeMemorySubPool(m.pool->m_firstSub); }},
    {"purge", fillSub, [](Meeting& m) { (void)sqloPurgeMemoryInSubPool(m.sub); }},
    {"free sub-pool", fillSub, [](Meeting& m) { (void)sqloFreeMemorySubPool(m.sub); }},
    {"flush", fillBlocks,
     [](Meeting& m) {
       (void)release(m.blocks[1]), (void)release(m.blocks[2]), (void)sqloFlushMemory(m.pool, nullptr);
     }},
    {"create pool", nothing, [](Meeting& m) { (void)createOther(m); }},
    {"free pool", fillOther, [](Meeting& m) { (void)freePool(m.other); }},
};

constexpr unsigned kSamples = 15 / kSlower;
constexpr unsigned kStepsMost = 200'000;

// After a death the blocks that the survivor knows are as they were, and what was on its way then goes back: the pools
// of the set own all that it has handed out.
void expectNothingLost(const Instance& instance, SMemSet& set, const User& survivor) {
  survivor.expectIntact();
  {
    const SetOperation operation(set);
    (void)set.returnStrandedChunks();
    EXPECT_EQ(set.m_onTheWay.count(), 0U);
  }
  expectSums(instance, set);
}

TEST(MemPoolDeath, AtAnyInstruction) {
  const std::uint32_t seed = anySeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  const Instance instance;
  const int result = runInProcess([&] {
    SMemSet* set = create(requestOf(SQLO_SET_DBM_DB, 1000));
    std::minstd_rand random(seed);
    for (const Scenario& scenario : kScenarios) {
      Meeting meeting = {};
      meeting.pool = createPool(poolRequest(set, 800));
      User survivor(meeting.pool, seed, false);
      survivor.work(200);
      unsigned length = 0;
      for (unsigned sample = 0; sample <= kSamples; ++sample) {
        scenario.prepare(meeting);
        unsigned instruction = sample == 0 ? kStepsMost : static_cast<unsigned>(random()) % length;
        {
          Victim victim([&] { (void)release(allocate(meeting.pool, 1)); }, [&] { scenario.victim(meeting); });
          if (!victim.canRun()) ::exit(kSkip);
          instruction = victim.step(instruction);
        }
        if (sample == 0) length = instruction;
        SCOPED_TRACE(std::string(scenario.name) + " killed at " + std::to_string(instruction) + " of " +
                     std::to_string(length));
        survivor.work(5);
        expectNothingLost(instance, *set, survivor);
      }
      survivor.freeAll();
      EXPECT_EQ(freePool(meeting.pool), 0);
    }
    EXPECT_EQ(sqlofshr(set), 0);
  });
  if (result == kSkip) GTEST_SKIP() << "a process may not be traced here";
  EXPECT_EQ(result, 0);
}

TEST(MemPoolDeath, AtRandomUnderLoad) {
  const std::uint32_t seed = anySeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  const Instance instance;
  inProcess([&] {
    SqloMemSetRequest request = requestOf(SQLO_SET_DBM_DB, 3000);
    request.maxBytes = 30'000U << SQLO_CHUNK_SHIFT;
    SMemSet* set = create(request);
    MemPool* pool = createPool(poolRequest(set, 25'000));
    User survivor(pool, seed, false);
    std::minstd_rand random(seed);
    Baton ready;
    const auto startUser = [&] {
      const auto userSeed = static_cast<std::uint32_t>(random());
      return start([&, userSeed] {
        User user(pool, userSeed, false);
        user.work(50);
        ready.give();
        for (;;) user.work(50);
      });
    };
    std::array<pid_t, 3> users = {startUser(), startUser(), startUser()};
    ASSERT_TRUE(ready.take(users.size()));
    for (unsigned turn = 0; turn < 60 / kSlower; ++turn) {
      pid_t& user = users[turn % users.size()];
      survivor.work(static_cast<std::uint32_t>(random() % 300));
      EXPECT_EQ(finishKilled(user), -SIGKILL);
      survivor.work(20);
      user = startUser();
      ASSERT_TRUE(ready.take());
    }
    for (const pid_t user : users) EXPECT_EQ(finishKilled(user), -SIGKILL);
    survivor.work(500);
    expectNothingLost(instance, *set, survivor);
    survivor.freeAll();
    EXPECT_EQ(freePool(pool), 0);
    EXPECT_EQ(sqlofshr(set), 0);
  });
}

// A pool that another process has destroyed is none here, however often it was used before.
TEST_APART(MemPoolDeath, IsNoticedInOtherProcesses) {
  SMemSet* set = create(requestOf(SQLO_SET_DBM_DB, 100));
  MemPool* pool = createPool(poolRequest(set, 50));
  void* block = allocate(pool, 100);
  EXPECT_EQ(release(allocate(pool, 100)), 0);
  inProcess([&] {
    EXPECT_EQ(release(block), 0) << "of another process";
    EXPECT_EQ(freePool(pool), 0);
  });
  EXPECT_EQ(sqloMemPoolAllocate(pool, 100, 0, kHere, 1, &block), SQLO_INV_MEM);
}

}  // namespace
}  // namespace vek::memorytest
