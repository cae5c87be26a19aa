// The process-wide rounding setting.
#include "values/sqlv_rounding.h"

#include <atomic>

#include "veksys/values/dfpal.h"
#include "veksys/values/packed_decimal.h"

namespace vek {
namespace {

constexpr std::uint16_t kRoundingOn = 1;
constinit std::atomic<std::uint16_t> g_rounding = 0;

}  // namespace

bool sqlvi_roundingIsOn() noexcept { return g_rounding.load(std::memory_order_relaxed) == kRoundingOn; }

std::uint32_t sqlvi_decimalRounding() noexcept {
  if (!sqlvi_roundingIsOn()) return DFPAL_ROUND_DOWN;
  DfpalControlFlags flags = {};
  dfpalGetControlFlags(&flags);
  const std::uint32_t mode = dfpalGetRoundingMode();
  return mode == flags.defaultRounding ? DFPAL_ROUND_DOWN : mode;
}

}  // namespace vek

void sqlvSetDecimalRounding(std::uint16_t setting) noexcept {
  vek::g_rounding.store(setting, std::memory_order_relaxed);
}

std::uint16_t sqlvGetDecimalRounding() noexcept { return vek::g_rounding.load(std::memory_order_relaxed); }
