// The fields of a latch, for the files of this folder.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "sync/sqloLatchTable.h"
#include "veksys/sync/latch.h"

struct SqloSpinLatchAccess {
  static constexpr std::uint8_t kBetweenProcesses = SQLO_LATCH_BETWEEN_PROCESSES >> 8;
  static constexpr std::uint8_t kGuardsSharedLatch = SQLO_SLATCH_CAS32::kCsGuardsThis;

  static std::atomic_ref<std::uint8_t> held(SqloSpinLatch& latch) noexcept {
    return std::atomic_ref<std::uint8_t>(latch.m_held);
  }
  static std::uint8_t flags(const SqloSpinLatch& latch) noexcept { return latch.m_flags; }
  static void setFlags(SqloSpinLatch& latch, std::uint8_t flags) noexcept { latch.m_flags = flags; }
  // Whether it lies in freed memory. Its byte is left out: a release that came too late has cleared it.
  static bool isFreed(const SqloSpinLatch& latch) noexcept {
    return latch.m_flags == (SQLO_SLATCH_FREED & 0xFF) && latch.m_typeId == (SQLO_SLATCH_FREED & 0xFFFF);
  }
  // As SQLO_SLATCH_CAS32 has them.
  static std::uint32_t latchFlags(const SqloSpinLatch& latch) noexcept {
    return ((std::uint32_t{latch.m_flags} & kBetweenProcesses) << 8) | (latch.m_typeId & SQLO_LATCH_TYPE_MASK);
  }
  static vek::LatchSubject subject(const SqloSpinLatch& latch, vek::LatchWay way = vek::LatchWay::kWaits) noexcept {
    return {&latch, latchFlags(latch), true, false, way};
  }
};

struct SqloSharedLatchAccess {
  static std::atomic_ref<std::uint32_t> state(SQLO_SLATCH_CAS32& latch) noexcept {
    return std::atomic_ref<std::uint32_t>(latch.m_state);
  }
  static std::uint16_t& postsPending(SQLO_SLATCH_CAS32& latch) noexcept { return latch.m_numXPostsPending; }
  static SqloSpinLatch& cs(SQLO_SLATCH_CAS32& latch) noexcept { return latch.m_cs; }
  static std::uint64_t& element(SQLO_SLATCH_CAS32& latch) noexcept { return latch.m_pSemPoolElement; }
  static bool isBetweenProcesses(const SQLO_SLATCH_CAS32& latch) noexcept {
    return (latch.m_flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0;
  }
  static vek::LatchSubject subject(const SQLO_SLATCH_CAS32& latch, bool exclusive,
                                   vek::LatchWay way = vek::LatchWay::kWaits) noexcept {
    return {&latch, latch.m_flags, exclusive, true, way};
  }
  static SQLO_SLATCH_CAS32& ofCs(SqloSpinLatch& cs) noexcept {
    return *reinterpret_cast<SQLO_SLATCH_CAS32*>(reinterpret_cast<char*>(&cs) - offsetof(SQLO_SLATCH_CAS32, m_cs));
  }
  // A request that does not spin (SQLO_XLONG_LATCH).
  static SqlzZrc getExclusiveLong(SQLO_SLATCH_CAS32& latch, const char* file, std::uint32_t line) noexcept;
  // Wakes one exclusive waiter to look again.
  static void post(SQLO_SLATCH_CAS32& latch) noexcept;
};

namespace vek {

// Holds the cs of a shared latch for the length of a scope.
class CsGuard {
 public:
  explicit CsGuard(SQLO_SLATCH_CAS32& latch) noexcept : cs_(SqloSharedLatchAccess::cs(latch)) {
    (void)cs_.captureLatch("sqloLatchCAS32", __LINE__);  // its holder's death is repaired, never refused
  }
  ~CsGuard() { cs_.releaseLatch(); }
  CsGuard(const CsGuard&) = delete;
  CsGuard& operator=(const CsGuard&) = delete;

 private:
  SqloSpinLatch& cs_;
};

// Turns the calling thread's exclusive hold into a shared one and lets in whom that lets in.
void sqloi_downgrade(SQLO_SLATCH_CAS32& latch) noexcept;

}  // namespace vek
