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
#include <system_error>

#include "veksys/codes.h"
#include "veksys/diag/error_category.h"
#include "veksys/sync/composite_latch.h"
#include "veksys/sync/latch.h"

// How a kind of latch is locked: for each kind the members that the adaptor is made of. A kind without shared ones is
// Lockable only.
template <class Latch>
struct SqloLatchModes;

// One byte, exclusive.
template <>
struct SqloLatchModes<SqloSpinLatch> {
  using Latch = SqloSpinLatch;
  static SqlzZrc get(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.captureLatch(file, line);
  }
  static SqlzZrc tryGet(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryCaptureLatch(file, line);
  }
  static void release(Latch& latch) noexcept { latch.releaseLatch(); }
};

// Shared and exclusive.
template <>
struct SqloLatchModes<SQLO_SLATCH_CAS32> {
  using Latch = SQLO_SLATCH_CAS32;
  static SqlzZrc get(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.getExclusive(file, line);
  }
  static SqlzZrc tryGet(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGetExclusive(file, line);
  }
  static void release(Latch& latch) noexcept { latch.release(); }
  static SqlzZrc getShared(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.getShared(file, line);
  }
  static SqlzZrc tryGetShared(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGetShared(file, line);
  }
  static void releaseShared(Latch& latch) noexcept { latch.release(); }
};

// For long, exclusive.
template <>
struct SqloLatchModes<SQLO_XLONG_LATCH> {
  using Latch = SQLO_XLONG_LATCH;
  static SqlzZrc get(Latch& latch, const char* file, std::uint32_t line) noexcept { return latch.get(file, line); }
  static SqlzZrc tryGet(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGet(file, line);
  }
  static void release(Latch& latch) noexcept { latch.release(); }
};

// X is the exclusive mode and S the shared one. A hold that is converted meanwhile must be converted back before its
// guard ends.
template <>
struct SqloLatchModes<sqloSXULatch> {
  using Latch = sqloSXULatch;
  static SqlzZrc get(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.get(Latch::X, file, line);
  }
  static SqlzZrc tryGet(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGet(Latch::X, file, line);
  }
  static void release(Latch& latch) noexcept { latch.release(Latch::X); }
  static SqlzZrc getShared(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.get(Latch::S, file, line);
  }
  static SqlzZrc tryGetShared(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGet(Latch::S, file, line);
  }
  static void releaseShared(Latch& latch) noexcept { latch.release(Latch::S); }
};

// The mode U of the S/X/U latch, as a Lockable.
struct SqloUMode {
  using Latch = sqloSXULatch;
  static SqlzZrc get(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.get(Latch::U, file, line);
  }
  static SqlzZrc tryGet(Latch& latch, const char* file, std::uint32_t line) noexcept {
    return latch.tryGet(Latch::U, file, line);
  }
  static void release(Latch& latch) noexcept { latch.release(Latch::U); }
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
  void lock() { mustBeHeld(Modes::get(*latch_, file_, line_)); }
  bool try_lock() { return isHeld(Modes::tryGet(*latch_, file_, line_)); }
  void unlock() noexcept { Modes::release(*latch_); }

  // Shared: waits, tries, gives back.
  void lock_shared() requires requires { &Modes::getShared; }
  { mustBeHeld(Modes::getShared(*latch_, file_, line_)); }
  bool try_lock_shared() requires requires { &Modes::getShared; }
  { return isHeld(Modes::tryGetShared(*latch_, file_, line_)); }
  void unlock_shared() noexcept requires requires { &Modes::getShared; }
  { Modes::releaseShared(*latch_); }

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
using SqloULockable = SqloLockable<sqloSXULatch, SqloUMode>;
