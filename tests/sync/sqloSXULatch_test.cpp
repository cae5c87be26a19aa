#include "diag/pdlog_support.h"
#include "sync/latch_support.h"
#include "veksys/latch_types.h"
#include "veksys/sync.h"

namespace {

using namespace vek::platformtest;

constexpr std::uint16_t kType = SQLO_LT_sqloSXULatch__SXLatch__latch;
constexpr sqloSXULatch::Mode kModes[] = {sqloSXULatch::S, sqloSXULatch::X, sqloSXULatch::U};

template <class Work>
void onAnotherThread(Work work) {
  std::thread(work).join();
}

SqlzZrc tried(sqloSXULatch& latch, sqloSXULatch::Mode mode) {
  const SqlzZrc zrc = latch.tryGet(mode, __FILE__, __LINE__);
  if (zrc == 0) latch.release(mode);
  return zrc;
}

// What another thread gets while this one has `held`.
void expectCompatible(sqloSXULatch& latch, sqloSXULatch::Mode held) {
  using enum sqloSXULatch::Mode;
  onAnotherThread([&] {
    for (const auto wanted : kModes) {
      const bool goTogether = held != X && wanted != X && (held == S || wanted == S);
      EXPECT_EQ(tried(latch, wanted), goTogether ? 0 : SQLO_NOTAVAIL) << "held " << held << ", wanted " << wanted;
    }
  });
}

class SXULatches : public ::testing::TestWithParam<std::uint16_t> {};

INSTANTIATE_TEST_SUITE_P(Policies, SXULatches, ::testing::Values(SQLO_LATCH_X_STARVATION, SQLO_LATCH_NO_X_STARVATION));

TEST_P(SXULatches, GoTogetherAsTheirModesSay) {
  const Instance instance;
  inProcess([] {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, GetParam()), 0);
    for (const auto held : kModes) {
      ASSERT_EQ(latch.get(held, __FILE__, __LINE__), 0);
      expectCompatible(latch, held);
      latch.release(held);
      EXPECT_EQ(tried(latch, sqloSXULatch::X), 0) << "something of the hold stayed";
    }
    latch.term();
  });
}

TEST_P(SXULatches, ConvertToTheModeAskedFor) {
  using enum sqloSXULatch::Mode;
  using Conversion = std::tuple<sqloSXULatch::Mode, sqloSXULatch::Mode, SqlzZrc>;
  constexpr auto kNone = static_cast<sqloSXULatch::Mode>(7);
  static constexpr Conversion kConversions[] = {
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
  const Instance instance;
  inProcess([] {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, GetParam()), 0);
    for (const auto& [from, to, result] : kConversions) {
      ASSERT_EQ(latch.get(from, __FILE__, __LINE__), 0);
      EXPECT_EQ(latch.convert(from, to, __FILE__, __LINE__), result) << "from " << from << " to " << to;
      const auto now = result == 0 ? to : from;
      expectCompatible(latch, now);
      latch.release(now);
    }
    EXPECT_EQ(latch.get(static_cast<sqloSXULatch::Mode>(0), __FILE__, __LINE__), SQLO_INV_PARM);
  });
}

TEST_APART(SXULatch, UpgradesOnlyWhoHasUAndIsAlone) {
  sqloSXULatch latch;
  ASSERT_EQ(latch.init(kType, SQLO_LATCH_NO_X_STARVATION), 0);
  ASSERT_EQ(latch.get(sqloSXULatch::U, __FILE__, __LINE__), 0);
  onAnotherThread([&] {
    EXPECT_EQ(tried(latch, sqloSXULatch::S), 0);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_LATCH_NOT_HELD) << "it is another thread's U";
  });
  EXPECT_EQ(latch.convert(sqloSXULatch::U, sqloSXULatch::S, __FILE__, __LINE__), 0);
  onAnotherThread([&] {
    ASSERT_EQ(latch.get(sqloSXULatch::U, __FILE__, __LINE__), 0);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_NOTAVAIL);
    expectCompatible(latch, sqloSXULatch::U);
    latch.release(sqloSXULatch::U);
  });
  latch.release(sqloSXULatch::S);
  EXPECT_EQ(tried(latch, sqloSXULatch::X), 0);
}

TEST(SXULatch, ReportsMisuse) {
  const Instance instance;
  const vek::logtest::Log log{instance};
  inProcess([&] {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, 0), 0);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), SQLO_LATCH_NOT_HELD);
    ASSERT_EQ(latch.get(sqloSXULatch::U, __FILE__, __LINE__), 0);
    EXPECT_EQ(latch.convert(sqloSXULatch::U, sqloSXULatch::U, __FILE__, __LINE__), SQLO_LATCH_UPGRADE_CONFLICT);
    EXPECT_EQ(latch.tryUpgradeUToX(__FILE__, __LINE__), 0);
    EXPECT_EQ(latch.convert(sqloSXULatch::U, sqloSXULatch::S, __FILE__, __LINE__), SQLO_LATCH_NOT_HELD);
    latch.release(sqloSXULatch::X);
    const std::vector<std::string> records = log.records();
    for (const char* text : {"Current mode is not U !", "Attempt to convert from U to U !"})
      EXPECT_GE(vek::logtest::countOf(records, text), 1U) << text;
    char text[2048];
    const std::string whole(text, latch.toString(text, sizeof text));
    EXPECT_EQ(whole.find("   SXLatch :\n{\n"), 0U) << whole;
    EXPECT_NE(whole.find("   ULatch :\n{\n"), std::string::npos) << whole;
  });
}

// Threads that take turns in all modes, with conversions, never see each other's half-made change.
TEST_P(SXULatches, KeepThreadsApart) {
  using enum sqloSXULatch::Mode;
  const Instance instance;
  inProcess([] {
    sqloSXULatch latch;
    ASSERT_EQ(latch.init(kType, GetParam()), 0);
    std::atomic<int> holders[4] = {};  // by mode
    std::atomic<int> faults = 0;
    const auto enter = [&](sqloSXULatch::Mode mode) {
      if (mode == X && holders[S] + holders[U] + holders[X] != 0) ++faults;
      if (mode == U && holders[U] + holders[X] != 0) ++faults;
      if (mode == S && holders[X] != 0) ++faults;
      ++holders[mode];
    };
    const auto work = [&](unsigned seed) {
      for (int turn = 0; turn < 3000; ++turn) {
        seed = seed * 1103515245 + 12345;
        auto mode = kModes[seed / 65536 % 3];
        if (latch.get(mode, __FILE__, __LINE__) != 0) ++faults;
        enter(mode);
        if (seed / 262144 % 4 == 0) std::this_thread::yield();
        if (mode != S && seed / 1048576 % 2 == 0) {
          const auto to = mode == U ? X : U;
          --holders[mode];
          if (latch.convert(mode, to, __FILE__, __LINE__) != 0) ++faults;
          enter(mode = to);
        }
        --holders[mode];
        latch.release(mode);
      }
    };
    vek::synctest::inThreads(4, work);
    EXPECT_EQ(faults, 0);
    EXPECT_EQ(tried(latch, X), 0);
  });
}

TEST_APART(LongLatch, AdmitsOneAndWakesTheNext) {
  EXPECT_EQ(sqloxlatchinit_app(nullptr, 0), SQLO_INV_PARM);
  EXPECT_EQ(sqloxlatchterm_app(nullptr), SQLO_INV_PARM);
  SQLO_XLONG_LATCH latch;
  EXPECT_EQ(sqloxlatchinit_app(&latch, SQLO_LATCH_TYPE_COUNT), SQLO_INV_PARM);
  ASSERT_EQ(sqloxlatchinit_app(&latch, SQLO_LT_SQLO_XLONG_LATCH__m_applicationLatch__latch), 0);
  sqloxult_Post(&latch);
  long counter = 0;
  const auto work = [&](unsigned) {
    for (int turn = 0; turn < 2000; ++turn) {
      ASSERT_EQ(latch.get(__FILE__, __LINE__), 0);
      ++counter;
      if (turn % 100 == 0) sqloxult_Post(&latch);
      latch.release();
    }
  };
  vek::synctest::inThreads(3, work);
  EXPECT_EQ(counter, 6000);
  ASSERT_EQ(latch.tryGet(__FILE__, __LINE__), 0);
  onAnotherThread([&] { EXPECT_EQ(latch.tryGet(__FILE__, __LINE__), SQLO_NOTAVAIL); });
  latch.release();
  char text[1024];
  EXPECT_GT(latch.toString(text, sizeof text), 0U);
  EXPECT_EQ(sqloxlatchterm_app(&latch), 0);
}

struct Together {
  SQLO_XLONG_LATCH latch;
  long counter = 0;
};

TEST(LongLatch, KeepsProcessesApart) {
  const Instance instance;
  const Shared<Together> together;
  inProcess([&] {
    constexpr auto kFlags = static_cast<std::uint16_t>(SQLO_LATCH_BETWEEN_PROCESSES | kType);
    ASSERT_EQ(sqloxlatchinit_app(&together->latch, kFlags), 0);
  });
  const auto work = [&](unsigned) {
    for (int turn = 0; turn < 2000; ++turn) {
      ASSERT_EQ(together->latch.get(__FILE__, __LINE__), 0);
      ++together->counter;
      together->latch.release();
    }
  };
  inProcesses(3, work);
  EXPECT_EQ(together->counter, 6000);
}

}  // namespace
