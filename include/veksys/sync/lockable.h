// Latches as the mutexes of the C++ library.
//
//   SqloLockable lockable(latch);          // any latch; notes this file and line
//   std::scoped_lock guard(lockable);      // or std::unique_lock, std::lock_guard, std::shared_lock
//
// An adaptor refers to a latch, which must outlive it, and costs nothing: make one where a guard is made. The tracking
// table notes the place where the adaptor was made. Locking throws std::system_error with the category of
// veksys/diag/error_category.h when the latch answers a code, which happens only when its holder has died
// (SQLO_LATCH_HOLDER_DIED); `try_lock` answers false for SQLO_NOTAVAIL alone.
//
// An adaptor may be shared by threads. Rules for latches hold: a shared latch of SQLO_LATCH_NO_X_STARVATION is not
// locked shared twice by one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <system_error>

#include "veksys/codes.h"
#include "veksys/diag/error_category.h"
#include "veksys/sync/composite_latch.h"
#include "veksys/sync/latch.h"

// How a kind of latch is locked: what the adaptor calls, with the latch as the first argument. A kind without shared
// calls is Lockable only.
template <class Latch>
struct SqloLatchModes;

// One byte, exclusive.
template <>
struct SqloLatchModes<SqloSpinLatch> {
  static constexpr auto get = &SqloSpinLatch::captureLatch;
  static constexpr auto tryGet = &SqloSpinLatch::tryCaptureLatch;
  static constexpr auto release = &SqloSpinLatch::releaseLatch;
};

// Shared and exclusive.
template <>
struct SqloLatchModes<SQLO_SLATCH_CAS32> {
  static constexpr auto get = &SQLO_SLATCH_CAS32::getExclusive;
  static constexpr auto tryGet = &SQLO_SLATCH_CAS32::tryGetExclusive;
  static constexpr auto release = &SQLO_SLATCH_CAS32::release;
  static constexpr auto getShared = &SQLO_SLATCH_CAS32::getShared;
  static constexpr auto tryGetShared = &SQLO_SLATCH_CAS32::tryGetShared;
  static constexpr auto releaseShared = &SQLO_SLATCH_CAS32::release;
};

// For long, exclusive.
template <>
struct SqloLatchModes<SQLO_XLONG_LATCH> {
  static constexpr auto get = &SQLO_XLONG_LATCH::get;
  static constexpr auto tryGet = &SQLO_XLONG_LATCH::tryGet;
  static constexpr auto release = &SQLO_XLONG_LATCH::release;
};

// One mode of the S/X/U latch.
template <sqloSXULatch::Mode mode>
struct SqloSXUMode {
  static constexpr auto get = [](sqloSXULatch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.get(mode, file, line);
  };
  static constexpr auto tryGet = [](sqloSXULatch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGet(mode, file, line);
  };
  static constexpr auto release = [](sqloSXULatch& latch) noexcept { latch.release(mode); };
};

// X is the exclusive mode and S the shared one. A hold that is converted meanwhile must be converted back before its
// guard ends.
template <>
struct SqloLatchModes<sqloSXULatch> : SqloSXUMode<sqloSXULatch::X> {
  static constexpr auto getShared = SqloSXUMode<sqloSXULatch::S>::get;
  static constexpr auto tryGetShared = SqloSXUMode<sqloSXULatch::S>::tryGet;
  static constexpr auto releaseShared = SqloSXUMode<sqloSXULatch::S>::release;
};

// Modes with shared calls.
template <class Modes>
concept SqloSharedModes = requires {
  Modes::getShared;
};

// The adaptor: Lockable, and SharedLockable where the latch has a shared mode.
template <class Latch, class Modes = SqloLatchModes<Latch>>
class SqloLockable {
 public:
  // Refers to a latch. File and line are those of the caller.
  explicit SqloLockable(Latch& latch, const char* file = __builtin_FILE(),
                        std::uint32_t line = __builtin_LINE()) noexcept
      : latch_(&latch), file_(file), line_(line) {}

  // Exclusively: waits, tries, gives back.
  void lock() { mustBeHeld(std::invoke(Modes::get, *latch_, file_, line_)); }
  bool try_lock() { return isHeld(std::invoke(Modes::tryGet, *latch_, file_, line_)); }
  void unlock() noexcept { std::invoke(Modes::release, *latch_); }

  // Shared: waits, tries, gives back.
  void lock_shared() requires SqloSharedModes<Modes> {
    mustBeHeld(std::invoke(Modes::getShared, *latch_, file_, line_));
  }
  bool try_lock_shared() requires SqloSharedModes<Modes> {
    return isHeld(std::invoke(Modes::tryGetShared, *latch_, file_, line_));
  }
  void unlock_shared() noexcept requires SqloSharedModes<Modes> { std::invoke(Modes::releaseShared, *latch_); }

 private:
  static void mustBeHeld(SqlzZrc zrc) {
    if (zrc != 0) throw std::system_error(SqlzErrc(zrc));
  }
  static bool isHeld(SqlzZrc zrc) {
    if (zrc != SQLO_NOTAVAIL) mustBeHeld(zrc);
    return zrc == 0;
  }

  Latch* latch_;
  const char* file_;
  std::uint32_t line_;
};

// The adaptor for the mode U.
using SqloULockable = SqloLockable<sqloSXULatch, SqloSXUMode<sqloSXULatch::U>>;
