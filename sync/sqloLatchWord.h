// The latch word: what conflicts with what, and which words cannot be.
#pragma once

#include <cstdint>

#include "veksys/codes.h"
#include "veksys/sync/latch.h"

namespace vek {

// The bits of a word that a request conflicts with.
constexpr std::uint32_t latchConflictMask(SqloLatchRequest request, std::uint32_t flags) noexcept {
  if (request == SQLO_LATCH_EXCLUSIVE) return SQLO_SLATCH_HELD_X | SQLO_SLATCH_HOLDERS;
  const bool noStarvation = (flags & SQLO_LATCH_NO_X_STARVATION) != 0;
  return noStarvation ? SQLO_SLATCH_HELD_X | SQLO_SLATCH_RESERVED_X | SQLO_SLATCH_WAITER_X : SQLO_SLATCH_HELD_X;
}

// What meets the word: it decides between the two codes for a word with an exclusive and shared holders.
//   kOther, kReleases   0x870F00FB: the word is held exclusive, and should not have shared holders
//   kExpectsShared      0x870F00FC: the caller is a shared holder, and there should be no exclusive one
enum class LatchUse { kOther, kReleases, kExpectsShared };

// The code of a word that no sequence of operations can have produced, 0 for a sound one. The pattern of freed memory
// first, then the invariants one by one.
constexpr SqlzZrc latchWordFault(std::uint32_t state, std::uint32_t flags, LatchUse use) noexcept {
  const bool noStarvation = (flags & SQLO_LATCH_NO_X_STARVATION) != 0;
  const bool heldX = (state & SQLO_SLATCH_HELD_X) != 0;
  const bool heldS = (state & SQLO_SLATCH_HOLDERS) != 0;
  const bool reserved = (state & SQLO_SLATCH_RESERVED_X) != 0;
  const bool waiterS = (state & SQLO_SLATCH_WAITER_S) != 0;
  const bool waiterX = (state & SQLO_SLATCH_WAITER_X) != 0;
  if (state == SQLO_SLATCH_FREED) return SQLO_LATCH_ERROR_USED_WHILE_FREED;
  if ((state & SQLO_SLATCH_UNUSED) != 0) return SQLO_LATCH_ERROR_UNUSED_BITS_ARE_SET;
  if (heldX && heldS)
    return use == LatchUse::kExpectsShared ? SQLO_SLATCH_ERROR_HELDS_WITH_X_HOLDER
                                           : SQLO_SLATCH_ERROR_HELDX_WITH_SHARED_HOLDERS;
  if (!noStarvation && heldS && waiterS) return SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER;
  if (noStarvation && heldS && waiterS && !waiterX) return SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER_NO_XWAITER;
  if (heldX && reserved) return SQLO_SLATCH_ERROR_HELD_WITH_X_RESERVATION;
  if (!noStarvation && reserved) return SQLO_SLATCH_ERROR_STARVEX_AND_X_RESERVATION;
  return 0;
}

}  // namespace vek
