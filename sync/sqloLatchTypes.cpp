// The names of the latch types.
#include <iterator>

#include "veksys/sync/latch_control.h"

namespace {
#include "latch_types.inc"

static_assert(std::size(kLatchTypeNames) == SQLO_LATCH_TYPE_COUNT);
}  // namespace

const char* sqloLatchTypeName(std::uint32_t typeId) noexcept {
  return typeId < SQLO_LATCH_TYPE_COUNT ? kLatchTypeNames[typeId] : "SQLO_LT_UNKNOWN";
}
