// Latches of holders and waiters that are killed: at any instruction of a capture or a release, asleep, and just woken.
#include <algorithm>
#include <array>

#include "diag/pdlog_support.h"
#include "platform/victim.h"
#include "sync/latch_support.h"
#include "sync/sqloLatchTable.h"
#include "veksys/sync/latch_list.h"

namespace vek::synctest {
namespace {

using namespace platformtest;
using synctest::Instance;

constexpr std::uint16_t kFair = SQLO_LATCH_NO_X_STARVATION;
constexpr std::uint16_t kShared = SQLO_LATCH_BETWEEN_PROCESSES;

struct Latches {
  SQLO_SLATCH_CAS32 word;
  SqloSpinLatch spin;
  std::atomic<std::uint32_t> repaired{0};
  std::atomic<std::uint32_t> owners{0};
  std::atomic<std::uint32_t> inside{0};
};

SqlzZrc countRepair(void* context, void*, std::uint32_t) {
  static_cast<Latches*>(context)->repaired.fetch_add(1);
  static_cast<Latches*>(context)->owners.store(0);
  return 0;
}

void initialise(Latches& latches, std::uint16_t policy) {
  ASSERT_EQ(latches.word.init(kType, policy | kShared), 0);
  latches.spin.init(kType, kShared);
  ASSERT_EQ(sqloSetLatchDeathPolicy(kType, SQLO_LATCH_DEATH_REPAIR, countRepair, &latches), 0);
}

constexpr char kVictim[] = "victim";  // the file it captures in, as it says

// A process's first capture attaches it, and in a file interns its name: not what is looked at here.
void captureOnce() {
  SqloSpinLatch own;
  (void)own.captureLatch(kVictim, 1);
  own.releaseLatch();
}

// Whoever is left gets the latch, in both modes, and finds it free afterwards.
void expectUsable(Latches& latches, const std::string& what) {
  ASSERT_EQ(latches.word.getShared(__FILE__, __LINE__), 0) << what;
  latches.word.release();
  ASSERT_EQ(latches.word.getExclusive(__FILE__, __LINE__), 0) << what;
  latches.word.release();
  EXPECT_EQ(latches.word.state() & (SQLO_SLATCH_HELD_X | SQLO_SLATCH_HOLDERS), 0U) << what;
  ASSERT_EQ(latches.spin.captureLatch(__FILE__, __LINE__), 0) << what;
  latches.spin.releaseLatch();
}

struct Scenario {
  const char* name;
  void (*before)(Latches&);  // in the survivor
  void (*victim)(Latches&);
  void (*after)(Latches&);  // in the survivor, before it uses the latch
};

void nothing(Latches&) {}
void hold(Latches& latches) { ASSERT_EQ(latches.word.getExclusive(__FILE__, __LINE__), 0); }
void holdSpin(Latches& latches) { ASSERT_EQ(latches.spin.captureLatch(__FILE__, __LINE__), 0); }
void release(Latches& latches) { latches.word.release(); }
void releaseSpin(Latches& latches) { latches.spin.releaseLatch(); }
void dieHolding(Latches& latches, bool spin) {
  finish(start([&] { (spin ? holdSpin : hold)(latches), ::_exit(0); }));
}

const Scenario kScenarios[] = {
    {"spin", nothing, [](Latches& l) { (void)l.spin.captureLatch(kVictim, 1), l.spin.releaseLatch(); }, nothing},
    {"shared", nothing, [](Latches& l) { (void)l.word.getShared(kVictim, 2), l.word.release(); }, nothing},
    {"exclusive", nothing, [](Latches& l) { (void)l.word.getExclusive(kVictim, 3), l.word.release(); }, nothing},
    {"convert", nothing,
     [](Latches& l) {
       (void)l.word.getShared(kVictim, 4), (void)l.word.convert(SQLO_LATCH_EXCLUSIVE, kVictim, 5);
       (void)l.word.convert(SQLO_LATCH_SHARED, kVictim, 6), l.word.release();
     },
     nothing},
    {"waits exclusive", hold, [](Latches& l) { (void)l.word.getExclusive(kVictim, 7), l.word.release(); }, release},
    {"waits shared", hold, [](Latches& l) { (void)l.word.getShared(kVictim, 8), l.word.release(); }, release},
    {"waits spin", holdSpin, [](Latches& l) { (void)l.spin.captureLatch(kVictim, 9), l.spin.releaseLatch(); },
     releaseSpin},
};

constexpr unsigned kStepsMost = 30'000;
// The part of a victim's way that is looked at, what follows being the end of its process, and in what steps: a
// sanitizer makes the same way many times as long.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr unsigned kBody = 12'000;
constexpr unsigned kStride = 600;
#else
constexpr unsigned kBody = 360;
constexpr unsigned kStride = 2;
#endif

// Kills the victim there; tells how far it came.
unsigned killAt(Latches& latches, const Scenario& scenario, unsigned instruction) {
  scenario.before(latches);
  unsigned done = 0;
  {
    Victim victim(captureOnce, [&] { scenario.victim(latches); });
    if (!victim.canRun()) ::exit(kSkip);
    done = victim.step(instruction);
  }
  scenario.after(latches);
  expectUsable(latches, std::string(scenario.name) + " killed at instruction " + std::to_string(instruction));
  return done;
}

// Does body(latches) in a process of its own, with new latches that processes share.
template <class Body>
void withLatches(std::uint16_t policy, Body body) {
  const Instance instance;
  const Shared<Latches> latches;
  const int result = runInProcess([&] {
    initialise(*latches, policy);
    body(*latches);
  });
  if (result == kSkip) GTEST_SKIP() << "a process may not be traced here";
  EXPECT_EQ(result, 0);
}

class LatchDeath : public ::testing::TestWithParam<std::uint16_t> {};

TEST_P(LatchDeath, AtAnyInstruction) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  withLatches(GetParam(), [&](Latches& latches) {
    Dice dice(seed);
    std::string lengths;
    for (const Scenario& scenario : kScenarios) {
      const bool waits = scenario.before != nothing;
      const unsigned length = killAt(latches, scenario, waits ? 3000 : kStepsMost);  // a waiter would wait for ever
      lengths += std::string(scenario.name) + " " + std::to_string(length) + " instructions, ";
      // The way of a waiter is long: samples. Of the others every kStride-th instruction, other ones in each run.
      for (unsigned i = 0; i < (waits ? 20 : std::min(length, kBody) / kStride); ++i)
        killAt(latches, scenario, waits ? dice(length) : kStride * i + seed % kStride);
    }
    EXPECT_GT(latches.repaired.load(), 0U) << lengths;
  });
}

// A waiter that is posted and killed before it has looked: its wake-up is lost, the others must get in all the same.
TEST_P(LatchDeath, JustWoken) {
  withLatches(GetParam(), [](Latches& latches) {
    for (unsigned i = 0; i < 40; ++i) {
      hold(latches);
      {
        Victim victim(captureOnce, [&] { (void)latches.word.getExclusive(kVictim, 1), latches.word.release(); });
        if (!victim.canRun()) ::exit(kSkip);
        victim.runUntilAsleep();
        latches.word.release();
        victim.step(i * 25);
      }
      expectUsable(latches, "woken, killed after " + std::to_string(i * 25));
    }
  });
}

// The post that such a waiter never took wakes nobody else later on, and leaves nothing reserved behind.
TEST_P(LatchDeath, WhatAWokenOneLeavesIsForgotten) {
  withLatches(GetParam(), [](Latches& latches) {
    hold(latches);
    {
      Victim victim(captureOnce, [&] { (void)latches.word.getExclusive(kVictim, 1); });
      if (!victim.canRun()) ::exit(kSkip);
      victim.runUntilAsleep();
      latches.word.release();
    }
    expectUsable(latches, "woken and killed");
    for (int i = 0; i < 5; ++i) {
      hold(latches);
      std::thread waiter([&] { hold(latches), latches.word.release(); });
      while ((latches.word.state() & SQLO_SLATCH_WAITER_X) == 0) ::usleep(100);
      ::usleep(2000);
      latches.word.release();
      waiter.join();
      EXPECT_EQ(latches.word.state(), 0U) << "turn " << i;
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Policies, LatchDeath, ::testing::Values(SQLO_LATCH_X_STARVATION, kFair),
                         [](const auto& policy) { return policy.param == kFair ? "NoXStarvation" : "XStarvation"; });

// Without a policy the process that finds the dead holder stops, and says so in the log; with refusal it is told.
TEST(LatchDeathPolicy, DecidesWhatBecomesOfIt) {
  for (const bool spin : {false, true}) {
    const Instance instance;
    const Shared<Latches> latches;
    const Shared<SqlzZrc> code;
    inProcess([&] {
      initialise(*latches, kFair);
      EXPECT_EQ(sqloSetLatchDeathPolicy(kType, SQLO_LATCH_DEATH_REPAIR, nullptr, nullptr), SQLO_INV_PARM);
      EXPECT_EQ(sqloSetLatchDeathPolicy(SQLO_LATCH_TYPE_COUNT, SQLO_LATCH_DEATH_PANIC, nullptr, nullptr),
                SQLO_INV_PARM);
      dieHolding(*latches, spin);
      const auto request = [&] { return spin ? latches->spin.captureLatch("w", 2) : latches->word.getShared("w", 2); };
      EXPECT_EQ(sqloSetLatchDeathPolicy(kType, SQLO_LATCH_DEATH_REFUSE, nullptr, nullptr), 0);
      EXPECT_EQ(request(), SQLO_LATCH_HOLDER_DIED);
      EXPECT_EQ(request(), SQLO_LATCH_HOLDER_DIED);
      EXPECT_EQ(sqloSetLatchDeathPolicy(kType, SQLO_LATCH_DEATH_PANIC, nullptr, nullptr), 0);
      reportPanics(&*code);
      (void)request();
    });
    EXPECT_EQ(*code, SQLO_LATCH_HOLDER_DIED);
    EXPECT_EQ(logtest::countOf(logtest::Log{instance}.records(), "The exclusive holder of a latch died"), 1U);
  }
}

// What a thread holds without a mark hides the dead only as long as it is held; a killed upgrader leaves its place.
TEST(LatchDeathPolicy, NothingHidesTheDeadForGood) {
  const Shared<std::array<SQLO_SLATCH_CAS32, 65>> many;
  withLatches(kFair, [&](Latches& latches) {
    for (auto& latch : *many) ASSERT_EQ(latch.init(kType, kShared), 0);
    for (auto& latch : *many) ASSERT_EQ(latch.getShared(__FILE__, __LINE__), 0);
    for (auto& latch : *many) latch.release();
    dieHolding(latches, false);
    expectUsable(latches, "after more latches than the list has room for");
    EXPECT_EQ(latches.repaired.load(), 1U);

    ASSERT_EQ(latches.word.getShared(__FILE__, __LINE__), 0);
    const pid_t upgrader = start([&] {
      (void)latches.word.getShared("u", 1);
      (void)latches.word.convert(SQLO_LATCH_EXCLUSIVE, "u", 2);
    });
    while ((latches.word.state() & SQLO_SLATCH_WAITER_X) == 0) ::usleep(100);
    EXPECT_EQ(finishKilled(upgrader), -SIGKILL);
    SqlzZrc result = SQLO_LATCH_UPGRADE_CONFLICT;
    for (int i = 0; i < 100 && result == SQLO_LATCH_UPGRADE_CONFLICT; ++i)
      result = latches.word.convert(SQLO_LATCH_EXCLUSIVE, __FILE__, __LINE__);
    EXPECT_EQ(result, 0);
    latches.word.release();
  });
}

// A thread that ends with private latches held is as gone as a process, for the threads of its own. A repair that has
// to wait for another such latch itself: what the thread waits for first is not lost.
TEST_APART(LatchDeathPolicy, HoldsForThreadsAndARepairMayWait) {
  static SqloSpinLatch outer;
  static SQLO_SLATCH_CAS32 inner;
  static int repairs = 0;
  static const auto expectWaiting = [](const void* latch, std::uint32_t typeId, std::uint32_t line) {
    const SqloLatchTable& table = *sqloCurrentLatchTable();
    EXPECT_TRUE(table.isWaiting);
    EXPECT_EQ(table.waiting.latch, latch);
    EXPECT_EQ(table.waiting.typeId, typeId);
    EXPECT_EQ(table.waiting.line, line);
    EXPECT_STREQ(table.waiting.file, "w");
    ++repairs;
  };
  const auto repairInner = [](void*, void* latch, std::uint32_t typeId) {
    expectWaiting(latch, typeId, 2);
    EXPECT_EQ(sqloCurrentLatchTable()->savedWaiting.latch, &outer);
    return SqlzZrc{0};
  };
  const auto repairOuter = [](void*, void* latch, std::uint32_t typeId) {
    EXPECT_EQ(inner.getShared("w", 2), 0);
    inner.release();
    expectWaiting(latch, typeId, 1);
    return SqlzZrc{0};
  };
  outer.init(kType);
  ASSERT_EQ(inner.init(kType + 1, 0), 0);
  ASSERT_EQ(sqloSetLatchDeathPolicy(kType, SQLO_LATCH_DEATH_REPAIR, repairOuter, nullptr), 0);
  ASSERT_EQ(sqloSetLatchDeathPolicy(kType + 1, SQLO_LATCH_DEATH_REPAIR, repairInner, nullptr), 0);
  inThreads(1, [](unsigned) {
    EXPECT_EQ(outer.captureLatch("ended", 1), 0);
    EXPECT_EQ(inner.getExclusive("ended", 2), 0);
  });
  EXPECT_EQ(outer.captureLatch("w", 1), 0);
  outer.releaseLatch();
  EXPECT_EQ(repairs, 2);
  EXPECT_FALSE(sqloCurrentLatchTable()->isWaiting);
}

// Threads that try again and again, and others that wait, do not make a dead holder look alive.
TEST(LatchDeathPolicy, TheLivingHideNobody) {
  for (const bool spin : {false, true}) {
    withLatches(kFair, [=](Latches& latches) {
      dieHolding(latches, spin);
      std::atomic<bool> stop{false};
      inThreads(5, [&](unsigned number) {
        const bool tries = number < 3;
        SqlzZrc result = SQLO_NOTAVAIL;
        while (result == SQLO_NOTAVAIL && !(tries && stop.load())) {
          if (spin)
            result = tries ? latches.spin.tryCaptureLatch("t", 1) : latches.spin.captureLatch("w", 2);
          else
            result = tries ? latches.word.tryGetExclusive("t", 1) : latches.word.getExclusive("w", 2);
        }
        if (result == 0) (spin ? releaseSpin : release)(latches);
        stop = stop || !tries;
      });
      EXPECT_EQ(latches.repaired.load(), 1U);
      expectUsable(latches, "beside threads that try");
    });
  }
}

bool isListedAsWaiting(pid_t process) {
  SqloLatchEntry entries[16];
  std::size_t count = 0;
  EXPECT_EQ(sqloListLatches(entries, std::size(entries), &count), 0);
  return std::any_of(entries, entries + std::min(count, std::size(entries)), [&](const SqloLatchEntry& entry) {
    return entry.processId == static_cast<std::uint64_t>(process) && entry.state == SQLO_LATCH_ENTRY_WAITING;
  });
}

// Killed between two attempts, it would be shown as a dead holder as long as nobody waits.
TEST(LatchDeathPolicy, WhoSpinsIsNoHolder) {
  withLatches(kFair, [](Latches& latches) {
    ::setenv("VEK_LATCH_TUNE", "OUTER=1000000,XLOOP=1000000,XWASTE=10000", 1);
    ASSERT_EQ(sqloInitializeLatchTuningInfo(), 0);
    for (const bool spin : {false, true}) {
      (spin ? holdSpin : hold)(latches);
      const pid_t spinner = start([&] { (spin ? holdSpin : hold)(latches); });
      bool waits = false;
      for (int look = 0; look < 5000 && !waits; ++look, ::usleep(1000)) waits = isListedAsWaiting(spinner);
      EXPECT_TRUE(waits) << (spin ? "spin latch" : "shared latch");
      EXPECT_EQ(finishKilled(spinner), -SIGKILL);
      (spin ? releaseSpin : release)(latches);
    }
  });
}

// False: another sharer was quicker.
bool getByUpgrade(SQLO_SLATCH_CAS32& latch) {
  if (latch.tryGetShared(__FILE__, __LINE__) != 0) return false;
  const SqlzZrc result = latch.convert(SQLO_LATCH_EXCLUSIVE, __FILE__, __LINE__);
  if (result != 0 && result != SQLO_LATCH_UPGRADE_CONFLICT) ::_exit(3);
  if (result != 0) latch.release();
  return result == 0;
}

// Several processes of several threads, stopped for a while and killed at random: an exclusive holder is always alone,
// and work goes on.
void workUntilKilled(Latches& latches, std::uint32_t seed) {
  inThreads(2, [&](unsigned number) {
    for (Dice dice(seed * 2 + number);;) {
      const std::uint32_t way = dice(6);
      if (way < 2) {
        if (latches.spin.captureLatch(__FILE__, __LINE__) != 0) ::_exit(3);
        latches.spin.releaseLatch();
        if (way == 1 && !getByUpgrade(latches.word)) continue;
        if (way == 0 && latches.word.getExclusive(__FILE__, __LINE__) != 0) ::_exit(3);
        if (latches.owners.exchange(1) != 0) ::_exit(4);
        if (dice(16) == 0) ::usleep(dice(300));
        latches.owners.store(0);
      } else {
        if (latches.word.getShared(__FILE__, __LINE__) != 0) ::_exit(3);
        if (latches.owners.load() != 0) ::_exit(5);
        if (dice(16) == 0) ::usleep(dice(100));
      }
      latches.inside.fetch_add(1);
      latches.word.release();
    }
  });
}

TEST_P(LatchDeath, ProcessesAreStoppedAndKilledAtRandom) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  withLatches(GetParam(), [&](Latches& latches) {
    Dice dice(seed);
    pid_t workers[4] = {};
    for (unsigned i = 0; i < 4; ++i) workers[i] = start([&] { workUntilKilled(latches, seed + i); });
    for (unsigned round = 0; round < 60; ++round) {
      ::usleep(5000 + dice(20'000));
      const pid_t sleeper = workers[dice(4)];  // at whatever step its threads are
      ::kill(sleeper, SIGSTOP);
      ::usleep(dice(20'000));
      ::kill(sleeper, SIGCONT);
      pid_t& worker = workers[dice(4)];
      EXPECT_EQ(finishKilled(worker), -SIGKILL);
      worker = start([&] { workUntilKilled(latches, seed + 100 + round); });
    }
    for (const pid_t worker : workers) EXPECT_EQ(finishKilled(worker), -SIGKILL);
    expectUsable(latches, "at the end");
    EXPECT_GT(latches.inside.load(), 1000U);
  });
}

}  // namespace
}  // namespace vek::synctest
