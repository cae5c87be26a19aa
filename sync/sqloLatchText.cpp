// Latches as text. The latch may be anything: it is read once, and nothing in it is followed.
#include <cinttypes>

#include "platform/osse.h"
#include "sync/sqloLatchAccess.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

constexpr unsigned one(std::uint32_t state, std::uint32_t bit) noexcept { return (state & bit) != 0 ? 1 : 0; }

}  // namespace
}  // namespace vek

std::size_t SqloSpinLatch::toString(char* buffer, std::size_t size) const noexcept {
  return vek::ossSnprintf(buffer, size, "{ held: %u, identity: %s (%u) }", isHeld() ? 1U : 0U,
                          sqloLatchTypeName(m_typeId), m_typeId);
}

std::size_t SQLO_SLATCH_CAS32::toString(char* buffer, std::size_t size) const noexcept {
  const std::uint32_t state = this->state();
  char cs[160];
  m_cs.toString(cs, sizeof cs);
  return vek::ossSnprintf(
      buffer, size,
      "{\n   state            = 0x%08X\n                    = {\n                          held X: %d\n"
      "                          reserved for X: %d\n                          shared holders: %d\n"
      "                          shared waiter: %d\n                          exclusive waiter: %d\n"
      "                      }\n   flags            = %hu (%s)\n   numXPostsPending = %hu\n"
      "   m_pSemPoolElement  = 0x%08" PRIX64 "\n   cs               = %s\n}\n",
      state, vek::one(state, SQLO_SLATCH_HELD_X), vek::one(state, SQLO_SLATCH_RESERVED_X), state & SQLO_SLATCH_HOLDERS,
      vek::one(state, SQLO_SLATCH_WAITER_S), vek::one(state, SQLO_SLATCH_WAITER_X),
      static_cast<std::uint16_t>(m_flags & SQLO_LATCH_PRINTED_FLAGS),
      (m_flags & SQLO_LATCH_NO_X_STARVATION) != 0 ? "No X Starvation" : "X Starvation", m_numXPostsPending,
      m_pSemPoolElement, cs);
}

std::size_t SQLO_SLATCH_CAS32::stateToString(std::uint32_t state, char* buffer, std::size_t size) noexcept {
  return vek::ossSnprintf(buffer, size,
                          "0x%08X: {\n   held X: %d\n   reserved for X: %d\n   shared holders: %d\n"
                          "   shared waiter: %d\n   exclusive waiter: %d\n}\n",
                          state, vek::one(state, SQLO_SLATCH_HELD_X), vek::one(state, SQLO_SLATCH_RESERVED_X),
                          state & SQLO_SLATCH_HOLDERS, vek::one(state, SQLO_SLATCH_WAITER_S),
                          vek::one(state, SQLO_SLATCH_WAITER_X));
}
