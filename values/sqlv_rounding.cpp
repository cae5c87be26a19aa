// The process-wide rounding setting.
#include <atomic>

#include "values/sqlv_packed.h"

namespace vek {
namespace {

constexpr std::uint16_t kRoundingOn = 1;
constinit std::atomic<std::uint16_t> g_rounding = 0;

}  // namespace

bool sqlvi_roundingIsOn() noexcept { return g_rounding.load(std::memory_order_relaxed) == kRoundingOn; }

}  // namespace vek

void sqlvSetDecimalRounding(std::uint16_t setting) noexcept {
  vek::g_rounding.store(setting, std::memory_order_relaxed);
}

std::uint16_t sqlvGetDecimalRounding() noexcept { return vek::g_rounding.load(std::memory_order_relaxed); }
