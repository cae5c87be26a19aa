// What happens to the digits that a conversion drops.
#pragma once

#include <cstdint>

#include "platform/ossx.h"

namespace vek {

// Whether the process rounds at all.
bool sqlvi_roundingIsOn() noexcept;

// The rounding mode of decimal results without `_trunc`: DFPAL_ROUND_DOWN, unless the setting is on and the thread's
// mode is another than the default one of the control flags.
std::uint32_t sqlvi_decimalRounding() noexcept;

}  // namespace vek
