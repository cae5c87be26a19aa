// Memory debugging of pools (VEKMEMDBG): a guard behind each block, which is looked at when the block is freed.
#include <algorithm>
#include <cstring>

#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_settings.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr int kGuardFill = 0xFD;

SqloMemDebugControl* marker(std::uintptr_t value) noexcept { return pointerAs<SqloMemDebugControl>(value); }

void complain(std::uint32_t probe, SqlzZrc zrc, const char* text) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, FID_sqloCreateMemoryPoolEx, zrc, probe, PD_LEVEL_WARNING);
  call.message = text;
  (void)pdLogCall(&call);
}

// The pool of the debug controls, in the private set. It has none itself.
MemPool* debugPool() noexcept {
  static constinit std::atomic<MemPool*> pool{nullptr};
  if (MemPool* known = pool.load(std::memory_order_acquire); known != nullptr) return known;
  SqloMemPoolRequest request = {};
  request.size = sizeof request;
  request.poolId = SQLO_POOL_DEBUG;
  request.options = SQLO_POOL_AUTOMATIC;
  SQLO_MEM_POOL* made = nullptr;
  SqlzZrc result = sqloGetPrivateSet(&request.set);
  if (result == 0) result = sqloCreateMemoryPoolEx(&request, &made);
  if (result != 0) {
    complain(70, result, "Memory debug pool could not be created.");
    return nullptr;
  }
  MemPool* expected = nullptr;
  if (pool.compare_exchange_strong(expected, static_cast<MemPool*>(made))) return static_cast<MemPool*>(made);
  (void)sqloMemFreePools(&made, 1);
  return expected;
}

}  // namespace

void sqloi_startDebugging(MemPool& pool) noexcept {
  pool.m_debug = marker(SQLO_POOL_DEBUG_OFF);
  if (pool.m_poolId == SQLO_POOL_DEBUG || !sqloi_isSettingOn("VEKMEMDBG")) return;
  pool.m_debug = marker(SQLO_POOL_DEBUG_FAILED);
  // That of a pool which processes share stands in the pool, where all of them see it.
  SQLO_MEM_POOL* const home = pool.m_set->isPrivate() ? debugPool() : &pool;
  if (home == nullptr) return;
  void* block = nullptr;
  const SqlzZrc result =
      sqloMemPoolAllocate(home, sizeof(SqloMemDebugControl), SQLO_MEM_ZERO, __FILE__, __LINE__, &block);
  if (result != 0) return complain(80, result, "Memory debug block could not be allocated.");
  auto* control = static_cast<SqloMemDebugControl*>(block);
  control->eyeCatcher = MEM_DEBUG_EYE_CATCHER;
  control->overhead = BLOCK_GUARD_BYTES;
  pool.m_debug = control;
}

void sqloi_endDebugging(MemPool& pool) noexcept {
  SqloMemDebugControl* const control = pool.m_debug;
  if (!pool.isDebugged()) return;
  pool.m_debug = marker(SQLO_POOL_DEBUG_OFF);
  (void)sqloMemPoolFree(control, __FILE__, __LINE__);
}

// What stands behind the contents up to the next block; under AddressSanitizer it is poisoned as well.
VEK_MAY_TOUCH_POISONED void sqloi_writeGuard(Block block, std::uint32_t size, std::uint32_t stride) noexcept {
  auto* byte = static_cast<volatile std::uint8_t*>(pointerTo(block));
  for (std::uint32_t at = size; at < stride - SQLO_BLOCK_HEADER_BYTES; ++at) byte[at] = kGuardFill;
}

VEK_MAY_TOUCH_POISONED bool sqloi_isGuardWhole(Block block, std::uint32_t size, std::uint32_t stride) noexcept {
  const auto* byte = static_cast<const volatile std::uint8_t*>(pointerTo(block));
  for (std::uint32_t at = size; at < stride - SQLO_BLOCK_HEADER_BYTES; ++at)
    if (byte[at] != kGuardFill) return false;
  return true;
}

}  // namespace vek
