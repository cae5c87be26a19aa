// What is noted of a thread's latches, what is said of those it leaves held, the debug checks and the settings.
#include <cstring>
#include <set>

#include "diag/pdlog_support.h"
#include "platform/ports.h"
#include "sync/latch_support.h"
#include "sync/sqloLatchTuning.h"
#include "veksys/latch_types.h"

namespace vek::synctest {
namespace {

using namespace platformtest;
using synctest::Instance;

using logtest::countOf;

TEST(LatchTypes, AreNamedByIdAndUnique) {
  std::set<std::string> names;
  for (std::uint32_t id = 0; id < SQLO_LATCH_TYPE_COUNT; ++id) names.insert(sqloLatchTypeName(id));
  EXPECT_EQ(names.size(), SQLO_LATCH_TYPE_COUNT);
  EXPECT_STREQ(sqloLatchTypeName(SQLO_LT_SMemSet__MemLatchType__latch), "SQLO_LT_SMemSet__MemLatchType__latch");
  EXPECT_STREQ(sqloLatchTypeName(466), "SQLO_LT_SqloMemController__m_latch__latch");
  for (const std::uint32_t id : {SQLO_LATCH_TYPE_COUNT, 0xFFFFFFFFU})
    EXPECT_STREQ(sqloLatchTypeName(id), "SQLO_LT_UNKNOWN") << id;
}

TEST_APART(LatchTable, CountsHoldsByType) {
  SqloSpinLatch first;
  SqloSpinLatch second;
  first.init(kType);
  second.init(kType);
  EXPECT_EQ(sqloCurrentLatchTable(), nullptr);
  EXPECT_EQ(first.captureLatch("a.cpp", 11), 0);
  EXPECT_EQ(second.captureLatch("b.cpp", 22), 0);
  const char* file = nullptr;
  std::uint32_t line = 0;
  const void* latch = nullptr;
  EXPECT_EQ(sqloLatchHoldCount(kType, &file, &line, &latch), 2U);
  EXPECT_STREQ(file, "b.cpp");
  EXPECT_EQ(line, 22U);
  EXPECT_EQ(latch, &second);
  first.releaseLatch();  // not the newest
  EXPECT_EQ(sqloLatchHoldCount(kType, nullptr, nullptr, nullptr), 1U);
  EXPECT_EQ(second.tryCaptureLatch("c.cpp", 33), SQLO_NOTAVAIL);
  EXPECT_EQ(sqloLatchHoldCount(kType, &file, nullptr, nullptr), 1U);
  EXPECT_STREQ(file, "b.cpp") << "a capture that failed is no capture";
  sqloxult_new_track_helper(&second, kType);
  EXPECT_EQ(sqloLatchHoldCount(kType, nullptr, nullptr, nullptr), 0U);
  EXPECT_EQ(sqloLatchHoldCount(SQLO_LATCH_TYPE_COUNT, nullptr, nullptr, nullptr), 0U);
}

// More latches than the list has room for: all are taken and given back, the counts stay right.
TEST_APART(LatchTable, TakesMoreLatchesThanItLists) {
  SQLO_SLATCH_CAS32 latches[100];
  for (auto& latch : latches) {
    ASSERT_EQ(latch.init(kType, 0), 0);
    ASSERT_EQ(latch.getShared(__FILE__, __LINE__), 0);
  }
  EXPECT_EQ(sqloLatchHoldCount(kType, nullptr, nullptr, nullptr), 100U);
  std::size_t listed = 0;
  EXPECT_EQ(sqloListLatches(nullptr, 0, &listed), 0);
  EXPECT_EQ(listed, 64U);
  for (auto& latch : latches) latch.release();
  EXPECT_EQ(sqloLatchHoldCount(kType, nullptr, nullptr, nullptr), 0U);
  EXPECT_EQ(sqloListLatches(nullptr, 0, &listed), 0);
  EXPECT_EQ(listed, 0U);
}

TEST(LatchTable, WhatAThreadLeavesHeldIsReported) {
  const Instance instance;
  const logtest::Log log{instance};
  inProcess([] {
    SQLO_SLATCH_CAS32 latch;
    ASSERT_EQ(latch.init(1, 0), 0);
    inThreads(1, [&](unsigned) {
      EXPECT_EQ(latch.getExclusive("leak.cpp", 4711), 0);
      EXPECT_EQ(latch.convert(SQLO_LATCH_SHARED, "leak.cpp", 4712), 0);
      EXPECT_EQ(latch.getShared("leak.cpp", 4713), 0);
    });
    sqloCheckLatchTable(nullptr);
  });
  const auto written = log.records();
  EXPECT_EQ(countOf(written, "Latch leaked on EDU termination: File leak.cpp : Line 4713 (Identity: 1) HoldCount: 2"),
            1U);
  EXPECT_EQ(countOf(written, "Latch still held: "), 2U);
  EXPECT_EQ(countOf(written, "shared, captured in leak.cpp line 4711"), 1U);
}

void nest(SqloSpinLatch& outer, SqloSpinLatch& inner, std::uint32_t line) {
  EXPECT_EQ(outer.captureLatch("order.cpp", line), 0);
  EXPECT_EQ(inner.captureLatch("order.cpp", line + 1), 0);
  inner.releaseLatch();
  outer.releaseLatch();
}

// Everything that hangs on the debug setting, in a process that has it.
TEST(LatchDebug, FindsWhatCanBlockForGood) {
  const Instance instance;
  const logtest::Log log{instance};
  ::setenv("VEK_LATCH_DEBUG", "on", 1);
  inProcess([] {
    SqloSpinLatch latches[4];
    for (std::uint16_t i = 0; i < 4; ++i) latches[i].init(static_cast<std::uint16_t>(11 + i % 3));
    auto& [a, b, c, twin] = latches;                                                // twin is of the type of a
    for (int i = 0; i < 3; ++i) nest(a, b, 100), nest(b, c, 200), nest(a, c, 300);  // an order
    nest(c, a, 400);                                                                // is broken, by way of b or not
    nest(c, a, 500);
    nest(b, a, 600);
    for (int i = 0; i < 2; ++i) nest(a, twin, 700), nest(twin, a, 800);
  });
  // What blocks the thread for good is written before it does.
  const pid_t again = start([] {
    SqloSpinLatch latch;
    EXPECT_EQ(latch.captureLatch("again.cpp", 1), 0);
    ::alarm(1);
    (void)latch.captureLatch("again.cpp", 2);
  });
  const pid_t behind = start([] {
    SQLO_SLATCH_CAS32 fair;
    ASSERT_EQ(fair.init(14, SQLO_LATCH_NO_X_STARVATION), 0);
    EXPECT_EQ(fair.getShared("self.cpp", 1), 0);
    std::thread writer([&] { (void)fair.getExclusive("self.cpp", 2); });
    while ((fair.state() & SQLO_SLATCH_WAITER_X) == 0) std::this_thread::yield();
    EXPECT_EQ(fair.tryGetShared("self.cpp", 3), SQLO_NOTAVAIL);  // that blocks nobody
    ::alarm(1);
    (void)fair.getShared("self.cpp", 4);
  });
  EXPECT_EQ(finish(again), -SIGALRM);
  EXPECT_EQ(finish(behind), -SIGALRM);
  ::unsetenv("VEK_LATCH_DEBUG");
  const auto written = log.records();
  EXPECT_EQ(countOf(written, "Latches are captured in orders that can block each other for good:"), 2U);
  for (const char* once : {"order.cpp line 401, inside what order.cpp line 400 captured",
                           "order.cpp line 301, inside what order.cpp line 300 captured",
                           "order.cpp line 601, inside what order.cpp line 600 captured",
                           "Two latches of one type are captured in orders that can block each other:",
                           "order.cpp line 701, inside what order.cpp line 700 captured",
                           "A thread waits for a latch that it holds itself",
                           "captured in again.cpp line 1, asked for in again.cpp line 2", "asks to share it again",
                           "captured in self.cpp line 1, asked for in self.cpp line 4"})
    EXPECT_EQ(countOf(written, once), 1U) << once;
}

// Takes two latches of its own types in both orders.
void invertOrder(std::uint16_t type) {
  SqloSpinLatch latches[2];
  for (std::uint16_t i = 0; i < 2; ++i) latches[i].init(static_cast<std::uint16_t>(type + i));
  for (const int outer : {0, 1}) nest(latches[outer], latches[1 - outer], 1);
}

// Whatever a process calls first, also while another thread is still reading the setting.
TEST(LatchDebug, WatchesEveryThreadFromItsFirstCapture) {
  const Instance instance;
  const logtest::Log log{instance};
  for (SqlzZrc (*const before)() noexcept : {sqloInitializeLatchTuningInfo, sqlolatchinginit}) {
    inProcess([&] {
      static constinit std::atomic<bool> isRead{false};
      static const auto otherSettings = g_ports.readSetting;
      g_ports.readSetting = [](const char* name, char* value, std::size_t bytes) {
        if (std::strcmp(name, "VEK_LATCH_DEBUG") != 0) return otherSettings(name, value, bytes);
        if (!isRead.exchange(true)) inThreads(1, [](unsigned) { invertOrder(10); });
        return std::snprintf(value, bytes, "YES") > 0;
      };
      EXPECT_EQ(before(), 0);
      invertOrder(20);
    });
  }
  EXPECT_EQ(countOf(log.records(), "Latches are captured in orders that can block each other for good:"), 4U);
}

TEST(LatchTuning, SaysWhatItDoesNotUnderstand) {
  const Instance instance;
  const logtest::Log log{instance};
  const auto expectRead = [](const char* tune, const char* spin, SqlzZrc result) {
    inProcess([=] {
      ::setenv("VEK_LATCH_TUNE", tune, 1);
      ::setenv("VEKSPINLATCHES", spin, 1);
      EXPECT_EQ(sqloInitializeLatchTuningInfo(), result);
    });
  };
  expectRead("XLOOP=80, 12.SLOOP=7 ENABLE_ADAPTIVE_SLEEP,OUTER=x,NONSENSE=1,SLEEP_MIN", "sometimes", SQLO_INV_PARM);
  expectRead("sloop=1,XLOOP=1000000;12.WASTE=0", "no", 0);
  const auto written = log.records();
  for (const char* word : {"\"OUTER=x\"", "\"NONSENSE=1\"", "\"SLEEP_MIN\"", "VEKSPINLATCHES: \"sometimes\""})
    EXPECT_EQ(countOf(written, word), 1U) << word;
  EXPECT_EQ(countOf(written, "is not understood"), 4U);
}

TEST(LatchTuning, ReachesTheSlotsItNames) {
  const Instance instance;
  inProcess([] {
    ::setenv("VEK_LATCH_TUNE", "XLOOP=80,12.SLOOP=7,900.WASTE=3", 1);
    ::setenv("VEKSPINLATCHES", "no", 1);
    EXPECT_EQ(sqloInitializeLatchTuningInfo(), 0);
    EXPECT_EQ(sqloi_tuning(0).xloop, 80U);
    EXPECT_EQ(sqloi_tuning(11).sloop, 0U);
    EXPECT_EQ(sqloi_tuning(12).sloop, 7U);
    EXPECT_NE(sqloi_tuning(126).waste, 3U);
    for (const std::uint32_t shared : {127U, 128U, 900U, SQLO_LATCH_TYPE_COUNT - 1})
      EXPECT_EQ(sqloi_tuning(shared).waste, 3U) << shared;
  });
}

}  // namespace
}  // namespace vek::synctest
