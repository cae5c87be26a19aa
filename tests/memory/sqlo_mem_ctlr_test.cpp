// The memory controller: requests, reclaiming, its bounds and reports, in one process and in several.
#include "memory/sqlo_mem_ctlr.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>

#include "memory/memory_support.h"
#include "platform/address_windows.h"

namespace vek::memorytest {
namespace {

TEST_APART(MemController, GrantsEverythingUntilItIsActive) {
  SqloMemController* controller = SqloMemController::instance();
  ASSERT_NE(controller, nullptr);
  EXPECT_FALSE(controller->isActive());
  auto* record = reinterpret_cast<SqloMemoryConsumer*>(controller);
  EXPECT_EQ(controller->registerConsumer(&record, 10, "c", nullptr, nullptr, false, SQLO_MEM_CONSUMER_INSTANCE), 0);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(controller->requestMemory(record, 0xFFFFFFFF, false, false, false), 0);
  controller->freeMemory(record, 5, false);
  char text[512];
  std::uint32_t position = 0;
  controller->formatStatistics(SQLO_MEM_STATS_LOG, text, sizeof text, &position);
  EXPECT_STREQ(text, "Instance Memory Controller is not active.\n");
}

TEST_APART(MemController, KeepsItsBound) {
  SqloMemController* controller = controllerOf(100 * kMb);
  Consumer consumer(controller, "one", 10 * kMb, 0);
  struct Step {
    std::uint32_t bytes;
    bool force;
    bool persist;
    SqlzZrc result;
    std::uint32_t current;
    std::uint32_t highWater;
  };
  g_memPersistentAttempts = 20;
  const Step steps[] = {
      {90 * kMb, false, false, 0, 100 * kMb, 100 * kMb},            // exactly full
      {0, false, false, 0, 100 * kMb, 100 * kMb},                   // nothing still fits
      {1, false, false, SQLO_NOMEM, 100 * kMb, 100 * kMb},          // not logged
      {kMb, true, false, 0, 101 * kMb, 101 * kMb},                  // forced: the mark follows
      {0, false, false, SQLO_NOMEM, 101 * kMb, 101 * kMb},          // beyond the bound even nothing is refused
      {0xFFFFFFFF, true, false, SQLO_NOMEM, 101 * kMb, 101 * kMb},  // more than can be counted
      {7777, false, true, SQLO_NOMEM, 101 * kMb, 101 * kMb},        // logged
      {7777, false, true, SQLO_NOMEM, 101 * kMb, 101 * kMb},        // not again
      {kMb, true, false, 0, 102 * kMb, 102 * kMb},                  // a forced success does not count
      {7777, false, true, SQLO_NOMEM, 102 * kMb, 102 * kMb},
  };
  for (const Step& step : steps) {
    EXPECT_EQ(consumer.request(step.bytes, false, step.force, step.persist), step.result);
    EXPECT_EQ(statsOf(controller).currentSize, step.current);
    EXPECT_EQ(statsOf(controller).usageHighWater, step.highWater);
  }
  EXPECT_EQ(occurrences(logText(instance), "OOM - Instance memory request failed"), 1U);
  EXPECT_EQ(occurrences(logText(instance), "Logging disabled until next success"), 1U);
  EXPECT_EQ(occurrences(logText(instance), "one - Current size : 103424 KB, HWM : 103424 KB, Cached : 0 KB"), 1U);

  controller->freeMemory(consumer.record, 50 * kMb, false);
  EXPECT_EQ(consumer.request(kMb), 0);
  EXPECT_EQ(consumer.request(90 * kMb, false, false, true), SQLO_NOMEM);
  EXPECT_EQ(occurrences(logText(instance), "OOM - Instance memory request failed"), 2U) << "a success re-enables it";

  controller->freeMemory(consumer.record, 200 * kMb, false);  // more than it has
  EXPECT_EQ(statsOf(controller).currentSize, 0U);
  EXPECT_EQ(occurrences(logText(instance), "gave back more than it was granted"), 1U);
  EXPECT_EQ(controller->deregisterConsumer(consumer.record), 0);
  EXPECT_EQ(controller->deregisterConsumer(consumer.record), SQLO_INV_MEM);
  void* gone = consumer.record;
  for (void* wild : {static_cast<void*>(nullptr), static_cast<void*>(&consumer), gone, static_cast<void*>(&gone + 1)})
    EXPECT_EQ(controller->requestMemory(static_cast<SqloMemoryConsumer*>(wild), 1, false, true, false), SQLO_INV_MEM);
}

TEST_APART(MemController, RefusesConsumersThatDoNotFit) {
  SqloMemController* controller = controllerOf(10 * kMb);
  const auto add = [&](std::uint32_t size, bool force) {
    SqloMemoryConsumer* record = nullptr;
    return controller->registerConsumer(&record, size, "c", nullptr, nullptr, force, SQLO_MEM_CONSUMER_INSTANCE);
  };
  EXPECT_EQ(add(10 * kMb + 1, false), SQLO_NO_INS_MEM);
  EXPECT_EQ(statsOf(controller).consumers, 0U);
  EXPECT_EQ(add(10 * kMb + 1, true), 0);
  EXPECT_EQ(controller->initialize(1, false, false, 0, 0), 0);
  for (std::uint32_t i = 0; i < SQLO_MEM_CONSUMERS; ++i) ASSERT_EQ(add(0, false), 0);
  EXPECT_EQ(add(0, false), SQLO_NOMEM);
  EXPECT_EQ(controller->registerConsumer(nullptr, 0, "c", nullptr, nullptr, false, SQLO_MEM_CONSUMER_INSTANCE),
            SQLO_INV_PARM);
}

TEST_APART(MemController, AsksOthersToReleaseTheirCache) {
  SqloMemController* controller = controllerOf(100 * kMb);
  Consumer asking(controller, "asking", 0, 0);
  Consumer rich(controller, "rich", 40 * kMb, 30 * kMb);
  Consumer liar(controller, "liar", 40 * kMb, 10 * kMb);
  liar.refuses = true;
  EXPECT_EQ(asking.request(30 * kMb, true), SQLO_NOMEM) << "no engine unit, no reclaiming";
  becomeEngine();
  EXPECT_EQ(asking.request(30 * kMb), SQLO_NOMEM);
  EXPECT_EQ(asking.request(61 * kMb, true), SQLO_NOMEM) << "all caches together would not make room";
  EXPECT_EQ(rich.calls + liar.calls, 0U);
  EXPECT_EQ(asking.request(30 * kMb, true), 0);
  EXPECT_EQ(rich.askedBytes, 30 * kMb);
  EXPECT_EQ(rich.cached, 0U);
  EXPECT_EQ(statsOf(controller).currentSize, 80 * kMb);
  EXPECT_EQ(statsOf(controller).cachedMemory, 10 * kMb);
  const std::uint32_t calls = liar.calls;
  EXPECT_EQ(asking.request(30 * kMb, true), SQLO_NOMEM) << "what a call-back claims is not believed";
  EXPECT_EQ(liar.calls, calls + 10) << "asked once per attempt";

  // Beyond the bound already: what is asked for covers that as well. Requests from inside a call-back are refused.
  ASSERT_EQ(asking.request(40 * kMb, false, true), 0);
  SqloMemoryConsumer* deep = nullptr;
  static SqlzZrc inside;
  ASSERT_EQ(controller->registerConsumer(
                &deep, 30 * kMb, "deep", controller,
                [](std::uint32_t, void* argument) -> std::uint32_t {
                  inside = static_cast<SqloMemController*>(argument)->requestMemory(nullptr, 1, true, true, true);
                  return 0;
                },
                true, SQLO_MEM_CONSUMER_INSTANCE),
            0);
  controller->setCachedMemory(deep, 0xFFFFFFFF, false);  // counts as all it holds
  liar.cached = 40 * kMb;
  controller->setCachedMemory(liar.record, 40 * kMb, false);
  EXPECT_EQ(asking.request(kMb, true), SQLO_NOMEM);
  EXPECT_EQ(liar.askedBytes, 51 * kMb);
  EXPECT_EQ(inside, SQLO_NOMEM);
}

TEST_APART(MemController, FollowsTheMachineWhenAutomatic) {
  SqloMemController* controller = controllerOf(kMb);
  Consumer fixed(controller, "c", 0, 0);
  EXPECT_EQ(controller->setNewUpperBound(2 * kMb, 0, 2), SQLO_INV_PARM);
  EXPECT_EQ(controller->setNewUpperBound(2 * kMb, 0, 0), 0);
  EXPECT_EQ(fixed.request(2 * kMb), 0);
  EXPECT_EQ(controller->setNewUpperBound(kMb, 0, SQLO_MEM_BOUND_NOT_BELOW_USE), SQLO_NO_INS_MEM);
  controller->setAutomaticFlag(true);
  EXPECT_EQ(fixed.request(kMb), SQLO_NOMEM) << "the bound is fixed";
  controller->setNewDesiredMaxValue(3 * kMb);
  EXPECT_EQ(controller->setNewUpperBound(9 * kMb, 0, 0), 0);
  EXPECT_EQ(statsOf(controller).upperBound, 3 * kMb);

  for (const char* strict : {"off", "On"}) {
    ::setenv("VEK_STRICT_INSTANCE_MEMORY", strict, 1);
    ASSERT_EQ(controller->initialize(kMb, true, false, 0, 0), 0);
    EXPECT_EQ(Consumer(controller, "c", 0, 0).request(5 * kMb, true), 0) << strict;
  }
  Consumer unknown(controller, "c", 0, 0);
  ossCalls().open = [](auto...) { return errno = EACCES, -1; };
  EXPECT_EQ(unknown.request(kMb, true), SQLO_NOMEM);
  EXPECT_EQ(statsOf(controller).currentSize, 5 * kMb);
  std::uint64_t result = 1;
  EXPECT_EQ(SqloMemController::calculateAutomaticSize(nullptr, false, 0, &result), SQLO_NOTAVAIL);
  EXPECT_EQ(result, 1U);
}

TEST_APART(MemController, ComputesTheAutomaticBound) {
  constexpr std::uint64_t kGb = 1ULL << 30;
  struct Row {
    std::uint64_t physical;
    std::uint64_t percentage;
    std::uint32_t members;
    bool wholeChunks;
    double fraction;
    std::uint64_t bound;
  };
  const Row rows[] = {
      {4 * kGb, 0, 0, false, 0.8, 3'435'973'836},
      {4 * kGb, 0, 1, true, 0.8, 3'435'921'408},
      {64 * kGb, 0, 32, false, 0.9, 1'932'735'283},
      {64 * kGb, 0, 1, false, 0.9, SQLO_MEM_AUTOMATIC_MOST},
      {109'951'162, 0, 1, false, 0.75, 82'463'371},
      {1ULL << 60, 0, 1, false, 0.95, SQLO_MEM_AUTOMATIC_MOST},
      {1000, 50, 1, false, 0.5, 500},
      {1000, 300, 2, false, 3, 1500},
      {UINT64_MAX, UINT64_MAX, 1, false, 184467440737095516.16, SQLO_MEM_AUTOMATIC_MOST},
  };
  for (const Row& row : rows) {
    double fraction = 0;
    EXPECT_EQ(sqloi_automaticBound(row.physical, row.percentage, row.members, row.wholeChunks, &fraction), row.bound);
    EXPECT_DOUBLE_EQ(fraction, row.fraction);
  }
  std::uint64_t physical = 0;
  std::uint64_t result = 0;
  EXPECT_EQ(SqloMemController::calculateAutomaticSize(&physical, false, 1, &result), 0);
  EXPECT_EQ(result, std::min(physical / 100, SQLO_MEM_AUTOMATIC_MOST));
}

TEST_APART(MemController, TellsItsStatistics) {
  SqloMemController* controller = controllerOf(100 * kMb);
  Consumer sample(controller, "SAMPLE", 10 * kMb, 4 * kMb, SQLO_MEM_CONSUMER_DATABASE);
  Consumer again(controller, "SAMPLE", kMb, 0, SQLO_MEM_CONSUMER_DATABASE);
  Consumer other(controller, "OTHER", 2 * kMb, kMb, SQLO_MEM_CONSUMER_DATABASE);
  Consumer engine(controller, "engine", 3 * kMb, 2 * kMb);
  SqloMemDatabaseStats database;
  ASSERT_EQ(controller->queryDBMemStats("SAMPLE", &database), 0);
  const SqloMemDatabaseStats wantedOfDatabase = {2, 11 * kMb, 4 * kMb, 11 * kMb};
  EXPECT_EQ(std::memcmp(&database, &wantedOfDatabase, sizeof database), 0);
  SqloMemStatsSummary summary;
  SqloMemPartitionStats stats;
  ASSERT_EQ(controller->getPartitionStatsSummary("SAMPLE", &summary, &stats), 0);
  const SqloMemStatsSummary wanted = {84 * kMb, 3 * kMb, 11 * kMb, 2 * kMb, 3 * kMb};
  EXPECT_EQ(std::memcmp(&summary, &wanted, sizeof summary), 0);
  EXPECT_EQ(stats.consumers, 4U);

  char text[4096];
  std::uint32_t position = 0;
  controller->formatStatistics(SQLO_MEM_STATS_LOG, text, sizeof text, &position);
  EXPECT_STREQ(text,
               "Instance Memory Controller statistics.\nInstance Memory Automatic: No.\nMaximum size = 102400 KB\n"
               "Current size = 16384 KB\nUsage HWM = 16384 KB\nCached memory = 7168 KB\nCached DB memory = 5120 KB\n"
               "SAMPLE - Current size : 10240 KB, HWM : 10240 KB, Cached : 4096 KB\n"
               "SAMPLE - Current size : 1024 KB, HWM : 1024 KB, Cached : 0 KB\n"
               "OTHER - Current size : 2048 KB, HWM : 2048 KB, Cached : 1024 KB\n"
               "engine - Current size : 3072 KB, HWM : 3072 KB, Cached : 2048 KB\n");
  controller->setAutomaticFlag(true);
  std::string dump;
  do {
    controller->formatStatistics(SQLO_MEM_STATS_DUMP, text, 512, &position);
    dump += text;
  } while (position != 0);
  EXPECT_EQ(dump,
            "Instance Memory Controller statistics.\nInstance Memory Automatic: Yes.\nMaximum size (KB) = 102400\n"
            "Current size (KB) = 16384\nUsage HWM (KB) = 16384\nCached memory (KB) = 7168\n"
            "Cached DB memory (KB) = 5120\n\nCurrent, Usage HWM, and Cached memory in KB for individual consumers.\n"
            "SAMPLE - 10240, 10240, 4096\nSAMPLE - 1024, 1024, 0\nOTHER - 2048, 2048, 1024\n"
            "engine - 3072, 3072, 2048\n");
}

TEST_APART(MemController, IsRefusedWhereItsAddressIsTaken) {
  void* taken = ::mmap(reinterpret_cast<void*>(MEMORY_CONTROLLER_ADDRESS), 4096, PROT_READ,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  ASSERT_EQ(taken, reinterpret_cast<void*>(MEMORY_CONTROLLER_ADDRESS));
  EXPECT_EQ(SqloMemController::instance(), nullptr);
  EXPECT_EQ(SqloMemController::instanceStatus(), SQLO_ADDRESS_TAKEN);
}

// ---- several processes ---------------------------------------------------------------------------------------------

TEST(MemController, HasAnotherProcessReleaseAndTakesBackWhatItHeldWhenItDies) {
  const Instance instance;
  inProcess([] {
    Baton cached;
    Baton asked;
    const pid_t other = start([&] {
      Consumer consumer(controllerOf(100 * kMb), "other", 80 * kMb, 80 * kMb, SQLO_MEM_CONSUMER_DATABASE);
      cached.give();
      ASSERT_TRUE(asked.take());
      EXPECT_EQ(consumer.calls, 0U);
      EXPECT_EQ(consumer.request(0), 0);
      EXPECT_EQ(consumer.calls, 1U);
      EXPECT_EQ(consumer.askedBytes, 50 * kMb);
      cached.give();
      ::pause();
    });
    becomeEngine();
    ASSERT_TRUE(cached.take());
    SqloMemController* controller = SqloMemController::instance();
    Consumer consumer(controller, "mine", 0, 0);
    EXPECT_EQ(consumer.request(50 * kMb, true), SQLO_NOMEM);
    asked.give();
    ASSERT_TRUE(cached.take());
    EXPECT_EQ(consumer.request(50 * kMb, true), 0);
    EXPECT_EQ(statsOf(controller).cachedDatabaseMemory, 30 * kMb);
    EXPECT_EQ(finishKilled(other), -SIGKILL);
    EXPECT_EQ(consumer.request(50 * kMb), 0);
    EXPECT_EQ(statsOf(controller).consumers, 1U);
    EXPECT_EQ(statsOf(controller).cachedDatabaseMemory, 0U);
  });
  inProcess([] { EXPECT_FALSE(SqloMemController::instance()->isActive()) << "a new run of the instance"; });
}

// What processes hold without force, as they see it: entered in `total` after a grant, taken out before it is given
// back, so that it is never more than what the controller has granted. A process is stopped, and what it holds taken
// out, before it is killed; `held` is changed on the far side of `total`, so that a stop in between takes out too much,
// never too little.
constexpr unsigned kProcesses = 4;
constexpr unsigned kThreads = 2;
struct Ledger {
  std::atomic<std::int64_t> total;
  std::atomic<std::int64_t> held[kProcesses];
  std::atomic<std::uint64_t> granted;
  std::atomic<std::uint64_t> refused;

  // The total after a grant.
  std::int64_t enter(unsigned process, std::uint32_t bytes) {
    held[process].fetch_add(bytes);
    return total.fetch_add(bytes) + bytes;
  }
  void takeOut(unsigned process, std::uint32_t bytes) {
    total.fetch_sub(bytes);
    held[process].fetch_sub(bytes);
  }
};

constexpr std::uint32_t kBound = 64 * kMb;

// One thread: grows and shrinks at random, with a cache that it gives up, or lies about. What it holds it counts
// itself.
void useMemory(SqloMemController* controller, Ledger& ledger, unsigned process, std::uint32_t seed,
               std::uint32_t steps) {
  std::minstd_rand random(seed);
  Consumer consumer(controller, "random", 0, 0,
                    seed % 2 == 0 ? SQLO_MEM_CONSUMER_DATABASE : SQLO_MEM_CONSUMER_INSTANCE);
  consumer.refuses = seed % 3 == 0;
  std::uint32_t size = 0;
  for (std::uint32_t step = 0; step < steps; ++step) {
    const auto bytes = static_cast<std::uint32_t>(random() % (2 * kMb));
    if (random() % 2 != 0) {
      const std::uint32_t given = std::min(bytes, size);
      size -= given;
      ledger.takeOut(process, given);
      controller->freeMemory(consumer.record, given, false);
      if (step % 8 == 0) controller->setCachedMemory(consumer.record, bytes, false);
    } else if (consumer.request(bytes, random() % 4 == 0) != 0) {
      ledger.refused.fetch_add(1, std::memory_order_relaxed);
    } else {
      size += bytes;
      ledger.granted.fetch_add(1, std::memory_order_relaxed);
      ASSERT_LE(ledger.enter(process, bytes), std::int64_t{kBound});
    }
  }
  ledger.takeOut(process, size);
  if (seed % 2 == 0) controller->freeMemory(consumer.record, size, false);
  EXPECT_EQ(controller->deregisterConsumer(consumer.record), 0);
}

TEST(MemController, KeepsItsBoundAmongProcessesThatAreKilled) {
  const Instance instance;
  const Shared<Ledger> ledger;
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand random(seed);
  Baton ready;
  Baton done;
  const pid_t keeper = start([&] {
    SqloMemController* controller = controllerOf(kBound);
    ready.give();
    ::alarm(280);
    for (int halfMinutes = 0; !done.take(); ++halfMinutes) ASSERT_LT(halfMinutes, 8);
    const SqloMemPartitionStats stats = statsOf(controller);
    EXPECT_EQ(stats.consumers, 0U);
    EXPECT_EQ(stats.currentSize, 0U);
    EXPECT_EQ(stats.cachedMemory, 0U);
    EXPECT_EQ(stats.cachedDatabaseMemory, 0U);
    EXPECT_LE(stats.usageHighWater, kBound);
    Consumer last(controller, "last", kBound, 0);  // all of it is there again
  });
  ASSERT_TRUE(ready.take());
  const auto startUser = [&](unsigned process) {
    const auto processSeed = static_cast<std::uint32_t>(random());
    return start([&, process, processSeed] {
      ::alarm(280);
      becomeEngine();
      SqloMemController* controller = SqloMemController::instance();
      inThreads(kThreads,
                [&](unsigned i) { useMemory(controller, *ledger, process, processSeed + i, 200'000 / kSlower); });
    });
  };
  pid_t users[kProcesses];
  for (unsigned i = 0; i < kProcesses; ++i) users[i] = startUser(i);
  for (unsigned kill = 0; kill < 20; ++kill) {
    const auto process = static_cast<unsigned>(random() % kProcesses);
    ::usleep(static_cast<useconds_t>(random() % 10'000));
    ::kill(users[process], SIGSTOP);
    siginfo_t stopped = {};
    ::waitid(P_PID, static_cast<id_t>(users[process]), &stopped, WSTOPPED | WEXITED | WNOWAIT);
    ledger->total.fetch_sub(ledger->held[process].exchange(0));
    const int end = finishKilled(users[process]);
    EXPECT_TRUE(end == -SIGKILL || end == 0) << end;
    users[process] = startUser(process);
  }
  for (const pid_t user : users) EXPECT_EQ(finish(user), 0);
  EXPECT_GT(ledger->granted.load(), 0U);
  EXPECT_GT(ledger->refused.load(), 0U);
  done.give();
  EXPECT_EQ(finish(keeper), 0);
}

}  // namespace
}  // namespace vek::memorytest
