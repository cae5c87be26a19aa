// The spin latch.
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

bool spin(SqloSpinLatch& latch, const LatchTuning& tuning) noexcept {
  for (std::uint32_t round = 0; round < tuning.outer; ++round) {
    for (std::uint32_t look = 0; look < tuning.inner; ++look) {
      if (takeIfFree(latch)) return true;
      sqloi_wasteTime(tuning, tuning.waste);
    }
    ossYield();
  }
  return takeIfFree(latch);
}

// The mark says ACTIVE whenever the thread could get the latch.
bool tryResting(SqloSpinLatch& latch, LatchHold& hold) noexcept {
  if (!isFree(latch)) return false;
  hold.tries();
  if (take(latch)) return true;
  hold.sleeps();
  return false;
}

constexpr std::int64_t kFirstLookNs = 10'000'000;  // a holder that lives has long given back by then

SqlzZrc rest(SqloSpinLatch& latch, const LatchTuning& tuning, LatchHold& hold) noexcept {
  const std::int64_t since = ossMonotonicNs();
  std::int64_t wait = kFirstLookNs;
  hold.sleeps();
  hold.setSince(since);
  for (LatchRest rests(tuning);;) {
    if (tryResting(latch, hold)) return 0;
    rests.rest();
    if (ossMonotonicNs() - since < wait) continue;
    wait *= 2;
    const Rescue rescue = sqloi_rescueSpin(latch, hold);
    if (rescue == Rescue::kOwned) return 0;
    if (rescue == Rescue::kRefused) return SQLO_LATCH_HOLDER_DIED;
  }
}

SqlzZrc conflict(SqloSpinLatch& latch, LatchHold& hold, const char* file, std::uint32_t line) noexcept {
  const ErrnoKept kept;
  const int cancelState = ossDisableCancellation();
  const LatchTuning& tuning = sqloi_tuning(latch.typeId());
  hold.beginWaiting(&latch, file, line);
  const SqlzZrc result = spin(latch, tuning) ? 0 : rest(latch, tuning, hold);
  hold.endWaiting();
  ossRestoreCancellation(cancelState);
  return result;
}

[[gnu::noinline, gnu::cold]] SqlzZrc captureConflict(SqloSpinLatch& latch, LatchHold& hold, const char* file,
                                                     std::uint32_t line) noexcept {
  const SqlzZrc result = conflict(latch, hold, file, line);
  if (result == 0)
    hold.granted(&latch, file, line);
  else
    hold.cancelled();
  return result;
}

}  // namespace
}  // namespace vek

void SqloSpinLatch::init(std::uint16_t typeId, std::uint16_t flags) noexcept {
  m_typeId = typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0;
  m_flags = static_cast<std::uint8_t>((flags & SQLO_LATCH_BETWEEN_PROCESSES) >> 8);
  vek::Access::held(*this).store(0, std::memory_order_release);
}

SqlzZrc SqloSpinLatch::captureLatch(const char* file, std::uint32_t line) noexcept {
  vek::LatchHold hold(vek::Access::subject(*this), file, line);
  if (!vek::take(*this)) [[unlikely]]
    return vek::captureConflict(*this, hold, file, line);
  hold.granted(this, file, line);
  return 0;
}

SqlzZrc SqloSpinLatch::tryCaptureLatch(const char* file, std::uint32_t line) noexcept {
  const vek::LatchHold hold(vek::Access::subject(*this, vek::LatchWay::kConditional), file, line);
  if (!vek::takeIfFree(*this)) {
    hold.cancelled();
    return SQLO_NOTAVAIL;
  }
  hold.granted(this, file, line);
  return 0;
}

void SqloSpinLatch::releaseLatch() noexcept {
  const std::uint16_t typeId = m_typeId;  // once the byte is 0 the memory may be somebody else's
  if (!isHeld()) [[unlikely]]
    sqloPanic(SQLO_LATCH_NOT_HELD, "A spin latch that nobody holds is released", this);
  vek::Access::held(*this).store(0, std::memory_order_release);
  vek::LatchHold::released(this, typeId);
}

SqlzZrc sqloSpinLockConflict(SqloSpinLatch* latch) noexcept {
  vek::LatchHold hold(vek::Access::subject(*latch), nullptr, 0);
  return vek::captureConflict(*latch, hold, nullptr, 0);
}
