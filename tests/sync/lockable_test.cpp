#include <mutex>
#include <shared_mutex>

#include "platform/support.h"
#include "veksys/latch_types.h"
#include "veksys/sync.h"

namespace {

using namespace vek::platformtest;

constexpr std::uint16_t kType = SQLO_LT_SQLE_AGENT__m_workLatch__latch;

template <template <class> class Lock = std::unique_lock, class Adaptor>
bool anotherThreadGets(Adaptor adaptor) {
  bool got = false;
  std::thread([&] { got = Lock(adaptor, std::try_to_lock).owns_lock(); }).join();
  return got;
}

template <class Latch>
void expectGuarded(Latch& latch) {
  const std::uint32_t line = __LINE__ + 1;
  SqloLockable adaptor(latch);
  {
    const std::unique_lock guard(adaptor);
    EXPECT_FALSE(anotherThreadGets(adaptor));
    const char* file = nullptr;
    std::uint32_t noted = 0;
    EXPECT_EQ(sqloLatchHoldCount(kType, &file, &noted, nullptr), 1U);
    EXPECT_STREQ(file, __FILE__);
    EXPECT_EQ(noted, line);
  }
  EXPECT_TRUE(anotherThreadGets(adaptor));
  if constexpr (requires { adaptor.lock_shared(); }) {
    const std::shared_lock guard(adaptor);
    EXPECT_FALSE(anotherThreadGets(adaptor));
    EXPECT_TRUE(anotherThreadGets<std::shared_lock>(adaptor));
  }
  EXPECT_EQ(sqloLatchHoldCount(kType, nullptr, nullptr, nullptr), 0U);
}

TEST_APART(Lockable, GuardsWithEveryKindOfLatch) {
  SqloSpinLatch spin;
  SQLO_SLATCH_CAS32 shared;
  SQLO_XLONG_LATCH longLatch;
  sqloSXULatch sxu;
  spin.init(kType);
  ASSERT_EQ(shared.init(kType, SQLO_LATCH_NO_X_STARVATION), 0);
  ASSERT_EQ(longLatch.initSemaphoreAndFlags(kType), 0);
  ASSERT_EQ(sxu.init(kType, 0), 0);
  expectGuarded(spin);
  expectGuarded(shared);
  expectGuarded(longLatch);
  expectGuarded(sxu);

  SqloLockable first(spin);
  SqloLockable second(shared);
  SqloULockable third(sxu);
  const std::scoped_lock all(first, second, third);
  EXPECT_FALSE(anotherThreadGets(first) || anotherThreadGets(second) || anotherThreadGets(third));
  EXPECT_TRUE(anotherThreadGets<std::shared_lock>(SqloLockable(sxu)));
}

struct RefusingLatch {};
struct Refusing {
  static SqlzZrc get(RefusingLatch&, const char*, std::uint32_t) noexcept { return SQLO_LATCH_HOLDER_DIED; }
  static SqlzZrc tryGet(RefusingLatch&, const char*, std::uint32_t) noexcept { return SQLO_LATCH_HOLDER_DIED; }
  static void release(RefusingLatch&) noexcept {}
};

TEST(Lockable, ThrowsTheCodeOfALatchThatRefuses) {
  RefusingLatch latch;
  SqloLockable<RefusingLatch, Refusing> adaptor(latch);
  const auto thrown = [](auto call) {
    try {
      call();
    } catch (const std::system_error& error) {
      return error.code();
    }
    return std::error_code();
  };
  EXPECT_EQ(thrown([&] { adaptor.lock(); }), std::error_code(SqlzErrc(SQLO_LATCH_HOLDER_DIED)));
  EXPECT_EQ(thrown([&] { (void)adaptor.try_lock(); }), std::error_code(SqlzErrc(SQLO_LATCH_HOLDER_DIED)));
}

}  // namespace
