// The S/X/U latch.
//
// U is two latches: ULatch exclusive, so that there is one U at most, and SXLatch shared, which keeps X out. No thread
// waits for one of them while it holds the other, but a U that becomes X: it waits for shared holders of SXLatch, which
// ask for nothing. So
//
//   1. who wants U and finds SXLatch held exclusively gives ULatch back, waits for SXLatch, and tries ULatch without
//      waiting; ULatch is held only by who has U, who is about to have it, or who is about to give it back;
//   2. an X that becomes U takes ULatch while it holds SXLatch exclusively: who has ULatch then fails to get SXLatch
//      and gives it back at once.
#include <utility>

#include "platform/osse.h"
#include "sync/sqloLatchTable.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys/sync/composite_latch.h"
#include "veksys/sync/latch_control.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr std::uint32_t kProbeNotHeldInU = 10;
constexpr std::uint32_t kProbeFromUToU = 20;

// What the calling thread's table tells; without one, or when it could not list every latch, whether anybody has U.
bool isHeldInU(const SQLO_SLATCH_CAS32& uLatch) noexcept {
  const SqloLatchTable* table = t_latchTable;
  if (table != nullptr && sqloi_findHold(*table, &uLatch) != nullptr) return true;
  if (table != nullptr && table->unlisted == 0) return false;
  return (uLatch.state() & SQLO_SLATCH_HELD_X) != 0;
}

SqlzZrc misuse(EcfFunctionId function, std::uint32_t probe, SqlzZrc zrc, const char* text, const void* latch) noexcept {
  (void)pdLogValues(PD_LOG_RC_ZRC, function, zrc, probe, PD_LEVEL_ERROR, text, latch);
  return zrc;
}

SqlzZrc notHeldInU(EcfFunctionId function, const void* latch) noexcept {
  return misuse(function, kProbeNotHeldInU, SQLO_LATCH_NOT_HELD, "Current mode is not U !", latch);
}

// Waits as long as an X is there, holding neither latch meanwhile.
SqlzZrc getU(SQLO_SLATCH_CAS32& sxLatch, SQLO_SLATCH_CAS32& uLatch, const char* file, std::uint32_t line) noexcept {
  for (;;) {
    SqlzZrc zrc = uLatch.getExclusive(file, line);
    if (zrc != 0) return zrc;
    zrc = sxLatch.tryGetShared(file, line);
    if (zrc == 0) return 0;
    uLatch.release();
    if (zrc != SQLO_NOTAVAIL) return zrc;

    zrc = sxLatch.getShared(file, line);
    if (zrc != 0) return zrc;
    zrc = uLatch.tryGetExclusive(file, line);
    if (zrc == 0) return 0;
    sxLatch.release();
    if (zrc != SQLO_NOTAVAIL) return zrc;
  }
}

SqlzZrc tryGetU(SQLO_SLATCH_CAS32& sxLatch, SQLO_SLATCH_CAS32& uLatch, const char* file, std::uint32_t line) noexcept {
  SqlzZrc zrc = uLatch.tryGetExclusive(file, line);
  if (zrc != 0) return zrc;
  zrc = sxLatch.tryGetShared(file, line);
  if (zrc != 0) uLatch.release();
  return zrc;
}

SqlzZrc convertFromU(SQLO_SLATCH_CAS32& sxLatch, SQLO_SLATCH_CAS32& uLatch, sqloSXULatch::Mode to, const char* file,
                     std::uint32_t line) noexcept {
  if (to == sqloSXULatch::U)
    return misuse(FID_sqloSXULatch_convert, kProbeFromUToU, SQLO_LATCH_UPGRADE_CONFLICT,
                  "Attempt to convert from U to U !", &sxLatch);
  if (!isHeldInU(uLatch)) return notHeldInU(FID_sqloSXULatch_convert, &sxLatch);
  const SqlzZrc zrc = to == sqloSXULatch::X ? sxLatch.convert(SQLO_LATCH_EXCLUSIVE, file, line) : 0;
  if (zrc == 0) uLatch.release();
  return zrc;
}

SqlzZrc convertFromX(SQLO_SLATCH_CAS32& sxLatch, SQLO_SLATCH_CAS32& uLatch, sqloSXULatch::Mode to, const char* file,
                     std::uint32_t line) noexcept {
  if (to == sqloSXULatch::X) return SQLO_INV_PARM;
  if (to == sqloSXULatch::S) return sxLatch.convert(SQLO_LATCH_SHARED, file, line);
  SqlzZrc zrc = uLatch.getExclusive(file, line);
  if (zrc != 0) return zrc;
  zrc = sxLatch.convert(SQLO_LATCH_SHARED, file, line);
  if (zrc != 0) uLatch.release();
  return zrc;
}

}  // namespace
}  // namespace vek

SqlzZrc sqloSXULatch::init(std::uint16_t typeId, std::uint16_t flags) noexcept {
  SqlzZrc zrc = m_SXLatch.init(typeId, flags);
  if (zrc != 0) return zrc;
  zrc = m_ULatch.init(typeId, flags);
  if (zrc != 0) m_SXLatch.term();
  return zrc;
}

void sqloSXULatch::term() noexcept {
  m_ULatch.term();
  m_SXLatch.term();
}

SqlzZrc sqloSXULatch::get(Mode mode, const char* file, std::uint32_t line) noexcept {
  switch (mode) {
    case S:
      return m_SXLatch.getShared(file, line);
    case X:
      return m_SXLatch.getExclusive(file, line);
    case U:
      return vek::getU(m_SXLatch, m_ULatch, file, line);
  }
  return SQLO_INV_PARM;
}

SqlzZrc sqloSXULatch::tryGet(Mode mode, const char* file, std::uint32_t line) noexcept {
  switch (mode) {
    case S:
      return m_SXLatch.tryGetShared(file, line);
    case X:
      return m_SXLatch.tryGetExclusive(file, line);
    case U:
      return vek::tryGetU(m_SXLatch, m_ULatch, file, line);
  }
  return SQLO_INV_PARM;
}

void sqloSXULatch::release(Mode mode) noexcept {
  if (mode != S && mode != X && mode != U)
    sqloPanic(SQLO_INV_PARM, "A latch was released in a mode that does not exist", this);
  m_SXLatch.release();
  if (mode == U) m_ULatch.release();
}

SqlzZrc sqloSXULatch::tryUpgradeUToX(const char* file, std::uint32_t line) noexcept {
  if (!vek::isHeldInU(m_ULatch)) return vek::notHeldInU(vek::FID_sqloSXULatch_tryUpgradeUToX, this);
  const SqlzZrc zrc = m_SXLatch.convert(SQLO_LATCH_EXCLUSIVE | SQLO_LATCH_CONDITIONAL, file, line);
  if (zrc == 0) m_ULatch.release();
  return zrc;
}

SqlzZrc sqloSXULatch::convert(Mode from, Mode to, const char* file, std::uint32_t line) noexcept {
  if (to != S && to != X && to != U) return SQLO_INV_PARM;
  switch (from) {
    case U:
      return vek::convertFromU(m_SXLatch, m_ULatch, to, file, line);
    case X:
      return vek::convertFromX(m_SXLatch, m_ULatch, to, file, line);
    default:
      return SQLO_INV_PARM;
  }
}

std::size_t sqloSXULatch::toString(char* buffer, std::size_t size) const noexcept {
  std::size_t length = 0;
  for (const auto& [title, latch] : {std::pair("   SXLatch :\n", &m_SXLatch), std::pair("   ULatch :\n", &m_ULatch)}) {
    length += vek::ossSnprintf(buffer + length, size - length, "%s", title);
    length += latch->toString(buffer + length, size - length);
  }
  return length;
}
