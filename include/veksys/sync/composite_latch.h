// Latches made of latches.
//
//   sqloSXULatch       shared, exclusive, and U: shared with the right to become exclusive, which only one has
//   SQLO_XLONG_LATCH   exclusive only, for holds so long that spinning would be a waste: waiters sleep at once
//
// What latch.h says of all latches holds here too; every inner latch is tracked by itself.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/sync/latch.h"

// The S/X/U latch. S goes with S and U; U goes with S; X goes with nothing.
//
//   hold   SXLatch     ULatch
//   S      shared      -
//   U      shared      exclusive
//   X      exclusive   -
class VEK_EXPORT sqloSXULatch {
 public:
  // The modes of a hold.
  enum Mode : std::uint32_t { S = 1, X = 2, U = 3 };

  constexpr sqloSXULatch() noexcept = default;

  // As init and term of SQLO_SLATCH_CAS32, for both inner latches. When init fails neither is left behind.
  SqlzZrc init(std::uint16_t typeId, std::uint16_t flags) noexcept;
  void term() noexcept;

  // Captures in a mode. SQLO_INV_PARM: no such mode.
  SqlzZrc get(Mode mode, const char* file, std::uint32_t line) noexcept;
  SqlzZrc tryGet(Mode mode, const char* file, std::uint32_t line) noexcept;

  // Gives the calling thread's hold back. `mode` is that of the hold, as it was obtained or converted.
  void release(Mode mode) noexcept;

  // Turns the calling thread's U into X when it is the only holder.
  //
  //   Result   0: the hold is X now. SQLO_NOTAVAIL: there are shared holders; the hold is still U.
  //            SQLO_LATCH_NOT_HELD: the latch is not held in U; logged as "Current mode is not U !"
  SqlzZrc tryUpgradeUToX(const char* file, std::uint32_t line) noexcept;

  // Turns a hold of mode `from` into one of mode `to`: U to X waits for the shared holders to leave; X to U, X to S and
  // U to S are immediate. S cannot be raised: SQLO_INV_PARM, as for modes that do not exist.
  //
  //   Result   0; SQLO_INV_PARM; SQLO_LATCH_NOT_HELD: `from` is U and the latch is not held in U, logged as "Current
  //            mode is not U !"; SQLO_LATCH_UPGRADE_CONFLICT: from U to U, logged as "Attempt to convert from U to U
  //            !", or from U to X when all semaphore elements of the process are in use; the hold is still U
  SqlzZrc convert(Mode from, Mode to, const char* file, std::uint32_t line) noexcept;

  // Both inner latches as text, headed "   SXLatch :" and "   ULatch :".
  std::size_t toString(char* buffer, std::size_t size) const noexcept;

 private:
  SQLO_SLATCH_CAS32 m_SXLatch;
  SQLO_SLATCH_CAS32 m_ULatch;
};

// The long exclusive latch.
class VEK_EXPORT SQLO_XLONG_LATCH {
 public:
  constexpr SQLO_XLONG_LATCH() noexcept = default;

  // Makes it free. `flags` are those of SQLO_SLATCH_CAS32 with the type in the lower bits. Codes as of its init.
  SqlzZrc initSemaphoreAndFlags(std::uint16_t flags) noexcept;

  // Gives the semaphore back. The latch must be free.
  void termLatch() noexcept;

  // Waits for the latch; answers at once; gives it back.
  SqlzZrc get(const char* file, std::uint32_t line) noexcept;
  SqlzZrc tryGet(const char* file, std::uint32_t line) noexcept;
  void release() noexcept;

  // The inner latch as text, as that of SQLO_SLATCH_CAS32.
  std::size_t toString(char* buffer, std::size_t size) const noexcept;

 private:
  friend struct SqloXLongLatchAccess;

  SQLO_SLATCH_CAS32 m_latch;
};

extern "C" {

// Sets up and tears down a long latch of an application's own, in this process or, with SQLO_LATCH_BETWEEN_PROCESSES in
// `flags`, between processes.
//
//   Result   0; SQLO_INV_PARM: null; what initSemaphoreAndFlags answers
VEK_EXPORT SqlzZrc sqloxlatchinit_app(SQLO_XLONG_LATCH* latch, std::uint16_t flags) noexcept;
VEK_EXPORT SqlzZrc sqloxlatchterm_app(SQLO_XLONG_LATCH* latch) noexcept;

// Wakes the thread that has waited longest for a long latch, to look at it again. Releasing does that; a caller that
// has changed what a waiter depends on may. Without a waiter nothing happens.
VEK_EXPORT void sqloxult_Post(SQLO_XLONG_LATCH* latch) noexcept;

}  // extern "C"
