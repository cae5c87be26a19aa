#include "diag/pdlog_support.h"
#include "sync/latch_support.h"
#include "veksys/latch_types.h"
#include "veksys/sync.h"

namespace {

using namespace vek::platformtest;

constexpr std::uint16_t kType = SQLO_LT_sqloSXULatch__SXLatch__latch;
constexpr sqloSXULatch::Mode kModes[] = {sqloSXULatch::S, sqloSXULatch::X, sqloSXULatch::U};

constexpr std::uint16_t kPolicies[] = {SQLO_LATCH_X_STARVATION, SQLO_LATCH_NO_X_STARVATION};

template <class Work>
void onAnotherThread(Work work) {
  std::thread(work).join();
}

SqlzZrc tried(sqloSXULatch& latch, sqloSXULatch::Mode mode) {
  const SqlzZrc zrc = latch.tryGet(mode, __FILE__, __LINE__);
  if (zrc == 0) latch.release(mode);
  return zrc;
}

bool goTogether(sqloSXULatch::Mode held, sqloSXULatch::Mode wanted) {
  using enum sqloSXULatch::Mode;
  return held != X && wanted != X && (held == S || wanted == S);
}

// What another thread gets while this one has `held`.
void expectCompatible(sqloSXULatch& latch, sqloSXULatch::Mode held) {
  onAnotherThread([&] {
    for (const auto wanted : kModes)
      EXPECT_EQ(tried(latch, wanted), goTogether(held, wanted) ? 0 : SQLO_NOTAVAIL)
          << "held " << held << ", wanted " << wanted;
  });
}

TEST_APART(SXULatch, ConvertsToTheModeAskedFor) {
  using enum sqloSXULatch::Mode;
  using Conversion = std::tuple<sqloSXULatch::Mode, sqloSXULatch::Mode, SqlzZrc>;
  constexpr auto kNone = static_cast<sqloSXULatch::Mode>(7);
  constexpr Conversion kConversions[] = {
      {U, X, 0},
      {U, S, 0},
      {X, U, 0},
      {X, S, 0},
      {U, U, SQLO_LATCH_UPGRADE_CONFLICT},
      {S, U, SQLO_INV_PARM},
      {S, X, SQLO_INV_PARM},
      {S, S, SQLO_INV_PARM},
      {X, X, SQLO_INV_PARM},
      {X, kNone, SQLO_INV_PARM},
  };
  for (const std::uint16_t policy : kPolicies) {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, policy), 0);
    for (const auto& [from, to, result] : kConversions) {
      ASSERT_EQ(latch.get(from, __FILE__, __LINE__), 0);
      EXPECT_EQ(latch.convert(from, to, __FILE__, __LINE__), result) << "from " << from << " to " << to;
      const auto now = result == 0 ? to : from;
      expectCompatible(latch, now);
      latch.release(now);
      EXPECT_EQ(tried(latch, X), 0) << "something of the hold stayed";
    }
    EXPECT_EQ(latch.get(static_cast<sqloSXULatch::Mode>(0), __FILE__, __LINE__), SQLO_INV_PARM);
    latch.term();
  }
}

TEST_APART(SXULatch, UpgradesOnlyWhoHasUAndIsAlone) {
  using enum sqloSXULatch::Mode;
  sqloSXULatch latch;
  ASSERT_EQ(latch.init(kType, SQLO_LATCH_NO_X_STARVATION), 0);
  EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_LATCH_NOT_HELD);
  ASSERT_EQ(latch.get(U, __FILE__, __LINE__), 0);
  onAnotherThread([&] {
    EXPECT_EQ(tried(latch, S), 0);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_LATCH_NOT_HELD) << "it is another thread's U";
  });
  EXPECT_EQ(latch.convert(U, U, __FILE__, __LINE__), SQLO_LATCH_UPGRADE_CONFLICT);
  EXPECT_EQ(latch.convert(U, S, __FILE__, __LINE__), 0);
  onAnotherThread([&] {
    ASSERT_EQ(latch.get(U, __FILE__, __LINE__), 0);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_NOTAVAIL);
    expectCompatible(latch, U);
    latch.release(U);
  });
  latch.release(S);
  ASSERT_EQ(latch.get(U, __FILE__, __LINE__), 0);
  EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), 0);
  EXPECT_EQ(latch.convert(U, S, __FILE__, __LINE__), SQLO_LATCH_NOT_HELD);
  latch.release(X);
  EXPECT_EQ(tried(latch, X), 0);
  const std::vector<std::string> records = vek::logtest::Log{instance}.records();
  EXPECT_EQ(vek::logtest::countOf(records, "Current mode is not U !"), 3U);
  EXPECT_EQ(vek::logtest::countOf(records, "Attempt to convert from U to U !"), 1U);
  char text[2048];
  const std::string whole(text, latch.toString(text, sizeof text));
  EXPECT_EQ(whole.find("   SXLatch :\n{\n"), 0U) << whole;
  EXPECT_TRUE(holds(whole, "   ULatch :\n{\n")) << whole;
}

// Threads that take turns in all modes, with conversions, and at a spin latch never see each other's half-made change.
TEST_APART(LatchStress, ThreadsExcludeEachOther) {
  using enum sqloSXULatch::Mode;
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (const std::uint16_t policy : kPolicies) {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, policy), 0);
    SqloSpinLatch spin;
    std::atomic<int> holders[4] = {};  // by mode
    std::uint64_t value = 0;           // changed in X
    std::uint64_t spun = 0;
    std::atomic<std::uint64_t> writes{0};
    std::atomic<std::uint64_t> spins{0};
    const auto use = [&](sqloSXULatch::Mode mode, vek::synctest::Dice& dice) {
      ++holders[mode];
      for (const auto held : kModes)
        EXPECT_TRUE(goTogether(held, mode) || holders[held] == (held == mode ? 1 : 0)) << held << " and " << mode;
      const std::uint64_t seen = value;
      if (dice(16) == 0) std::this_thread::yield();
      EXPECT_EQ(value, seen);
      if (mode == X) value = seen + 1, ++writes;
      --holders[mode];
    };
    inThreads(6, [&](unsigned number) {
      vek::synctest::Dice dice(seed + number);
      for (int turn = 0; turn < 20'000; ++turn) {
        ASSERT_EQ(spin.captureLatch(__FILE__, __LINE__), 0);
        ++spun;
        spin.releaseLatch();
        ++spins;
        auto mode = kModes[dice(3)];
        const SqlzZrc result =
            dice(4) == 0 ? latch.tryGet(mode, __FILE__, __LINE__) : latch.get(mode, __FILE__, __LINE__);
        if (result == SQLO_NOTAVAIL) continue;
        ASSERT_EQ(result, 0);
        use(mode, dice);
        if (mode != S && dice(2) == 0) {
          const auto from = mode;
          mode = from == U ? X : kModes[dice(2) * 2];
          ASSERT_EQ(latch.convert(from, mode, __FILE__, __LINE__), 0);
          use(mode, dice);
        }
        latch.release(mode);
      }
    });
    EXPECT_EQ(value, writes);
    EXPECT_EQ(spun, spins);
    EXPECT_EQ(tried(latch, X), 0);
  }
}

struct Together {
  SQLO_XLONG_LATCH latch;
  long counter = 0;
};

TEST_APART(LongLatch, AdmitsOneAndWakesTheNext) {
  const Shared<Together> together;
  SQLO_XLONG_LATCH& latch = together->latch;
  EXPECT_EQ(sqloxlatchinit_app(nullptr, 0), SQLO_INV_PARM);
  EXPECT_EQ(sqloxlatchterm_app(nullptr), SQLO_INV_PARM);
  EXPECT_EQ(sqloxlatchinit_app(&latch, SQLO_LATCH_TYPE_COUNT), SQLO_INV_PARM);
  const auto work = [&](unsigned) {
    for (int turn = 0; turn < 2000; ++turn) {
      ASSERT_EQ(latch.get(__FILE__, __LINE__), 0);
      ++together->counter;
      if (turn % 100 == 0) sqloxult_Post(&latch);
      latch.release();
    }
  };
  for (const std::uint16_t flags : {std::uint16_t{0}, SQLO_LATCH_BETWEEN_PROCESSES}) {
    ASSERT_EQ(sqloxlatchinit_app(&latch, flags | kType), 0);
    sqloxult_Post(&latch);
    together->counter = 0;
    flags == 0 ? inThreads(3, work) : inProcesses(3, work);
    EXPECT_EQ(together->counter, 6000);
    ASSERT_EQ(latch.tryGet(__FILE__, __LINE__), 0);
    onAnotherThread([&] { EXPECT_EQ(latch.tryGet(__FILE__, __LINE__), SQLO_NOTAVAIL); });
    latch.release();
    char text[1024];
    EXPECT_GT(latch.toString(text, sizeof text), 0U);
    EXPECT_EQ(sqloxlatchterm_app(&latch), 0);
  }
}

}  // namespace
