// The latches of one process: words, texts, modes, upgrades, and more waiters than there are semaphore elements.
#include <algorithm>
#include <barrier>
#include <cstring>

#include "sync/latch_support.h"
#include "sync/sqloLatchAccess.h"
#include "sync/sqloLatchWord.h"

namespace vek::synctest {
namespace {

using namespace platformtest;
using synctest::Instance;

void setState(SQLO_SLATCH_CAS32& latch, std::uint32_t state) { std::memcpy(static_cast<void*>(&latch), &state, 4); }

constexpr std::uint16_t kFair = SQLO_LATCH_NO_X_STARVATION;

TEST(LatchWord, EveryBrokenInvariantStopsTheProcessWithItsCode) {
  enum Operation { kGetShared, kRelease, kConvert, kConvertHeld, kReleaseSpin };
  const struct {
    std::uint32_t state;
    std::uint16_t flags;
    Operation operation;
    SqlzZrc code;
  } rows[] = {
      {0xDDDDDDDD, 0, kGetShared, SQLO_LATCH_ERROR_USED_WHILE_FREED},
      {0x00020000, 0, kGetShared, SQLO_LATCH_ERROR_UNUSED_BITS_ARE_SET},
      {0x80000001, 0, kRelease, SQLO_LATCH_ERROR_UNUSED_BITS_ARE_SET},
      {0x00010003, 0, kGetShared, SQLO_SLATCH_ERROR_HELDX_WITH_SHARED_HOLDERS},
      {0x00010003, 0, kRelease, SQLO_SLATCH_ERROR_HELDX_WITH_SHARED_HOLDERS},
      {0x00010003, 0, kConvertHeld, SQLO_SLATCH_ERROR_HELDS_WITH_X_HOLDER},
      {0x10000002, 0, kConvert, 0},
      {0x01000002, 0, kGetShared, SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER},
      {0x01000002, kFair, kGetShared, SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER_NO_XWAITER},
      {0x00110000, kFair, kRelease, SQLO_SLATCH_ERROR_HELD_WITH_X_RESERVATION},
      {0x00100000, 0, kGetShared, SQLO_SLATCH_ERROR_STARVEX_AND_X_RESERVATION},
      {0x00000000, 0, kRelease, SQLO_LATCH_NOT_HELD},
      {0x00000000, 0, kConvert, SQLO_LATCH_NOT_HELD},
      {0x00000000, 0, kReleaseSpin, SQLO_LATCH_NOT_HELD},
  };
  const Instance instance;
  for (const auto& row : rows) {
    const Shared<SqlzZrc> code;
    inProcess([&] {
      reportPanics(&*code);
      SQLO_SLATCH_CAS32 latch;
      EXPECT_EQ(latch.init(kType, row.flags), 0);
      if (row.operation == kConvertHeld) (void)latch.getShared(__FILE__, __LINE__);
      setState(latch, row.state);
      if (row.operation == kGetShared) (void)latch.getShared(__FILE__, __LINE__);
      if (row.operation == kRelease) latch.release();
      if (row.operation == kReleaseSpin) SqloSpinLatch().releaseLatch();
      if (row.operation == kConvert || row.operation == kConvertHeld)
        (void)latch.convert(SQLO_LATCH_EXCLUSIVE | SQLO_LATCH_CONDITIONAL, __FILE__, 1);
    });
    EXPECT_EQ(*code, row.code) << std::hex << row.state << " flags " << row.flags << " operation " << row.operation;
  }
}

template <class Latch>
void fillAsFreed(Latch& latch) {
  std::memset(static_cast<void*>(&latch), 0xDD, sizeof latch);
}

void loseElement(SQLO_SLATCH_CAS32& latch) { std::memset(reinterpret_cast<char*>(&latch) + 16, 0, 8); }

// A latch that is held and waited for, and what is done to it: nobody goes on with it, and nobody waits for ever.
TEST(LatchWord, WhatIsFreedOrLostUnderWaitersStopsTheProcess) {
  const struct {
    std::uint16_t flags;
    void (*ruin)(SQLO_SLATCH_CAS32& latch);
    SqlzZrc code;
  } rows[] = {
      {0, [](auto& latch) { fillAsFreed(latch), latch.release(); }, SQLO_LATCH_ERROR_USED_WHILE_FREED},
      {0, fillAsFreed<SQLO_SLATCH_CAS32>, SQLO_LATCH_ERROR_USED_WHILE_FREED},
      {0, [](auto& latch) { loseElement(latch), latch.release(); }, SQLO_SLATCH_ERROR_SEMPOOL_POINTER_CHANGED},
      {SQLO_LATCH_BETWEEN_PROCESSES, [](auto& latch) { loseElement(latch), latch.release(); },
       SQLO_SLATCH_ERROR_SEMPOOL_POINTER_NULL},
      {0,
       [](auto&) {
         SqloSpinLatch spin;
         fillAsFreed(spin), (void)spin.captureLatch("s", 1);
       },
       SQLO_LATCH_ERROR_USED_WHILE_FREED},
      {0,
       [](auto&) {
         SqloSpinLatch spin;
         fillAsFreed(spin), (void)spin.tryCaptureLatch("s", 1);
       },
       SQLO_LATCH_ERROR_USED_WHILE_FREED},
  };
  const Instance instance;
  for (const auto& row : rows) {
    const Shared<SqlzZrc> code;
    inProcess([&] {
      reportPanics(&*code);
      ::alarm(20);
      SQLO_SLATCH_CAS32 latch;
      EXPECT_EQ(latch.init(kType, row.flags), 0);
      EXPECT_EQ(latch.getExclusive("h", 1), 0);
      std::thread waiter([&] { (void)latch.getExclusive("w", 2); });
      while ((latch.state() & SQLO_SLATCH_WAITER_X) == 0) std::this_thread::yield();
      { const CsGuard untilItIsInLine(latch); }
      row.ruin(latch);
      waiter.join();
    });
    EXPECT_EQ(*code, row.code) << "row " << &row - rows;
  }
}

TEST_APART(LatchText, IsTheDocumentedOne) {
  char text[1024];
  SQLO_SLATCH_CAS32::stateToString(0x11010002, text, sizeof text);
  EXPECT_STREQ(text,
               "0x11010002: {\n   held X: 1\n   reserved for X: 0\n   shared holders: 2\n   shared waiter: 1\n"
               "   exclusive waiter: 1\n}\n");
  SQLO_SLATCH_CAS32 latch;
  EXPECT_EQ(latch.init(1, kFair), 0);
  EXPECT_EQ(latch.getShared(__FILE__, __LINE__), 0);
  latch.toString(text, sizeof text);
  const std::string whole = text;
  EXPECT_EQ(
      whole.find("{\n   state            = 0x00000001\n                    = {\n                          held X: 0\n"
                 "                          reserved for X: 0\n                          shared holders: 1\n"
                 "                          shared waiter: 0\n                          exclusive waiter: 0\n"
                 "                      }\n   flags            = 32768 (No X Starvation)\n   numXPostsPending = 0\n"
                 "   m_pSemPoolElement  = 0x00000000\n   cs               = { held: 0,"),
      0U)
      << whole;
  EXPECT_NE(SQLO_SLATCH_CAS32{}.toString(text, 20), 0U);
  EXPECT_EQ(std::strlen(text), 19U);
  latch.release();
}

TEST_APART(Latch, ModesGoTogetherAsTheyShould) {
  SQLO_SLATCH_CAS32 latch;
  EXPECT_EQ(latch.init(SQLO_LATCH_TYPE_COUNT, 0), SQLO_INV_PARM);
  EXPECT_EQ(latch.init(1, 0x2000), SQLO_INV_PARM);
  for (const std::uint16_t flags : {SQLO_LATCH_X_STARVATION, kFair}) {
    ASSERT_EQ(latch.init(1, flags), 0);
    EXPECT_EQ(latch.tryGetShared(__FILE__, __LINE__), 0);
    EXPECT_EQ(latch.getShared(__FILE__, __LINE__), 0);
    EXPECT_EQ(latch.tryGetExclusive(__FILE__, __LINE__), SQLO_NOTAVAIL);
    EXPECT_EQ(latch.convert(SQLO_LATCH_EXCLUSIVE | SQLO_LATCH_CONDITIONAL, __FILE__, __LINE__), SQLO_NOTAVAIL);
    latch.release();
    EXPECT_EQ(latch.convert(SQLO_LATCH_EXCLUSIVE, __FILE__, __LINE__), 0);
    EXPECT_EQ(latch.state(), SQLO_SLATCH_HELD_X);
    EXPECT_EQ(latch.getConflict(SQLO_LATCH_SHARED | SQLO_LATCH_CONDITIONAL), SQLO_NOTAVAIL);
    EXPECT_EQ(latch.convert(SQLO_LATCH_SHARED, __FILE__, __LINE__), 0);
    EXPECT_EQ(latch.getConflict(SQLO_LATCH_SHARED), 0);
    EXPECT_EQ(latch.state(), 2U);
    latch.release();
    latch.release();
    EXPECT_EQ(latch.state(), 0U);
    latch.term();
  }
  SqloSpinLatch spin;
  spin.init(2);
  EXPECT_EQ(spin.captureLatch(__FILE__, __LINE__), 0);
  EXPECT_EQ(spin.tryCaptureLatch(__FILE__, __LINE__), SQLO_NOTAVAIL);
  spin.releaseLatch();
  EXPECT_EQ(sqloSpinLockConflict(&spin), 0);
  EXPECT_TRUE(spin.isHeld());
  spin.releaseLatch();
}

// Two upgraders would wait for each other: the second one is told so, and the first gets through when it has let go.
TEST_APART(Latch, OnlyOneSharerWaitsToBecomeExclusive) {
  SQLO_SLATCH_CAS32 latch;
  ASSERT_EQ(latch.init(1, kFair), 0);
  std::atomic<unsigned> granted{0};
  std::barrier all(4);
  inThreads(4, [&](unsigned) {
    for (int round = 0; round < 500; ++round) {
      ASSERT_EQ(latch.getShared(__FILE__, __LINE__), 0);
      all.arrive_and_wait();
      const SqlzZrc result = latch.convert(SQLO_LATCH_EXCLUSIVE, __FILE__, __LINE__);
      EXPECT_TRUE(result == 0 || result == SQLO_LATCH_UPGRADE_CONFLICT) << result;
      granted.fetch_add(result == 0 ? 1 : 0);
      latch.release();
      all.arrive_and_wait();
    }
  });
  EXPECT_GE(granted.load(), 500U);
  EXPECT_EQ(latch.state(), 0U);
}

// More private latches are waited for at once than the process has semaphore elements: who finds none gets through too.
TEST(Latch, MoreAreWaitedForThanThereAreElements) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a thousand threads take too long under the sanitizer";
#endif
  static constexpr unsigned kLatches = 1040;
  static constexpr unsigned kHolders = 20;  // none of which holds more than it has marks for
  const Instance instance;
  inProcess([] {
    std::vector<SQLO_SLATCH_CAS32> latches(kLatches);
    std::atomic<unsigned> held{0};
    std::atomic<unsigned> got{0};
    inThreads(kHolders + kLatches, [&](unsigned number) {
      const unsigned at = number - kHolders;
      if (number >= kHolders) {
        while (held.load() < kHolders) std::this_thread::yield();
        const SqlzZrc result = at % 2 == 0 ? latches[at].getExclusive("w", 1) : latches[at].getShared("w", 2);
        got.fetch_add(result == 0 ? 1 : 0);
        return latches[at].release();
      }
      for (unsigned i = number; i < kLatches; i += kHolders) ASSERT_EQ(latches[i].getExclusive("h", 1), 0);
      held.fetch_add(1);
      const auto isWaitedFor = [](const SQLO_SLATCH_CAS32& latch) { return latch.state() > SQLO_SLATCH_HELD_X; };
      while (!std::all_of(latches.begin(), latches.end(), isWaitedFor) && got.load() == 0) ::usleep(1000);
      for (unsigned i = number; i < kLatches; i += kHolders) latches[i].release();
    });
    EXPECT_EQ(got.load(), kLatches);
    for (const auto& latch : latches) EXPECT_EQ(latch.state(), 0U);
  });
}

}  // namespace
}  // namespace vek::synctest
