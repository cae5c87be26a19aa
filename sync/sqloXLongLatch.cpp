// The long exclusive latch.
//
// A hold lasts long enough for a waiter to sleep through it, so that a request that cannot be granted at once goes to
// sleep without spinning first.
#include "sync/sqloLatchAccess.h"
#include "veksys/codes.h"
#include "veksys/sync/composite_latch.h"

SqlzZrc SQLO_XLONG_LATCH::initSemaphoreAndFlags(std::uint16_t flags) noexcept {
  constexpr std::uint16_t kTypeBits = SQLO_LATCH_TYPE_MASK;
  return m_latch.init(static_cast<std::uint16_t>(flags & kTypeBits), static_cast<std::uint16_t>(flags & ~kTypeBits));
}

void SQLO_XLONG_LATCH::termLatch() noexcept { m_latch.term(); }

SqlzZrc SQLO_XLONG_LATCH::get(const char* file, std::uint32_t line) noexcept {
  return SqloSharedLatchAccess::getExclusiveLong(m_latch, file, line);
}

SqlzZrc SQLO_XLONG_LATCH::tryGet(const char* file, std::uint32_t line) noexcept {
  return m_latch.tryGetExclusive(file, line);
}

void SQLO_XLONG_LATCH::release() noexcept { m_latch.release(); }

std::size_t SQLO_XLONG_LATCH::toString(char* buffer, std::size_t size) const noexcept {
  return m_latch.toString(buffer, size);
}

struct SqloXLongLatchAccess {
  static SQLO_SLATCH_CAS32& latchOf(SQLO_XLONG_LATCH& latch) noexcept { return latch.m_latch; }
};

SqlzZrc sqloxlatchinit_app(SQLO_XLONG_LATCH* latch, std::uint16_t flags) noexcept {
  return latch == nullptr ? SQLO_INV_PARM : latch->initSemaphoreAndFlags(flags);
}

SqlzZrc sqloxlatchterm_app(SQLO_XLONG_LATCH* latch) noexcept {
  if (latch == nullptr) return SQLO_INV_PARM;
  latch->termLatch();
  return 0;
}

void sqloxult_Post(SQLO_XLONG_LATCH* latch) noexcept {
  if (latch != nullptr) SqloSharedLatchAccess::post(SqloXLongLatchAccess::latchOf(*latch));
}
