// The spin latch.
#include <algorithm>

#include "platform/osse.h"
#include "sync/sqloLatchAccess.h"
#include "sync/sqloLatchDeath.h"
#include "sync/sqloLatchTuning.h"
#include "veksys/codes.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

using Access = SqloSpinLatchAccess;

bool isFree(SqloSpinLatch& latch) noexcept { return Access::held(latch).load(std::memory_order_relaxed) == 0; }
bool take(SqloSpinLatch& latch) noexcept { return Access::held(latch).exchange(1, std::memory_order_acq_rel) == 0; }

bool takeIfFree(SqloSpinLatch& latch) noexcept { return isFree(latch) && take(latch); }

// In freed memory the byte would look taken for ever.
void checkNotFreed(const SqloSpinLatch& latch) noexcept {
  if (Access::isFreed(latch)) [[unlikely]]
    sqloPanic(SQLO_LATCH_ERROR_USED_WHILE_FREED, "A spin latch lies in freed memory", &latch);
}

// The mark says ACTIVE whenever the thread could get the latch.
bool tryWaiting(SqloSpinLatch& latch, LatchHold& hold) noexcept {
  if (!isFree(latch)) return false;
  hold.tries();
  if (take(latch)) return true;
  hold.sleeps();
  return false;
}

// A thread that is killed here does not look like a holder.
bool spin(SqloSpinLatch& latch, const LatchTuning& tuning, LatchHold& hold) noexcept {
  hold.sleeps();
  for (std::uint32_t round = 0; round < tuning.outer; ++round) {
    for (std::uint32_t look = 0; look < tuning.inner; ++look) {
      if (tryWaiting(latch, hold)) return true;
      sqloi_wasteTime(tuning, tuning.waste);
    }
    ossYield();
  }
  return tryWaiting(latch, hold);
}

constexpr std::int64_t kFirstLookNs = 10'000'000;  // a holder that lives has long given back by then
constexpr std::int64_t kLongestBetweenLooksNs = 1'000'000'000;

SqlzZrc restUntilFree(SqloSpinLatch& latch, const LatchTuning& tuning, LatchHold& hold) noexcept {
  const std::int64_t since = ossMonotonicNs();
  std::int64_t wait = kFirstLookNs;
  hold.setSince(since);
  for (LatchRest rests(tuning);;) {
    if (tryWaiting(latch, hold)) return 0;
    rests.rest();
    checkNotFreed(latch);
    if (ossMonotonicNs() - since < wait) continue;
    wait += wait < kLongestBetweenLooksNs ? wait : kLongestBetweenLooksNs;
    const Rescue rescue = sqloi_rescueSpin(latch, hold);
    if (rescue == Rescue::kOwned) return 0;
    if (rescue == Rescue::kRefused) return SQLO_LATCH_HOLDER_DIED;
  }
}

SqlzZrc rest(SqloSpinLatch& latch, const LatchTuning& tuning, LatchHold& hold) noexcept {
  const ErrnoKept kept;
  const int cancelState = ossDisableCancellation();
  const SqlzZrc result = restUntilFree(latch, tuning, hold);
  if (result == 0) hold.setSince(ossMonotonicNs());
  ossRestoreCancellation(cancelState);
  return result;
}

SqlzZrc wait(SqloSpinLatch& latch, LatchHold& hold, const char* file, std::uint32_t line) noexcept {
  const LatchTuning& tuning = sqloi_tuning(latch.typeId());
  hold.beginWaiting(file, line);
  const SqlzZrc result = spin(latch, tuning, hold) ? 0 : rest(latch, tuning, hold);
  hold.endWaiting();
  return result;
}

[[gnu::noinline, gnu::cold]] SqlzZrc conflict(SqloSpinLatch& latch, LatchHold hold, const char* file,
                                              std::uint32_t line) noexcept {
  checkNotFreed(latch);
  const SqlzZrc result = wait(latch, hold, file, line);
  if (result == 0)
    hold.granted(file, line);
  else
    hold.cancelled();
  return result;
}

// A thread's first capture, one from a file it has not captured in before, or with debug checks on.
[[gnu::noinline, gnu::cold]] SqlzZrc captureLong(SqloSpinLatch& latch, const char* file, std::uint32_t line) noexcept {
  const LatchHold hold(Access::subject(latch), file, line);
  if (!take(latch)) return conflict(latch, hold, file, line);
  hold.granted(file, line);
  return 0;
}

// The same of a request that does not wait.
[[gnu::noinline, gnu::cold]] SqlzZrc tryLong(SqloSpinLatch& latch, const char* file, std::uint32_t line) noexcept {
  const LatchHold hold(Access::subject(latch, LatchWay::kConditional), file, line);
  if (!takeIfFree(latch)) {
    hold.cancelled();
    return SQLO_NOTAVAIL;
  }
  hold.granted(file, line);
  return 0;
}

// A latch that was not the last one captured, that the thread has no mark of, or with debug checks on.
[[gnu::noinline, gnu::cold]] void releaseLong(SqloSpinLatch& latch) noexcept {
  checkNotFreed(latch);
  const std::uint32_t flags = Access::latchFlags(latch);  // once the byte is 0 the memory may be somebody else's
  if (isFree(latch)) sqloPanic(SQLO_LATCH_NOT_HELD, "A spin latch that nobody holds is released", &latch);
  Access::held(latch).store(0, std::memory_order_release);
  sqloi_latchReleased(&latch, flags);
}

}  // namespace
}  // namespace vek

void SqloSpinLatch::init(std::uint16_t typeId, std::uint16_t flags) noexcept {
  m_typeId = typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0;
  m_flags = static_cast<std::uint8_t>((flags & SQLO_LATCH_BETWEEN_PROCESSES) >> 8);
  vek::Access::held(*this).store(0, std::memory_order_release);
}

SqlzZrc SqloSpinLatch::captureLatch(const char* file, std::uint32_t line) noexcept {
  SqloLatchTable* table = vek::t_latchTable;
  const std::uint32_t flags = vek::Access::latchFlags(*this);
  vek::LatchMark* mark = vek::latchPublishShortly(table, this, flags, vek::MARK_EXCLUSIVE, file, line);
  if (mark == nullptr) [[unlikely]]
    return vek::captureLong(*this, file, line);
  if (!vek::takeIfFree(*this)) [[unlikely]]  // a look costs nothing: the type was read from the same line
    return vek::conflict(*this, vek::LatchHold(table, mark, vek::Access::subject(*this)), file, line);
  vek::latchCount(*table, this, flags, file, line);
  return 0;
}

SqlzZrc SqloSpinLatch::tryCaptureLatch(const char* file, std::uint32_t line) noexcept {
  if (isHeld()) {  // without a mark: a thread that tries for ever would look like a holder
    vek::checkNotFreed(*this);
    return SQLO_NOTAVAIL;
  }
  SqloLatchTable* table = vek::t_latchTable;
  const std::uint32_t flags = vek::Access::latchFlags(*this);
  vek::LatchMark* mark = vek::latchPublishShortly(table, this, flags, vek::MARK_EXCLUSIVE, file, line);
  if (mark == nullptr) [[unlikely]]
    return vek::tryLong(*this, file, line);
  if (!vek::take(*this)) [[unlikely]] {
    vek::LatchHold(table, mark, vek::Access::subject(*this, vek::LatchWay::kConditional)).cancelled();
    return SQLO_NOTAVAIL;
  }
  vek::latchCount(*table, this, flags, file, line);
  return 0;
}

void SqloSpinLatch::releaseLatch() noexcept {
  SqloLatchTable* table = vek::t_latchTable;
  vek::LatchMark* mark = vek::latchNewest(table, this);
  if (mark == nullptr) [[unlikely]]
    return vek::releaseLong(*this);
  vek::Access::held(*this).store(0, std::memory_order_release);
  vek::latchReleased(*table, *mark);
}

SqlzZrc sqloSpinLockConflict(SqloSpinLatch* latch) noexcept {
  return vek::conflict(*latch, vek::LatchHold(vek::Access::subject(*latch), nullptr, 0), nullptr, 0);
}
