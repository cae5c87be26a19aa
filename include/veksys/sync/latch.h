// Latches: the short-term locks over structures in memory.
//
// Two kinds stand here. The spin latch is one byte, exclusive only, for a few instructions. SQLO_SLATCH_CAS32 is a
// word changed by compare-and-swap that admits many shared holders or one exclusive holder; whoever does not get it
// spins a while and then sleeps on a semaphore. The composites built on them: composite_latch.h.
//
// Both kinds work between the threads of a process, and between processes in memory that all of them map at the same
// address; latches of the second sort are initialised with SQLO_LATCH_BETWEEN_PROCESSES.
//
// Rules for all latches
//   - Whoever takes a latch releases it: the thread, not another one.
//   - No latch times out. A request without CONDITIONAL waits until it is granted.
//   - Capturing traces nothing and logs nothing as long as nothing has gone wrong. The first capture of a process reads
//     the tuning (sqloInitializeLatchTuningInfo) unless sqlolatchinginit did, and reports what it does not understand
//     there.
//   - A child of fork has the latches of its parent's memory as they were, and none of the threads that held them: a
//     private latch that another thread of the parent held stays held in the child. Fork while no other thread
//     captures, or exec.
//   - Every capture is noted in the calling thread's tracking table, before it is attempted, with the file and the line
//     of the caller (__FILE__ and __LINE__, or any text that lives as long as the process). `veksys latch` shows them,
//     and a thread that ends with latches held is reported. See latch_control.h.
//   - A word that no sequence of operations can have produced is corruption: the process stops (sqloPanic).
//   - A latch whose holder has died is not waited for in silence. A shared hold of a dead thread is taken back, since
//     a reader leaves the data as they were. What becomes of an exclusive one is told by the type of the latch
//     (sqloSetLatchDeathPolicy); without a policy the process stops, since the data may be half changed.
//
// Result of every capture
//   0                        the latch is held
//   SQLO_NOTAVAIL            a conditional request that could not be granted at once, whatever became of the holder
//   SQLO_LATCH_HOLDER_DIED   its exclusive holder died and its type refuses repair; the latch is not held
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

// How many latch types there are. A type is a number below that; its name: sqloLatchTypeName.
inline constexpr std::uint32_t SQLO_LATCH_TYPE_COUNT = 1184;

// Flags of a latch. The lower bits of the field `flags` hold the latch type.
inline constexpr std::uint16_t SQLO_LATCH_X_STARVATION = 0;            // shared requests pass a waiting exclusive one
inline constexpr std::uint16_t SQLO_LATCH_NO_X_STARVATION = 0x8000;    // they do not
inline constexpr std::uint16_t SQLO_LATCH_BETWEEN_PROCESSES = 0x4000;  // in memory shared by processes
inline constexpr std::uint16_t SQLO_LATCH_PRINTED_FLAGS = 0xE000;
inline constexpr std::uint16_t SQLO_LATCH_TYPE_MASK = 0x07FF;

class SqloSpinLatch;

extern "C" {
// The way of a thread that found a spin latch taken: tries again with spinning, then yields the processor between
// attempts, then rests between them, until it has the latch. The tuning of the latch's type holds; types from 127
// on share the last slot. Called by captureLatch.
VEK_EXPORT SqlzZrc sqloSpinLockConflict(SqloSpinLatch* latch) noexcept;
}

// The spin latch. Four bytes, no destructor; an all-zero one is free and of type 0. Copying a latch makes no sense, and
// nothing but its members changes it.
class VEK_EXPORT SqloSpinLatch {
 public:
  constexpr SqloSpinLatch() noexcept = default;
  SqloSpinLatch(const SqloSpinLatch&) = delete;
  SqloSpinLatch& operator=(const SqloSpinLatch&) = delete;

  // Makes it free. `typeId` below SQLO_LATCH_TYPE_COUNT (a larger one becomes 0); `flags`: SQLO_LATCH_BETWEEN_PROCESSES
  // or 0. Nobody may use the latch meanwhile.
  void init(std::uint16_t typeId, std::uint16_t flags = 0) noexcept;

  // Waits for the latch, or answers at once.
  SqlzZrc captureLatch(const char* file, std::uint32_t line) noexcept;
  SqlzZrc tryCaptureLatch(const char* file, std::uint32_t line) noexcept;

  // Gives it back. Releasing a free one is SQLO_LATCH_NOT_HELD and stops the process.
  void releaseLatch() noexcept;

  // What the byte says at this moment, for dumps and assertions of the holder.
  bool isHeld() const noexcept { return __atomic_load_n(&m_held, __ATOMIC_RELAXED) != 0; }
  std::uint16_t typeId() const noexcept { return m_typeId; }
  bool isBetweenProcesses() const noexcept { return (m_flags & (SQLO_LATCH_BETWEEN_PROCESSES >> 8)) != 0; }

  // Its text form, as it stands in the text of a shared latch. Cut to `size`, terminated; returns the characters.
  std::size_t toString(char* buffer, std::size_t size) const noexcept;

 private:
  friend class SQLO_SLATCH_CAS32;
  friend struct SqloSpinLatchAccess;

  constexpr SqloSpinLatch(std::uint16_t typeId, std::uint8_t flags) noexcept : m_flags(flags), m_typeId(typeId) {}

  std::uint8_t m_held = 0;
  std::uint8_t m_flags = 0;
  std::uint16_t m_typeId = 0;
};
static_assert(sizeof(SqloSpinLatch) == 4);

// A request for a shared latch: what it adds to the word. CONDITIONAL beside it: answer at once.
using SqloLatchRequest = std::uint32_t;
inline constexpr SqloLatchRequest SQLO_LATCH_SHARED = 0x00000001;
inline constexpr SqloLatchRequest SQLO_LATCH_EXCLUSIVE = 0x00010000;
inline constexpr SqloLatchRequest SQLO_LATCH_CONDITIONAL = 0x80000000;

// The latch word.
inline constexpr std::uint32_t SQLO_SLATCH_HOLDERS = 0x0000FFFF;  // number of shared holders
inline constexpr std::uint32_t SQLO_SLATCH_HELD_X = 0x00010000;
inline constexpr std::uint32_t SQLO_SLATCH_RESERVED_X = 0x00100000;
inline constexpr std::uint32_t SQLO_SLATCH_WAITER_S = 0x01000000;
inline constexpr std::uint32_t SQLO_SLATCH_WAITER_X = 0x10000000;
inline constexpr std::uint32_t SQLO_SLATCH_UNUSED = 0xEEEE0000;
inline constexpr std::uint32_t SQLO_SLATCH_FREED = 0xDDDDDDDD;  // what freed memory is filled with

// The shared latch. An all-zero one is free, private, of type 0 and lets readers pass writers.
//
// Under SQLO_LATCH_X_STARVATION a shared request conflicts with an exclusive holder only. Under
// SQLO_LATCH_NO_X_STARVATION it also conflicts with a waiting exclusive requester and with the reservation made for
// one: a thread that holds such a latch shared must not ask for it shared again.
class VEK_EXPORT SQLO_SLATCH_CAS32 {
 public:
  constexpr SQLO_SLATCH_CAS32() noexcept = default;

  // What init makes of a private latch, for objects that are there before any code has run: nothing need be done, or
  // guarded, at the first use. `typeId` below SQLO_LATCH_TYPE_COUNT; `policy`: SQLO_LATCH_X_STARVATION or
  // SQLO_LATCH_NO_X_STARVATION.
  constexpr SQLO_SLATCH_CAS32(std::uint16_t typeId, std::uint16_t policy) noexcept
      : m_flags(static_cast<std::uint16_t>(policy | typeId)), m_cs(typeId, kCsGuardsThis) {}

  SQLO_SLATCH_CAS32(const SQLO_SLATCH_CAS32&) = delete;
  SQLO_SLATCH_CAS32& operator=(const SQLO_SLATCH_CAS32&) = delete;

  // Makes it free. `typeId` below SQLO_LATCH_TYPE_COUNT; `flags`: the policy and, in memory shared by processes,
  // SQLO_LATCH_BETWEEN_PROCESSES, which draws the semaphore element its waiters sleep on. Nobody may use the latch
  // meanwhile.
  //
  //   Result   0
  //            SQLO_INV_PARM            typeId or flags out of range; nothing is changed
  //            SQLO_REGION_...          between processes, and this process shares no instance region
  //            (vekInstanceStatus) SQLO_NOMEM_LATCH_POOL    no semaphore element is left
  SqlzZrc init(std::uint16_t typeId, std::uint16_t flags) noexcept;

  // Gives the semaphore element back. The latch must be free; nobody may use it any more. Harmless on a private one.
  void term() noexcept;

  // Captures. Shared holds of one thread count separately, each is released once.
  SqlzZrc getShared(const char* file, std::uint32_t line) noexcept;
  SqlzZrc getExclusive(const char* file, std::uint32_t line) noexcept;
  SqlzZrc tryGetShared(const char* file, std::uint32_t line) noexcept;
  SqlzZrc tryGetExclusive(const char* file, std::uint32_t line) noexcept;

  // Gives one hold back, the exclusive one or a shared one. Releasing a free latch stops the process.
  void release() noexcept;

  // Turns the caller's hold into one of the other mode. To exclusive: waits until the caller is the only holder left,
  // with SQLO_LATCH_CONDITIONAL not at all. To shared: at once. On a code other than 0 the hold is what it was.
  //
  //   Result   0; SQLO_NOTAVAIL
  //            SQLO_INV_PARM: no such request
  //            SQLO_LATCH_UPGRADE_CONFLICT: another shared holder waits to become the exclusive one, each would wait
  //            for the other for ever; or none could be told of the other, since all 1,024 semaphore elements of the
  //            process are in use
  SqlzZrc convert(SqloLatchRequest request, const char* file, std::uint32_t line) noexcept;

  // The slow ways behind them, whole: each tracks what it does, without a file. A hold that getConflict obtained is
  // given back by releaseConflict or release. SQLO_INV_PARM: no such request.
  SqlzZrc getConflict(SqloLatchRequest request) noexcept;
  void releaseConflict() noexcept;
  SqlzZrc convertConflict(SqloLatchRequest request) noexcept;

  // The word, at this moment.
  std::uint32_t state() const noexcept { return __atomic_load_n(&m_state, __ATOMIC_RELAXED); }
  std::uint16_t flags() const noexcept { return m_flags; }
  std::uint16_t typeId() const noexcept { return m_flags & SQLO_LATCH_TYPE_MASK; }

  // Text forms, for dumps. Cut to `size`, terminated; return the characters. Any bytes may stand in the latch: nothing
  // is checked and nothing is followed.
  std::size_t toString(char* buffer, std::size_t size) const noexcept;
  static std::size_t stateToString(std::uint32_t state, char* buffer, std::size_t size) noexcept;

 private:
  friend struct SqloSharedLatchAccess;
  friend struct SqloSpinLatchAccess;

  static constexpr std::uint8_t kCsGuardsThis = 1;  // of the flags of m_cs

  std::uint32_t m_state = 0;
  std::uint16_t m_flags = 0;
  std::uint16_t m_numXPostsPending = 0;
  SqloSpinLatch m_cs;
  // The semaphore element: of a private latch its address, while there are waiters; of one between processes the number
  // of the element plus one, for life, since an address would mean something else in every process.
  std::uint64_t m_pSemPoolElement = 0;
};
static_assert(sizeof(SQLO_SLATCH_CAS32) == 24);
